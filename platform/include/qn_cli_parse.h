/* Parsing of operator lines against the parse graphs: matching, refusals in
 * the usual network-shell form, "?" help and TAB completion.  Used by the
 * command-line service stand-in and its tests. */
#ifndef QN_CLI_PARSE_H
#define QN_CLI_PARSE_H

#include "qn_cli.h"

#include <string>
#include <vector>

using cli_roots = std::vector<const cli_node *const *>;

enum cli_parse_status {
    CLI_PARSE_OK = 0,
    CLI_PARSE_INCOMPLETE,
    CLI_PARSE_INVALID,
    CLI_PARSE_AMBIGUOUS,
    CLI_PARSE_RANGE,
};

struct cli_parse_result {
    cli_parse_status status = CLI_PARSE_INCOMPLETE;
    cli_parse_block pb{};
    const cli_node *eol = nullptr;
    std::string refusal; /* the text shown for a refused line */
};

struct cli_help_item {
    std::string word; /* keyword, "<min-max>" or "<cr>" */
    std::string help;
};

/* `offset` is where `line` starts in what the operator typed, for the caret. */
cli_parse_result cli_parse_line(const cli_roots &roots, const std::string &line, uint32_t prefix,
                                size_t offset = 0);
/* What may come next after `typed` (help for a partial last word when it does
 * not end in a blank). */
std::vector<cli_help_item> cli_parse_help(const cli_roots &roots, const std::string &typed, uint32_t prefix);
/* Keywords that complete the last word of `typed`. */
std::vector<std::string> cli_parse_complete(const cli_roots &roots, const std::string &typed, uint32_t prefix);
/* Every configuration-generation hook of the graphs, in graph order. */
std::vector<const cli_node *> cli_parse_generators(const cli_roots &roots);

std::vector<std::pair<std::string, size_t>> cli_tokens(const std::string &line);

#endif
