// The verifier's slow side: reports, and the graph of lock orders.
//
// Lock classes are the places of KeInitializeSpinLock and KeInitializeMutex. An edge a -> b means that b was taken while
// a was held, by anyone, ever. A new edge that closes a circle is an order inversion, whether or not it deadlocks today.
#include "kernel/verifier.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel/sim.h"
#include "kernel/timer.h"

namespace nt::verifier {

std::atomic<std::uint8_t> lockOrder[maxLockClasses][maxLockClasses];

namespace {

struct LockClass {
    const char* file;
    ULONG line;
};
// Grows only; class 0 stays unused, the last one takes what does not fit.
LockClass classes[maxLockClasses];
ULONG classCount = 1;
TinyLock classLock;

std::atomic<HistoryPrinter> historyPrinter{nullptr};

const char* baseName(const char* file) {
    const char* slash = file ? strrchr(file, '/') : nullptr;
    return slash ? slash + 1 : file ? file : "?";
}

void describeClass(ULONG lockClass, char* text, std::size_t size) {
    const LockClass& c = classes[classIndex(lockClass)];
    snprintf(text, size, "%s:%u", baseName(c.file), c.line);
}

// Is there a way from one class to the other along the edges?
bool reaches(ULONG from, ULONG to) {
    bool seen[maxLockClasses] = {};
    ULONG stack[maxLockClasses];
    ULONG depth = 0;
    stack[depth++] = from;
    seen[from] = true;
    while (depth) {
        ULONG at = stack[--depth];
        if (at == to) {
            return true;
        }
        for (ULONG next = 1; next < maxLockClasses; next++) {
            if (!seen[next] && lockOrder[at][next].load(std::memory_order_relaxed)) {
                seen[next] = true;
                stack[depth++] = next;
            }
        }
    }
    return false;
}

}  // namespace

void stop(const char* rule, const char* call, const void* subject, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fprintf(stderr, "verifier: %s %s: %s\n", rule, call, text);
    fprintf(stderr, "  mode: %s\n", describeMode().c_str());
    if (Processor* p = currentProcessor) {
        fprintf(stderr, "  thread %u (%s) at IRQL %d, %u lock(s) held\n", p->id, p->name, p->irql, p->heldCount);
        for (ULONG i = 0; i < p->heldCount; i++) {
            char where[96];
            describeClass(p->held[i].lockClass, where, sizeof where);
            fprintf(stderr, "    %s %p initialised at %s\n", p->held[i].isMutex ? "mutex" : "spin lock", p->held[i].lock,
                    where);
        }
    }
    if (HistoryPrinter printer = historyPrinter.load(); printer && subject) {
        printer(subject);
    }
    fflush(stderr);
    abort();
}

void setHistoryPrinter(HistoryPrinter printer) { historyPrinter = printer; }

void irqlTooHigh(const char* call, KIRQL highest) {
    stop(highest == PASSIVE_LEVEL ? "Q2" : "Q1", call, nullptr, "called at IRQL %d, %d at most", self().irql, highest);
}

void routineLeft(const RoutineFrame& frame, const char* what, const void* subject) {
    Processor& p = self();
    if (p.irql != frame.irql) {
        stop("Q3", what, subject, "was called at IRQL %d and came back at %d", frame.irql, p.irql);
    }
    stop("L8", what, subject, "was called with %u lock(s) held and came back with %u", frame.heldCount, p.heldCount);
}

void spinLockHeld(const char* call, const void* subject) { stop("L10", call, subject, "a spin lock is held"); }

bool holdsLock(const KSPIN_LOCK* lock) { return __atomic_load_n(&lock->Owner, __ATOMIC_RELAXED) == self().id; }

ULONG lockClassOf(const char* file, ULONG line) {
    TinyGuard guard(classLock);
    for (ULONG i = 1; i < classCount; i++) {
        if (classes[i].line == line && (classes[i].file == file || !strcmp(classes[i].file, file))) {
            return lockClassMark | i;
        }
    }
    if (classCount == maxLockClasses) {
        return lockClassMark | (maxLockClasses - 1);
    }
    classes[classCount] = {file, line};
    return lockClassMark | classCount++;
}

void newOrder(Processor& p, ULONG heldClass, ULONG lockClass, const void* lock, const char* call) {
    ULONG a = classIndex(heldClass);
    ULONG b = classIndex(lockClass);
    bool circle;
    {
        TinyGuard guard(classLock);
        circle = reaches(b, a);
        lockOrder[a][b].store(1, std::memory_order_relaxed);
    }
    if (circle && verifying()) {
        char held[96], taken[96];
        describeClass(heldClass, held, sizeof held);
        describeClass(lockClass, taken, sizeof taken);
        stop("L6", call, lock, "a lock of %s is taken while one of %s is held; the other order was seen before (thread %u)",
             taken, held, p.id);
    }
}

void badAcquire(Processor&, const KSPIN_LOCK& lock, const char* call) {
    if ((lock.Class & ~(maxLockClasses - 1)) != lockClassMark) {
        stop("L5", call, &lock, "spin lock %p is not initialised", static_cast<const void*>(&lock));
    }
    stop("L1", call, &lock, "spin lock %p is acquired recursively", static_cast<const void*>(&lock));
}

void badRelease(Processor& p, const KSPIN_LOCK& lock, KIRQL newIrql, const char* call) {
    const void* address = &lock;
    ULONG owner = lock.Owner;
    if (owner == 0) {
        stop("L3", call, address, "spin lock %p is not held", address);
    }
    if (owner != p.id) {
        stop("L2", call, address, "spin lock %p is held by thread %u", address, owner);
    }
    stop("L4", call, address, "spin lock %p: restores IRQL %d where %d was before", address, newIrql,
         p.spinLocks == 1 ? p.spinBaseIrql : DISPATCH_LEVEL);
}

void tooManyLocks(Processor&, const char* call) {
    stop("L1", call, nullptr, "more than %u locks are held at once", maxHeldLocks);
}

void beforeMutex(Processor& p, const KMUTANT& mutex, const char* call) {
    for (ULONG i = 0; i < p.heldCount; i++) {
        if (p.held[i].lock == &mutex) {
            return;
        }
    }
    checkOrder(p, mutex.Class, &mutex, call);
}

void mutexAcquired(Processor& p, const KMUTANT& mutex) { pushHeld(p, &mutex, mutex.Class, true, "mutex wait"); }

void mutexReleased(Processor& p, const KMUTANT& mutex) { popHeld(p, &mutex); }

void checkFree(const void* block, std::size_t size, const char* call) {
    auto first = reinterpret_cast<ULONG_PTR>(block);
    Processor* p = &self();
    for (std::size_t n = 0; p; p = simulated() ? processorAt(n++) : nullptr) {
        for (ULONG i = 0; i < p->heldCount; i++) {
            if (reinterpret_cast<ULONG_PTR>(p->held[i].lock) - first < size) {
                stop("L7", call, block, "block %p holds a lock that thread %u holds", block, p->id);
            }
        }
    }
    if (size < sizeof(KDPC) && size < sizeof(KTIMER)) {
        return;
    }
    if (const KTIMER* timer = timerIn(block, size)) {
        stop("M6", call, block, "block %p holds a timer that is set, %p", block, static_cast<const void*>(timer));
    }
    if (const KDPC* dpc = dpcIn(block, size)) {
        stop("M6", call, block, "block %p holds a queued DPC, %p", block, static_cast<const void*>(dpc));
    }
}

void resetLockOrder() {
    for (auto& row : lockOrder) {
        for (auto& edge : row) {
            edge.store(0, std::memory_order_relaxed);
        }
    }
}

}  // namespace nt::verifier
