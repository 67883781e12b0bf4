// The explorer: random applications, a random device and a random system in the simulated mode, seed by seed, beside a model.
//
//   explorer --soak 1000                    seeds 1...1000 on all processors
//   explorer --soak-seed 17                 one seed; EXPLORE_SEED=17 does the same
//   explorer --plan FILE                    a plan as a failure printed it
#include "tests/explorer/model.h"
#include "tests/explorer/run.h"

#include <CLI/CLI.hpp>

#include <sys/mman.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <thread>

namespace {

using namespace explorer;

struct Options {
    std::uint64_t soak = 0, from = 1, seed = 0;
    unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
    unsigned shrinkRuns = 400;
    unsigned failures = 3;
    std::string plan;
    bool showPlan = false;
    bool remote = false;
};

// A soak this long visits every cell of the table, but for those of a suspended device: a remote one is never told.
constexpr std::uint64_t seedsForAllCells = 1000;
// A cut plan meets other schedules: each cut is tried with some.
constexpr unsigned schedulesPerCut = 3;

Cells* shareCells() {
    void* const memory = mmap(nullptr, sizeof(Cells), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    return new (memory) Cells{};
}

bool failsAlike(Plan& plan, const std::string& fault) {
    static Cells* const scratch = shareCells();
    const std::uint64_t schedule = plan.schedule;
    for (unsigned i = 0; i < schedulesPerCut; ++i) {
        plan.schedule = schedule + i * 2;
        const Outcome outcome = runAlone(plan, *scratch);
        if (!outcome.good && outcome.fault() == fault) return true;
    }
    plan.schedule = schedule;
    return false;
}

void showFailure(const Plan& plan, const Outcome& outcome, const Options& options) {
    printf("%s", outcome.text.c_str());
    if (options.shrinkRuns == 0) return;
    const std::string fault = outcome.fault();
    std::uint64_t schedule = plan.schedule;
    Plan small = shrink(plan, [&](const Plan& candidate) {
        Plan tried = candidate;
        tried.schedule = schedule;
        if (!failsAlike(tried, fault)) return false;
        schedule = tried.schedule;
        return true;
    }, options.shrinkRuns);
    small.schedule = schedule;
    printf("-- %zu of %zu steps fail alike (--plan FILE takes this back):\n%s--\n", small.steps.size(), plan.steps.size(),
           toText(small).c_str());
    fflush(stdout);
}

class Soak {
public:
    Soak(const Options& options, Cells& cells) : options_(options), cells_(cells), next_(options.from) {}

    unsigned run() {
        const std::uint64_t end = options_.from + options_.soak;
        while (next_ < end || !running_.empty()) {
            while (next_ < end && running_.size() < options_.jobs && failures_ < options_.failures) start(next_++);
            if (running_.empty()) break;
            reap();
        }
        return failures_;
    }
    std::uint64_t lived() const { return lived_; }

private:
    struct Job {
        std::uint64_t seed;
        std::unique_ptr<Child> child;
    };
    void start(std::uint64_t seed) {
        auto child = std::make_unique<Child>(generate(seed, options_.remote), cells_);
        const pid_t pid = child->pid();
        running_[pid] = {seed, std::move(child)};
    }
    void reap() {
        int status = 0;
        const auto found = running_.find(waitpid(-1, &status, 0));
        if (found == running_.end()) return;
        const Job job = std::move(found->second);
        running_.erase(found);
        ++lived_;
        const Outcome outcome = job.child->ended(status);
        if (outcome.good) return;
        ++failures_;
        failed_.push_back({job.seed, outcome});
        if (running_.empty() || failures_ >= options_.failures) tellAll();
    }

public:
    // What has failed and was not told of yet; nothing may be running.
    void tellAll() {
        while (!running_.empty()) {
            int status = 0;
            const auto found = running_.find(waitpid(-1, &status, 0));
            if (found != running_.end()) running_.erase(found);
        }
        for (const auto& [seed, outcome] : failed_) {
            printf("seed %llu failed (--soak-seed %llu)\n", static_cast<unsigned long long>(seed), static_cast<unsigned long long>(seed));
            showFailure(generate(seed, options_.remote), outcome, options_);
        }
        failed_.clear();
    }

private:
    const Options& options_;
    Cells& cells_;
    std::uint64_t next_;
    std::uint64_t lived_ = 0;
    unsigned failures_ = 0;
    std::map<pid_t, Job> running_;
    std::vector<std::pair<std::uint64_t, Outcome>> failed_;
};

unsigned reportCells(const Cells& cells, bool all) {
    unsigned missing = 0;
    const auto required = requiredCells();
    for (const CellName& cell : required) {
        if (cells.visited[cell.row][std::size_t(cell.state)] != 0) continue;
        ++missing;
        if (all) printf("never visited: %s while %s\n", nameOf(cell.row), nameOf(cell.state));
    }
    printf("%zu of %zu cells (request x device state) visited\n", required.size() - missing, required.size());
    return missing;
}

int soak(const Options& options) {
    Cells* const cells = shareCells();
    const auto begin = std::chrono::steady_clock::now();
    Soak soak(options, *cells);
    const unsigned failures = soak.run();
    soak.tellAll();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    printf("%llu seeds, %.0f a second, %u failed\n", static_cast<unsigned long long>(soak.lived()),
           static_cast<double>(soak.lived()) / seconds, failures);
    const bool all = options.soak >= seedsForAllCells && failures == 0 && !options.remote;
    const unsigned missing = reportCells(*cells, all);
    return failures != 0 || (all && missing != 0) ? 1 : 0;
}

int one(const Plan& plan, const Options& options) {
    if (options.showPlan) printf("%s", toText(plan).c_str());
    const Outcome outcome = runAlone(plan, *shareCells());
    if (!outcome.good && !explorer::tell) showFailure(plan, outcome, options);
    printf("%s\n", outcome.good ? "good" : "failed");
    return outcome.good ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"Random applications, device and system beside a model of what must come out."};
    app.add_option("--soak", options.soak, "live so many seeds");
    app.add_option("--from", options.from, "the first of them");
    app.add_option("--soak-seed", options.seed, "live one seed")->envname("EXPLORE_SEED");
    app.add_option("--plan", options.plan, "live a plan from a file")->check(CLI::ExistingFile);
    app.add_option("--jobs", options.jobs, "processes at a time");
    app.add_option("--shrink", options.shrinkRuns, "runs to spend on making a failure short; 0: none");
    app.add_option("--failures", options.failures, "stop after so many");
    app.add_flag("--remote", options.remote, "the device is on another machine in every seed, not in one of five");
    app.add_flag("--show-plan", options.showPlan, "print the plan of one seed");
    app.add_flag("--tell", explorer::tell, "print what happens in one run");
    CLI11_PARSE(app, argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!options.plan.empty()) {
        std::ifstream file(options.plan);
        std::stringstream text;
        text << file.rdbuf();
        return one(fromText(text.str()), options);
    }
    if (options.seed != 0) return one(generate(options.seed, options.remote), options);
    if (options.soak == 0) options.soak = seedsForAllCells;
    return soak(options);
}
