/* Files of the command-line service stand-in: the command socket and the
 * startup configuration.  Each is used only in a directory owned by this
 * process's user that nobody else may write, opened relative to the
 * directory without following symbolic links.  Used by the service and its
 * tests. */
#ifndef QN_CLI_FILES_H
#define QN_CLI_FILES_H

#include <string>
#include <vector>

/* Opens `dir` when it is a directory (not a symbolic link) owned by this
 * process's user that neither its group nor others may write; the descriptor,
 * or -1 with the reason in `why`. */
int cli_open_private_dir(const std::string &dir, std::string &why);

/* Creates the command socket at `path` in a private directory, owner only,
 * replacing a stale socket of ours but nothing else.  The bound socket
 * (non-blocking, not yet listening), or -1 with the reason in `why`. */
int cli_socket_create(const std::string &path, std::string &why);

/* Reads the startup configuration: true with its lines, or with none when
 * there is no file; false with the reason when the file is not one this
 * process wrote (not a regular file owned by us, writable by its group or
 * others, a symbolic link, larger than a configuration gets) or cannot be
 * read. */
bool cli_startup_read(const std::string &path, std::vector<std::string> &lines, std::string &why);

/* Replaces the startup configuration with `text` atomically: a new file
 * written, synced and renamed into place, the previous one kept with the
 * saved suffix.  On any failure the previous file is left as it was and
 * `why` says what failed. */
bool cli_startup_write(const std::string &path, const std::string &text, std::string &why);

#endif
