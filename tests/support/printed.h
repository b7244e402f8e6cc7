/* Test helper: a printer for the show commands (their printf-like callback)
 * that keeps everything printed in `printed`, whatever its length. */
#ifndef TEST_PRINTED_H
#define TEST_PRINTED_H

#include <cstdarg>
#include <cstdio>
#include <string>

inline std::string printed;

inline int capture(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(text.data(), text.size(), fmt, ap);
    va_end(ap);
    text.pop_back();
    printed += text;
    return n;
}

#endif
