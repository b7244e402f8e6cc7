/* The command-line service's parser on a graph shaped like the daemon's
 * configuration commands: keywords with flags, ranged numbers, no/default
 * gates and a completeness test. */
#include "qn_cli_parse.h"

#include <gtest/gtest.h>

namespace {

int ran;
int on_eol(cli_parse_block *)
{
    ++ran;
    return 0;
}
bool interval_or_threshold(const cli_parse_block *pb)
{
    return pb->flags & 12;
}
bool plain(const cli_parse_block *pb)
{
    return pb->prefix == CLI_PREFIX_NONE;
}


const cli_node done = {CLI_NODE_EOL, nullptr, nullptr, 0, 0, 0, 0, on_eol, 7, nullptr, nullptr};
const cli_node *const done_list[] = {&done, nullptr};
const cli_node complete = {CLI_NODE_TEST, nullptr, nullptr, 0, 0, 0, 0, nullptr, 0, interval_or_threshold, done_list};
const cli_node thr_num = {CLI_NODE_NUMBER, nullptr, "threshold in percentage", 50, 99, 1, 0, nullptr, 0, nullptr, done_list};
const cli_node *const thr_num_list[] = {&thr_num, nullptr};
const cli_node thr = {CLI_NODE_KEYWORD, "threshold", "set threshold", 0, 0, 0, 8, nullptr, 0, nullptr, thr_num_list};
const cli_node *const after_interval[] = {&thr, &complete, nullptr};
const cli_node int_num = {CLI_NODE_NUMBER, nullptr, "interval", 10, 3600, 0, 0, nullptr, 0, nullptr, after_interval};
const cli_node *const int_num_list[] = {&int_num, nullptr};
const cli_node interval = {CLI_NODE_KEYWORD, "interval", "set interval", 0, 0, 0, 4, nullptr, 0, nullptr, int_num_list};
const cli_node no_gate = {CLI_NODE_NO, nullptr, nullptr, 0, 0, 0, 0, nullptr, 0, nullptr, done_list};
const cli_node default_gate = {CLI_NODE_DEFAULT, nullptr, nullptr, 0, 0, 0, 0, nullptr, 0, nullptr, done_list};
const cli_node *const options[] = {&interval, &thr, &complete, nullptr};
const cli_node plain_gate = {CLI_NODE_TEST, nullptr, nullptr, 0, 0, 0, 0, nullptr, 0, plain, options};
const cli_node *const after_set[] = {&no_gate, &default_gate, &plain_gate, nullptr};
const cli_node set = {CLI_NODE_KEYWORD, "set", "io set", 0, 0, 0, 0, nullptr, 0, nullptr, after_set};
const cli_node gen = {CLI_NODE_GENERATE, nullptr, nullptr, 0, 0, 0, 0, on_eol, 0, nullptr, nullptr};
const cli_node *const set_list[] = {&set, &gen, nullptr};
const cli_node io = {CLI_NODE_KEYWORD, "io", "storage io", 0, 0, 0, 0, nullptr, 0, nullptr, set_list};
const cli_node ro = {CLI_NODE_KEYWORD, "ro", "storage ro", 0, 0, 0, 0, nullptr, 0, nullptr, set_list};
const cli_node *const items[] = {&io, &ro, nullptr};
const cli_node storage = {CLI_NODE_KEYWORD, "storage", "config storage item", 0, 0, 0, 0, nullptr, 0, nullptr, items};
const cli_node *const root[] = {&storage, nullptr};

const cli_roots roots = {root};

TEST(CliParse, BothOptionsSetFlagsAndNumbers)
{
    cli_parse_result r = cli_parse_line(roots, "storage io set interval 20 threshold 60", CLI_PREFIX_NONE);
    ASSERT_EQ(CLI_PARSE_OK, r.status) << r.refusal;
    EXPECT_EQ(12u, r.pb.flags);
    EXPECT_EQ(20, r.pb.nums[0]);
    EXPECT_EQ(60, r.pb.nums[1]);
    EXPECT_EQ(7, r.pb.subcode);
    EXPECT_EQ(&done, r.eol);
}

TEST(CliParse, ThresholdAlone)
{
    cli_parse_result r = cli_parse_line(roots, "storage io set threshold 55", CLI_PREFIX_NONE);
    ASSERT_EQ(CLI_PARSE_OK, r.status);
    EXPECT_EQ(8u, r.pb.flags);
}

TEST(CliParse, SetAloneIsIncomplete)
{
    cli_parse_result r = cli_parse_line(roots, "storage io set", CLI_PREFIX_NONE);
    EXPECT_EQ(CLI_PARSE_INCOMPLETE, r.status);
    EXPECT_EQ("% Incomplete command.\n", r.refusal);
    EXPECT_EQ(CLI_PARSE_INCOMPLETE, cli_parse_line(roots, "storage io set interval", 0).status);
}

TEST(CliParse, NoAndDefaultEndAfterSet)
{
    EXPECT_EQ(CLI_PARSE_OK, cli_parse_line(roots, "storage io set", CLI_PREFIX_NO).status);
    cli_parse_result d = cli_parse_line(roots, "storage io set", CLI_PREFIX_DEFAULT);
    EXPECT_EQ(CLI_PARSE_OK, d.status);
    EXPECT_EQ(2u, d.pb.prefix);
    EXPECT_EQ(CLI_PARSE_INVALID, cli_parse_line(roots, "storage io set interval 20", CLI_PREFIX_NO).status);
}

TEST(CliParse, OutOfRangeNumberIsRefusedAtItsWord)
{
    cli_parse_result r = cli_parse_line(roots, "storage io set interval 9", CLI_PREFIX_NONE);
    EXPECT_EQ(CLI_PARSE_RANGE, r.status);
    EXPECT_EQ(std::string(24, ' ') + "^\n% Invalid input detected at '^' marker: number out of range <10-3600>.\n",
              r.refusal);
    r = cli_parse_line(roots, "storage io set threshold 49", CLI_PREFIX_NONE);
    EXPECT_EQ(CLI_PARSE_RANGE, r.status);
    EXPECT_NE(std::string::npos, r.refusal.find("<50-99>"));
}

TEST(CliParse, UnknownWordGetsTheCaret)
{
    cli_parse_result r = cli_parse_line(roots, "storage disk set", CLI_PREFIX_NONE, 3);
    EXPECT_EQ(CLI_PARSE_INVALID, r.status);
    EXPECT_EQ(std::string(3 + 8, ' ') + "^\n% Invalid input detected at '^' marker.\n", r.refusal);
}

TEST(CliParse, UniquePrefixesAbbreviate)
{
    cli_parse_result r = cli_parse_line(roots, "stor i s int 30 th 70", CLI_PREFIX_NONE);
    ASSERT_EQ(CLI_PARSE_OK, r.status) << r.refusal;
    EXPECT_EQ(30, r.pb.nums[0]);
    EXPECT_EQ(70, r.pb.nums[1]);
}

TEST(CliParse, GarbageNumbersAreInvalid)
{
    EXPECT_EQ(CLI_PARSE_INVALID, cli_parse_line(roots, "storage io set interval 2x", 0).status);
    EXPECT_EQ(CLI_PARSE_INVALID, cli_parse_line(roots, "storage io set interval -20", 0).status);
    EXPECT_EQ(CLI_PARSE_INVALID, cli_parse_line(roots, "storage io set interval 20 threshold 60 extra", 0).status);
}

/* However many digits it has, a number too large for its node gets the
 * out-of-range text of any other too large number. */
TEST(CliParse, NumbersTooLongToHoldAreOutOfRange)
{
    const std::string range_text =
        std::string(24, ' ') + "^\n% Invalid input detected at '^' marker: number out of range <10-3600>.\n";
    EXPECT_EQ(range_text, cli_parse_line(roots, "storage io set interval 4000", 0).refusal);
    for (const char *digits : {"9999999999999999999", "99999999999999999999", "18446744073709551616",
                               "99999999999999999999999999999999999999999999999999"}) {
        cli_parse_result r = cli_parse_line(roots, std::string("storage io set interval ") + digits, 0);
        EXPECT_EQ(CLI_PARSE_RANGE, r.status) << digits;
        EXPECT_EQ(range_text, r.refusal) << digits;
    }
    cli_parse_result r = cli_parse_line(roots, "storage io set interval 000000000000000000000000020", 0);
    ASSERT_EQ(CLI_PARSE_OK, r.status) << r.refusal;
    EXPECT_EQ(20, r.pb.nums[0]);
    r = cli_parse_line(roots, "storage io set threshold 99999999999999999999", 0);
    EXPECT_EQ(CLI_PARSE_RANGE, r.status);
    EXPECT_NE(std::string::npos, r.refusal.find("<50-99>"));
}

TEST(CliParse, HelpListsNextWordsAndRanges)
{
    auto items = cli_parse_help(roots, "storage io set ", CLI_PREFIX_NONE);
    ASSERT_EQ(2u, items.size());
    EXPECT_EQ("interval", items[0].word);
    EXPECT_EQ("set interval", items[0].help);
    EXPECT_EQ("threshold", items[1].word);
    items = cli_parse_help(roots, "storage io set interval ", CLI_PREFIX_NONE);
    ASSERT_EQ(1u, items.size());
    EXPECT_EQ("<10-3600>", items[0].word);
    items = cli_parse_help(roots, "storage io set interval 20 ", CLI_PREFIX_NONE);
    ASSERT_EQ(2u, items.size());
    EXPECT_EQ("threshold", items[0].word);
    EXPECT_EQ("<cr>", items[1].word);
    items = cli_parse_help(roots, "storage io set ", CLI_PREFIX_NO);
    ASSERT_EQ(1u, items.size());
    EXPECT_EQ("<cr>", items[0].word);
}

TEST(CliParse, CompletionOfAPartialWord)
{
    EXPECT_EQ(std::vector<std::string>{"storage"}, cli_parse_complete(roots, "sto", 0));
    EXPECT_EQ(std::vector<std::string>{"threshold"}, cli_parse_complete(roots, "storage io set interval 20 t", 0));
    EXPECT_EQ((std::vector<std::string>{"io"}), cli_parse_complete(roots, "storage i", 0));
    EXPECT_TRUE(cli_parse_complete(roots, "storage x", 0).empty());
}

TEST(CliParse, GeneratorsAreFoundOnce)
{
    auto gens = cli_parse_generators(roots);
    ASSERT_EQ(1u, gens.size());
    EXPECT_EQ(&gen, gens[0]);
}

} // namespace
