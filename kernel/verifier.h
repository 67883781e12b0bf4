// Rules of the kernel, checked at run time. A broken rule stops the process with its name, the call, what the thread
// holds, and the history the subject's owner can give.
#pragma once

#include "kernel/processor.h"

namespace nt::verifier {

// Prints rule, call and text, the thread and its locks, the subject's history; then aborts. Also called with the
// verifier off by those few checks without which the executive could not go on.
[[noreturn]] void stop(const char* rule, const char* call, const void* subject, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Prints what is known about a subject (a request, mostly) to stderr. One printer, set by the I/O manager.
using HistoryPrinter = void (*)(const void* subject);
void setHistoryPrinter(HistoryPrinter printer);

// Q1/Q2: the call needs `highest` or below. One flag test when off.
void irqlTooHigh(const char* call, KIRQL highest);
inline void checkIrqlMax(const char* call, KIRQL highest) {
    if (verifying() && self().irql > highest) [[unlikely]] {
        irqlTooHigh(call, highest);
    }
}

// Q3, L8: a routine of a driver must come back at the level and with the locks it was called with.
//   auto frame = verifier::enterRoutine();  …call…  verifier::leaveRoutine(frame, "completion routine", irp);
struct RoutineFrame {
    ULONG heldCount;
    KIRQL irql;
    bool checked;
};
void routineLeft(const RoutineFrame& frame, const char* what, const void* subject);
inline RoutineFrame enterRoutine() {
    if (!verifying()) {
        return {0, 0, false};
    }
    Processor& p = self();
    return {p.heldCount, p.irql, true};
}
inline void leaveRoutine(const RoutineFrame& frame, const char* what, const void* subject) {
    if (frame.checked) {
        Processor& p = self();
        if (p.heldCount != frame.heldCount || p.irql != frame.irql) [[unlikely]] {
            routineLeft(frame, what, subject);
        }
    }
}

// L10: no spin lock may be held here (completing a request, calling out of the layer).
void spinLockHeld(const char* call, const void* subject);
inline void checkNoSpinLock(const char* call, const void* subject) {
    if (verifying() && self().spinLocks) [[unlikely]] {
        spinLockHeld(call, subject);
    }
}
bool holdsLock(const KSPIN_LOCK* lock);

// For the core: lock rules L1 to L9, on the path of every lock. `call` names the platform's call. ---------------------

// A class is the place that initialised the lock; the mark tells an initialised lock from noise.
constexpr ULONG lockClassMark = 0x4c4b0000;
constexpr ULONG maxLockClasses = 256;
ULONG lockClassOf(const char* file, ULONG line);
// Byte [a][b]: a lock of class b was taken while one of class a was held.
extern std::atomic<std::uint8_t> lockOrder[maxLockClasses][maxLockClasses];

inline ULONG classIndex(ULONG lockClass) { return lockClass & (maxLockClasses - 1); }

[[noreturn]] void badAcquire(Processor& p, const KSPIN_LOCK& lock, const char* call);
[[noreturn]] void badRelease(Processor& p, const KSPIN_LOCK& lock, KIRQL newIrql, const char* call);
void newOrder(Processor& p, ULONG heldClass, ULONG lockClass, const void* lock, const char* call);
[[noreturn]] void tooManyLocks(Processor& p, const char* call);

inline void checkOrder(Processor& p, ULONG lockClass, const void* lock, const char* call) {
    for (ULONG i = 0; i < p.heldCount; i++) {
        ULONG held = p.held[i].lockClass;
        if (held != lockClass &&
            !lockOrder[classIndex(held)][classIndex(lockClass)].load(std::memory_order_relaxed)) [[unlikely]] {
            newOrder(p, held, lockClass, lock, call);
        }
    }
}

inline void beforeAcquire(Processor& p, const KSPIN_LOCK& lock, const char* call) {
    if ((lock.Class & ~(maxLockClasses - 1)) != lockClassMark ||
        __atomic_load_n(&lock.Owner, __ATOMIC_RELAXED) == p.id) [[unlikely]] {
        badAcquire(p, lock, call);
    }
    checkOrder(p, lock.Class, &lock, call);
}

inline void pushHeld(Processor& p, const void* lock, ULONG lockClass, bool isMutex, const char* call) {
    if (p.heldCount == maxHeldLocks) [[unlikely]] {
        tooManyLocks(p, call);
    }
    p.held[p.heldCount++] = {lock, lockClass, isMutex};
}

// False when it was not there.
inline bool popHeld(Processor& p, const void* lock) {
    for (ULONG i = p.heldCount; i-- > 0;) {
        if (p.held[i].lock == lock) {
            for (p.heldCount--; i < p.heldCount; i++) {
                p.held[i] = p.held[i + 1];
            }
            return true;
        }
    }
    return false;
}

inline void afterAcquire(Processor& p, const KSPIN_LOCK& lock, KIRQL savedIrql) {
    pushHeld(p, &lock, lock.Class, false, "KeAcquireSpinLock");
    if (p.spinLocks++ == 0) {
        p.spinBaseIrql = savedIrql;
    }
}

inline void beforeRelease(Processor& p, const KSPIN_LOCK& lock, KIRQL newIrql, const char* call) {
    KIRQL wanted = p.spinLocks == 1 ? p.spinBaseIrql : KIRQL(DISPATCH_LEVEL);
    if (__atomic_load_n(&lock.Owner, __ATOMIC_RELAXED) != p.id || newIrql != wanted || !popHeld(p, &lock))
        [[unlikely]] {
        badRelease(p, lock, newIrql, call);
    }
    p.spinLocks--;
}

void beforeMutex(Processor& p, const KMUTANT& mutex, const char* call);
void mutexAcquired(Processor& p, const KMUTANT& mutex);
void mutexReleased(Processor& p, const KMUTANT& mutex);
// L7, M6: memory about to be freed must hold no lock in use, no set timer, no queued DPC.
void checkFree(const void* block, std::size_t size, const char* call);
void resetLockOrder();

}  // namespace nt::verifier
