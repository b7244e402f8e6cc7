/* Stand-in specifics of the command-line service, for tests: run one line
 * through the graphs added so far, as an operator session would. */
#ifndef QN_CLI_STANDIN_H
#define QN_CLI_STANDIN_H

#include <string>

/* Runs `line` in configuration mode (or exec mode); the output goes to *out.
 * 0 done, 1 refused (the refusal text is in *out). */
int qn_cli_standin_run(const std::string &line, bool config_mode, std::string *out);

#endif
