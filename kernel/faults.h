// Faults on demand: fail the n-th call of a kind, once or from then on. Off, a call costs one test of a flag.
#pragma once

#include "kernel/core.h"

namespace nt::faults {

enum class Kind : std::uint8_t {
    allocation,    // pool memory
    request,       // IRPs, memory lists, work items, error-log entries
    registry,      // Zw and Rtl registry calls
    objectCreate,  // device objects, links, interfaces
    usbRequest,    // a transfer handed to the bus
    count_,
};

enum class Extent : std::uint8_t { once, fromThenOn };

// The n-th hit from now (from 1) fails. Counting of that kind starts anew.
void failNth(Kind kind, std::uint64_t n, Extent extent = Extent::once);
// Counts the calls of every kind without failing any: how many places a sweep has to visit.
void countOnly();
// Everything off, counters kept until the next failNth or countOnly.
void clear();
std::uint64_t hits(Kind kind);
std::uint64_t failures(Kind kind);
// Random yields and short delays at every scheduling point of the real mode.
void setDelays(bool on, std::uint32_t seed = 1);

// Calls of this thread neither count nor fail while one of these lives: for what the executive itself cannot do without.
inline constinit thread_local unsigned suspended = 0;
class Off {
public:
    explicit Off(bool active = true) : active_(active) { suspended += active_; }
    ~Off() { suspended -= active_; }
    Off(const Off&) = delete;
    Off& operator=(const Off&) = delete;

private:
    bool active_;
};

bool hitSlow(Kind kind);
// True when this call is to fail.
inline bool hit(Kind kind) {
    if (flags() & flagFaults) [[unlikely]] {
        return suspended == 0 && hitSlow(kind);
    }
    return false;
}

}  // namespace nt::faults
