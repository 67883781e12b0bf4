// The driver's data paths, each beside its yardstick. Ratios are printed by main.cpp from the medians.
#include <benchmark/benchmark.h>
#include <ntplatform.h>

#include <array>
#include <mutex>
#include <vector>

#include "bench/bench_rig.h"

namespace {

constexpr std::size_t writeSize = 4096;
constexpr std::size_t writePiece = 2048;   // the default send ring
constexpr std::size_t readSize = 65536;

void copyThrice(std::vector<std::uint8_t> (&buffers)[4], std::size_t size) {
    for (int i = 0; i < 3; ++i) {
        std::memcpy(buffers[i + 1].data(), buffers[i].data(), size);
        benchmark::DoNotOptimize(buffers[i + 1].data());
        benchmark::ClobberMemory();
    }
}

// A captured run goes nowhere: what the data path pays, and the writer's copy.
void toDevice(benchmark::State& state, const char* capture) {
    bench::Rig rig(true, 1, bench::Answers::takes, bench::Wire::none, capture);
    nt::File& port = rig.port();
    bench::Pipeline pipeline(writeSize);
    pipeline.run(state, [&](nt::Request& request, std::vector<std::uint8_t>& buffer) {
        port.write(request, buffer.data(), static_cast<ULONG>(buffer.size()));
    });
    pipeline.drain();
}

void toDeviceYardstick(benchmark::State& state) {
    std::vector<std::uint8_t> buffers[4];
    for (auto& buffer : buffers) {
        buffer.resize(writePiece, 0x55);
    }
    bench::PingPong other;
    for (auto _ : state) {
        copyThrice(buffers, writePiece);
        other.roundTrip();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * writePiece));
}

void toApplication(benchmark::State& state, const char* capture) {
    bench::Rig rig(true, 1, bench::Answers::pours, bench::Wire::none, capture);
    nt::File& port = rig.port();
    bench::Pipeline pipeline(readSize);
    pipeline.run(state, [&](nt::Request& request, std::vector<std::uint8_t>& buffer) {
        port.read(request, buffer.data(), static_cast<ULONG>(buffer.size()));
    });
    pipeline.drain();
}

void toApplicationYardstick(benchmark::State& state) {
    std::vector<std::uint8_t> buffers[4];
    for (auto& buffer : buffers) {
        buffer.resize(readSize, 0x55);
    }
    bench::PingPong other;
    for (auto _ : state) {
        copyThrice(buffers, readSize);
        // One wake-up a piece: half a round trip, so one round trip for two pieces.
        copyThrice(buffers, readSize);
        other.roundTrip();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * 2 * readSize));
}

// A 64-byte write from dispatch to completion: the ring takes it and the request ends. The device holds the one transfer
// on the wire, so that no other thread has a part in the figure.
void smallWrite(benchmark::State& state) {
    bench::Rig rig(state.range(0) != 0, 1, bench::Answers::holds);
    nt::File& port = rig.port();
    std::array<std::uint8_t, 64> data{};
    std::uint64_t completed = 0;
    nt::Request request([](nt::Request&, void* context) { ++*static_cast<std::uint64_t*>(context); }, &completed);
    // A ring of 64 KiB, emptied between the batches.
    constexpr std::uint64_t fits = 1000;
    const SERIAL_QUEUE_SIZE rings = {65536, 65536};
    port.control(IOCTL_SERIAL_SET_QUEUE_SIZE, &rings, sizeof(rings));
    const ULONG purgeTx = SERIAL_PURGE_TXCLEAR;
    std::uint64_t issued = 0;
    while (state.KeepRunningBatch(fits)) {
        for (std::uint64_t i = 0; i < fits; ++i) {
            port.write(request, data.data(), data.size());
        }
        issued += fits;
        if (completed != issued) {
            state.SkipWithError("a write did not end at once");
            break;
        }
        state.PauseTiming();
        port.control(IOCTL_SERIAL_PURGE, &purgeTx, sizeof(purgeTx));
        state.ResumeTiming();
    }
    port.control(IOCTL_SERIAL_PURGE, &purgeTx, sizeof(purgeTx));
}

void smallWriteYardstick(benchmark::State& state) {
    std::mutex mutex;
    std::uint64_t count = 0;
    for (auto _ : state) {
        for (int i = 0; i < 10; ++i) {
            std::lock_guard guard(mutex);
            benchmark::DoNotOptimize(++count);
        }
    }
}

BENCHMARK_CAPTURE(toDevice, , "")->Name("toDevice")->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK(toDeviceYardstick)->Name("toDevice/yardstick")->UseRealTime();
BENCHMARK_CAPTURE(toApplication, , "")->Name("toApplication")->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(toDevice, captured, "/dev/null")->Name("toDevice/captured")->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(toApplication, captured, "/dev/null")->Name("toApplication/captured")->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK(toApplicationYardstick)->Name("toApplication/yardstick")->UseRealTime();
BENCHMARK(smallWrite)->Name("smallWrite/checked")->Arg(1);
BENCHMARK(smallWrite)->Name("smallWrite/unchecked")->Arg(0);
BENCHMARK(smallWriteYardstick)->Name("smallWrite/yardstick");

}  // namespace
