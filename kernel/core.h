// The executive's core: start and stop, the mode it runs in, scheduling points, parking of threads.
//
// Everything above the core (I/O, PnP, registry) uses these calls and the platform's own.
#pragma once

#include <wdm.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace nt {

struct CoreOptions {
    bool simulated = false;
    std::uint64_t seed = 0;
    bool verifier = true;
};

// The calling thread becomes the first processor; in the simulated mode it holds the baton. One core at a time.
void startCore(const CoreOptions& options);
// Ends clock, workers and system threads. Returns one readable line for every timer still set, thread still running and
// pool block still allocated. PASSIVE_LEVEL, by the thread that started the core.
std::vector<std::string> stopCore();
bool coreRunning();

// What is switched on, in one word, so that a fast path pays one test for all of it.
enum : std::uint32_t {
    flagSimulated = 1,
    flagVerifier = 2,
    flagDelays = 4,
    flagFaults = 8,
};
extern std::atomic<std::uint32_t> coreFlags;

inline std::uint32_t flags() { return coreFlags.load(std::memory_order_relaxed); }
inline bool simulated() { return flags() & flagSimulated; }
inline bool verifying() { return flags() & flagVerifier; }

// Where another processor may get ahead of this one. Any IRQL; no lock of the core may be held.
enum class Point : std::uint8_t {
    acquireLock,
    releaseLock,
    wait,
    signal,
    dpc,
    timer,
    callDriver,
    completion,
    workItem,
    thread,
    other,
};
void schedulePointSlow(Point point);
inline void schedulePoint(Point point) {
    if (flags() & (flagSimulated | flagDelays)) [[unlikely]] {
        schedulePointSlow(point);
    }
}

// Parking on a word. The word is changed before wakeAll; a thread that still reads `seen` sleeps until then. Spurious
// returns happen; the caller looks again. `what` names the wait in a deadlock report. `idle` marks a wait that need not
// end for the system to make progress (a worker without work).
using ParkWord = std::atomic<std::uint32_t>;
void parkOn(ParkWord& word, std::uint32_t seen, const char* what, bool idle = false);
// The same, until a now() time at the latest; idle. In the simulation wakeAll alone ends it.
void parkUntil(ParkWord& word, std::uint32_t seen, const char* what, std::uint64_t deadline);
void wakeAll(ParkWord& word);
// At least one of those asleep.
void wakeOne(ParkWord& word);

// 100 ns since the core started; virtual in the simulated mode. Never goes back.
std::uint64_t now();

// A lock for a few instructions inside the core. Holders must not be rescheduled by the simulation, so no scheduling
// point lies between lock and unlock.
class NT_CAPABILITY_("core lock") TinyLock {
public:
    void lock() _Acquires_lock_(this) _No_thread_safety_analysis_ {
        while (held_.exchange(1, std::memory_order_acquire)) {
            contended();
        }
    }
    void unlock() _Releases_lock_(this) _No_thread_safety_analysis_ { held_.store(0, std::memory_order_release); }

private:
    void contended();
    std::atomic<std::uint32_t> held_{0};
};

class NT_LOCK_ATTRIBUTE_(scoped_lockable) TinyGuard {
public:
    explicit TinyGuard(TinyLock& lock) _Acquires_lock_(lock) : lock_(lock) { lock_.lock(); }
    ~TinyGuard() _Releases_lock_() { lock_.unlock(); }
    TinyGuard(const TinyGuard&) = delete;
    TinyGuard& operator=(const TinyGuard&) = delete;

private:
    TinyLock& lock_;
};

// The mechanism named in the report of the thread and the seed; used by verifier stops.
std::string describeMode();

}  // namespace nt
