#ifndef FAKE_HAM_H
#define FAKE_HAM_H

#include <string>
#include <vector>

struct fake_ham_state {
    std::vector<std::string> calls;
    bool fail_restart = false;
    bool fail_reg = false;
    bool fail_feed = false;
};

extern fake_ham_state fake_ham;

#endif
