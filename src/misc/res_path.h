/* Fixed host paths (/proc, /sys, /data, /tmp files, mount points, tools) are
 * read and written through res_host_path(), which puts the value of
 * STOVIG_ROOT in front when it is set, so that the daemon can run against a
 * fixture tree.  Unset, the path is returned as it is. */
#ifndef RES_PATH_H
#define RES_PATH_H

#include <string>

std::string res_host_path(const char *path);

#endif
