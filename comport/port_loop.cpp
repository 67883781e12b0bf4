#include "comport/port_loop.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

#include "kernel/hand.h"

namespace comport {

namespace {

int makeEventDescriptor() {
    int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("cannot make an event descriptor: " + std::string(std::strerror(errno)));
    }
    return fd;
}

}  // namespace

PortLoop::PortLoop(std::function<void()> step) : step_(std::move(step)), wakes_(context_, makeEventDescriptor()) {}

void PortLoop::start(std::function<void()> first) {
    thread_ = std::thread([this, first = std::move(first)] {
        threadId_ = std::this_thread::get_id();
        waitForWakes();
        first();
        context_.run();
    });
}

std::int64_t PortLoop::nowMs() {
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void PortLoop::wake() {
    if (std::this_thread::get_id() == threadId_.load(std::memory_order_relaxed)) {
        again_ = true;
        return;
    }
    if (!woken_.exchange(true)) {
        std::uint64_t one = 1;
        [[maybe_unused]] ssize_t written = ::write(wakes_.native_handle(), &one, sizeof(one));
    }
}

void PortLoop::waitForWakes() {
    wakes_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code&) {
        std::uint64_t count = 0;
        [[maybe_unused]] ssize_t length = ::read(wakes_.native_handle(), &count, sizeof(count));
        // Cleared before the transfers are looked at: one that ends now wakes again.
        woken_ = false;
        waitForWakes();
        step();
    });
}

void PortLoop::step() {
    // What the step causes the device to do is mostly what the next one waits for.
    nt::HandScope hand;
    int rounds = 0;
    do {
        again_ = false;
        step_();
        hand.work();
    } while (again_ && ++rounds < stepRounds && !context_.stopped());
    if (again_ && !context_.stopped()) {
        asio::post(context_, [this] { step(); });
    }
}

}  // namespace comport
