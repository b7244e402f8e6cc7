/* The file behind one destination of a zlog category: an spdlog sink that
 * opens its file safely (see log_open.h), rotates it by size at line
 * boundaries, and either writes every line at once or gathers lines in
 * memory until a line of warning level or above comes, the buffer fills,
 * or the periodic flush runs.  Lines that cannot be written are counted, and
 * the count is reported by a line of its own in front of the next write
 * that succeeds. */
#ifndef QN_ZLOG_SINK_H
#define QN_ZLOG_SINK_H

#include <spdlog/sinks/base_sink.h>

#include <cstdint>
#include <mutex>
#include <string>

class zlog_file_sink final : public spdlog::sinks::base_sink<std::mutex> {
  public:
    /* Lines gathered before a write is forced, when buffering. */
    static constexpr size_t buffer_limit = 64 * 1024;

    zlog_file_sink(std::string path, uint64_t max_size, unsigned max_files, bool buffered);
    ~zlog_file_sink() override;

    /* Opens (or creates) the file; false with the reason when it cannot. */
    bool open(std::string *why);

    uint64_t bytes_written();
    uint64_t lines_lost();

  protected:
    void sink_it_(const spdlog::details::log_msg &msg) override;
    void flush_() override;

  private:
    bool reopen();
    void rotate();
    void write_pending();
    bool write_lost_notice();

    const std::string path_;
    const uint64_t max_size_;
    const unsigned max_files_;
    const bool buffered_;
    int fd_ = -1;
    uint64_t size_ = 0;        /* bytes in the current file */
    std::string pending_;      /* formatted lines not yet written */
    uint64_t pending_lines_ = 0;
    uint64_t written_ = 0;     /* bytes written over the sink's life */
    uint64_t lost_ = 0;        /* lines dropped since the last report */
    std::string lost_why_;
    bool broken_line_ = false; /* the file ends inside a line cut by a failed write */
};

#endif
