// The system work queue: items run in order of queueing at PASSIVE_LEVEL on worker threads that may block, so the number
// of workers grows whenever an item finds none idle.
#pragma once

#include "kernel/core.h"

namespace nt {

// Embedded by its owner; may be queued again, or freed, from within its routine.
struct WorkEntry {
    LIST_ENTRY entry;  // work-queue lock
    void (*routine)(void* context);
    void* context;
};

// IRQL <= DISPATCH_LEVEL. The entry must not be queued already.
void queueWork(WorkEntry& work);
// Waits until nothing is queued and no item runs. PASSIVE_LEVEL, not from an item.
void flushWork();

// For the core.
void startWorkers();
void stopWorkers();

}  // namespace nt
