// Accounts of the pool, for tests and for the report at the end.
#pragma once

#include "kernel/core.h"

namespace nt::pool {

// Allocations since the core started: a data path that must not allocate leaves it unchanged.
std::uint64_t allocations();
std::uint64_t blocksInUse();
std::uint64_t bytesInUse();

struct Leak {
    char tag[5];
    std::uint64_t blocks;
    std::uint64_t bytes;
    const void* caller;  // who allocated the oldest of them; null with the verifier off
};
std::vector<Leak> inUse();

// Called with every block just before it is given back, while its content is still there.
using FreeObserver = void (*)(void* context, const void* block, std::size_t size, ULONG tag);
void setFreeObserver(FreeObserver observer, void* context);

// Whether blocks have the same addresses in every run of a seed: in the simulation, unless a sanitizer watches malloc.
bool repeatsAddresses();

// M3: looks at every block's guard bytes. Verifier on only.
void checkAll();

// For the core.
void start(bool arena);
void stop();

}  // namespace nt::pool
