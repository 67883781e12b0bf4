// Who listens in on a bus: sees every transfer on its way to the device's backend, of whatever kind that is, and once more when it
// is over.
#pragma once

#include "usb/backend.h"

namespace usb {

class Tap {
public:
    // Both: <= DISPATCH_LEVEL, with spin locks of the bus held; they neither wait nor call the bus. `device` is the port that the
    // device is plugged into. Calls for one device come one after the other.
    //
    // The data to go out is there, whatever the backend does with the transfer then. `tapTag` is the listener's.
    virtual void submitted(unsigned device, Transfer& transfer) = 0;
    // Once for each submitted(), with the status its submitter sees; the data, that came or went, is still there.
    virtual void completed(unsigned device, const Transfer& transfer) = 0;

protected:
    ~Tap() = default;
};

}  // namespace usb
