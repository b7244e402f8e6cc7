/* The escaping of bus and host text before it reaches a terminal or a log
 * line. */
#include "qn_text_escape.h"

#include <gtest/gtest.h>

#include <string>

TEST(TextEscape, PrintableAsciiPassesUnchanged)
{
    EXPECT_EQ(qn_escape_bytes("slot 1: CM-A ok"), "slot 1: CM-A ok");
    EXPECT_EQ(qn_escape_bytes(""), "");
}

TEST(TextEscape, ControlBytesBackslashAndHighBytesAreWrittenAsHex)
{
    EXPECT_EQ(qn_escape_bytes("a\x1b]0;t\x07\\b"), "a\\x1b]0;t\\x07\\x5cb");
    EXPECT_EQ(qn_escape_bytes("\t\n\x7f\xc3\xa9"), "\\x09\\x0a\\x7f\\xc3\\xa9");
    EXPECT_EQ(qn_escape_bytes(std::string("a\0b", 3)), "a\\x00b");
}

TEST(TextEscape, BytesAskedForAreEscapedToo)
{
    EXPECT_EQ(qn_escape_bytes("say \"hi\""), "say \"hi\"");
    EXPECT_EQ(qn_escape_bytes("say \"hi\"", "\""), "say \\x22hi\\x22");
}
