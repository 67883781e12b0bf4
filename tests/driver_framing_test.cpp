// The converters of framing mode as units, against what the definitions say of whole streams: whatever the pieces, the room in
// the ring, the size of a transfer, and the moments in which nothing can be taken or sent.
#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/support/converter_rig.h"
#include "tests/support/ppp_oracle.h"
#include "tests/support/rig.h"

namespace {

using test::Bytes;
using test::ConverterRig;
using FramerPace = ConverterRig::FramerPace;
using WirePace = ConverterRig::WirePace;
namespace ppp = test::ppp;

using Random = std::mt19937_64;

Bytes operator+(Bytes left, const Bytes& right) {
    ppp::append(left, right);
    return left;
}

// Every eighth byte means something to somebody.
Bytes randomBytes(Random& random, std::size_t length) {
    Bytes bytes(length);
    for (auto& byte : bytes) {
        const auto value = random();
        byte = (value & 7) == 0 ? "\x7d\x7e\xaa\xbb"[value >> 3 & 3] : static_cast<std::uint8_t>(value >> 8);
    }
    return bytes;
}

const std::vector<Bytes> escapeSets = [] {
    Bytes all(256);
    std::iota(all.begin(), all.end(), std::uint8_t{0});
    return std::vector<Bytes>{{}, {0x11, 0x13}, ppp::controls(0xFFFFFFFF), {0x03, 0xFF, 0x7E}, all};
}();

// ---- Framer

TEST(Converters, framer_says_what_is_wrong_and_finds_its_way_back) {
    ConverterRig rig;
    const Bytes good = {0xFF, 0x03, 0xC0, 0x21};
    const auto frame = [&](unsigned sequence) { return ppp::deviceFrame(sequence, good); };
    const Bytes first = ppp::hostFrame(good, {});
    const struct {
        Bytes stream, host;
        const char* trace;
    } cases[] = {
        {Bytes{1, 2, 3} + frame(0), first, "unexpected magic_lo:1\n"},
        {Bytes{0xAA, 0xBC, 0, 8} + frame(0), first, "invalid Magic:bcaa\n"},
        {Bytes{0xAA} + frame(0), {}, "invalid Magic:aaaa\n"},
        {frame(1) + frame(2), first, "invalid Sequence: got:1, exp:0\n"},
        {frame(0) + frame(0), first, "invalid Sequence: got:0, exp:1\n"},
    };
    for (const auto& item : cases) {
        rig.start();
        EXPECT_EQ(rig.throughFramer(item.stream, [] { return FramerPace{3, 5}; }), item.host) << item.trace;
        EXPECT_EQ(rig.traced, std::string("ACM::PppFramerIndicateChar ") + item.trace);
    }
}

// Good frames, broken ones, and bytes that are none, in any pieces, into any room; every third time both are so small that
// each state of the framer meets the end of a piece and a full ring.
TEST(Converters, framer_takes_whatever_a_device_sends) {
    for (const auto seed : test::seeds(300)) {
        SCOPED_TRACE(seed);
        Random random(seed);
        ConverterRig rig({.seed = seed});
        const Bytes& special = escapeSets[seed % escapeSets.size()];
        rig.escape(special);
        const bool small = seed % 3 == 0;
        rig.receiveRing(1 + static_cast<ULONG>(random() % (small ? 30 : 5000)));
        Bytes stream;
        for (unsigned sequence = 0, i = 0; i < 70; ++i) {
            const auto kind = random() % 16;
            Bytes body = randomBytes(random, kind == 0 ? 2043 : random() % (i % 8 == 0 ? 2044 : 150));
            if (kind == 1) body.assign(body.size(), 0x7E);
            if (kind == 2) sequence += static_cast<unsigned>(random() % 32);
            Bytes frame = ppp::deviceFrame(sequence++, body, kind == 3 ? static_cast<int>(random() % 2048) : -1);
            if (kind == 4) frame[random() % frame.size()] ^= static_cast<std::uint8_t>(1u << random() % 8);
            if (kind == 5) frame.resize(random() % frame.size());
            if (kind == 6) ppp::append(stream, randomBytes(random, random() % 40));
            ppp::append(stream, frame);
        }
        if (seed % 5 == 0) stream = randomBytes(random, 20000);
        const auto expected = ppp::toHost(stream, special);
        rig.start();
        const auto pace = [&] { return FramerPace{random() % (small ? 9 : 900), random() % 1200, random() % 4 == 0}; };
        ASSERT_EQ(rig.throughFramer(stream, pace), expected.bytes);
        EXPECT_EQ(rig.framer().ExpectedSeq & 31, expected.expected);
        EXPECT_EQ(rig.count("unexpected magic_lo"), expected.strayBytes);
        EXPECT_EQ(rig.count("invalid Magic"), expected.badMagic);
        EXPECT_EQ(rig.count("invalid Sequence"), expected.badSequence);
        EXPECT_EQ(rig.count("ASSERTION"), 0u) << rig.traced;
    }
}

// ---- De-framer

Bytes hostStream(Random& random, bool tooLong) {
    Bytes stream;
    for (unsigned i = 0; i < 40; ++i) {
        static constexpr std::size_t edges[] = {1, 60, 124, 2042, 2043}, over[] = {2044, 2045, 4101};
        const bool edge = random() % 8 == 0;
        std::size_t length = edge ? edges[random() % 5] : 1 + random() % 400;
        if (tooLong && random() % 6 == 0) length = over[random() % 3];
        for (const std::uint8_t byte : randomBytes(random, length)) {
            const bool escaped = byte == 0x7D || byte == 0x7E || random() % 16 == 0;
            if (escaped) stream.push_back(0x7D);
            stream.push_back(escaped ? byte ^ 0x20 : byte);
        }
        stream.insert(stream.end(), 1 + random() % 2, 0x7E);
    }
    return stream;
}

// Whatever the host writes, in pieces and transfers of any size, whenever the wire is free.
TEST(Converters, deframer_sends_every_frame) {
    for (const auto seed : test::seeds(300)) {
        SCOPED_TRACE(seed);
        Random random(seed);
        ConverterRig rig({.seed = seed});
        const bool small = seed % 4 == 0;
        rig.dev().MaxWriteChunk = seed % 3 == 0 ? 1 + static_cast<ULONG>(random() % (small ? 9 : 300)) : 4096;
        const Bytes stream = seed % 5 == 0 ? randomBytes(random, 20000) : hostStream(random, seed % 2 == 0);
        const auto expected = ppp::toDevice(stream);
        rig.start();
        const auto pace = [&] { return WirePace{random() % (small ? 9 : 900), random() % 3 != 0, random() % 2 == 0, random() % 8 == 0}; };
        ASSERT_EQ(rig.throughDeFramer(stream, pace), ppp::joined(expected.frames));
        EXPECT_EQ(rig.count("PPP Frame to long, discard it"), expected.tooLong);
        EXPECT_EQ(rig.count("ASSERTION"), 0u) << rig.traced;
        if (rig.dev().MaxWriteChunk != 4096) continue;
        // One transfer a frame, and an empty one behind it where it fills whole packets.
        std::vector<Bytes> transfers;
        for (const Bytes& frame : expected.frames) {
            transfers.push_back(frame);
            if (frame.size() % 64 == 0) transfers.emplace_back();
        }
        EXPECT_EQ(rig.transfers, transfers);
    }
}

// What cannot be stated or stored is dropped, and its number with it: the device sees that a frame is missing.
TEST(Converters, deframer_discards_what_it_cannot_state) {
    ConverterRig rig;
    const Bytes flag = {0x7E}, one = {'A'}, two = {'B'};
    const struct {
        const char* what;
        Bytes between;
        unsigned discarded, assertions;   // the start after a frame of the very limit notes its bytes
    } cases[] = {
        {"the longest", Bytes(2043, 'x'), 0, 0},
        {"one byte more", Bytes(2044, 'x'), 1, 0},
        {"as much as is stored", Bytes(4101, 'x'), 1, 0},
        {"more than is stored", Bytes(4102, 'x'), 1, 1},
        {"escaped at the limit", Bytes(4101, 'x') + Bytes{0x7D, 0x5E}, 1, 1},
        {"an escape left over", Bytes(4102, 'x') + Bytes{0x7D}, 1, 1},
        {"far more", Bytes(20000, 'x'), 1, 1},
        {"twice", Bytes(5000, 'x') + flag + Bytes(3000, 'y'), 2, 1},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        rig.start();
        const Bytes stream = one + flag + item.between + flag + two + flag;
        const Bytes kept = item.discarded == 0 ? ppp::deviceFrame(1, item.between) : Bytes{};
        const Bytes wire = ppp::deviceFrame(0, one) + kept + ppp::deviceFrame(item.discarded == 2 ? 3 : 2, two);
        EXPECT_EQ(rig.throughDeFramer(stream, [] { return WirePace{3000, true, true}; }), wire);
        EXPECT_EQ(ppp::joined(ppp::toDevice(stream).frames), wire);
        EXPECT_EQ(rig.count("PPP Frame to long, discard it"), item.discarded);
        EXPECT_EQ(rig.count("ASSERTION FAILED: (DeFramer->Count == 0)"), item.assertions);
        rig.traced.clear();
    }
}

}  // namespace
