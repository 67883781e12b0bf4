// One wake-up of a loop at a time that moves.
#pragma once

#include <asio.hpp>

#include <chrono>
#include <cstdint>
#include <utility>

namespace comport {

// Belongs to the loop's thread.
class Alarm {
public:
    explicit Alarm(asio::io_context& loop) : timer_(loop) {}

    // Calls `ring` once at `dueMs` of the steady clock, -1 for never; what was set before is forgotten. A time already set stays.
    template <typename Ring>
    void set(std::int64_t dueMs, Ring ring) {
        if (dueMs == dueMs_) {
            return;
        }
        dueMs_ = dueMs;
        if (dueMs < 0) {
            timer_.cancel();
            return;
        }
        timer_.expires_at(std::chrono::steady_clock::time_point(std::chrono::milliseconds(dueMs)));
        timer_.async_wait([this, ring = std::move(ring)](const asio::error_code& error) {
            if (!error) {
                dueMs_ = -1;
                ring();
            }
        });
    }

private:
    asio::steady_timer timer_;
    std::int64_t dueMs_ = -1;
};

}  // namespace comport
