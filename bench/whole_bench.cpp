#include "bench/whole_bench.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "bench/bench_rig.h"
#include "kernel/pool.h"

namespace bench {

namespace {

constexpr unsigned idlePortCount = 100;
constexpr std::chrono::seconds idleTime{3};

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) { return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

bool idlePorts() {
    Rig rig(true, idlePortCount);
    const std::size_t opened = rig.open().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));   // the opens are over
    const double before = cpuSeconds();
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(idleTime);
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const double share = (cpuSeconds() - before) / elapsed * 100;
    const bool good = opened == idlePortCount && share < 3.0;
    std::printf("%-45s %12.2f %%  %11s %% %8s %8s%s\n", "100 open idle ports, tick 10 ms", share, "100 (a core)", "", "< 3", good ? "" : "  MISSED");
    return good;
}

bool heapPerPort() {
    // What the default configuration asks for: rings, transfer buffers with their alignment, request records.
    constexpr double rings = 65536 + 2048;
    constexpr double packets = 5 * (65536 + 4096) + (4096 + 4096) + (16 + 4096);
    constexpr double records = 5 * 64;
    constexpr double asked = rings + packets + records;
    std::uint64_t one = 0;
    std::uint64_t many = 0;
    constexpr unsigned extra = 10;
    {
        Rig rig(true, 1);
        rig.open();
        one = nt::pool::bytesInUse();
    }
    {
        Rig rig(true, 1 + extra);
        rig.open();
        many = nt::pool::bytesInUse();
    }
    const double perPort = static_cast<double>(many - one) / extra;
    const bool good = perPort / asked < 1.2;
    std::printf("%-45s %8.0f bytes %8.0f bytes %8.2f %8s%s\n", "heap per open port", perPort, asked, perPort / asked, "< 1.2", good ? "" : "  MISSED");
    return good;
}

}  // namespace bench
