// The switchboard of faults on demand. Counters are plain atomics; which call is the n-th is settled by the counter.
#include "kernel/faults.h"

#include "kernel/processor.h"

namespace nt::faults {

namespace {

struct Switch {
    std::atomic<std::uint64_t> hits{0};
    std::atomic<std::uint64_t> failures{0};
    std::atomic<std::uint64_t> nth{0};  // 0: none
    std::atomic<bool> fromThenOn{false};
};
Switch switches[std::size_t(Kind::count_)];

Switch& at(Kind kind) { return switches[std::size_t(kind)]; }

void zero(Switch& s) {
    s.hits = 0;
    s.failures = 0;
    s.nth = 0;
    s.fromThenOn = false;
}

}  // namespace

void failNth(Kind kind, std::uint64_t n, Extent extent) {
    Switch& s = at(kind);
    zero(s);
    s.fromThenOn = extent == Extent::fromThenOn;
    s.nth = n;
    coreFlags.fetch_or(flagFaults);
}

void countOnly() {
    for (Switch& s : switches) {
        zero(s);
    }
    coreFlags.fetch_or(flagFaults);
}

void clear() {
    coreFlags.fetch_and(~(flagFaults | flagDelays));
    for (Switch& s : switches) {
        s.nth = 0;
    }
}

std::uint64_t hits(Kind kind) { return at(kind).hits; }
std::uint64_t failures(Kind kind) { return at(kind).failures; }

void setDelays(bool on, std::uint32_t seed) {
    self().delayState = seed | 1;
    if (on) {
        coreFlags.fetch_or(flagDelays);
    } else {
        coreFlags.fetch_and(~flagDelays);
    }
}

bool hitSlow(Kind kind) {
    Switch& s = at(kind);
    std::uint64_t number = s.hits.fetch_add(1) + 1;
    std::uint64_t nth = s.nth;
    bool fails = nth && (s.fromThenOn ? number >= nth : number == nth);
    if (fails) {
        s.failures.fetch_add(1);
    }
    return fails;
}

}  // namespace nt::faults
