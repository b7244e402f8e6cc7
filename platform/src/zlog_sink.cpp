#include "zlog_sink.h"
#include "log_open.h"

#include <spdlog/sinks/rotating_file_sink.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

zlog_file_sink::zlog_file_sink(std::string path, uint64_t max_size, unsigned max_files, bool buffered)
    : path_(std::move(path)), max_size_(max_size), max_files_(max_files), buffered_(buffered)
{
}

zlog_file_sink::~zlog_file_sink()
{
    if (fd_ >= 0)
        close(fd_);
}

bool zlog_file_sink::open(std::string *why)
{
    std::lock_guard<std::mutex> guard(mutex_);
    bool ok = reopen();
    if (!ok && why)
        *why = lost_why_;
    return ok;
}

uint64_t zlog_file_sink::bytes_written()
{
    std::lock_guard<std::mutex> guard(mutex_);
    return written_;
}

uint64_t zlog_file_sink::lines_lost()
{
    std::lock_guard<std::mutex> guard(mutex_);
    return lost_;
}

bool zlog_file_sink::reopen()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = qn_log_open(path_, &lost_why_);
    if (fd_ < 0)
        return false;
    struct stat st;
    size_ = fstat(fd_, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    return true;
}

/* stovig.log -> stovig.1.log -> stovig.2.log ...; the oldest is replaced.
 * rename() replaces whatever is at the target, a planted link included,
 * without following it. */
void zlog_file_sink::rotate()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    for (unsigned i = max_files_; i > 0; --i) {
        std::string from = spdlog::sinks::rotating_file_sink_mt::calc_filename(path_, i - 1);
        std::string to = spdlog::sinks::rotating_file_sink_mt::calc_filename(path_, i);
        rename(from.c_str(), to.c_str());
    }
    reopen();
}

void zlog_file_sink::sink_it_(const spdlog::details::log_msg &msg)
{
    spdlog::memory_buf_t line;
    formatter_->format(msg, line);
    uint64_t filled = size_ + pending_.size();
    if (max_size_ && filled > 0 && filled + line.size() > max_size_) {
        write_pending();
        rotate();
    }
    pending_.append(line.data(), line.size());
    ++pending_lines_;
    if (!buffered_ || msg.level >= spdlog::level::warn || pending_.size() >= buffer_limit)
        write_pending();
}

void zlog_file_sink::flush_()
{
    write_pending();
}

/* The line that reports the lines lost since the last one that got out. */
bool zlog_file_sink::write_lost_notice()
{
    /* Sized to the reason, which may start with the file's path: a long
     * path must not cut the reason off. */
    std::string text = fmt::format("LOST  {} lines could not be written to this file ({})", lost_,
                                   lost_why_.empty() ? "unknown error" : lost_why_);
    spdlog::details::log_msg msg(spdlog::source_loc{}, "", spdlog::level::err, text);
    spdlog::memory_buf_t notice;
    if (broken_line_)
        notice.push_back('\n');
    formatter_->format(msg, notice);
    size_t done = 0;
    bool ok = qn_log_write_all(fd_, notice.data(), notice.size(), &done);
    size_ += done;
    written_ += done;
    if (!ok) {
        lost_why_ = strerror(errno);
        if (done > 0)
            broken_line_ = notice.data()[done - 1] != '\n';
        return false;
    }
    lost_ = 0;
    broken_line_ = false;
    return true;
}

void zlog_file_sink::write_pending()
{
    if (pending_.empty())
        return;
    bool ok = fd_ >= 0 || reopen();
    if (ok && lost_ > 0)
        ok = write_lost_notice();
    if (!ok) {
        lost_ += pending_lines_;
    } else {
        size_t done = 0;
        if (!qn_log_write_all(fd_, pending_.data(), pending_.size(), &done)) {
            lost_why_ = strerror(errno);
            /* Every line whose end did not get out is lost, the cut one too. */
            lost_ += static_cast<uint64_t>(std::count(pending_.begin() + static_cast<long>(done), pending_.end(), '\n'));
            if (done > 0)
                broken_line_ = pending_[done - 1] != '\n';
        }
        size_ += done;
        written_ += done;
    }
    pending_.clear();
    pending_lines_ = 0;
}
