#include "comport/line_watch.h"

#include <ntddser.h>

#include <cstring>

namespace comport {

LineWatch::LineWatch(Port& port, Terminal& terminal) : port_(port), terminal_(terminal) {
    wait_.data.resize(sizeof(ULONG));
    query_.data.resize(sizeof(ULONG));
}

void LineWatch::issue(Transfer& transfer, ULONG code, bool output, ULONG value) {
    std::memcpy(transfer.data.data(), &value, sizeof(value));
    transfer.offset = 0;
    transfer.length = sizeof(value);
    transfer.markInFlight();
    if (output) {
        port_.query(transfer, code);
    } else {
        port_.control(transfer, code);
    }
}

// False when one has failed.
bool LineWatch::takeEnds() {
    auto value = [](const Transfer& transfer) {
        ULONG number = 0;
        std::memcpy(&number, transfer.data.data(), sizeof(number));
        return number;
    };
    bool good = true;
    if (wait_.seeEnd()) {
        stale_ = true;
        if (NT_ERROR(wait_.status)) {
            good = false;
        } else {
            events_ |= value(wait_);
        }
    }
    if (query_.seeEnd()) {
        if (NT_ERROR(query_.status)) {
            good = false;
        } else if (querySetsMask_) {
            mask_ = maskAsked_;
        } else {
            terminal_.linesChanged(std::exchange(events_, 0), value(query_));
        }
    }
    if (!good) {
        mask_ = 0;
        events_ = 0;
        stale_ = true;
        terminal_.linesChanged(0, 0);
    }
    return good;
}

bool LineWatch::issueNext() {
    ULONG wanted = terminal_.watchedEvents();
    if (query_.inFlight || wanted == 0) {
        return false;
    }
    if (mask_ != wanted) {
        querySetsMask_ = true;
        maskAsked_ = wanted;
        issue(query_, IOCTL_SERIAL_SET_WAIT_MASK, false, wanted);
    } else if (stale_) {
        querySetsMask_ = stale_ = false;
        issue(query_, IOCTL_SERIAL_GET_MODEMSTATUS, true, 0);
    } else if (!wait_.inFlight) {
        issue(wait_, IOCTL_SERIAL_WAIT_ON_MASK, true, 0);
    } else {
        return false;
    }
    return true;
}

bool LineWatch::pump(bool usable) {
    do {
        if (!takeEnds()) {
            return false;
        }
    } while (usable && issueNext());
    return true;
}

}  // namespace comport
