/* Text that came from the bus or the host, made safe for a terminal or a log
 * line: anyone can write the store, so a control byte or an escape sequence
 * in a key or a reason must never reach a terminal as it is. */
#ifndef QN_TEXT_ESCAPE_H
#define QN_TEXT_ESCAPE_H

#include <string>
#include <string_view>

/* `text` with every byte that is not printable ASCII, the backslash, and any
 * byte listed in `also` written as \xNN. */
std::string qn_escape_bytes(std::string_view text, std::string_view also = {});

#endif
