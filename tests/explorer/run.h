// One run of a plan in this process, and runs in processes of their own.
#pragma once

#include "tests/explorer/controls.h"
#include "tests/explorer/plan.h"

#include <sys/types.h>

#include <string>

namespace explorer {

// Lives a plan through, from boot to unload. Ends the process when anything is wrong.
void live(const Plan& plan, Cells& cells);

struct Outcome {
    bool good = false;
    std::string text;  // what the run said
    // The same for two runs that went wrong in the same way: the first telling line without its numbers.
    std::string fault() const;
};

// A child process that lives a plan through.
class Child {
public:
    Child(const Plan& plan, Cells& cells);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    pid_t pid() const { return pid_; }
    // The child has ended with this wait status.
    Outcome ended(int status);

private:
    pid_t pid_ = -1;
    int output_ = -1;
};

Outcome runAlone(const Plan& plan, Cells& cells);

}  // namespace explorer
