// The system work queue.
//
// An item is queued once and runs once. Workers take items in order; an item queued while every worker is busy gets a new
// worker, so items that wait for each other cannot starve. Workers live until the core stops.
#include "kernel/work.h"

#include "kernel/processor.h"
#include "kernel/thread.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr std::size_t maxWorkers = 1024;

struct Queue {
    TinyLock lock;
    LIST_ENTRY items _Guarded_by_(lock) = {&items, &items};
    std::size_t queued _Guarded_by_(lock) = 0;
    std::size_t busy _Guarded_by_(lock) = 0;     // workers with an item, or about to look for one
    std::size_t workers _Guarded_by_(lock) = 0;
    bool stopping _Guarded_by_(lock) = true;
    ParkWord arrived{0};
    ParkWord finished{0};
    Thread threads[maxWorkers];  // the first `workers`; started by who counted them
};
Queue queue;

// False when there is none; then the worker counts as idle.
bool takeItem(WorkEntry*& item, std::uint32_t& seen, bool& stopping) {
    TinyGuard guard(queue.lock);
    seen = queue.arrived.load();
    stopping = queue.stopping;
    if (IsListEmpty(&queue.items)) {
        queue.busy--;
        return false;
    }
    item = CONTAINING_RECORD(RemoveHeadList(&queue.items), WorkEntry, entry);
    queue.queued--;
    return true;
}

void becomeBusy() {
    TinyGuard guard(queue.lock);
    queue.busy++;
}

void announceFinished() {
    queue.finished.fetch_add(1);
    wakeAll(queue.finished);
}

void workerLoop() {
    for (;;) {
        WorkEntry* item;
        std::uint32_t seen;
        bool stopping;
        if (takeItem(item, seen, stopping)) {
            auto routine = item->routine;
            schedulePoint(Point::workItem);
            verifier::RoutineFrame frame = verifier::enterRoutine();
            routine(item->context);
            verifier::leaveRoutine(frame, "work item routine", reinterpret_cast<const void*>(routine));
            continue;
        }
        announceFinished();
        if (stopping) {
            return;
        }
        parkOn(queue.arrived, seen, "work", true);
        becomeBusy();
    }
}

void addWorker(std::size_t number) { queue.threads[number].start("worker " + std::to_string(number + 1), workerLoop); }

}  // namespace

void queueWork(WorkEntry& work) {
    std::size_t newWorker = maxWorkers;
    {
        TinyGuard guard(queue.lock);
        if (queue.stopping) {
            verifier::stop("M7", "queueWork", &work, "the executive is stopping");
        }
        InsertTailList(&queue.items, &work.entry);
        queue.queued++;
        queue.arrived.fetch_add(1);
        // Idle workers may all be on their way to earlier items.
        if (queue.queued > queue.workers - queue.busy && queue.workers < maxWorkers) {
            newWorker = queue.workers++;
            queue.busy++;
        }
    }
    wakeOne(queue.arrived);
    if (newWorker != maxWorkers) {
        addWorker(newWorker);
    }
    schedulePoint(Point::workItem);
}

void flushWork() {
    verifier::checkIrqlMax("flushWork", PASSIVE_LEVEL);
    for (;;) {
        std::uint32_t seen = queue.finished.load();
        {
            TinyGuard guard(queue.lock);
            if (!queue.queued && !queue.busy) {
                return;
            }
        }
        parkOn(queue.finished, seen, "the end of all work items");
    }
}

void startWorkers() {
    TinyGuard guard(queue.lock);
    queue.stopping = false;
    queue.queued = 0;
    queue.busy = 0;
    queue.workers = 0;
}

void stopWorkers() {
    flushWork();
    std::size_t workers;
    {
        TinyGuard guard(queue.lock);
        queue.stopping = true;
        queue.arrived.fetch_add(1);
        workers = queue.workers;
    }
    wakeAll(queue.arrived);
    for (std::size_t i = 0; i < workers; i++) {
        queue.threads[i].join();
    }
}

}  // namespace nt
