// Inputs that are lists of actions: a kind, a length, then that many bytes.
#pragma once

#include "fuzz/require.h"

#include <algorithm>
#include <cstdint>
#include <span>

namespace fuzz {

// No more than `most` of them.
void play(std::span<const std::uint8_t> input, auto& player, std::size_t most = SIZE_MAX) {
    for (std::size_t at = 0; at + 2 <= input.size() && most != 0; --most) {
        const std::size_t length = std::min<std::size_t>(input[at + 1], input.size() - at - 2);
        player.act(input[at], input.subspan(at + 2, length));
        at += 2 + length;
    }
}

// Inputs that are steps: two bytes of a plan, a length, then what the peer says.
void converse(std::span<const std::uint8_t> input, auto&& step) {
    while (input.size() >= 3) {
        const std::size_t length = std::min<std::size_t>(input[2], input.size() - 3);
        step(input[0], input[1], input.subspan(3, length));
        input = input.subspan(3 + length);
    }
}

// Lets `ms` pass from deadline to deadline: next() is the nearest one, tick() follows each step.
void pass(std::int64_t& nowMs, std::int64_t ms, const auto& next, const auto& tick) {
    const std::int64_t endMs = nowMs + ms;
    for (int steps = 0; nowMs < endMs; ++steps) {
        // A device that asks for ever closer deadlines would keep its thread from sleeping.
        require(steps < 2 * ms + 16);
        nowMs = std::max(nowMs, std::min(next().value_or(endMs), endMs));
        tick();
    }
}

}  // namespace fuzz
