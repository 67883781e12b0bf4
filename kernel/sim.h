// The simulation: one baton among the threads, one seeded generator, one virtual clock.
#pragma once

#include "kernel/processor.h"

namespace nt::sim {

// A run that takes more scheduling points than this is a livelock and stops. 0 = no bound.
void setMaxSteps(std::uint64_t steps);
std::uint64_t steps();
// Sum over every decision taken so far: equal for two runs of one seed, different when anything differed.
std::uint64_t historyHash();
std::uint64_t seed();
// A number of the run's own generator, for tests that draw their choices from the same seed.
std::uint64_t random(std::uint64_t bound);

// The calling thread stands still at its n-th scheduling point from now (0: at none) until nobody else can run: the worst place is
// one of them.
void standStill(std::uint64_t n);

// For the core: --------------------------------------------------------------------------------------------------------

void start(std::uint64_t seed, std::uint64_t firstTime);
void stop();
std::uint64_t clock();
// The calling thread may lose the baton here.
void point(Point point);
// The calling thread stands aside until made ready, or until the deadline (0 = none). False when the time has come first.
bool block(const void* object, const char* what, std::uint64_t deadline, bool idle);
void ready(Processor& p);
// Makes everyone blocked on the object ready.
void readyAll(const void* object);
// A new thread joins, ready to run; it waits for the baton in enter().
void add(Processor& p);
void enter(Processor& p);
void leave(Processor& p);

}  // namespace nt::sim
