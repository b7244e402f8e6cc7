#include "misc/res_escape.h"

#include <cstring>

std::string res_escape_bytes(const char *text, size_t len)
{
    static const char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(len);
    for (size_t i = 0; i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (!res_escape_needed(c)) {
            out.push_back(static_cast<char>(c));
            continue;
        }
        out.push_back('\\');
        out.push_back('x');
        out.push_back(hex[c >> 4]);
        out.push_back(hex[c & 0xf]);
    }
    return out;
}

std::string res_escape(const char *text)
{
    return text ? res_escape_bytes(text, strlen(text)) : std::string();
}

std::string res_escape_keep_final_newline(const char *text)
{
    if (!text)
        return std::string();
    size_t len = strlen(text);
    if (len > 0 && text[len - 1] == '\n')
        return res_escape_bytes(text, len - 1) + '\n';
    return res_escape_bytes(text, len);
}

bool res_escape_wanted(const char *text)
{
    if (!text)
        return false;
    for (const char *p = text; *p; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (res_escape_needed(c) && !(c == '\n' && p[1] == '\0'))
            return true;
    }
    return false;
}
