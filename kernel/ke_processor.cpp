// Processors: who they are, their interrupt level, how their threads sleep and wake, and the core's start and end.
//
//   free --newProcessor--> given to a thread --adoptProcessor--> in use --leaveProcessor--> free
//
// Records are never freed, so a waker may still touch the record of a thread that has gone.
#include "kernel/hand.h"
#include "kernel/processor.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <ctime>
#include <memory>

#include "kernel/faults.h"
#include "kernel/pool.h"
#include "kernel/sim.h"
#include "kernel/thread.h"
#include "kernel/timer.h"
#include "kernel/verifier.h"
#include "kernel/work.h"

namespace nt {

std::atomic<std::uint32_t> coreFlags{0};
constinit thread_local Processor* currentProcessor = nullptr;

namespace {

constexpr std::size_t maxProcessors = 4096;
// Time starts here, so that 0 can mean "never".
constexpr std::uint64_t firstTime = 10'000'000;
// 2020-01-01 in 100 ns units since 1601: the date a simulated run starts at.
constexpr std::uint64_t simulatedDate = 132'223'104'000'000'000;
constexpr std::uint64_t unixEpoch = 116'444'736'000'000'000;

struct Table {
    TinyLock lock;
    std::unique_ptr<Processor> records[maxProcessors] _Guarded_by_(lock);
    bool inUse[maxProcessors] _Guarded_by_(lock) = {};
    std::atomic<Processor*> published[maxProcessors] = {};
    std::atomic<std::size_t> count{0};
};
// Never destroyed: a thread of a library's, which nobody waits for, may end after main() and gives its record back then.
union Lasting {
    constexpr Lasting() : table() {}
    ~Lasting() {}
    Table table;
};
constinit Lasting lasting;
Table& table = lasting.table;

std::atomic<bool> running{false};
std::uint64_t realStart;
Processor* owner;

std::uint64_t monotonicNs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return std::uint64_t(t.tv_sec) * 1'000'000'000 + std::uint64_t(t.tv_nsec);
}

// False on a time-out. The deadline is a now() time, 0 for none.
bool futexWait(ParkWord& word, std::uint32_t seen, std::uint64_t deadline) {
    timespec until;
    if (deadline) {
        std::uint64_t ns = realStart + (deadline - firstTime) * 100;
        until = {time_t(ns / 1'000'000'000), long(ns % 1'000'000'000)};
    }
    long rc = syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAIT_BITSET_PRIVATE, seen,
                      deadline ? &until : nullptr, nullptr, FUTEX_BITSET_MATCH_ANY);
    return !(rc < 0 && errno == ETIMEDOUT);
}

void futexWake(ParkWord& word, int count) {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

void reset(Processor& p, const char* name) {
    p.irql = PASSIVE_LEVEL;
    p.draining = false;
    p.spinLocks = 0;
    p.heldCount = 0;
    p.delayState = p.id * 2654435761u | 1;
    snprintf(p.name, sizeof p.name, "%s", name);
    p.waiting = false;
    p.token.store(0, std::memory_order_relaxed);
    p.simState = SimState::none;
    p.simIdle = false;
    p.simDeadline = 0;
    p.simObject = nullptr;
    p.simWhat = nullptr;
}

// Gives the record of a thread that was no kernel thread back when it ends.
struct ForeignThread {
    bool attached = false;
    ~ForeignThread() {
        if (attached && currentProcessor) {
            leaveProcessor();
        }
    }
};
thread_local ForeignThread foreignThread;

void randomDelay(Processor& p) {
    std::uint32_t& x = p.delayState;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    if (x % 8 == 0) {
        sched_yield();
    } else if (x % 64 == 1) {
        for (std::uint64_t end = monotonicNs() + x % 20'000; monotonicNs() < end;) {
            __builtin_ia32_pause();
        }
    }
}

}  // namespace

Processor* newProcessor(const char* name) {
    TinyGuard guard(table.lock);
    std::size_t i = 0;
    while (i < maxProcessors && table.inUse[i]) {
        i++;
    }
    if (i == maxProcessors) {
        verifier::stop("Q0", "newProcessor", nullptr, "more than %zu threads run kernel code", maxProcessors);
    }
    if (!table.records[i]) {
        table.records[i] = std::make_unique<Processor>();
        table.records[i]->id = ULONG(i + 1);
        table.published[i].store(table.records[i].get(), std::memory_order_release);
        table.count.store(i + 1, std::memory_order_release);
    }
    table.inUse[i] = true;
    reset(*table.records[i], name);
    return table.records[i].get();
}

void adoptProcessor(Processor* p) { currentProcessor = p; }

void leaveProcessor() {
    Processor& p = self();
    if (verifying() && (p.heldCount || p.irql != PASSIVE_LEVEL)) {
        verifier::stop("L8", "end of thread", nullptr, "thread %s ends at IRQL %d with %u locks held", p.name, p.irql,
                       p.heldCount);
    }
    bool inSimulation = p.simState != SimState::none;
    currentProcessor = nullptr;
    {
        TinyGuard guard(table.lock);
        table.inUse[p.id - 1] = false;
    }
    // Last, since another thread may take the record as soon as it has the baton.
    if (inSimulation) {
        sim::leave(p);
    }
}

Processor& attachThread() {
    if (simulated()) {
        fprintf(stderr, "verifier: a thread the simulation does not know calls the kernel\n");
        abort();
    }
    Processor* p = newProcessor("foreign");
    currentProcessor = p;
    foreignThread.attached = true;
    return *p;
}

Processor* processorAt(std::size_t index) {
    return index < table.count.load(std::memory_order_acquire) ? table.published[index].load(std::memory_order_acquire)
                                                               : nullptr;
}

bool sleepOnToken(Processor& p, std::uint64_t deadline) {
    while (!p.token.exchange(0, std::memory_order_acquire)) {
        emptyHand();
        if (!futexWait(p.token, 0, deadline)) {
            return false;
        }
    }
    return true;
}

void giveToken(Processor& p) {
    p.token.store(1, std::memory_order_release);
    futexWake(p.token, 1);
}

void TinyLock::contended() {
    for (int i = 0; i < 64; i++) {
        if (!held_.load(std::memory_order_relaxed)) {
            return;
        }
        __builtin_ia32_pause();
    }
    sched_yield();
}

void schedulePointSlow(Point point) {
    if (simulated()) {
        sim::point(point);
    } else {
        randomDelay(self());
    }
}

void parkOn(ParkWord& word, std::uint32_t seen, const char* what, bool idle) {
    if (simulated()) {
        if (word.load(std::memory_order_acquire) == seen) {
            sim::block(&word, what, 0, idle);
        }
        return;
    }
    emptyHand();
    futexWait(word, seen, 0);
}

void parkUntil(ParkWord& word, std::uint32_t seen, const char* what, std::uint64_t deadline) {
    if (simulated()) {
        if (word.load(std::memory_order_acquire) == seen) {
            sim::block(&word, what, 0, true);
        }
        return;
    }
    emptyHand();
    futexWait(word, seen, deadline);
}

void wakeAll(ParkWord& word) {
    if (simulated()) {
        sim::readyAll(&word);
        return;
    }
    futexWake(word, INT_MAX);
}

void wakeOne(ParkWord& word) {
    if (simulated()) {
        sim::readyAll(&word);
        return;
    }
    futexWake(word, 1);
}

std::uint64_t now() {
    return simulated() ? sim::clock() : firstTime + (monotonicNs() - realStart) / 100;
}

std::string describeMode() {
    return simulated() ? "simulated, seed " + std::to_string(sim::seed()) + ", step " + std::to_string(sim::steps())
                       : "real";
}

bool coreRunning() { return running.load(); }

void startCore(const CoreOptions& options) {
    if (running.exchange(true)) {
        verifier::stop("Q0", "startCore", nullptr, "a core runs already");
    }
    if (currentProcessor) {
        leaveProcessor();
    }
    faults::clear();
    coreFlags = (options.verifier ? flagVerifier : 0u) | (options.simulated ? flagSimulated : 0u);
    realStart = monotonicNs();
    pool::start(options.simulated);
    verifier::resetLockOrder();
    owner = newProcessor("main");
    adoptProcessor(owner);
    if (options.simulated) {
        sim::start(options.seed, firstTime);
    }
    startClock();
    startWorkers();
}

std::vector<std::string> stopCore() {
    if (currentProcessor != owner) {
        verifier::stop("Q0", "stopCore", nullptr, "only the thread that started the core stops it");
    }
    std::vector<std::string> left;
    stopWorkers();
    joinSystemThreads();
    if (std::size_t timers = activeTimers()) {
        left.push_back(std::to_string(timers) + " timer(s) still set");
    }
    stopClock();
    for (const pool::Leak& leak : pool::inUse()) {
        char line[160];
        snprintf(line, sizeof line, "pool tag '%s': %llu block(s), %llu bytes, first allocated by %p", leak.tag,
                 (unsigned long long)leak.blocks, (unsigned long long)leak.bytes, leak.caller);
        left.push_back(line);
    }
    faults::clear();
    leaveProcessor();
    if (simulated()) {
        sim::stop();
    }
    pool::stop();
    coreFlags = 0;
    owner = nullptr;
    running = false;
    return left;
}

}  // namespace nt

using namespace nt;

extern "C" {

KIRQL NTAPI KeGetCurrentIrql(VOID) { return self().irql; }

VOID NTAPI KfRaiseIrqlTo(KIRQL NewIrql, PKIRQL OldIrql) {
    Processor& p = self();
    if (verifying() && NewIrql < p.irql) [[unlikely]] {
        verifier::stop("Q3", "KeRaiseIrql", nullptr, "raises from %d to %d", p.irql, NewIrql);
    }
    *OldIrql = p.irql;
    p.irql = NewIrql;
}

VOID NTAPI KeLowerIrql(KIRQL NewIrql) {
    Processor& p = self();
    if (verifying()) {
        if (NewIrql > p.irql) [[unlikely]] {
            verifier::stop("Q3", "KeLowerIrql", nullptr, "lowers from %d to %d", p.irql, NewIrql);
        }
        if (NewIrql < DISPATCH_LEVEL && p.spinLocks) [[unlikely]] {
            verifier::stop("L4", "KeLowerIrql", nullptr, "lowers to %d with a spin lock held", NewIrql);
        }
    }
    lowerTo(p, NewIrql);
}

PKTHREAD NTAPI KeGetCurrentThread(VOID) { return &self(); }
ULONG NTAPI KeGetCurrentProcessorNumber(VOID) { return self().id - 1; }
KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD, KPRIORITY) { return 0; }
VOID NTAPI KeEnterCriticalRegion(VOID) {}
VOID NTAPI KeLeaveCriticalRegion(VOID) {}

VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
    if (simulated()) {
        CurrentTime->QuadPart = LONGLONG(simulatedDate + sim::clock());
        return;
    }
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    CurrentTime->QuadPart = LONGLONG(unixEpoch + std::uint64_t(t.tv_sec) * 10'000'000 + std::uint64_t(t.tv_nsec) / 100);
}

// The executive keeps no time zone.
VOID NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime) { *LocalTime = *SystemTime; }

ULONGLONG NTAPI KeQueryInterruptTime(VOID) { return now(); }
ULONG NTAPI KeQueryTimeIncrement(VOID) { return 10'000; }
VOID NTAPI KeQueryTickCount(PLARGE_INTEGER CurrentCount) { CurrentCount->QuadPart = LONGLONG(now() / 10'000); }

LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency) {
    if (PerformanceFrequency) {
        PerformanceFrequency->QuadPart = 10'000'000;
    }
    LARGE_INTEGER value;
    value.QuadPart = LONGLONG(now());
    return value;
}

VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds) {
    if (simulated()) {
        return;
    }
    for (std::uint64_t end = monotonicNs() + MicroSeconds * 1000ull; monotonicNs() < end;) {
        __builtin_ia32_pause();
    }
}

VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR Parameter1, ULONG_PTR Parameter2, ULONG_PTR Parameter3,
                        ULONG_PTR Parameter4) {
    verifier::stop("bug check", "KeBugCheckEx", nullptr, "0x%08X (0x%zX, 0x%zX, 0x%zX, 0x%zX)", BugCheckCode,
                   size_t(Parameter1), size_t(Parameter2), size_t(Parameter3), size_t(Parameter4));
}

}  // extern "C"
