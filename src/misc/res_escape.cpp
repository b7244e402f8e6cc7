#include "misc/res_escape.h"

#include <cstring>

size_t res_utf8_len(const unsigned char *p, size_t left)
{
    if (left == 0)
        return 0;
    unsigned char c = p[0];
    if (c < 0x80)
        return 1;
    /* The lead byte gives the length and the range its first continuation
     * byte may take (RFC 3629): no overlong forms, no surrogates, nothing
     * above U+10FFFF. */
    size_t len;
    unsigned char lo = 0x80, hi = 0xbf;
    if (c >= 0xc2 && c <= 0xdf) {
        len = 2;
    } else if (c >= 0xe0 && c <= 0xef) {
        len = 3;
        if (c == 0xe0)
            lo = 0xa0;
        else if (c == 0xed)
            hi = 0x9f;
    } else if (c >= 0xf0 && c <= 0xf4) {
        len = 4;
        if (c == 0xf0)
            lo = 0x90;
        else if (c == 0xf4)
            hi = 0x8f;
    } else {
        return 0; /* a continuation byte on its own, c0, c1, f5-ff */
    }
    if (left < len || p[1] < lo || p[1] > hi)
        return 0;
    for (size_t i = 2; i < len; ++i)
        if (p[i] < 0x80 || p[i] > 0xbf)
            return 0;
    return len;
}

size_t res_escape_kept_len(const unsigned char *p, size_t left)
{
    size_t len = res_utf8_len(p, left);
    if (len == 0)
        return 0;
    /* C0 controls and DEL. */
    if (p[0] < 0x20 || p[0] == 0x7f)
        return 0;
    /* U+0080-U+009F: the C1 controls. */
    if (p[0] == 0xc2 && p[1] <= 0x9f)
        return 0;
    return len;
}

std::string res_escape_bytes(const char *text, size_t len)
{
    static const char hex[] = "0123456789abcdef";
    const auto *p = reinterpret_cast<const unsigned char *>(text);
    std::string out;
    out.reserve(len);
    size_t i = 0;
    while (i < len) {
        size_t kept = res_escape_kept_len(p + i, len - i);
        if (kept > 0) {
            out.append(text + i, kept);
            i += kept;
            continue;
        }
        /* One byte at a time: of a C1 control, the second byte is then a
         * stray continuation byte and escaped in turn. */
        out.push_back('\\');
        out.push_back('x');
        out.push_back(hex[p[i] >> 4]);
        out.push_back(hex[p[i] & 0xf]);
        ++i;
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
    size_t len = strlen(text);
    if (len > 0 && text[len - 1] == '\n')
        --len;
    const auto *p = reinterpret_cast<const unsigned char *>(text);
    for (size_t i = 0; i < len;) {
        size_t kept = res_escape_kept_len(p + i, len - i);
        if (kept == 0)
            return true;
        i += kept;
    }
    return false;
}
