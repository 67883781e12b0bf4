// Work of one thread that another may do on its way to sleep. A thread that causes such work and is about to wait for its outcome
// anyway saves both of them a wake-up. In the real mode only; in the simulated one nobody has a hand.
//
//   free --leaveToHand--> left --HandScope::work--> done here
//                          '---the thread blocks, or its scope ends---> handed over to its own thread
#pragma once

#include <wdm.h>

namespace nt {

// Lives as long as work may be left. Neither routine is called under a lock.
struct HandWork {
    // PASSIVE_LEVEL: does it, here.
    void (*work)(HandWork& hand) = nullptr;
    // <= DISPATCH_LEVEL: wakes the thread whose work it is.
    void (*handOver)(HandWork& hand) = nullptr;
    HandWork* next = nullptr;  // the thread's that has it
};

// While one of these lives its thread takes what is left to it. Not nested.
class HandScope {
public:
    HandScope();
    ~HandScope();
    HandScope(const HandScope&) = delete;
    HandScope& operator=(const HandScope&) = delete;

    // Does what has been left to this thread so far. PASSIVE_LEVEL.
    void work();
};

// True: the calling thread is in a scope.
bool hasHand();
// Leaves the work to the calling thread, which is in a scope. Left once at a time. <= DISPATCH_LEVEL.
void leaveToHand(HandWork& hand);
// Before the calling thread blocks: who waits must not keep others from what it waits for.
void emptyHand();

}  // namespace nt
