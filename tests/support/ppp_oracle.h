// What the converters of framing mode must do, said a second time and as slowly as the definitions read: the FCS bit by bit,
// escapes byte by byte, whole streams at once.
//
// PPP in HDLC-like framing: RFC 1662. A device frame is AA BB, a word of sequence (5 bits) and length of the whole frame
// (11 bits), high byte first, and the frame's bytes without flags and escapes.
#pragma once

#include "tests/support/scripted_device.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace test::ppp {

inline constexpr std::size_t frameLimit = 2043;     // bytes whose number a device frame can state
inline constexpr std::size_t storageLimit = 4102;   // bytes after which the driver gives a host frame up

// Of the bytes of a container.
template <class Container>
std::uint16_t fcs(const Container& bytes) {
    std::uint16_t value = 0xFFFF;
    for (const auto byte : bytes) {
        for (int bit = 0; bit < 8; ++bit) {
            const bool feedback = ((value ^ (static_cast<std::uint8_t>(byte) >> bit)) & 1) != 0;
            value = static_cast<std::uint16_t>(value >> 1);
            if (feedback) value ^= 0x8408;
        }
    }
    return value;
}

// The control characters whose bit is set.
inline Bytes controls(std::uint32_t map) {
    Bytes all;
    for (std::uint8_t byte = 0; byte < 32; ++byte) {
        if ((map >> byte & 1) != 0) all.push_back(byte);
    }
    return all;
}

inline void append(Bytes& to, const Bytes& bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

inline Bytes joined(const std::vector<Bytes>& frames) {
    Bytes all;
    for (const Bytes& frame : frames) append(all, frame);
    return all;
}

inline Bytes withFcs(Bytes body) {
    const std::uint16_t check = static_cast<std::uint16_t>(~fcs(body));
    body.push_back(static_cast<std::uint8_t>(check));
    body.push_back(static_cast<std::uint8_t>(check >> 8));
    return body;
}

// `length` stands in the header instead of the true one.
inline Bytes deviceFrame(unsigned sequence, const Bytes& body, int length = -1) {
    const unsigned stated = static_cast<unsigned>(length < 0 ? static_cast<int>(body.size()) + 4 : length);
    const unsigned word = (sequence & 31) << 11 | stated;
    Bytes frame = {0xAA, 0xBB, static_cast<std::uint8_t>(word >> 8), static_cast<std::uint8_t>(word)};
    append(frame, body);
    return frame;
}

inline void appendEscaped(Bytes& to, std::uint8_t byte, const Bytes& special) {
    const bool escaped = byte == 0x7D || byte == 0x7E || std::find(special.begin(), special.end(), byte) != special.end();
    if (escaped) to.push_back(0x7D);
    to.push_back(escaped ? byte ^ 0x20 : byte);
}

// Flag, body and FCS escaped, flag.
inline Bytes hostFrame(const Bytes& body, const Bytes& special) {
    Bytes frame = {0x7E};
    for (const std::uint8_t byte : withFcs(body)) appendEscaped(frame, byte, special);
    frame.push_back(0x7E);
    return frame;
}

// What the host gets of a stream from the device.
struct ToHost {
    Bytes bytes{};
    unsigned expected = 0;                             // the sequence number that comes next
    std::size_t used = 0;                              // bytes of the stream behind which nothing is begun
    unsigned strayBytes = 0, badMagic = 0, badSequence = 0;   // how often each is reported
};

// `expected`: of the first frame.
inline ToHost toHost(const Bytes& stream, const Bytes& special, unsigned expected = 0) {
    ToHost host{.expected = expected % 32};
    bool synchronous = true;   // a byte other than AA is reported once
    std::size_t& at = host.used;
    while (at < stream.size()) {
        if (stream[at] != 0xAA) {
            host.strayBytes += synchronous;
            synchronous = false;
            ++at;
            continue;
        }
        if (stream.size() - at < 4) break;
        const unsigned word = stream[at + 2] * 256u + stream[at + 3];
        const unsigned length = word % 2048, sequence = word / 2048;
        synchronous = false;
        if (stream[at + 1] != 0xBB) {
            ++host.badMagic;
            at += 4;
        } else if (sequence != host.expected) {
            ++host.badSequence;
            host.expected = (sequence + 1) % 32;
            at += 4;
        } else {
            host.expected = (sequence + 1) % 32;
            if (length > 4) {
                if (stream.size() - at < length) break;
                const auto body = stream.begin() + static_cast<std::ptrdiff_t>(at);
                append(host.bytes, hostFrame(Bytes(body + 4, body + length), special));
            }
            synchronous = length >= 4;
            at += std::max(length, 4u);
        }
    }
    return host;
}

// What the device gets of a stream from the host.
struct ToDevice {
    std::vector<Bytes> frames{};
    unsigned tooLong = 0;
    unsigned next = 0;   // the number of the frame being built
};

// `next`: the number of the first frame.
inline ToDevice toDevice(const Bytes& stream, unsigned next = 0) {
    ToDevice device{.next = next};
    Bytes body;
    bool escaped = false, hunting = false;
    for (const std::uint8_t byte : stream) {
        if (hunting) {
            hunting = byte != 0x7E;
        } else if (escaped) {
            body.push_back(byte ^ 0x20);
            escaped = false;
        } else if (byte == 0x7D) {
            escaped = true;
        } else if (byte != 0x7E) {
            body.push_back(byte);
        } else if (!body.empty()) {
            if (body.size() <= frameLimit) {
                device.frames.push_back(deviceFrame(device.next, body));
            } else {
                ++device.tooLong;
            }
            ++device.next;   // a discarded frame's number is not used again
            body.clear();
        }
        if (body.size() == storageLimit) {
            ++device.tooLong;
            ++device.next;
            body.clear();
            hunting = true;
        }
    }
    return device;
}

}  // namespace test::ppp
