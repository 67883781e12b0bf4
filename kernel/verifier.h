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

// For the core: lock rules L1 to L9. `call` names the platform's call. ----------------------------------------------

ULONG lockClassOf(const char* file, ULONG line);
void beforeAcquire(Processor& p, const KSPIN_LOCK& lock, const char* call);
void afterAcquire(Processor& p, const KSPIN_LOCK& lock, KIRQL savedIrql);
void beforeRelease(Processor& p, const KSPIN_LOCK& lock, KIRQL newIrql, const char* call);
void beforeMutex(Processor& p, const KMUTANT& mutex, const char* call);
void mutexAcquired(Processor& p, const KMUTANT& mutex);
void mutexReleased(Processor& p, const KMUTANT& mutex);
// L7, M6: memory about to be freed must hold no lock in use, no set timer, no queued DPC.
void checkFree(const void* block, std::size_t size, const char* call);
void resetLockOrder();

}  // namespace nt::verifier
