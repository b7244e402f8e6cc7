#include "misc/res_path.h"

#include <cstdlib>

std::string res_host_path(const char *path)
{
    const char *root = getenv("STOVIG_ROOT");
    if (!root || !*root || !path)
        return path ? path : "";
    return std::string(root) + path;
}
