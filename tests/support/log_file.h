/* Test helper: a log file a test reads back, asking whether a text was
 * logged and how often. */
#ifndef TEST_LOG_FILE_H
#define TEST_LOG_FILE_H

#include "slurp.h"

#include <fstream>
#include <string>

struct log_file {
    std::string file;

    std::string text() const { return slurp(file); }
    void clear() const { std::ofstream(file, std::ios::trunc); }
    bool has(const std::string &needle) const { return text().find(needle) != std::string::npos; }
    int count(const std::string &needle) const
    {
        std::string t = text();
        int n = 0;
        for (size_t p = t.find(needle); p != std::string::npos; p = t.find(needle, p + 1))
            ++n;
        return n;
    }
};

#endif
