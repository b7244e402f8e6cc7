/* Text that came from outside (bus records, the device manager, the host) is
 * made safe before it reaches a log line, an event line or the operator's
 * terminal: every control byte (0x00-0x1f and 0x7f) becomes "\xHH" with two
 * lower-case hex digits, so a newline cannot start a forged line and an
 * escape sequence cannot drive the terminal.  Printable text, the backslash
 * included, and bytes from 0x80 up (UTF-8) are kept byte for byte. */
#ifndef RES_ESCAPE_H
#define RES_ESCAPE_H

#include <stddef.h>

#include <string>

/* Whether a byte is escaped. */
static inline bool res_escape_needed(unsigned char c)
{
    return c < 0x20 || c == 0x7f;
}

/* The escaped form of the first `len` bytes of `text`. */
std::string res_escape_bytes(const char *text, size_t len);

/* The escaped form of a zero-terminated text; null gives "". */
std::string res_escape(const char *text);

/* As res_escape(), but one newline that ends the text is kept as it is (the
 * log library takes it off a message). */
std::string res_escape_keep_final_newline(const char *text);

/* Whether res_escape_keep_final_newline() would change `text`. */
bool res_escape_wanted(const char *text);

#endif
