// What the front ends of a port share: an asio loop on a thread of its own that does one step after another, and a way for other
// threads (on which transfers end) to say that one is due.
#pragma once

#include <asio.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

#include "comport/alarm.h"

namespace comport {

class PortLoop {
public:
    // `step` does whatever can be done now.
    explicit PortLoop(std::function<void()> step);
    PortLoop(const PortLoop&) = delete;
    PortLoop& operator=(const PortLoop&) = delete;

    // Runs `first` and then the loop, on the loop's thread.
    void start(std::function<void()> first);
    // Until stop() was called there.
    void join() { thread_.join(); }

    // From any thread, at up to DISPATCH_LEVEL: a step is due. From within a step it is the next one.
    void wake();

    // ---- on the loop's thread ----

    asio::io_context& context() { return context_; }
    // What ends inside a step is looked at in the next one, at once; other descriptors get their turn now and then.
    void step();
    // A step is due then; -1: never mind.
    void setTimer(std::int64_t dueMs) { alarm_.set(dueMs, [this] { step(); }); }
    void stop() { context_.stop(); }

    static std::int64_t nowMs();

private:
    static constexpr int stepRounds = 64;

    void waitForWakes();

    const std::function<void()> step_;
    asio::io_context context_{1};
    asio::posix::stream_descriptor wakes_;  // eventfd
    Alarm alarm_{context_};
    std::atomic<bool> woken_{false};  // wakes_ has been written and not yet been read
    bool again_ = false;              // something ended during a step; the loop's thread only
    std::atomic<std::thread::id> threadId_{};
    std::thread thread_;
};

}  // namespace comport
