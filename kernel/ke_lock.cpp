// Spin locks. Owner shows the processor that holds one; taking it raises to DISPATCH_LEVEL.
#include <sched.h>

#include "kernel/processor.h"
#include "kernel/sim.h"
#include "kernel/verifier.h"

using namespace nt;

namespace {

bool tryTake(Processor& p, KSPIN_LOCK& lock) {
    ULONG free = 0;
    return __atomic_compare_exchange_n(&lock.Owner, &free, p.id, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

[[gnu::noinline]] void takeContended(Processor& p, KSPIN_LOCK& lock) {
    for (unsigned round = 0; !tryTake(p, lock); round++) {
        if (simulated()) {
            sim::block(&lock, "spin lock", 0, false);
            continue;
        }
        for (int i = 0; i < 64 && __atomic_load_n(&lock.Owner, __ATOMIC_RELAXED); i++) {
            __builtin_ia32_pause();
        }
        if (round > 2) {
            sched_yield();
        }
    }
}

inline void take(Processor& p, KSPIN_LOCK& lock, KIRQL savedIrql, const char* call) {
    std::uint32_t on = flags();
    if (on & (flagSimulated | flagDelays)) [[unlikely]] {
        schedulePointSlow(Point::acquireLock);
    }
    if (on & flagVerifier) {
        verifier::beforeAcquire(p, lock, call);
    }
    if (!tryTake(p, lock)) [[unlikely]] {
        takeContended(p, lock);
    }
    if (on & flagVerifier) {
        verifier::afterAcquire(p, lock, savedIrql);
    }
}

// The level is lowered after this and before the scheduling point, by the caller.
inline void give(Processor& p, KSPIN_LOCK& lock, KIRQL newIrql, const char* call) {
    std::uint32_t on = flags();
    if (on & flagVerifier) {
        verifier::beforeRelease(p, lock, newIrql, call);
    }
    __atomic_store_n(&lock.Owner, 0u, __ATOMIC_RELEASE);
    if (on & flagSimulated) [[unlikely]] {
        sim::readyAll(&lock);
    }
}

}  // namespace

extern "C" {

VOID NTAPI KiInitializeSpinLock(PKSPIN_LOCK SpinLock, const char* File, ULONG Line) {
    __atomic_store_n(&SpinLock->Owner, 0u, __ATOMIC_RELAXED);
    SpinLock->Class = verifier::lockClassOf(File, Line);
}

VOID NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql) _No_thread_safety_analysis_ {
    Processor& p = self();
    KIRQL old = p.irql;
    if (verifying() && old > DISPATCH_LEVEL) [[unlikely]] {
        verifier::irqlTooHigh("KeAcquireSpinLock", DISPATCH_LEVEL);
    }
    p.irql = DISPATCH_LEVEL;
    take(p, *SpinLock, old, "KeAcquireSpinLock");
    *OldIrql = old;
}

VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) _No_thread_safety_analysis_ {
    Processor& p = self();
    give(p, *SpinLock, NewIrql, "KeReleaseSpinLock");
    lowerTo(p, NewIrql);
    schedulePoint(Point::releaseLock);
}

VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) _No_thread_safety_analysis_ {
    Processor& p = self();
    if (verifying() && p.irql != DISPATCH_LEVEL) [[unlikely]] {
        verifier::stop("L9", "KeAcquireSpinLockAtDpcLevel", SpinLock, "called at IRQL %d", p.irql);
    }
    take(p, *SpinLock, DISPATCH_LEVEL, "KeAcquireSpinLockAtDpcLevel");
}

VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) _No_thread_safety_analysis_ {
    Processor& p = self();
    if (verifying() && p.irql != DISPATCH_LEVEL) [[unlikely]] {
        verifier::stop("L9", "KeReleaseSpinLockFromDpcLevel", SpinLock, "called at IRQL %d", p.irql);
    }
    give(p, *SpinLock, DISPATCH_LEVEL, "KeReleaseSpinLockFromDpcLevel");
    schedulePoint(Point::releaseLock);
}

PLIST_ENTRY NTAPI ExInterlockedInsertTailList(PLIST_ENTRY Head, PLIST_ENTRY Entry, PKSPIN_LOCK Lock) {
    KIRQL old;
    KeAcquireSpinLock(Lock, &old);
    PLIST_ENTRY last = IsListEmpty(Head) ? nullptr : Head->Blink;
    InsertTailList(Head, Entry);
    KeReleaseSpinLock(Lock, old);
    return last;
}

PLIST_ENTRY NTAPI ExInterlockedRemoveHeadList(PLIST_ENTRY Head, PKSPIN_LOCK Lock) {
    KIRQL old;
    KeAcquireSpinLock(Lock, &old);
    PLIST_ENTRY first = IsListEmpty(Head) ? nullptr : RemoveHeadList(Head);
    KeReleaseSpinLock(Lock, old);
    return first;
}

}  // extern "C"
