// Timers: a heap ordered by due time, and the clock thread that expires them at DISPATCH_LEVEL through their DPCs.
//
//   idle --KeSetTimer--> set (in the heap) --due--> idle, DPC queued on the clock thread's processor
//                          '--KeCancelTimer--> idle
//
// Leaving the heap and queueing the DPC are one step under the timer lock: whoever is told FALSE by KeCancelTimer finds
// the DPC queued, running or over, and may flush it.
//
// Real mode: relative times count from the last millisecond tick, and the clock thread wakes on ticks only, so all timers
// of one tick share a wake-up and a timer set again by its own DPC keeps its period. Simulated: exact.
#include "kernel/timer.h"

#include "kernel/sim.h"
#include "kernel/thread.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr UCHAR timerNotification = 8;
constexpr UCHAR timerSynchronization = 9;
constexpr std::uint64_t tick = 10'000;

struct Clock {
    TinyLock lock;
    std::vector<KTIMER*> heap _Guarded_by_(lock);
    std::uint64_t sequence _Guarded_by_(lock) = 0;
    std::uint64_t asleepUntil _Guarded_by_(lock) = 0;  // 0: awake; ~0: for ever
    bool stopping _Guarded_by_(lock) = false;
    ParkWord word{0};
    Thread thread;
};
Clock queue;

bool earlier(const KTIMER& a, const KTIMER& b) {
    return a.DueTime.QuadPart != b.DueTime.QuadPart ? a.DueTime.QuadPart < b.DueTime.QuadPart : a.Sequence < b.Sequence;
}

void place(std::size_t index, KTIMER* timer) _Requires_lock_held_(queue.lock) {
    queue.heap[index] = timer;
    timer->HeapIndex = ULONG(index + 1);
}

void siftUp(std::size_t index, KTIMER* timer) _Requires_lock_held_(queue.lock) {
    while (index > 0 && earlier(*timer, *queue.heap[(index - 1) / 2])) {
        place(index, queue.heap[(index - 1) / 2]);
        index = (index - 1) / 2;
    }
    place(index, timer);
}

void siftDown(std::size_t index, KTIMER* timer) _Requires_lock_held_(queue.lock) {
    for (;;) {
        std::size_t child = 2 * index + 1;
        if (child >= queue.heap.size()) {
            break;
        }
        if (child + 1 < queue.heap.size() && earlier(*queue.heap[child + 1], *queue.heap[child])) {
            child++;
        }
        if (!earlier(*queue.heap[child], *timer)) {
            break;
        }
        place(index, queue.heap[child]);
        index = child;
    }
    place(index, timer);
}

void insert(KTIMER* timer) _Requires_lock_held_(queue.lock) {
    timer->Sequence = ++queue.sequence;
    queue.heap.push_back(timer);
    siftUp(queue.heap.size() - 1, timer);
}

// False when it is not in the heap.
bool remove(KTIMER* timer) _Requires_lock_held_(queue.lock) {
    if (!timer->HeapIndex) {
        return false;
    }
    std::size_t index = timer->HeapIndex - 1;
    timer->HeapIndex = 0;
    KTIMER* last = queue.heap.back();
    queue.heap.pop_back();
    if (last != timer) {
        if (index > 0 && earlier(*last, *queue.heap[(index - 1) / 2])) {
            siftUp(index, last);
        } else {
            siftDown(index, last);
        }
    }
    return true;
}

std::uint64_t wakeUpFor(std::uint64_t due) { return simulated() ? due : (due + tick - 1) / tick * tick; }

// Expires what is due and returns when to wake up next: 0 = at once, ~0 = when told.
std::uint64_t expireDue(Processor& p, bool& stopping, std::uint32_t& seen) {
    TinyGuard guard(queue.lock);
    seen = queue.word.load();
    stopping = queue.stopping;
    std::uint64_t time = now();
    while (!queue.heap.empty() && queue.heap.front()->DueTime.QuadPart <= time) {
        KTIMER* timer = queue.heap.front();
        remove(timer);
        timer->Header.SignalState = 1;
        if (timer->Period) {
            timer->DueTime.QuadPart += std::uint64_t(timer->Period) * tick;
            insert(timer);
        }
        if (timer->Dpc) {
            queueDpc(p, *timer->Dpc, nullptr, nullptr);
        }
    }
    if (p.dpcCount.load(std::memory_order_relaxed)) {
        return queue.asleepUntil = 0;
    }
    return queue.asleepUntil = queue.heap.empty() ? ~0ull : wakeUpFor(queue.heap.front()->DueTime.QuadPart);
}

void clockLoop() {
    Processor& p = self();
    for (bool stopping = false; !stopping;) {
        std::uint32_t seen;
        p.irql = DISPATCH_LEVEL;
        std::uint64_t wakeUp = expireDue(p, stopping, seen);
        lowerTo(p, PASSIVE_LEVEL);
        if (wakeUp && !stopping) {
            parkUntil(queue.word, seen, "the next timer", wakeUp == ~0ull ? 0 : wakeUp);
        }
    }
}

void checkTimer(const KTIMER& timer, const char* call) {
    if (verifying() && timer.Header.Type != timerNotification && timer.Header.Type != timerSynchronization) {
        verifier::stop("M7", call, &timer, "the timer is not initialised");
    }
}

bool setTimer(KTIMER& timer, std::uint64_t due, std::uint64_t time, LONG period, KDPC* dpc) {
    bool wake = false;
    bool wasSet;
    {
        TinyGuard guard(queue.lock);
        wasSet = remove(&timer);
        timer.Dpc = dpc;
        timer.Period = period;
        timer.DueTime.QuadPart = due;
        timer.Header.SignalState = 0;
        bool atOnce = due <= time && !period;
        if (atOnce) {
            timer.Header.SignalState = 1;
            if (dpc) {
                queueDpc(self(), *dpc, nullptr, nullptr);
            }
        } else {
            insert(&timer);
            wake = !simulated() && queue.asleepUntil > wakeUpFor(due);
        }
    }
    if (wake) {
        wakeClock();
    }
    return wasSet;
}

}  // namespace

void startClock() {
    {
        TinyGuard guard(queue.lock);
        queue.heap.clear();
        queue.heap.reserve(1024);
        queue.sequence = 0;
        queue.asleepUntil = 0;
        queue.stopping = false;
    }
    queue.word = 0;
    queue.thread.start("clock", clockLoop);
}

void stopClock() {
    {
        TinyGuard guard(queue.lock);
        queue.stopping = true;
        for (KTIMER* timer : queue.heap) {
            timer->HeapIndex = 0;
        }
        queue.heap.clear();
    }
    wakeClock();
    queue.thread.join();
}

void wakeClock() {
    queue.word.fetch_add(1);
    wakeAll(queue.word);
}

std::uint64_t earliestTimer() {
    TinyGuard guard(queue.lock);
    return queue.heap.empty() ? 0 : queue.heap.front()->DueTime.QuadPart;
}

std::size_t activeTimers() {
    TinyGuard guard(queue.lock);
    return queue.heap.size();
}

const KTIMER* timerIn(const void* start, std::size_t size) {
    auto first = reinterpret_cast<ULONG_PTR>(start);
    TinyGuard guard(queue.lock);
    for (KTIMER* timer : queue.heap) {
        if (reinterpret_cast<ULONG_PTR>(timer) - first < size) {
            return timer;
        }
    }
    return nullptr;
}

std::uint64_t dueFrom(LARGE_INTEGER time) {
    if (time.QuadPart < 0) {
        return now() + std::uint64_t(-time.QuadPart);
    }
    LARGE_INTEGER date;
    KeQuerySystemTime(&date);
    return time.QuadPart <= date.QuadPart ? now() : now() + std::uint64_t(time.QuadPart - date.QuadPart);
}

}  // namespace nt

using namespace nt;

extern "C" {

VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type) {
    if (verifying()) {
        if (const KTIMER* set = timerIn(Timer, sizeof *Timer)) {
            verifier::stop("M7", "KeInitializeTimer", set, "the timer is set");
        }
    }
    *Timer = {};
    Timer->Header.Type = Type == NotificationTimer ? timerNotification : timerSynchronization;
    InitializeListHead(&Timer->Header.WaitListHead);
}

VOID NTAPI KeInitializeTimer(PKTIMER Timer) { KeInitializeTimerEx(Timer, NotificationTimer); }

BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc) {
    checkTimer(*Timer, "KeSetTimer");
    schedulePoint(Point::timer);
    std::uint64_t time = now();
    std::uint64_t due = DueTime.QuadPart < 0 ? time + std::uint64_t(-DueTime.QuadPart) : dueFrom(DueTime);
    if (!simulated() && due >= time + tick) {
        due -= time % tick;
    }
    // A DPC that is due at once runs here when the level falls.
    Processor& p = self();
    KIRQL old = p.irql;
    if (old < DISPATCH_LEVEL) {
        p.irql = DISPATCH_LEVEL;
    }
    bool wasSet = setTimer(*Timer, due, time, Period, Dpc);
    lowerTo(p, old);
    return wasSet;
}

BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) {
    return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer) {
    checkTimer(*Timer, "KeCancelTimer");
    schedulePoint(Point::timer);
    TinyGuard guard(queue.lock);
    return remove(Timer);
}

BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer) {
    TinyGuard guard(queue.lock);
    return Timer->Header.SignalState != 0;
}

}  // extern "C"
