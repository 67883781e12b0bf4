// Runs every benchmark beside its yardstick, several times in turn, and prints the ratios of the medians.
//
//   benchmarks [--benchmark_filter=...]     prints one line for each figure of docs/performance.md
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/whole_bench.h"

namespace {

// What a figure is compared with, and whether more or less of it is better.
struct Figure {
    const char* name;
    const char* yardstick;
    bool bytes;        // throughput: measured / yardstick; else time: measured / yardstick
    double reach;
    const char* text;
};

constexpr Figure figures[] = {
    {"toDevice", "toDevice/yardstick", true, 0.5, "application to device, 4096-byte writes"},
    {"toApplication", "toApplication/yardstick", true, 0.5, "device to application, 64 KiB reads"},
    {"toHost", "toHost/yardstick", true, 3.0, "framing to the host, 1500-byte frames"},
    {"toHost/controls", "toHost/controls/yardstick", true, 1.0, "the same, control characters escaped"},
    {"toHost/bytes", "toHost/yardstick", true, 1.0, "framing to the host, a byte a call"},
    {"toHost/controls/bytes", "toHost/controls/yardstick", true, 1.0, "the same, control characters escaped"},
    {"toWire", "toWire/yardstick", true, 3.0, "framing to the device, 1500-byte frames"},
    {"toWire/controls", "toWire/controls/yardstick", true, 1.0, "the same, control characters escaped"},
    {"toWire/bytes", "toWire/yardstick", true, 1.0, "framing to the device, a byte a call"},
    {"toWire/controls/bytes", "toWire/controls/yardstick", true, 1.0, "the same, control characters escaped"},
    {"usbip/toApplication", "usbip/toApplication/yardstick", true, 0.3, "USB/IP: device to application, 64 KiB reads"},
    {"usbip/toDevice", "usbip/toDevice/yardstick", true, 0.5, "USB/IP: application to device, 4096-byte writes"},
    {"usbip/toDevice/odd", "usbip/toDevice/odd/yardstick", true, 0.5, "the same, without empty packets"},
    {"smallWrite/checked", "smallWrite/yardstick", false, 6.0, "64-byte write, verifier on"},
    {"smallWrite/unchecked", "smallWrite/yardstick", false, 3.0, "64-byte write, verifier off"},
    {"portsPaced/ten", "portsPaced/one", false, 1.5, "a message each 10 ms on 10 ports, beside 1"},
    {"portsPaced/hundred", "portsPaced/one", false, 1.5, "the same on 100 ports"},
    {"portsFlatOut/hundred", "portsFlatOut/one", false, 1.5, "without a pause, 100 ports beside 1"},
    {"bareFlatOut/hundred", "bareFlatOut/one", false, 3.0, "the same, bare threads that echo"},
};

class Medians : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) {
                continue;
            }
            const std::string name = run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
            const auto bytes = run.counters.find("bytes_per_second");
            times_[key(name)].push_back(run.GetAdjustedCPUTime());   // of one thread: the machine may be shared
            if (bytes != run.counters.end()) {
                rates_[key(name)].push_back(bytes->second);
            }
        }
    }

    bool print() {
        bool reached = true;
        std::printf("\n%-45s %14s %14s %8s %8s\n", "figure", "measured", "yardstick", "ratio", "reach");
        for (const Figure& figure : figures) {
            auto& values = figure.bytes ? rates_ : times_;
            if (values[figure.name].empty() || values[figure.yardstick].empty()) {
                continue;
            }
            const double measured = median(values[figure.name]);
            const double yardstick = median(values[figure.yardstick]);
            const double ratio = measured / yardstick;
            const bool good = figure.bytes ? ratio >= figure.reach : ratio <= figure.reach;
            reached = reached && good;
            if (figure.bytes) {
                std::printf("%-45s %9.0f MB/s %9.0f MB/s %8.2f %7s%.1f%s\n", figure.text, measured / 1e6, yardstick / 1e6, ratio, ">= ",
                            figure.reach, good ? "" : "  MISSED");
            } else {
                std::printf("%-45s %11.0f ns %11.0f ns %8.2f %7s%.1f%s\n", figure.text, measured, yardstick, ratio, "<= ", figure.reach,
                            good ? "" : "  MISSED");
            }
        }
        return reached;
    }

private:
    // "smallWrite/checked/1" -> "smallWrite/checked"
    static std::string key(std::string name) {
        const std::size_t slash = name.rfind('/');
        if (slash != std::string::npos && std::all_of(name.begin() + static_cast<long>(slash) + 1, name.end(), ::isdigit)) {
            name.resize(slash);
        }
        return name;
    }
    static double median(std::vector<double>& values) {
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    }
    std::map<std::string, std::vector<double>> times_;
    std::map<std::string, std::vector<double>> rates_;
};

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> arguments(argv, argv + argc);
    std::string repetitions = "--benchmark_repetitions=7";
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::string time = "--benchmark_min_time=0.2";
    arguments.insert(arguments.begin() + 1, {repetitions.data(), interleave.data(), time.data()});
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    Medians reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    bool reached = reporter.print();
    reached = bench::idlePorts() && reached;
    reached = bench::heapPerPort() && reached;
    return reached ? 0 : 1;
}
