// The simulation itself: a run is a function of its seed, and a run that cannot go on says why.
#include "kernel_core.h"

#include <set>

namespace {

// Every order of two unlocked steps must come up, or the schedules are not worth much.
TEST(Simulation, ReachesEveryInterleaving) {
    std::set<std::string> orders;
    forSeeds(200, [&] {
        std::string order;
        auto body = [&](char a, char b) {
            return [&, a, b] {
                nt::schedulePoint(nt::Point::other);
                order += a;
                nt::schedulePoint(nt::Point::other);
                order += b;
            };
        };
        runThreads({body('a', 'b'), body('c', 'd')});
        orders.insert(order);
    });
    EXPECT_EQ(orders.size(), 6u);
}

struct Race {
    std::uint64_t longestGap = 0;  // decisions in a row that passed a thread by which could run
    std::uint64_t hash = 0;
};

// Two threads that never wait, and a third that measures how long it is left behind.
Race leftBehind(std::uint64_t seed) {
    Race race;
    CoreScope core(seed);
    auto busy = [] {
        for (int i = 0; i < 5000; i++) nt::schedulePoint(nt::Point::other);
    };
    auto measure = [&] {
        for (int i = 0; i < 5000; i++) {
            std::uint64_t before = nt::sim::steps();
            nt::schedulePoint(nt::Point::other);
            race.longestGap = std::max(race.longestGap, nt::sim::steps() - before);
        }
    };
    runThreads({busy, measure, busy});
    race.hash = nt::sim::historyHash();
    return race;
}

// Some schedules are even, some leave one thread standing for thousands of steps, and both repeat.
TEST(Simulation, LeavesThreadsBehind) {
    unsigned even = 0, uneven = 0;
    for (std::uint64_t seed = 1; seed <= 30; seed++) {
        Race first = leftBehind(seed);
        Race second = leftBehind(seed);
        EXPECT_EQ(first.hash, second.hash) << "seed " << seed;
        even += first.longestGap < 100;
        uneven += first.longestGap > 2000;
    }
    EXPECT_GE(even, 5u);
    EXPECT_GE(uneven, 3u);
}

TEST(Simulation, OneStandsStillUntilNobodyElseCanRun) {
    for (std::uint64_t seed = 1; seed <= 20; seed++) {
        CoreScope core(seed);
        KSPIN_LOCK lock;
        KeInitializeSpinLock(&lock);
        const std::uint64_t begin = nt::now();
        bool othersDone = false, stood = false;
        auto work = [&](bool stands) {
            return [&, stands] {
                if (stands) {
                    nt::sim::standStill(7);
                }
                for (int i = 0; i < 40; i++) {
                    KIRQL old;
                    KeAcquireSpinLock(&lock, &old);
                    KeReleaseSpinLock(&lock, old);
                }
                (stands ? stood : othersDone) = true;
                EXPECT_TRUE(!stands || othersDone);
                EXPECT_EQ(nt::now(), begin) << "the clock went on though somebody could";
            };
        };
        runThreads({work(true), work(false)});
        EXPECT_TRUE(stood);
    }
}

// Who polls for another's work lets it happen, whatever the priorities.
TEST(Simulation, PollersGiveWay) {
    forSeeds(60, [] {
        int done = 0;
        auto poller = [&] {
            while (!done) nt::schedulePoint(nt::Point::other);
        };
        auto worker = [&] {
            for (int i = 0; i < 30; i++) nt::schedulePoint(nt::Point::other);
            done = 1;
        };
        runThreads({poller, poller, worker, poller});
    });
}

TEST(SimulationDeathTest, NamesWhoWaitsForWhat) {
    EXPECT_DEATH(
        {
            CoreScope core(5);
            KMUTEX mutex;
            KEVENT event;
            KeInitializeMutex(&mutex, 0);
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            runThreads({[&] {
                            waitFor(&mutex);
                            waitFor(&event);
                        },
                        [&] {
                            delay(1 * ms);
                            waitFor(&mutex);
                            KeSetEvent(&event, 0, FALSE);
                        }});
        },
        "t0\\) waits for event(.|\n)*t1\\) waits for mutex(.|\n)*verifier: deadlock(.|\n)*seed 5");
}

TEST(SimulationDeathTest, BoundsARun) {
    EXPECT_DEATH(
        {
            CoreScope core(1);
            nt::sim::setMaxSteps(1000);
            for (;;) {
                delay(1 * ms);
            }
        },
        "verifier: livelock");
}

}  // namespace
