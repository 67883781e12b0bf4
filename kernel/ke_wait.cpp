// Dispatcher objects and waiting. One lock, the dispatcher lock, guards every object's state and wait list.
//
// A signaller decides under that lock which waiters go on, takes them off all their lists and consumes the signal for
// them; it wakes them after releasing the lock and touches the object no more, since the object may be a local of a
// waiter.
//
//   running --not signalled--> waiting --satisfied by a signaller--> running (STATUS_WAIT_0 + n)
//                                 '-----deadline, still waiting----> running (STATUS_TIMEOUT)
#include "kernel/processor.h"
#include "kernel/sim.h"
#include "kernel/timer.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr UCHAR eventNotification = 0;
constexpr UCHAR eventSynchronization = 1;
constexpr UCHAR mutantObject = 2;
constexpr UCHAR typeMark = 0xd1;  // Spare[0] of an initialised object

TinyLock dispatcherLock;

const char* kindOf(const DISPATCHER_HEADER& object) {
    return object.Type == mutantObject ? "mutex" : "event";
}

KMUTANT& mutantOf(DISPATCHER_HEADER& object) { return *CONTAINING_RECORD(&object, KMUTANT, Header); }

bool signalledFor(DISPATCHER_HEADER& object, Processor& p) _Requires_lock_held_(dispatcherLock) {
    return object.SignalState > 0 || (object.Type == mutantObject && mutantOf(object).OwnerThread == &p);
}

void consume(DISPATCHER_HEADER& object, Processor& p) _Requires_lock_held_(dispatcherLock) {
    if (object.Type == eventSynchronization) {
        object.SignalState = 0;
    } else if (object.Type == mutantObject) {
        object.SignalState--;
        mutantOf(object).OwnerThread = &p;
    }
}

// Consumes what the thread waits for if that is there now; the number of the object, or -1.
int trySatisfy(WaitBlock* blocks, ULONG count, bool all, Processor& p) _Requires_lock_held_(dispatcherLock) {
    if (!all) {
        for (ULONG i = 0; i < count; i++) {
            if (signalledFor(*blocks[i].object, p)) {
                consume(*blocks[i].object, p);
                return int(i);
            }
        }
        return -1;
    }
    for (ULONG i = 0; i < count; i++) {
        if (!signalledFor(*blocks[i].object, p)) {
            return -1;
        }
    }
    for (ULONG i = 0; i < count; i++) {
        consume(*blocks[i].object, p);
    }
    return 0;
}

void unlinkBlocks(Processor& p) _Requires_lock_held_(dispatcherLock) {
    for (ULONG i = 0; i < p.waitCount; i++) {
        RemoveEntryList(&p.waitBlocks[i].entry);
    }
    p.waiting = false;
}

// Lets every waiter go on that the object's new state satisfies, in the order they came; the chain of those to wake.
Processor* releaseWaiters(DISPATCHER_HEADER& object) _Requires_lock_held_(dispatcherLock) {
    Processor* woken = nullptr;
    Processor** last = &woken;
    PLIST_ENTRY e = object.WaitListHead.Flink;
    while (e != &object.WaitListHead && object.SignalState > 0) {
        Processor& p = *CONTAINING_RECORD(e, WaitBlock, entry)->thread;
        e = e->Flink;
        int number = trySatisfy(p.waitBlocks, p.waitCount, p.waitAll, p);
        if (number < 0) {
            continue;
        }
        p.waitStatus = STATUS_WAIT_0 + number;
        // A thread may wait for the object twice; skip its other blocks before they go.
        while (e != &object.WaitListHead && CONTAINING_RECORD(e, WaitBlock, entry)->thread == &p) {
            e = e->Flink;
        }
        unlinkBlocks(p);
        p.nextWoken = nullptr;
        *last = &p;
        last = &p.nextWoken;
    }
    return woken;
}

void wake(Processor* woken) {
    while (woken) {
        Processor* next = woken->nextWoken;
        if (simulated()) {
            sim::ready(*woken);
        } else {
            giveToken(*woken);
        }
        woken = next;
    }
}

// Sleeps until a signaller has satisfied the wait, or the deadline has passed.
NTSTATUS sleep(Processor& p, const char* what, const void* object, std::uint64_t deadline) {
    if (simulated()) {
        for (;;) {
            bool early = sim::block(object, what, deadline, false);
            TinyGuard guard(dispatcherLock);
            if (!p.waiting) {
                return p.waitStatus;
            }
            if (!early) {
                unlinkBlocks(p);
                return STATUS_TIMEOUT;
            }
        }
    }
    if (!sleepOnToken(p, deadline)) {
        {
            TinyGuard guard(dispatcherLock);
            if (p.waiting) {
                unlinkBlocks(p);
                return STATUS_TIMEOUT;
            }
        }
        sleepOnToken(p, 0);
    }
    return p.waitStatus;
}

NTSTATUS wait(PVOID* objects, ULONG count, bool all, PLARGE_INTEGER timeout, const char* call) {
    Processor& p = self();
    bool poll = timeout && timeout->QuadPart == 0;
    if (!poll) {
        verifier::checkIrqlMax(call, APC_LEVEL);
    }
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS) {
        verifier::stop("Q1", call, nullptr, "%u objects", count);
    }
    WaitBlock blocks[MAXIMUM_WAIT_OBJECTS];  // left as it is but for the first `count`
    for (ULONG i = 0; i < count; i++) {
        auto& object = *static_cast<DISPATCHER_HEADER*>(objects[i]);
        if (object.Spare[0] != typeMark) [[unlikely]] {
            verifier::stop("M7", call, &object, "the object is not initialised, or gone");
        }
        if (object.Type == mutantObject && verifying()) {
            verifier::beforeMutex(p, mutantOf(object), call);
        }
        blocks[i].thread = &p;
        blocks[i].object = &object;
    }
    schedulePoint(Point::wait);
    std::uint64_t deadline = timeout && !poll ? dueFrom(*timeout) : 0;
    NTSTATUS status;
    {
        TinyGuard guard(dispatcherLock);
        int number = trySatisfy(blocks, count, all, p);
        if (number < 0 && !poll) {
            for (ULONG i = 0; i < count; i++) {
                InsertTailList(&blocks[i].object->WaitListHead, &blocks[i].entry);
            }
            p.waiting = true;
            p.waitAll = all;
            p.waitBlocks = blocks;
            p.waitCount = count;
        }
        status = number < 0 ? STATUS_TIMEOUT : STATUS_WAIT_0 + number;
    }
    if (status == STATUS_TIMEOUT && !poll) {
        status = sleep(p, count == 1 ? kindOf(*blocks[0].object) : "any of several objects", objects[0], deadline);
    }
    if (status != STATUS_TIMEOUT && verifying()) {
        for (ULONG i = 0; i < count; i++) {
            if ((all || i == ULONG(status)) && blocks[i].object->Type == mutantObject) {
                verifier::mutexAcquired(p, mutantOf(*blocks[i].object));
            }
        }
    }
    return status;
}

void initialise(DISPATCHER_HEADER& object, UCHAR type, LONG state) {
    object.Type = type;
    object.Spare[0] = typeMark;
    object.SignalState = state;
    InitializeListHead(&object.WaitListHead);
}

void checkObject(const DISPATCHER_HEADER& object, const char* call) {
    if (object.Spare[0] != typeMark) [[unlikely]] {
        verifier::stop("M7", call, &object, "the object is not initialised");
    }
    verifier::checkIrqlMax(call, DISPATCH_LEVEL);
}

}  // namespace

LONG setEvent(KEVENT& event) {
    LONG old;
    Processor* woken = nullptr;
    {
        TinyGuard guard(dispatcherLock);
        old = event.Header.SignalState;
        event.Header.SignalState = 1;
        if (!IsListEmpty(&event.Header.WaitListHead)) {
            woken = releaseWaiters(event.Header);
        }
    }
    wake(woken);
    return old;
}

}  // namespace nt

using namespace nt;

extern "C" {

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    initialise(Event->Header, Type == NotificationEvent ? eventNotification : eventSynchronization, State ? 1 : 0);
}

LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN Wait) {
    checkObject(Event->Header, "KeSetEvent");
    if (Wait) {
        verifier::checkIrqlMax("KeSetEvent with Wait", APC_LEVEL);
    }
    LONG old = setEvent(*Event);
    schedulePoint(Point::signal);
    return old;
}

LONG NTAPI KeResetEvent(PRKEVENT Event) {
    checkObject(Event->Header, "KeResetEvent");
    TinyGuard guard(dispatcherLock);
    LONG old = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return old;
}

VOID NTAPI KeClearEvent(PRKEVENT Event) { KeResetEvent(Event); }

LONG NTAPI KeReadStateEvent(PRKEVENT Event) {
    TinyGuard guard(dispatcherLock);
    return Event->Header.SignalState;
}

VOID NTAPI KiInitializeMutex(PRKMUTEX Mutex, const char* File, ULONG Line) {
    *Mutex = {};
    initialise(Mutex->Header, mutantObject, 1);
    Mutex->Class = verifier::lockClassOf(File, Line);
}

LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN) {
    checkObject(Mutex->Header, "KeReleaseMutex");
    Processor& p = self();
    LONG old;
    Processor* woken = nullptr;
    bool owner;
    {
        TinyGuard guard(dispatcherLock);
        owner = Mutex->OwnerThread == &p;
        old = Mutex->Header.SignalState;
        if (owner) {
            Mutex->Header.SignalState = old + 1;
            if (old == 0) {
                Mutex->OwnerThread = nullptr;
                woken = releaseWaiters(Mutex->Header);
            }
        }
    }
    if (!owner) {
        verifier::stop("L2", "KeReleaseMutex", Mutex, "the mutex is not this thread's");
    }
    if (verifying()) {
        verifier::mutexReleased(p, *Mutex);
    }
    wake(woken);
    schedulePoint(Point::signal);
    return old;
}

LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex) {
    TinyGuard guard(dispatcherLock);
    return Mutex->Header.SignalState;
}

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Timeout) {
    return wait(&Object, 1, false, Timeout, "KeWaitForSingleObject");
}

NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON, KPROCESSOR_MODE,
                                        BOOLEAN, PLARGE_INTEGER Timeout, struct _KWAIT_BLOCK*) {
    return wait(Object, Count, WaitType == WaitAll, Timeout, "KeWaitForMultipleObjects");
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval) {
    verifier::checkIrqlMax("KeDelayExecutionThread", APC_LEVEL);
    schedulePoint(Point::wait);
    Processor& p = self();
    std::uint64_t deadline = dueFrom(*Interval);
    if (simulated()) {
        while (sim::block(&p, "the end of a delay", deadline, false)) {
        }
    } else {
        while (sleepOnToken(p, deadline)) {
        }
    }
    return STATUS_SUCCESS;
}

}  // extern "C"
