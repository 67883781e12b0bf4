// A thread that runs kernel code is a processor while it does: interrupt level, DPC queue, held locks, wait state.
#pragma once

#include "kernel/core.h"

namespace nt {

constexpr ULONG maxHeldLocks = 16;

struct HeldLock {
    const void* lock;
    ULONG lockClass;
    bool isMutex;
};

// One object a thread waits for; lives on the waiter's stack, linked into the object's wait list.
struct WaitBlock {
    LIST_ENTRY entry;  // dispatcher lock
    struct _KTHREAD* thread;
    DISPATCHER_HEADER* object;
    ULONG key;
};

enum class SimState : std::uint8_t { none, ready, running, standing, blocked, dead };

}  // namespace nt

struct _KTHREAD {
    // Only this thread.
    ULONG id = 0;  // from 1; what a spin lock's Owner shows
    KIRQL irql = PASSIVE_LEVEL;
    bool draining = false;  // a DPC of this processor is running
    ULONG spinLocks = 0;    // held, counted while the verifier is on
    KIRQL spinBaseIrql = PASSIVE_LEVEL;  // level to come back to with the last spin lock
    ULONG heldCount = 0;
    nt::HeldLock held[nt::maxHeldLocks] = {};
    std::uint32_t delayState = 1;
    char name[32] = {};

    // Its DPC queue: written under dpcLock, dpcCount and dpcRunning are read without it. dpcRunning falls to 0 without it, too.
    nt::TinyLock dpcLock;
    std::atomic<ULONG> dpcCount{0};
    LIST_ENTRY dpcQueue = {&dpcQueue, &dpcQueue};
    std::uint64_t dpcLast = 0;     // ticket of the last one queued
    std::atomic<std::uint64_t> dpcRunning{0};  // ticket of the one that runs, 0 when none does
    nt::ParkWord dpcDone{0};       // goes up when one has ended and somebody flushes
    std::atomic<ULONG> flushers{0};

    // Waiting: dispatcher lock.
    bool waiting = false;
    NTSTATUS waitStatus = STATUS_SUCCESS;
    bool waitAll = false;
    nt::WaitBlock* waitBlocks = nullptr;
    ULONG waitCount = 0;
    _KTHREAD* nextWoken = nullptr;

    // Baton or wake-up token: 1 when the thread may go on.
    nt::ParkWord token{0};

    // Simulation: only the holder of the baton.
    nt::SimState simState = nt::SimState::none;
    bool simIdle = false;
    std::uint64_t simDeadline = 0;
    std::uint64_t simPriority = 0;
    std::uint64_t simStandsIn = 0;  // scheduling points; 0: never
    const void* simObject = nullptr;
    const char* simWhat = nullptr;
};

namespace nt {

using Processor = _KTHREAD;

extern constinit thread_local Processor* currentProcessor;

Processor& attachThread();
// The calling thread's processor. In the real mode any thread becomes one at its first call.
inline Processor& self() {
    Processor* p = currentProcessor;
    return p ? *p : attachThread();
}

// A new record for a thread about to start; deterministic id. The thread itself calls adoptProcessor.
Processor* newProcessor(const char* name);
void adoptProcessor(Processor* p);
// Ends the calling thread's life as a processor and, in the simulated mode, gives the baton away.
void leaveProcessor();
// Every processor there is, for reports and for KeFlushQueuedDpcs. Null after the last.
Processor* processorAt(std::size_t index);

// Sleeps until the token is given and consumes it; false when the deadline (now() units, 0 = none) has passed first.
bool sleepOnToken(Processor& p, std::uint64_t deadline);
void giveToken(Processor& p);

// Runs this processor's queued DPCs at DISPATCH_LEVEL; the level is that of the caller, DISPATCH_LEVEL.
void drainDpcs(Processor& p);
// Restores a level, DPCs first when it lies below DISPATCH_LEVEL.
inline void lowerTo(Processor& p, KIRQL irql) {
    if (irql < DISPATCH_LEVEL && p.dpcCount.load(std::memory_order_relaxed) && !p.draining) [[unlikely]] {
        p.irql = DISPATCH_LEVEL;
        drainDpcs(p);
    }
    p.irql = irql;
}

// KeSetEvent without its checks and its scheduling point; returns the state before.
LONG setEvent(KEVENT& event);

// Puts the DPC on the queue of `p` without running it; false when it is queued already. Any core lock may be held but
// that processor's dpcLock.
bool queueDpc(Processor& p, KDPC& dpc, PVOID argument1, PVOID argument2);
void flushDpcs();

}  // namespace nt
