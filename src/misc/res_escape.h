/* Text that came from outside (bus records, the device manager, the host) is
 * made safe before it reaches a log line, an event line or the operator's
 * terminal.  Kept byte for byte: printable ASCII (the backslash included) and
 * every well-formed UTF-8 sequence of a printable character.  Escaped as
 * "\xHH" per byte, two lower-case hex digits: the C0 controls 0x00-0x1f and
 * DEL 0x7f (a newline cannot start a forged line, ESC cannot start a
 * sequence), the C1 controls U+0080-U+009F (encoded c2 80..c2 9f), and every
 * byte that is not part of a well-formed UTF-8 sequence (stray continuation
 * bytes, overlong forms, surrogates, code points above U+10FFFF, sequences cut
 * short): a raw 0x9b or 0x9d is CSI or OSC to a terminal that reads 8-bit
 * controls. */
#ifndef RES_ESCAPE_H
#define RES_ESCAPE_H

#include <stddef.h>

#include <string>

/* Length of the well-formed UTF-8 sequence at `p` (of `left` bytes; ASCII,
 * controls included, is one byte), or 0 when the byte at `p` starts none. */
size_t res_utf8_len(const unsigned char *p, size_t left);

/* How many bytes at `p` (of `left` bytes) are kept as they are: the length
 * of one printable ASCII character or well-formed UTF-8 sequence of a
 * character that is not a control, or 0 when the byte at `p` is escaped. */
size_t res_escape_kept_len(const unsigned char *p, size_t left);

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
