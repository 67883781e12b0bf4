// What the system tests and some others share beside tests/support/port.h: data whose every byte tells its place, and what is done with it.
#pragma once

#include "tests/support/port.h"

#include "kernel/sim.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace test {

// Some scheduling steps or some milliseconds, as the run's own generator says.
inline void waitAtRandom(TestRig& rig, std::uint64_t maxSteps, std::uint32_t maxMs) {
    if (nt::sim::random(2) == 0) {
        spin(nt::sim::random(maxSteps));
    } else {
        rig.run(static_cast<std::uint32_t>(nt::sim::random(maxMs + 1)));
    }
}

// Bytes without a period, so that a lost, repeated or swapped piece shows.
inline std::string noise(std::size_t length, std::uint32_t seed = 1) {
    std::string text(length, '\0');
    std::uint32_t state = seed * 2654435761u + 1;
    for (char& c : text) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        c = static_cast<char>(state >> 11);
    }
    return text;
}

// True when `received` is `sent` with at most one piece missing.
inline bool hasOneGapAtMost(const std::string& received, const std::string& sent) {
    if (received.size() > sent.size()) return false;
    const auto same = std::mismatch(received.begin(), received.end(), sent.begin()).first - received.begin();
    return std::equal(received.begin() + same, received.end(), sent.end() - (received.end() - (received.begin() + same)));
}

inline NTSTATUS control(nt::File& file, ULONG code) { return file.control(code).status; }

template <class Input>
NTSTATUS control(nt::File& file, ULONG code, const Input& input) {
    return file.control(code, &input, sizeof(input)).status;
}

// Read: interval, and a whole; write: a whole. 0 waits for ever.
inline NTSTATUS setTimeouts(nt::File& file, ULONG intervalMs, ULONG readMs, ULONG writeMs) {
    return control(file, IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{intervalMs, 0, readMs, 0, writeMs});
}

// Sends `text` through an echoing device and takes what comes back until it stays away for `silenceMs`.
inline std::string echoed(nt::File& file, const std::string& text, ULONG silenceMs = 300) {
    std::string back;
    std::string buffer(4096, '\0');
    Pending write(text);
    if (!NT_SUCCESS(setTimeouts(file, 0, silenceMs, 2000))) return back;
    write.write(file);
    while (back.size() < text.size()) {
        const auto wanted = static_cast<ULONG>(std::min(buffer.size(), text.size() - back.size()));
        const auto result = file.read(buffer.data(), wanted);
        back.append(buffer, 0, result.information);
        if (result.status != STATUS_SUCCESS) break;
    }
    return back;
}

// Reads one after another into one string.
struct Reader {
    explicit Reader(nt::File& f, std::size_t room = 61) : file(f), read(room) { read.read(file); }
    void poll() {
        while (read.done() && NT_SUCCESS(read.status())) {
            text += read.text();
            read.completions = 0;
            read.read(file);
        }
    }
    nt::File& file;
    Pending read;
    std::string text;
};

}  // namespace test
