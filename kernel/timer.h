// Timer queue and clock thread, for the core.
#pragma once

#include "kernel/processor.h"

namespace nt {

void startClock();
void stopClock();
// Tells the clock thread to look at the timers again.
void wakeClock();
// Due time of the earliest timer, or 0 when none is set.
std::uint64_t earliestTimer();
std::size_t activeTimers();
// A timer inside [start, start + size), or null.
const KTIMER* timerIn(const void* start, std::size_t size);
// A queued DPC inside it, or null.
const KDPC* dpcIn(const void* start, std::size_t size);
// Absolute now() time of a platform due time: negative relative, positive absolute.
std::uint64_t dueFrom(LARGE_INTEGER time);

}  // namespace nt
