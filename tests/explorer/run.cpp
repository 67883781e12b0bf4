#include "tests/explorer/run.h"

#include "tests/explorer/application.h"

#include "kernel/sim.h"
#include "kernel/thread.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace explorer {

namespace {

// In virtual time the actors are long through by then, whatever holds them up.
constexpr std::int64_t actorsMs = 120'000;
// Of processor time; no run takes a tenth of it. One that sleeps for good has longer by the clock: the machine may be busy elsewhere.
constexpr unsigned busySeconds = 60, aliveSeconds = 600;

// A step that waits for others goes on without them after this time.
constexpr std::int64_t orderMs = 1500;

struct Actors {
    Actors(const Plan& plan, World& world, Application& application) : begun(plan.steps.size()) {
        for (std::size_t i = 0; i < actorCount; ++i) {
            const Actor actor = static_cast<Actor>(i);
            threads[i].start(i == std::size_t(Actor::system) ? "system" : i == 0 ? "first" : "second", [&, actor, i] {
                std::uint32_t stands = 0;
                for (std::size_t n = 0; n < plan.steps.size(); ++n) {
                    const Step& step = plan.steps[n];
                    if (step.actor != actor) continue;
                    if (step.ordered) awaitOrder(n);
                    pause(step);
                    begun[n] = true;
                    if (tell) say("%s", toText(step).c_str());
                    if (step.verb == Verb::stand) {
                        stands = step.args[0];
                        continue;
                    }
                    nt::sim::standStill(std::exchange(stands, 0));
                    step.verb < Verb::send ? application.take(step) : world.take(step);
                }
                done[i] = true;
            });
        }
    }
    void awaitOrder(std::size_t n) {
        const auto all = [&] { return std::find(begun.begin(), begun.begin() + static_cast<std::ptrdiff_t>(n), false) - begun.begin(); };
        for (std::int64_t waited = 0; all() != static_cast<std::ptrdiff_t>(n) && waited < orderMs; ++waited) sleepMs(1);
    }
    void wait(std::size_t i, const char* who) {
        for (std::int64_t waited = 0; !done[i]; waited += 5) {
            if (waited >= actorsMs) wrong("%s does not come back", who);
            sleepMs(5);
        }
        threads[i].join();
    }

    std::vector<bool> begun;
    std::array<nt::Thread, actorCount> threads;
    bool done[actorCount] = {};
};

}  // namespace

void live(const Plan& plan, Cells& cells) {
    World world(plan, cells);
    world.boot();
    {
        Application application(world);
        Actors actors(plan, world, application);
        actors.wait(std::size_t(Actor::system), "a step of the system");
        say("mended");
        world.mend();
        actors.wait(0, "the first application");
        actors.wait(1, "the second application");
        say("drained");
        application.drain();
        application.close();
        if (world.faulty()) world.startOver();
        say("opened afresh");
        application.live();
        application.judgeAll();
    }
    world.end();
}

// --- Processes -------------------------------------------------------------------------------------------------------------------

std::string Outcome::fault() const {
    std::istringstream lines(text);
    std::string found;
    for (std::string line; std::getline(lines, line);) {
        if (found.empty() || line.find("explorer:") == 0 || line.find("verifier:") == 0 || line.find("ERROR:") != line.npos) found = line;
        if (line.find("explorer:") == 0 || line.find("verifier:") == 0) break;
    }
    std::string words;
    bool number = false;
    for (const char c : found) {
        if (std::isdigit(static_cast<unsigned char>(c))) {
            number = true;
        } else if (!std::isalnum(static_cast<unsigned char>(c))) {
            number = false;
        }
        if (!number) words += c;
    }
    return words.substr(0, 70);
}

Child::Child(const Plan& plan, Cells& cells) : output_(memfd_create("explorer", 0)) {
    pid_ = fork();
    if (pid_ < 0 || output_ < 0) throw std::runtime_error("no process for a run");
    if (pid_ == 0) {
        if (!tell) dup2(output_, STDERR_FILENO);
        const rlimit busy{busySeconds, busySeconds};
        setrlimit(RLIMIT_CPU, &busy);
        alarm(aliveSeconds);
        live(plan, cells);
        _exit(0);
    }
}

Child::~Child() {
    if (output_ >= 0) close(output_);
}

Outcome Child::ended(int status) {
    Outcome outcome;
    outcome.good = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    char buffer[16384];
    const ssize_t length = pread(output_, buffer, sizeof buffer, 0);
    if (length > 0) outcome.text.assign(buffer, static_cast<std::size_t>(length));
    if (WIFSIGNALED(status) && outcome.text.empty()) outcome.text = std::string("ended by ") + strsignal(WTERMSIG(status)) + "\n";
    return outcome;
}

Outcome runAlone(const Plan& plan, Cells& cells) {
    Child child(plan, cells);
    int status = 0;
    waitpid(child.pid(), &status, 0);
    return child.ended(status);
}

}  // namespace explorer
