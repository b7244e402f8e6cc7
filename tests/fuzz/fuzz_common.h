/* Shared set-up of the libFuzzer harnesses: a scratch tree of their own
 * (STOVIG_ROOT, run directory, platform config with the logs inside it),
 * removed when the harness exits. */
#ifndef FUZZ_COMMON_H
#define FUZZ_COMMON_H

#include <stddef.h>
#include <stdint.h>

#include <string>

/* The scratch tree, made on first use: <tmp>/stovig-fuzz-XXXXXX with proc/,
 * sys/block/, data/, tmp/, run/ and a config whose debug log, syslog capture
 * and event log are files in it.  STOVIG_ROOT, STOVIG_CONFIG and res_run_dir
 * point into it. */
const std::string &fuzz_dir();

/* Writes a file of the scratch tree (path relative to it). */
void fuzz_write(const std::string &rel, const void *data, size_t size);
void fuzz_write(const std::string &rel, const std::string &text);

/* Opens the daemon's debug log on the scratch tree's log file, so that log
 * and event lines go through their whole path (escaping included). */
void fuzz_open_log();

#endif
