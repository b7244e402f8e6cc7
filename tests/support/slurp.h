/* Test helper: the whole of a file as a string (empty when it cannot be
 * read, so a missing log reads as "nothing logged"). */
#ifndef TEST_SLURP_H
#define TEST_SLURP_H

#include <fstream>
#include <sstream>
#include <string>

inline std::string slurp(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

#endif
