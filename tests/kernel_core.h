// What the tests of the executive's core share.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "kernel/core.h"
#include "kernel/sim.h"
#include "kernel/thread.h"

constexpr LONGLONG ms = 10'000;

// A core for the length of a scope; nothing may be left behind.
class CoreScope {
public:
    explicit CoreScope(std::uint64_t seed, bool simulated = true) {
        nt::startCore({.simulated = simulated, .seed = seed, .verifier = true});
        if (simulated) {
            nt::sim::setMaxSteps(1'000'000);
        }
    }
    ~CoreScope() {
        for (const std::string& line : nt::stopCore()) {
            ADD_FAILURE() << "left behind: " << line;
        }
    }
};

// Runs the body once per seed in a simulation of its own; a failure names the seed.
inline void forSeeds(unsigned count, const std::function<void()>& body) {
    for (unsigned seed = 1; seed <= count && !::testing::Test::HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        CoreScope core(seed);
        body();
    }
}

inline void runThreads(std::vector<std::function<void()>> bodies) {
    std::vector<std::unique_ptr<nt::Thread>> threads;
    for (std::size_t i = 0; i < bodies.size(); i++) {
        threads.push_back(std::make_unique<nt::Thread>("t" + std::to_string(i), std::move(bodies[i])));
    }
    for (auto& thread : threads) {
        thread->join();
    }
}

inline LARGE_INTEGER after(LONGLONG time) {
    LARGE_INTEGER due;
    due.QuadPart = -time;
    return due;
}

inline void delay(LONGLONG time) {
    LARGE_INTEGER interval = after(time);
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

// Waits; 0 polls, negative for ever.
inline NTSTATUS waitFor(PVOID object, LONGLONG time = -1) {
    LARGE_INTEGER timeout = after(time);
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, time < 0 ? nullptr : &timeout);
}

inline bool signalled(PVOID object) { return waitFor(object, 0) == STATUS_SUCCESS; }
