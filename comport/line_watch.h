// Watches a port's modem lines and line events with WAIT_ON_MASK, one request after another, for a terminal that wants them.
//
//   unset --SET_WAIT_MASK--> stale --GET_MODEMSTATUS, told--> waiting --events--> stale
//   any --a request fails (the modem was unplugged)--> unset, the lines told as down
//
// A wait that ends without an event (the mask changed, the port closes) counts like one with events.
#pragma once

#include "comport/port.h"

namespace comport {

class LineWatch {
public:
    LineWatch(Port& port, Terminal& terminal);

    // Does what can be done now; false when a request failed. Not `usable`: nothing is issued.
    bool pump(bool usable);
    template <class Visit>
    void forEachTransfer(Visit visit) {
        visit(wait_);
        visit(query_);
    }

private:
    bool takeEnds();
    bool issueNext();
    void issue(Transfer& transfer, ULONG code, bool output, ULONG value);

    Port& port_;
    Terminal& terminal_;
    Transfer wait_;
    Transfer query_;            // SET_WAIT_MASK or GET_MODEMSTATUS
    bool querySetsMask_ = false;
    ULONG maskAsked_ = 0;
    ULONG mask_ = 0;            // what the port has; 0: not known
    ULONG events_ = 0;          // came and not told yet
    bool stale_ = true;         // the lines have to be asked for
};

}  // namespace comport
