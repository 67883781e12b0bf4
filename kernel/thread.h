// Kernel threads: joinable ones for C++ code.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "kernel/core.h"

namespace nt {

// Runs `body` at PASSIVE_LEVEL on a thread that is a processor from its first instruction. Must be joined.
class Thread {
public:
    Thread() = default;
    Thread(std::string name, std::function<void()> body) { start(std::move(name), std::move(body)); }
    ~Thread() { join(); }
    Thread(Thread&&) = default;
    Thread& operator=(Thread&& other) {
        join();
        state_ = std::move(other.state_);
        thread_ = std::move(other.thread_);
        return *this;
    }

    void start(std::string name, std::function<void()> body);
    // Waits for the end; PASSIVE_LEVEL. Does nothing when there is no thread.
    void join();
    bool joinable() const { return state_ != nullptr; }

private:
    struct State {
        KEVENT ended;
        std::function<void()> body;
        PKTHREAD processor = nullptr;
    };
    void joinOsThread();

    std::unique_ptr<State> state_;
    std::thread thread_;
};

// Threads of PsCreateSystemThread. False when the handle is not one of theirs.
bool closeThreadHandle(HANDLE handle);
// Waits for all of them to end.
void joinSystemThreads();

}  // namespace nt
