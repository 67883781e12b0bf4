// The whole program tried without a person: an application on the terminal, the virtual modem behind it.
#pragma once

#include "comport/options.h"

namespace comport {

// Prints what it sees; 0 when every byte came back in order and nothing was left allocated, 1 otherwise.
int runCheck(const Options& options);

}  // namespace comport
