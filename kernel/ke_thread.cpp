// Kernel threads. A thread is a processor from its first instruction to its last; whoever joins it waits on an event
// first, so that in the simulation the wait is one the scheduler knows.
#include "kernel/thread.h"

#include <mutex>

#include "kernel/processor.h"
#include "kernel/sim.h"
#include "kernel/verifier.h"

namespace nt {

void Thread::start(std::string name, std::function<void()> body) {
    state_ = std::make_unique<State>();
    State* state = state_.get();
    state->body = std::move(body);
    KeInitializeEvent(&state->ended, NotificationEvent, FALSE);
    state->processor = newProcessor(name.c_str());
    bool inSimulation = simulated();
    if (inSimulation) {
        sim::add(*state->processor);
    }
    thread_ = std::thread([state, inSimulation] {
        adoptProcessor(state->processor);
        if (inSimulation) {
            sim::enter(*state->processor);
        }
        state->body();
        // Nobody can run between these two in the simulation, so a joiner never waits for a thread without the baton.
        setEvent(state->ended);
        leaveProcessor();
    });
    schedulePoint(Point::thread);
}

void Thread::join() {
    if (!state_) {
        return;
    }
    KeWaitForSingleObject(&state_->ended, Executive, KernelMode, FALSE, nullptr);
    joinOsThread();
    state_.reset();
}

void Thread::joinOsThread() {
    // The thread needs no baton any more.
    thread_.join();
}

namespace {

// Unwinds a thread up to its start.
struct ThreadExit {};

struct SystemThreads {
    std::mutex lock;  // held for a few instructions only
    std::vector<std::unique_ptr<Thread>> threads;
};
SystemThreads systemThreads;

constexpr ULONG_PTR handleMark = 0x7f000002;

}  // namespace

bool closeThreadHandle(HANDLE handle) {
    auto value = reinterpret_cast<ULONG_PTR>(handle);
    return (value & 0xff000003) == handleMark;
}

void joinSystemThreads() {
    for (;;) {
        std::unique_ptr<Thread> thread;
        {
            std::lock_guard guard(systemThreads.lock);
            if (systemThreads.threads.empty()) {
                return;
            }
            thread = std::move(systemThreads.threads.back());
            systemThreads.threads.pop_back();
        }
        thread->join();
    }
}

}  // namespace nt

using namespace nt;

extern "C" {

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG, POBJECT_ATTRIBUTES, HANDLE, struct _CLIENT_ID*,
                                    PKSTART_ROUTINE StartRoutine, PVOID StartContext) {
    verifier::checkIrqlMax("PsCreateSystemThread", PASSIVE_LEVEL);
    auto thread = std::make_unique<Thread>();
    Thread* raw = thread.get();
    std::size_t number;
    {
        std::lock_guard guard(systemThreads.lock);
        number = systemThreads.threads.size();
        systemThreads.threads.push_back(std::move(thread));
    }
    raw->start("system", [StartRoutine, StartContext] {
        try {
            StartRoutine(StartContext);
        } catch (const ThreadExit&) {
        }
    });
    if (ThreadHandle) {
        *ThreadHandle = reinterpret_cast<HANDLE>(handleMark + (number << 2));
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS) { throw ThreadExit(); }

}  // extern "C"
