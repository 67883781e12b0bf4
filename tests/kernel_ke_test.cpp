// Locks, DPCs, timers, dispatcher objects and work items as the platform documents them, over many schedules.
#include "kernel_core.h"

#include "kernel/timer.h"
#include "kernel/work.h"

namespace {

struct CountingDpc {
    KDPC dpc;
    int runs = 0;
    std::uint64_t time = 0;
    std::function<void(CountingDpc&)> then;

    CountingDpc() {
        KeInitializeDpc(
            &dpc,
            [](KDPC*, PVOID context, PVOID, PVOID) {
                auto& self = *static_cast<CountingDpc*>(context);
                self.runs++;
                self.time = nt::now();
                if (self.then) {
                    self.then(self);
                }
            },
            this);
    }
};

TEST(SpinLock, OneHolderAtATime) {
    forSeeds(50, [] {
        KSPIN_LOCK lock;
        KeInitializeSpinLock(&lock);
        int inside = 0;
        int total = 0;
        auto hold = [&] {
            EXPECT_EQ(++inside, 1);
            nt::schedulePoint(nt::Point::other);
            EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
            total++;
            inside--;
        };
        CountingDpc dpc;
        dpc.then = [&](CountingDpc&) {
            KeAcquireSpinLockAtDpcLevel(&lock);
            hold();
            KeReleaseSpinLockFromDpcLevel(&lock);
        };
        auto body = [&] {
            for (int i = 0; i < 5; i++) {
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                hold();
                KeReleaseSpinLock(&lock, old);
            }
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        };
        runThreads({body, body, [&] { KeInsertQueueDpc(&dpc.dpc, nullptr, nullptr); }});
        EXPECT_EQ(total, 11);
    });
}

TEST(Dpc, WaitsForTheLevelToFallAndRunsOnceInOrder) {
    CoreScope core(1);
    std::vector<int> order;
    CountingDpc first, second, removed;
    first.then = [&](CountingDpc&) { order.push_back(1); };
    second.then = [&](CountingDpc&) { order.push_back(2); };
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL outer, inner;
    KeRaiseIrql(DISPATCH_LEVEL, &outer);
    KeAcquireSpinLock(&lock, &inner);
    EXPECT_TRUE(KeInsertQueueDpc(&first.dpc, nullptr, nullptr));
    EXPECT_TRUE(KeInsertQueueDpc(&removed.dpc, nullptr, nullptr));
    EXPECT_TRUE(KeInsertQueueDpc(&second.dpc, nullptr, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&first.dpc, nullptr, nullptr));
    EXPECT_TRUE(KeRemoveQueueDpc(&removed.dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&removed.dpc));
    KeReleaseSpinLock(&lock, inner);
    EXPECT_TRUE(order.empty()) << "DPCs ran although the level did not fall below DISPATCH_LEVEL";
    KeLowerIrql(outer);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_EQ(removed.runs, 0);
}

TEST(Dpc, RunsThereAndThenAndMayQueueItselfAgain) {
    CoreScope core(1);
    CountingDpc dpc;
    dpc.then = [](CountingDpc& self) {
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        if (self.runs < 5) {
            EXPECT_TRUE(KeInsertQueueDpc(&self.dpc, nullptr, nullptr));
        }
    };
    EXPECT_TRUE(KeInsertQueueDpc(&dpc.dpc, nullptr, nullptr));
    EXPECT_EQ(dpc.runs, 5);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST(Dpc, FlushWaitsForOtherProcessors) {
    forSeeds(200, [] {
        CountingDpc dpc;
        bool queued = false;
        bool ended = false;
        dpc.then = [&](CountingDpc&) {
            for (int i = 0; i < 3; i++) {
                nt::schedulePoint(nt::Point::other);
            }
            ended = true;
        };
        runThreads({[&] {
                        KIRQL old;
                        KeRaiseIrql(DISPATCH_LEVEL, &old);
                        KeInsertQueueDpc(&dpc.dpc, nullptr, nullptr);
                        queued = true;
                        nt::schedulePoint(nt::Point::other);
                        KeLowerIrql(old);
                    },
                    [&] {
                        bool wasQueued = queued;
                        KeFlushQueuedDpcs();
                        EXPECT_TRUE(ended || !wasQueued);
                    }});
    });
}

// TRUE from the cancel: the routine never runs. FALSE: after a flush it has run.
TEST(Timer, CancelRacingExpiry) {
    int cancelled = 0, expired = 0;
    forSeeds(300, [&] {
        KTIMER timer;
        CountingDpc dpc;
        KeInitializeTimer(&timer);
        KeSetTimer(&timer, after(10 * ms), &dpc.dpc);
        delay(10 * ms);
        bool wasSet = KeCancelTimer(&timer);
        KeFlushQueuedDpcs();
        EXPECT_EQ(dpc.runs, wasSet ? 0 : 1);
        (wasSet ? cancelled : expired)++;
    });
    EXPECT_GT(cancelled, 0);
    EXPECT_GT(expired, 0);
}

TEST(Timer, DueAtOnceAndPeriodic) {
    CoreScope core(1);
    KTIMER timer;
    CountingDpc dpc;
    KeInitializeTimer(&timer);
    EXPECT_FALSE(KeSetTimer(&timer, after(0), &dpc.dpc));
    EXPECT_EQ(dpc.runs, 1);
    EXPECT_TRUE(KeReadStateTimer(&timer));
    KeSetTimerEx(&timer, after(10 * ms), 10, &dpc.dpc);
    delay(35 * ms);
    EXPECT_EQ(dpc.runs, 4);
    EXPECT_TRUE(KeCancelTimer(&timer));
}

// Many timers, set, moved and cancelled at random: each due one fires exactly at its time, no other.
TEST(Timer, HeapKeepsOrder) {
    forSeeds(20, [] {
        constexpr int count = 40;
        std::vector<std::unique_ptr<CountingDpc>> dpcs;
        KTIMER timers[count];
        std::uint64_t due[count] = {};
        std::uint64_t start = nt::now();
        for (int i = 0; i < count; i++) {
            dpcs.push_back(std::make_unique<CountingDpc>());
            KeInitializeTimer(&timers[i]);
        }
        for (int step = 0; step < 300; step++) {
            int i = int(nt::sim::random(count));
            if (nt::sim::random(3) == 0) {
                EXPECT_EQ(bool(KeCancelTimer(&timers[i])), due[i] != 0);
                due[i] = 0;
            } else {
                bool wasSet = due[i] != 0;
                due[i] = 1 + nt::sim::random(1000);
                EXPECT_EQ(bool(KeSetTimer(&timers[i], after(LONGLONG(due[i])), &dpcs[i]->dpc)), wasSet);
            }
        }
        delay(2 * ms);
        for (int i = 0; i < count; i++) {
            EXPECT_EQ(dpcs[i]->runs, due[i] ? 1 : 0);
            EXPECT_EQ(dpcs[i]->time, due[i] ? start + due[i] : 0);
            EXPECT_FALSE(KeCancelTimer(&timers[i]));
        }
    });
}

TEST(Mutex, OwnedReentrantHandedOver) {
    forSeeds(50, [] {
        KMUTEX mutex;
        KeInitializeMutex(&mutex, 0);
        int inside = 0;
        auto body = [&] {
            for (int i = 0; i < 3; i++) {
                EXPECT_EQ(waitFor(&mutex), STATUS_SUCCESS);
                EXPECT_EQ(waitFor(&mutex, 0), STATUS_SUCCESS) << "the owner may enter again";
                EXPECT_EQ(++inside, 1);
                delay(1);
                inside--;
                EXPECT_NE(KeReleaseMutex(&mutex, FALSE), 0);
                EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
            }
        };
        runThreads({body, body, body});
        EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    });
}

TEST(Event, SynchronizationWakesOneNotificationAll) {
    forSeeds(50, [] {
        KEVENT one, all;
        KeInitializeEvent(&one, SynchronizationEvent, FALSE);
        KeInitializeEvent(&all, NotificationEvent, FALSE);
        int woken = 0, passed = 0;
        auto waiter = [&] {
            waitFor(&all);
            passed++;
            if (waitFor(&one, 100 * ms) == STATUS_SUCCESS) {
                woken++;
            }
        };
        runThreads({waiter, waiter, waiter, [&] {
                        KeSetEvent(&all, 0, FALSE);
                        delay(10 * ms);
                        EXPECT_EQ(KeSetEvent(&one, 0, FALSE), 0);
                    }});
        EXPECT_EQ(passed, 3);
        EXPECT_EQ(woken, 1);
        EXPECT_EQ(KeReadStateEvent(&one), 0);
        EXPECT_EQ(KeReadStateEvent(&all), 1);
        EXPECT_EQ(KeResetEvent(&all), 1);
    });
}

// A signal at the very moment of the time-out is taken or stays; it is never lost and never counted twice.
TEST(Event, TimeoutRacingSignal) {
    int taken = 0, left = 0;
    forSeeds(200, [&] {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        runThreads({[&] { status = waitFor(&event, 10 * ms); },
                    [&] {
                        delay(10 * ms);
                        KeSetEvent(&event, 0, FALSE);
                    }});
        EXPECT_EQ(KeReadStateEvent(&event), status == STATUS_TIMEOUT ? 1 : 0);
        (status == STATUS_TIMEOUT ? left : taken)++;
    });
    EXPECT_GT(taken, 0);
    EXPECT_GT(left, 0);
}

TEST(Wait, AnyAndAllOfSeveral) {
    forSeeds(50, [] {
        KEVENT a, b;
        KeInitializeEvent(&a, SynchronizationEvent, FALSE);
        KeInitializeEvent(&b, SynchronizationEvent, FALSE);
        PVOID both[] = {&a, &b};
        LARGE_INTEGER timeout = after(5 * ms);
        auto wait = [&](WAIT_TYPE type, PLARGE_INTEGER limit) {
            return KeWaitForMultipleObjects(2, both, type, Executive, KernelMode, FALSE, limit, nullptr);
        };
        EXPECT_EQ(wait(WaitAny, &timeout), STATUS_TIMEOUT);
        NTSTATUS any = -1, all = -1;
        runThreads({[&] {
                        any = wait(WaitAny, nullptr);
                        all = wait(WaitAll, nullptr);
                    },
                    [&] {
                        KeSetEvent(&b, 0, FALSE);
                        delay(1 * ms);
                        KeSetEvent(&a, 0, FALSE);
                        delay(1 * ms);
                        EXPECT_EQ(KeReadStateEvent(&a), 1) << "half a wait for all must not consume";
                        KeSetEvent(&b, 0, FALSE);
                    }});
        EXPECT_EQ(any, STATUS_WAIT_1);
        EXPECT_EQ(all, STATUS_WAIT_0);
        EXPECT_FALSE(signalled(&a) || signalled(&b));
    });
}

struct Item {
    nt::WorkEntry work{};
    std::function<void()> body;
    explicit Item(std::function<void()> b) : body(std::move(b)) {
        work.routine = [](void* context) { static_cast<Item*>(context)->body(); };
        work.context = this;
    }
};

// Items that wait for each other must all get a worker, whatever the order; the last one queues itself again.
TEST(Work, BlockedItemsDoNotStarveOthers) {
    forSeeds(30, [] {
        KEVENT chain[5];
        std::vector<std::unique_ptr<Item>> items;
        int done = 0;
        for (auto& event : chain) {
            KeInitializeEvent(&event, NotificationEvent, FALSE);
        }
        for (int i = 0; i < 4; i++) {
            items.push_back(std::make_unique<Item>([&, i] {
                EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
                waitFor(&chain[i + 1]);
                done++;
                KeSetEvent(&chain[i], 0, FALSE);
            }));
        }
        int runs = 0;
        items.push_back(std::make_unique<Item>([&] {
            if (++runs < 5) {
                return nt::queueWork(items.back()->work);
            }
            KeSetEvent(&chain[4], 0, FALSE);
        }));
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        for (auto& item : items) {
            nt::queueWork(item->work);
        }
        KeLowerIrql(old);
        nt::flushWork();
        EXPECT_EQ(done, 4);
    });
}

}  // namespace
