#include "qn_text_escape.h"

#include <cstdio>

std::string qn_escape_bytes(std::string_view text, std::string_view also)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        unsigned char ch = static_cast<unsigned char>(c);
        if (ch >= 0x20 && ch < 0x7f && ch != '\\' && also.find(c) == std::string_view::npos) {
            out += c;
        } else {
            char esc[8];
            snprintf(esc, sizeof esc, "\\x%02x", ch);
            out += esc;
        }
    }
    return out;
}
