// `comport list`, `status` and `ctl`: asks a running server over its control socket and prints the reply.
#pragma once

#include <string>
#include <string_view>

#include "comport/options.h"

namespace comport {

// Prints to stdout, and what went wrong to stderr. 0, 1 when the server refuses or does not run, 2 for words that mean nothing.
int runClient(const Options& options);

// The table for a reply to list or status.
std::string tableOf(Command command, std::string_view reply);

}  // namespace comport
