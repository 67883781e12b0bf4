// The simulation. Exactly one thread holds the baton; only it runs kernel code, and only it touches the state below.
//
//            point() (chosen)                 block()
//   ready ------------------------> running ----------> blocked
//     ^  <------------------------      |                  |
//     |    point() (another chosen)     | leave()          | ready(), readyAll(), deadline reached
//     +---------------------------------|------------------+
//                                       v
//                                     dead
//
// Half of the seeds choose evenly among the ready threads. The others leave threads behind for long: each thread has a
// random priority, the highest ready one runs, and now and then the running one falls below all others. So whoever polls
// lets everybody else go first in the end.
//
// A thread that a test made stand still at some point() goes on when nobody else is ready.
//
// When nobody is ready the clock jumps to the next deadline or timer. When there is none of these either, nobody is left
// who could signal what the threads wait for: the run stops with a report.
#include "kernel/sim.h"

#include <sched.h>

#include <algorithm>

#include "kernel/timer.h"
#include "kernel/verifier.h"

namespace nt::sim {

namespace {

struct State {
    std::vector<Processor*> threads;  // in order of creation, dead ones removed
    std::uint64_t seed = 0;
    std::uint64_t generator = 0;
    std::uint64_t clock = 0;
    std::uint64_t steps = 0;
    std::uint64_t maxSteps = 0;
    std::uint64_t history = 0;
    std::uint64_t fallsOnceIn = 0;  // decisions, on average; 0 = no priorities
    std::uint64_t lowest = 0;       // the next priority to fall to
};
State state;

constexpr std::uint64_t firstPriorities = std::uint64_t(1) << 63;  // of a thread that never fell: this and above

std::uint64_t draw() {
    std::uint64_t z = state.generator += 0x9e3779b97f4a7c15;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

void remember(std::uint64_t value) { state.history = (state.history ^ value) * 0x100000001b3; }

[[noreturn]] void report(const char* rule, const char* text) {
    for (Processor* p : state.threads) {
        if (p->simState == SimState::blocked) {
            fprintf(stderr, "  thread %u (%s) waits for %s %p%s\n", p->id, p->name, p->simWhat, p->simObject,
                    p->simIdle ? " (idle)" : "");
        } else {
            fprintf(stderr, "  thread %u (%s) can run\n", p->id, p->name);
        }
    }
    verifier::stop(rule, "simulation", nullptr, "%s", text);
}

// One thread runs at a time: on one processor the baton changes hands without waking another. Threads started meanwhile
// stay there, too.
class OneProcessor {
public:
    void take() {
        cpu_set_t one;
        int here = sched_getcpu();
        if (here < 0 || sched_getaffinity(0, sizeof before_, &before_) != 0) {
            return;
        }
        CPU_ZERO(&one);
        CPU_SET(here, &one);
        taken_ = sched_setaffinity(0, sizeof one, &one) == 0;
    }
    void release() {
        if (taken_) {
            sched_setaffinity(0, sizeof before_, &before_);
        }
        taken_ = false;
    }

private:
    cpu_set_t before_;
    bool taken_ = false;
};
OneProcessor oneProcessor;

Processor* highestReady() {
    Processor* highest = nullptr;
    for (Processor* p : state.threads) {
        if (p->simState == SimState::ready && (!highest || p->simPriority > highest->simPriority)) {
            highest = p;
        }
    }
    return highest;
}

void perhapsFall(Processor& p) {
    if (state.fallsOnceIn && draw() % state.fallsOnceIn == 0) {
        p.simPriority = state.lowest--;
    }
}

void join(Processor& p) {
    p.simPriority = state.fallsOnceIn ? draw() | firstPriorities : 0;
    state.threads.push_back(&p);
}

Processor* pickReady() {
    std::size_t count = 0;
    for (Processor* p : state.threads) {
        count += p->simState == SimState::ready;
    }
    if (!count) {
        return nullptr;
    }
    if (state.fallsOnceIn) {
        return highestReady();
    }
    std::size_t nth = count == 1 ? 0 : draw() % count;
    for (Processor* p : state.threads) {
        if (p->simState == SimState::ready && nth-- == 0) {
            return p;
        }
    }
    return nullptr;
}

void advanceClock() {
    std::uint64_t next = earliestTimer();
    for (Processor* p : state.threads) {
        if (p->simState == SimState::blocked && p->simDeadline && (!next || p->simDeadline < next)) {
            next = p->simDeadline;
        }
    }
    if (!next) {
        report("deadlock", "nobody is left who could signal what the threads wait for");
    }
    state.clock = std::max(state.clock, next);
    remember(state.clock);
    for (Processor* p : state.threads) {
        if (p->simState == SimState::blocked && p->simDeadline && p->simDeadline <= state.clock) {
            ready(*p);
        }
    }
    std::uint64_t timer = earliestTimer();
    if (timer && timer <= state.clock) {
        wakeClock();
    }
}

bool standingGoesOn() {
    for (Processor* p : state.threads) {
        if (p->simState == SimState::standing) {
            p->simState = SimState::ready;
            return true;
        }
    }
    return false;
}

Processor* pick() {
    for (;;) {
        if (Processor* p = pickReady()) {
            return p;
        }
        if (standingGoesOn()) {
            continue;
        }
        state.steps++;
        if (state.maxSteps && state.steps > state.maxSteps) {
            report("livelock", "the bound on scheduling points is exceeded");
        }
        advanceClock();
    }
}

void handOver(Processor& from, Processor& to) {
    to.simState = SimState::running;
    if (&to != &from) {
        giveToken(to);
        sleepOnToken(from, 0);
    }
}

}  // namespace

void setMaxSteps(std::uint64_t steps) { state.maxSteps = steps ? state.steps + steps : 0; }
std::uint64_t steps() { return state.steps; }
std::uint64_t historyHash() { return state.history; }
std::uint64_t seed() { return state.seed; }
std::uint64_t clock() { return state.clock; }

void standStill(std::uint64_t n) { self().simStandsIn = n; }

std::uint64_t random(std::uint64_t bound) {
    std::uint64_t value = draw() % bound;
    remember(value);
    return value;
}

void start(std::uint64_t seed, std::uint64_t firstTime) {
    state = State{};
    state.seed = seed;
    state.generator = seed * 0xd1342543de82ef95 + 1;
    state.clock = firstTime;
    state.history = 0xcbf29ce484222325;
    state.lowest = firstPriorities - 1;
    state.fallsOnceIn = draw() % 2 ? std::uint64_t(40) << 2 * (draw() % 4) : 0;
    Processor& p = self();
    p.simState = SimState::running;
    join(p);
    oneProcessor.take();
}

void stop() {
    oneProcessor.release();
    state.threads.clear();
}

void point(Point point) {
    Processor& p = self();
    state.steps++;
    if (state.maxSteps && state.steps > state.maxSteps) {
        report("livelock", "the bound on scheduling points is exceeded");
    }
    perhapsFall(p);
    const bool stands = p.simStandsIn && --p.simStandsIn == 0;
    p.simState = stands ? SimState::standing : SimState::ready;
    Processor* next = pick();
    remember(std::uint64_t(point) << 32 | next->id);
    handOver(p, *next);
}

bool block(const void* object, const char* what, std::uint64_t deadline, bool idle) {
    Processor& p = self();
    if (deadline && deadline <= state.clock) {
        return false;
    }
    perhapsFall(p);
    p.simState = SimState::blocked;
    p.simObject = object;
    p.simWhat = what;
    p.simDeadline = deadline;
    p.simIdle = idle;
    Processor* next = pick();
    remember(std::uint64_t(0xff) << 32 | next->id);
    handOver(p, *next);
    bool timedOut = deadline && deadline <= state.clock;
    p.simObject = nullptr;
    p.simDeadline = 0;
    p.simIdle = false;
    return !timedOut;
}

void ready(Processor& p) {
    if (p.simState == SimState::blocked) {
        p.simState = SimState::ready;
    }
}

void readyAll(const void* object) {
    for (Processor* p : state.threads) {
        if (p->simState == SimState::blocked && p->simObject == object) {
            p->simState = SimState::ready;
        }
    }
}

void add(Processor& p) {
    p.simState = SimState::ready;
    join(p);
}

void enter(Processor& p) { sleepOnToken(p, 0); }

void leave(Processor& p) {
    p.simState = SimState::dead;
    std::erase(state.threads, &p);
    if (state.threads.empty()) {
        return;
    }
    Processor* next = pick();
    remember(std::uint64_t(0xfe) << 32 | next->id);
    next->simState = SimState::running;
    giveToken(*next);
}

}  // namespace nt::sim
