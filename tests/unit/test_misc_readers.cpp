/* The shared text readers: line reading with cut long lines, and word
 * splitting as "%s" splits. */
#include "misc/res_read.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using lines = std::vector<std::string>;

/* Every line res_misc_read_line() gives for `text` with a buffer of `len`
 * bytes. */
lines read_all(const std::string &text, size_t len)
{
    lines out;
    FILE *fp = tmpfile();
    if (!fp)
        return {"no temporary file"};
    fwrite(text.data(), 1, text.size(), fp);
    rewind(fp);
    std::vector<char> buf(len);
    while (res_misc_read_line(fp, buf.data(), len))
        out.emplace_back(buf.data());
    fclose(fp);
    return out;
}

TEST(MiscReadLine, ReadsLinesWithTheirNewlineAndStopsAtEnd)
{
    EXPECT_EQ((lines{"one\n", "two\n"}), read_all("one\ntwo\n", 16));
    EXPECT_EQ(lines{}, read_all("", 16));
}

TEST(MiscReadLine, LastLineWithoutNewlineIsALine)
{
    EXPECT_EQ((lines{"one\n", "tail"}), read_all("one\ntail", 16));
}

TEST(MiscReadLine, LongLineIsCutAndItsRestPassedOver)
{
    EXPECT_EQ((lines{"abcdefg", "next\n"}), read_all("abcdefghijklmnop\nnext\n", 8));
}

TEST(MiscReadLine, LineThatJustFillsTheBufferKeepsTheNextLine)
{
    /* Seven characters and the newline do not fit in 8 bytes with the
     * terminator: the newline is the rest of the line and is passed over. */
    EXPECT_EQ((lines{"abcdefg", "next\n"}), read_all("abcdefg\nnext\n", 8));
    EXPECT_EQ((lines{"abcdef\n", "next\n"}), read_all("abcdef\nnext\n", 8));
}

TEST(MiscReadLine, NulByteInALineDoesNotSplitIt)
{
    EXPECT_EQ((lines{"ab", "next\n"}), read_all(std::string("ab\0cd\nnext\n", 11), 16));
}

TEST(MiscWord, PicksTheNthWord)
{
    char out[32] = "unchanged";
    ASSERT_TRUE(res_misc_word("  Device Model:   ACME SSD\n", 3, out, sizeof out));
    EXPECT_STREQ("ACME", out);
    ASSERT_TRUE(res_misc_word("/dev/sda1 /data ext4 rw 0 0\n", 1, out, sizeof out));
    EXPECT_STREQ("/dev/sda1", out);
    ASSERT_TRUE(res_misc_word("/dev/sda1 /data ext4 rw 0 0\n", 2, out, sizeof out));
    EXPECT_STREQ("/data", out);
}

TEST(MiscWord, EveryWhiteSpaceOfPercentSSeparates)
{
    char out[32];
    const char *line = "a\tb\rc\vd\fe\nf";
    const char *want[] = {"a", "b", "c", "d", "e", "f"};
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(res_misc_word(line, i + 1, out, sizeof out)) << i;
        EXPECT_STREQ(want[i], out);
    }
    EXPECT_FALSE(res_misc_word(line, 7, out, sizeof out));
}

TEST(MiscWord, TooFewWordsLeavesTheOutputAlone)
{
    char out[8] = "keep";
    EXPECT_FALSE(res_misc_word("one two", 3, out, sizeof out));
    EXPECT_FALSE(res_misc_word("", 1, out, sizeof out));
    EXPECT_FALSE(res_misc_word(" \t\n", 1, out, sizeof out));
    EXPECT_STREQ("keep", out);
}

TEST(MiscWord, LongWordIsCutToTheBuffer)
{
    char out[4];
    ASSERT_TRUE(res_misc_word("abcdefgh next", 1, out, sizeof out));
    EXPECT_STREQ("abc", out);
    /* The cut word's rest is not taken for the next word. */
    ASSERT_TRUE(res_misc_word("abcdefgh next", 2, out, sizeof out));
    EXPECT_STREQ("nex", out);
}

} // namespace
