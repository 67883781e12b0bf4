// Deferred procedure calls. A DPC is on one processor's queue or on none.
//
//   free --queueDpc--> queued --drainDpcs--> free, its routine running   (may be queued again at once)
//                        '--KeRemoveQueueDpc--> free, routine not called
#include "kernel/processor.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr UCHAR dpcType = 19;

Processor* queueOf(KDPC& dpc) {
    return static_cast<Processor*>(__atomic_load_n(&dpc.DpcData, __ATOMIC_ACQUIRE));
}

// Under dpcLock: only its readers need the atomic.
void addDpcCount(Processor& p, int change) {
    p.dpcCount.store(p.dpcCount.load(std::memory_order_relaxed) + static_cast<ULONG>(change), std::memory_order_relaxed);
}

void tellFlushers(Processor& p) {
    if (p.flushers.load()) {
        p.dpcDone.fetch_add(1);
        wakeAll(p.dpcDone);
    }
}

struct DpcCall {
    KDPC* dpc;
    PKDEFERRED_ROUTINE routine;
    PVOID context, argument1, argument2;
};

// Takes the next one off the queue; false when it is empty. The one before it has ended.
bool takeNext(Processor& p, DpcCall& call) {
    if (!p.dpcCount.load(std::memory_order_relaxed)) {
        p.dpcRunning.store(0, std::memory_order_release);
        return false;
    }
    TinyGuard guard(p.dpcLock);
    if (IsListEmpty(&p.dpcQueue)) {
        p.dpcRunning.store(0, std::memory_order_release);
        return false;
    }
    KDPC& dpc = *CONTAINING_RECORD(RemoveHeadList(&p.dpcQueue), KDPC, DpcListEntry);
    addDpcCount(p, -1);
    p.dpcRunning.store(dpc.Ticket, std::memory_order_relaxed);
    call = {&dpc, dpc.DeferredRoutine, dpc.DeferredContext, dpc.SystemArgument1, dpc.SystemArgument2};
    // From here on it may be queued again, on any processor.
    __atomic_store_n(&dpc.DpcData, nullptr, __ATOMIC_RELEASE);
    return true;
}

// Oldest ticket that is queued or running, 0 when there is none.
std::uint64_t oldest(Processor& p, std::uint64_t& last) {
    TinyGuard guard(p.dpcLock);
    last = p.dpcLast;
    if (std::uint64_t running = p.dpcRunning.load(std::memory_order_acquire)) {
        return running;
    }
    return IsListEmpty(&p.dpcQueue) ? 0 : CONTAINING_RECORD(p.dpcQueue.Flink, KDPC, DpcListEntry)->Ticket;
}

}  // namespace

bool queueDpc(Processor& p, KDPC& dpc, PVOID argument1, PVOID argument2) {
    TinyGuard guard(p.dpcLock);
    PVOID none = nullptr;
    PVOID mine = &p;
    if (!__atomic_compare_exchange_n(&dpc.DpcData, &none, mine, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
        return false;
    }
    dpc.SystemArgument1 = argument1;
    dpc.SystemArgument2 = argument2;
    dpc.Ticket = ++p.dpcLast;
    if (dpc.Importance == HighImportance) {
        InsertHeadList(&p.dpcQueue, &dpc.DpcListEntry);
    } else {
        InsertTailList(&p.dpcQueue, &dpc.DpcListEntry);
    }
    addDpcCount(p, 1);
    return true;
}

void drainDpcs(Processor& p) {
    p.draining = true;
    DpcCall call{};
    for (;;) {
        schedulePoint(Point::dpc);
        bool more = takeNext(p, call);
        tellFlushers(p);
        if (!more) {
            break;
        }
        verifier::RoutineFrame frame = verifier::enterRoutine();
        call.routine(call.dpc, call.context, call.argument1, call.argument2);
        verifier::leaveRoutine(frame, "DPC routine", reinterpret_cast<const void*>(call.routine));
    }
    p.draining = false;
}

void flushDpcs() {
    Processor* p;
    for (std::size_t i = 0; (p = processorAt(i)); i++) {
        std::uint64_t limit = 0;
        if (!oldest(*p, limit)) {
            continue;
        }
        p->flushers.fetch_add(1);
        for (;;) {
            std::uint32_t seen = p->dpcDone.load();
            std::uint64_t ignored;
            std::uint64_t ticket = oldest(*p, ignored);
            if (!ticket || ticket > limit) {
                break;
            }
            parkOn(p->dpcDone, seen, "the DPCs of a processor");
        }
        p->flushers.fetch_sub(1);
    }
}

const KDPC* dpcIn(const void* start, std::size_t size) {
    auto first = reinterpret_cast<ULONG_PTR>(start);
    Processor* p;
    for (std::size_t i = 0; (p = processorAt(i)); i++) {
        if (!p->dpcCount.load(std::memory_order_relaxed)) {
            continue;
        }
        TinyGuard guard(p->dpcLock);
        for (PLIST_ENTRY e = p->dpcQueue.Flink; e != &p->dpcQueue; e = e->Flink) {
            auto address = reinterpret_cast<ULONG_PTR>(CONTAINING_RECORD(e, KDPC, DpcListEntry));
            if (address - first < size) {
                return reinterpret_cast<const KDPC*>(address);
            }
        }
    }
    return nullptr;
}

}  // namespace nt

using namespace nt;

extern "C" {

VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    *Dpc = {};
    Dpc->Type = dpcType;
    Dpc->Importance = MediumImportance;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
}

VOID NTAPI KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance) { Dpc->Importance = UCHAR(Importance); }

BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
    if (verifying() && Dpc->Type != dpcType) [[unlikely]] {
        verifier::stop("M7", "KeInsertQueueDpc", Dpc, "the DPC is not initialised");
    }
    schedulePoint(Point::dpc);
    Processor& p = self();
    KIRQL old = p.irql;
    if (old < DISPATCH_LEVEL) {
        p.irql = DISPATCH_LEVEL;
    }
    bool queued = queueDpc(p, *Dpc, SystemArgument1, SystemArgument2);
    lowerTo(p, old);
    return queued;
}

BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc) {
    schedulePoint(Point::dpc);
    for (;;) {
        Processor* p = queueOf(*Dpc);
        if (!p) {
            return FALSE;
        }
        {
            TinyGuard guard(p->dpcLock);
            if (queueOf(*Dpc) != p) {
                continue;
            }
            RemoveEntryList(&Dpc->DpcListEntry);
            addDpcCount(*p, -1);
            __atomic_store_n(&Dpc->DpcData, nullptr, __ATOMIC_RELEASE);
        }
        tellFlushers(*p);
        return TRUE;
    }
}

VOID NTAPI KeFlushQueuedDpcs(VOID) {
    verifier::checkIrqlMax("KeFlushQueuedDpcs", PASSIVE_LEVEL);
    schedulePoint(Point::dpc);
    flushDpcs();
}

}  // extern "C"
