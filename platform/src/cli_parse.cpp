/* Line parsing for the command-line service.  A graph is a set of
 * alternatives; NO, DEFAULT and TEST nodes are gates that consume no word.
 * Matching backtracks over the alternatives; a refusal points at the word
 * where the deepest attempt failed. */
#include "qn_cli_parse.h"

#include <cstdint>
#include <set>

namespace {

struct state {
    const cli_node *node; /* a consuming node (keyword, number) or an end of line */
    cli_parse_block pb;
};

bool gate_passes(const cli_node *n, const cli_parse_block &pb)
{
    switch (n->kind) {
    case CLI_NODE_NO: return pb.prefix == CLI_PREFIX_NO;
    case CLI_NODE_DEFAULT: return pb.prefix == CLI_PREFIX_DEFAULT;
    case CLI_NODE_TEST: return n->test && n->test(&pb);
    default: return false;
    }
}

/* The consuming and end-of-line nodes reachable from `alts` through gates. */
void reachable(const cli_node *const *alts, const cli_parse_block &pb, std::vector<state> &out, int depth = 0)
{
    if (!alts || depth > 32)
        return;
    for (; *alts; ++alts) {
        const cli_node *n = *alts;
        switch (n->kind) {
        case CLI_NODE_KEYWORD:
        case CLI_NODE_NUMBER:
        case CLI_NODE_EOL:
            out.push_back({n, pb});
            break;
        case CLI_NODE_GENERATE:
            break;
        default:
            if (gate_passes(n, pb))
                reachable(n->next, pb, out, depth + 1);
        }
    }
}

/* A word of digits; a value beyond what int64_t holds saturates to its
 * maximum, so that it is refused as out of range like any other too large
 * number rather than as a word that is not a number. */
bool parse_number(const std::string &word, int64_t *value)
{
    if (word.empty())
        return false;
    int64_t v = 0;
    for (char c : word) {
        if (c < '0' || c > '9')
            return false;
        int digit = c - '0';
        v = v > (INT64_MAX - digit) / 10 ? INT64_MAX : v * 10 + digit;
    }
    *value = v;
    return true;
}

bool starts_with(const char *word, const std::string &part)
{
    return word && std::string(word).compare(0, part.size(), part) == 0;
}

using tokens_t = std::vector<std::pair<std::string, size_t>>;

struct failure {
    size_t index = 0; /* token index of the deepest failure */
    cli_parse_status status = CLI_PARSE_INCOMPLETE;
    std::string detail;
};

void note_failure(failure &f, size_t index, cli_parse_status status, const std::string &detail)
{
    if (index > f.index || (index == f.index && status > f.status)) {
        f.index = index;
        f.status = status;
        f.detail = detail;
    }
}

/* Candidates for token `word` among `states`: the next alternatives with the
 * block updated by the match. */
std::vector<state> step(const std::vector<state> &states, const std::string &word, size_t index, failure &f)
{
    std::vector<state> exact, partial, numbers;
    std::set<std::string> partial_words;
    for (const state &s : states) {
        const cli_node *n = s.node;
        if (n->kind == CLI_NODE_KEYWORD) {
            cli_parse_block pb = s.pb;
            pb.flags |= n->flag;
            if (word == n->word)
                exact.push_back({n, pb});
            else if (starts_with(n->word, word)) {
                partial.push_back({n, pb});
                partial_words.insert(n->word);
            }
        } else if (n->kind == CLI_NODE_NUMBER) {
            int64_t v;
            if (!parse_number(word, &v))
                continue;
            if (v < n->min || v > n->max) {
                note_failure(f, index, CLI_PARSE_RANGE,
                             "<" + std::to_string(n->min) + "-" + std::to_string(n->max) + ">");
                continue;
            }
            cli_parse_block pb = s.pb;
            if (n->slot >= 0 && n->slot < CLI_PB_NUMS)
                pb.nums[n->slot] = v;
            numbers.push_back({n, pb});
        }
    }
    if (!exact.empty())
        return exact;
    if (partial_words.size() > 1) {
        note_failure(f, index, CLI_PARSE_AMBIGUOUS, word);
        return {};
    }
    if (!partial.empty())
        return partial;
    if (numbers.empty())
        note_failure(f, index, CLI_PARSE_INVALID, word);
    return numbers;
}

/* Depth-first walk: true and the result when the tokens reach an end of line. */
bool walk(const cli_node *const *alts, const cli_parse_block &pb, const tokens_t &tokens, size_t index,
          failure &f, cli_parse_result &out)
{
    std::vector<state> states;
    reachable(alts, pb, states);
    if (index == tokens.size()) {
        for (const state &s : states) {
            if (s.node->kind == CLI_NODE_EOL) {
                out.status = CLI_PARSE_OK;
                out.pb = s.pb;
                out.pb.subcode = s.node->subcode;
                out.eol = s.node;
                return true;
            }
        }
        note_failure(f, index, CLI_PARSE_INCOMPLETE, "");
        return false;
    }
    for (const state &next : step(states, tokens[index].first, index, f))
        if (walk(next.node->next, next.pb, tokens, index + 1, f, out))
            return true;
    return false;
}

/* The states reachable after consuming every token of `tokens`. */
void states_after(const cli_roots &roots, const tokens_t &tokens, uint32_t prefix, std::vector<state> &out)
{
    cli_parse_block pb{};
    pb.prefix = prefix;
    std::vector<state> frontier;
    for (const cli_node *const *root : roots)
        reachable(root, pb, frontier);
    failure f;
    for (size_t i = 0; i < tokens.size() && !frontier.empty(); ++i) {
        std::vector<state> next;
        for (const state &s : step(frontier, tokens[i].first, i, f))
            reachable(s.node->next, s.pb, next);
        frontier.swap(next);
    }
    out = frontier;
}

void collect_generators(const cli_node *const *alts, std::set<const cli_node *> &seen,
                        std::vector<const cli_node *> &out)
{
    if (!alts)
        return;
    for (; *alts; ++alts) {
        const cli_node *n = *alts;
        if (!seen.insert(n).second)
            continue;
        if (n->kind == CLI_NODE_GENERATE)
            out.push_back(n);
        collect_generators(n->next, seen, out);
    }
}

} // namespace

std::vector<std::pair<std::string, size_t>> cli_tokens(const std::string &line)
{
    tokens_t tokens;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
            ++i;
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t')
            ++i;
        if (i > start)
            tokens.emplace_back(line.substr(start, i - start), start);
    }
    return tokens;
}

cli_parse_result cli_parse_line(const cli_roots &roots, const std::string &line, uint32_t prefix, size_t offset)
{
    cli_parse_result out;
    tokens_t tokens = cli_tokens(line);
    cli_parse_block pb{};
    pb.prefix = prefix;
    failure f;
    for (const cli_node *const *root : roots)
        if (walk(root, pb, tokens, 0, f, out))
            return out;
    out.status = f.status;
    if (tokens.empty()) {
        out.status = CLI_PARSE_INCOMPLETE;
        f.status = CLI_PARSE_INCOMPLETE;
    }
    switch (f.status) {
    case CLI_PARSE_INCOMPLETE:
        out.refusal = "% Incomplete command.\n";
        break;
    case CLI_PARSE_AMBIGUOUS:
        out.refusal = "% Ambiguous command: \"" + line.substr(0, tokens[f.index].second + f.detail.size()) + "\"\n";
        break;
    default: {
        std::string caret(offset + tokens[f.index].second, ' ');
        out.refusal = caret + "^\n";
        if (f.status == CLI_PARSE_RANGE)
            out.refusal += "% Invalid input detected at '^' marker: number out of range " + f.detail + ".\n";
        else
            out.refusal += "% Invalid input detected at '^' marker.\n";
    }
    }
    return out;
}

std::vector<cli_help_item> cli_parse_help(const cli_roots &roots, const std::string &typed, uint32_t prefix)
{
    tokens_t tokens = cli_tokens(typed);
    std::string partial;
    if (!typed.empty() && typed.back() != ' ' && typed.back() != '\t' && !tokens.empty()) {
        partial = tokens.back().first;
        tokens.pop_back();
    }
    std::vector<state> states;
    states_after(roots, tokens, prefix, states);
    std::vector<cli_help_item> items;
    std::set<std::string> seen;
    bool cr = false;
    for (const state &s : states) {
        const cli_node *n = s.node;
        if (n->kind == CLI_NODE_EOL) {
            cr = partial.empty();
            continue;
        }
        std::string word = n->kind == CLI_NODE_KEYWORD
                               ? std::string(n->word)
                               : "<" + std::to_string(n->min) + "-" + std::to_string(n->max) + ">";
        if (n->kind == CLI_NODE_KEYWORD && !starts_with(n->word, partial))
            continue;
        if (n->kind == CLI_NODE_NUMBER && !partial.empty()) {
            int64_t v;
            if (!parse_number(partial, &v))
                continue;
        }
        if (seen.insert(word).second)
            items.push_back({word, n->help ? n->help : ""});
    }
    if (cr)
        items.push_back({"<cr>", ""});
    return items;
}

std::vector<std::string> cli_parse_complete(const cli_roots &roots, const std::string &typed, uint32_t prefix)
{
    std::vector<std::string> words;
    for (const cli_help_item &item : cli_parse_help(roots, typed, prefix))
        if (item.word[0] != '<')
            words.push_back(item.word);
    return words;
}

std::vector<const cli_node *> cli_parse_generators(const cli_roots &roots)
{
    std::set<const cli_node *> seen;
    std::vector<const cli_node *> out;
    for (const cli_node *const *root : roots)
        collect_generators(root, seen, out);
    return out;
}
