// The converters of framing mode as units, against what the definitions say of whole streams: whatever the pieces, the room in
// the ring, the size of a transfer, and the moments in which nothing can be taken or sent.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/converter_rig.h"
#include "tests/support/ppp_oracle.h"
#include "tests/support/rig.h"

namespace {

using test::Bytes;
using test::ConverterRig;
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
    Bytes controls, all;
    for (unsigned byte = 0; byte < 256; ++byte) {
        if (byte < 0x20) controls.push_back(static_cast<std::uint8_t>(byte));
        all.push_back(static_cast<std::uint8_t>(byte));
    }
    return std::vector<Bytes>{{}, {0x11, 0x13}, controls, {0x03, 0xFF, 0x7E}, all};
}();

// Fails the test for what a rig leaves and for every assertion traced.
class Converters : public testing::Test {
protected:
    ConverterRig& build(std::uint64_t seed, std::uint32_t traceMask = 3) {
        rig_.reset();
        ConverterRig::Options options;
        options.seed = seed;
        options.traceMask = traceMask;
        rig_ = std::make_unique<ConverterRig>(options);
        rig_->leakTarget = &leaks_;
        return *rig_;
    }
    void TearDown() override {
        if (rig_) expectNoAssertion();
        rig_.reset();
        for (const auto& line : leaks_) ADD_FAILURE() << line;
    }
    void expectNoAssertion() { EXPECT_EQ(rig_->count("ASSERTION"), 0u) << rig_->traced; }

private:
    std::vector<std::string> leaks_;
    std::unique_ptr<ConverterRig> rig_;
};

TEST(Fcs, AgreesBitByBitInAnyPieces) {
    for (const auto seed : test::seeds(200)) {
        Random random(seed);
        Bytes bytes = randomBytes(random, random() % 600);
        USHORT fcs = FCS_INIT;
        for (std::size_t at = 0; at < bytes.size();) {
            const std::size_t piece = std::min<std::size_t>(1 + random() % 90, bytes.size() - at);
            fcs = CalcFcs16(fcs, bytes.data() + at, static_cast<ULONG>(piece));
            at += piece;
        }
        ASSERT_EQ(fcs, ppp::fcs(bytes)) << "seed " << seed;
        bytes.push_back(static_cast<std::uint8_t>(~fcs));
        bytes.push_back(static_cast<std::uint8_t>(~fcs >> 8));
        ASSERT_EQ(CalcFcs16(FCS_INIT, bytes.data(), static_cast<ULONG>(bytes.size())), 0xF0B8) << "seed " << seed;
    }
}

// ---- Framer

// No pointer has left its place, whatever came.
void expectInBounds(ConverterRig& rig) {
    const PPP_FRAMER& f = rig.framer();
    const bool header = f.State == FRAMER_HEADER;
    const UCHAR* const begin = header ? f.Header : f.OutBuf;
    const auto size = static_cast<std::ptrdiff_t>(header ? sizeof(f.Header) : sizeof(f.OutBuf));
    ASSERT_LE(f.State, ULONG{FRAMER_DELIVER});
    ASSERT_EQ(f.Dev, &rig.dev());
    if (f.State == FRAMER_HUNT || f.State == FRAMER_RESYNC) return;
    ASSERT_GE(f.OutPtr - begin, 0);
    ASSERT_LE(f.OutPtr - begin, size);
    const auto room = static_cast<std::ptrdiff_t>(f.Remaining);
    if (f.State == FRAMER_PAYLOAD) {
        ASSERT_LE(f.OutPtr - begin + 2 * (room + 2) + 1, size);   // all of it escaped, and the FCS, and the flag
    } else {
        ASSERT_LE(f.OutPtr - begin + room, size);
    }
}

// How a stream gets through the framer: offers of at most `piece` bytes, and reads of at most `reads` while it is stuck.
struct Pace {
    std::size_t piece, reads;
    bool byteByByte = false;
};

Bytes throughFramer(ConverterRig& rig, const Bytes& stream, const std::function<Pace()>& pace) {
    Bytes host;
    std::size_t at = 0;
    for (unsigned idle = 0; at < stream.size() || rig.framer().State == FRAMER_DELIVER;) {
        const Pace now = pace();
        // Its own block: one byte read too far is seen.
        const std::size_t length = std::min(now.piece, stream.size() - at);
        const auto from = stream.begin() + static_cast<std::ptrdiff_t>(at);
        const Bytes piece(from, from + static_cast<std::ptrdiff_t>(length));
        std::size_t taken = 0;
        if (now.byteByByte) {
            const auto takes = [&](std::uint8_t byte) { return PppFramerIndicateChar(&rig.framer(), byte) == 1; };
            while (taken < length && rig.locked([&] { return takes(piece[taken]); })) ++taken;
        } else {
            taken = rig.offer(piece.data(), length);
        }
        if (at == stream.size() && rig.framer().State == FRAMER_DELIVER) rig.locked([&] { PppFramerDeliver(&rig.framer()); });
        expectInBounds(rig);
        const std::size_t got = rig.read(host, now.reads);
        idle = taken == 0 && got == 0 ? idle + 1 : 0;
        if (testing::Test::HasFatalFailure() || idle > 100) break;
        at += taken;
    }
    while (rig.read(host, 4096) != 0) {}
    return host;
}

TEST_F(Converters, framer_finds_its_way_back) {
    ConverterRig& rig = build(1);
    const Bytes good = {0xFF, 0x03, 0xC0, 0x21}, junk = {1, 2, 3};
    const Bytes first = ppp::hostFrame(good, {});
    const Bytes garbage(2000, 0xAA);
    const struct {
        const char* what;
        Bytes stream;
        Bytes host;
        unsigned next;       // sequence
        const char* trace;   // or null: nothing is wrong
    } cases[] = {
        {"a frame", ppp::deviceFrame(0, good), first, 1, nullptr},
        {"junk", junk + ppp::deviceFrame(0, good), first, 1, "IndicateChar unexpected magic_lo:1\n"},
        {"wrong magic", Bytes{0xAA, 0xBC, 0, 8} + ppp::deviceFrame(0, good), first, 1, "IndicateChar invalid Magic:bcaa\n"},
        {"half a magic", Bytes{0xAA} + ppp::deviceFrame(0, good), {}, 0, "PppFramerIndicateChar invalid Magic:aaaa\n"},
        {"nothing but half a magic", garbage + ppp::deviceFrame(0, good), first, 1, "PppFramerIndicateChar invalid Magic:aaaa\n"},
        {"a wrong number is dropped and the next follows it", ppp::deviceFrame(1, good) + ppp::deviceFrame(2, good), first, 3,
         "PppFramerIndicateChar invalid Sequence: got:1, exp:0\n"},
        {"the number before", ppp::deviceFrame(0, good) + ppp::deviceFrame(0, good), first, 1,
         "PppFramerIndicateChar invalid Sequence: got:0, exp:1\n"},
        {"an empty frame", ppp::deviceFrame(0, {}) + ppp::deviceFrame(1, good), first, 2, nullptr},
        {"an empty frame, then junk", ppp::deviceFrame(0, {}) + junk + ppp::deviceFrame(1, good), first, 2,
         "PppFramerIndicateChar unexpected magic_lo:1\n"},
        {"shorter than its header", ppp::deviceFrame(0, {}, 3) + junk + ppp::deviceFrame(1, good), first, 2, nullptr},
        {"length 0", ppp::deviceFrame(0, {}, 0) + ppp::deviceFrame(1, good), first, 2, nullptr},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        rig.start();
        EXPECT_EQ(throughFramer(rig, item.stream, [] { return Pace{3, 5}; }), item.host);
        EXPECT_EQ(rig.framer().ExpectedSeq & 31, item.next);
        if (item.trace != nullptr) {
            EXPECT_GE(rig.count(item.trace), 1u) << rig.traced;
        } else {
            EXPECT_EQ(rig.traced, "");
        }
        expectNoAssertion();
    }
}

// Every place to cut a short stream, every room in the ring, in one call or a byte a call.
TEST_F(Converters, framer_in_every_cut) {
    ConverterRig& rig = build(1);
    const Bytes stream = Bytes{9} + ppp::deviceFrame(0, {0x7E, 3}) + ppp::deviceFrame(5, {1}) + ppp::deviceFrame(6, {}) +
                         ppp::deviceFrame(7, Bytes(20, 0x7D)) + Bytes{0xAA, 0xAA} + ppp::deviceFrame(8, {0xAA, 0xBB, 0, 8});
    for (const Bytes& special : escapeSets) {
        rig.escape(special);
        const Bytes expected = ppp::toHost(stream, special).bytes;
        for (const ULONG ring : {1u, 2u, 7u, 30u, 1000u}) {
            rig.receiveRing(ring);
            for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
                rig.start();
                bool first = true;
                const auto pace = [&] {
                    return std::exchange(first, false) ? Pace{cut, 3, cut % 2 != 0} : Pace{stream.size(), ring, cut % 3 == 0};
                };
                ASSERT_EQ(throughFramer(rig, stream, pace), expected) << "ring " << ring << " cut " << cut;
            }
        }
    }
}

// Good frames, broken ones, and bytes that are none, in any pieces, into any room.
TEST_F(Converters, framer_takes_whatever_a_device_sends) {
    for (const auto seed : test::seeds(300)) {
        SCOPED_TRACE(seed);
        Random random(seed);
        ConverterRig& rig = build(seed);
        const Bytes& special = escapeSets[seed % escapeSets.size()];
        rig.escape(special);
        rig.receiveRing(1 + static_cast<ULONG>(random() % 5000));
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
        const auto pace = [&] { return Pace{random() % 900, random() % 1200, random() % 4 == 0}; };
        ASSERT_EQ(throughFramer(rig, stream, pace), expected.bytes);
        EXPECT_EQ(rig.framer().ExpectedSeq & 31, expected.expected);
        EXPECT_EQ(rig.count("unexpected magic_lo"), expected.strayBytes);
        EXPECT_EQ(rig.count("invalid Magic"), expected.badMagic);
        EXPECT_EQ(rig.count("invalid Sequence"), expected.badSequence);
        expectNoAssertion();
    }
}

// ---- De-framer

struct ToWire {
    std::size_t piece;      // host bytes that come at once
    bool send;              // the engine runs
    bool complete;          // the transfer on the wire ends
    bool refuse = false;    // the send path takes nothing meanwhile
};

// What goes over the wire. Transfers of whole packets and their empty packets are joined with what follows.
Bytes throughDeFramer(ConverterRig& rig, const Bytes& stream, const std::function<ToWire()>& pace) {
    std::size_t at = 0;
    for (unsigned turns = 0; turns < 1000000; ++turns) {
        const ToWire now = pace();
        at += rig.fill(stream.data() + at, std::min(now.piece, stream.size() - at));
        if (at == stream.size() && rig.idle()) break;
        if (now.refuse) rig.locked([&] { (turns % 2 ? rig.dev().TxEnabled : rig.dev().Snd.Started) = 0; });
        if (now.send) rig.send();
        if (now.refuse) rig.locked([&] { rig.dev().TxEnabled = rig.dev().Snd.Started = 1; });
        if (now.complete && !rig.pending.empty()) rig.complete();
    }
    Bytes sent;
    for (const Bytes& transfer : rig.transfers) {
        EXPECT_LE(transfer.size(), rig.dev().MaxWriteChunk);
        ppp::append(sent, transfer);
    }
    return sent;
}

Bytes joined(const std::vector<Bytes>& frames) {
    Bytes all;
    for (const Bytes& frame : frames) ppp::append(all, frame);
    return all;
}

// Every place to cut a short stream, with a transfer that takes it all or a byte of it.
TEST_F(Converters, deframer_in_every_cut) {
    ConverterRig& rig = build(1);
    const Bytes flag = {0x7E};
    const Bytes escapes = {0x7D, 0x7D, 0x7D, 0x7E, 0x7D, 0x5D, 1, 2, 3, 4, 5, 6, 7, 8};
    const Bytes stream = Bytes{'A'} + flag + flag + Bytes{0x7D, 0x5E} + flag + escapes + flag + Bytes(20, 0x7E) +
                         Bytes(9, 'B') + flag + Bytes{0x7D} + flag + flag + Bytes{'C'};
    const Bytes expected = joined(ppp::toDevice(stream).frames);
    for (const ULONG chunk : {1u, 3u, 4u, 7u, 64u, 4096u}) {
        rig.dev().MaxWriteChunk = chunk;
        for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
            rig.start();
            bool first = true;
            const auto pace = [&] {
                if (std::exchange(first, false)) return ToWire{cut, true, false};
                return ToWire{stream.size(), true, true, cut % 4 == 0 && !rig.pending.empty()};
            };
            ASSERT_EQ(throughDeFramer(rig, stream, pace), expected) << "chunk " << chunk << " cut " << cut;
        }
    }
}

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

// Whatever the host writes, whenever the wire is free.
TEST_F(Converters, deframer_sends_every_frame) {
    for (const auto seed : test::seeds(300)) {
        SCOPED_TRACE(seed);
        Random random(seed);
        ConverterRig& rig = build(seed);
        rig.dev().MaxWriteChunk = seed % 3 == 0 ? 1 + static_cast<ULONG>(random() % 300) : 4096;
        const Bytes stream = seed % 5 == 0 ? randomBytes(random, 20000) : hostStream(random, seed % 2 == 0);
        const auto expected = ppp::toDevice(stream);
        rig.start();
        const auto pace = [&] { return ToWire{random() % 900, random() % 3 != 0, random() % 2 == 0, random() % 8 == 0}; };
        ASSERT_EQ(throughDeFramer(rig, stream, pace), joined(expected.frames));
        EXPECT_EQ(rig.count("PPP Frame to long, discard it"), expected.tooLong);
        expectNoAssertion();
        if (rig.dev().MaxWriteChunk != 4096) continue;
        // One transfer a frame, and an empty one behind it where it fills whole packets.
        std::size_t at = 0;
        for (const Bytes& frame : expected.frames) {
            ASSERT_LT(at, rig.transfers.size());
            EXPECT_EQ(rig.transfers[at++], frame);
            if (frame.size() % 64 == 0) {
                ASSERT_LT(at, rig.transfers.size());
                EXPECT_EQ(rig.transfers[at++], Bytes{});
            }
        }
        EXPECT_EQ(at, rig.transfers.size());
    }
}

// What cannot be stated or stored is dropped, and its number with it: the device sees that a frame is missing.
TEST_F(Converters, deframer_discards_what_it_cannot_state) {
    ConverterRig& rig = build(1);
    const Bytes flag = {0x7E}, one = {'A'}, two = {'B'}, longest(2043, 'x');
    const auto first = ppp::deviceFrame(0, one), third = ppp::deviceFrame(2, two);
    const struct {
        const char* what;
        Bytes stream;
        std::vector<Bytes> frames;
        unsigned discarded, assertions;   // the start after a frame of the very limit notes its bytes
    } cases[] = {
        {"the longest", one + flag + longest + flag + two + flag, {first, ppp::deviceFrame(1, longest), third}, 0, 0},
        {"one byte more", one + flag + Bytes(2044, 'x') + flag + two + flag, {first, third}, 1, 0},
        {"as much as is stored", one + flag + Bytes(4101, 'x') + flag + two + flag, {first, third}, 1, 0},
        {"more than is stored", one + flag + Bytes(4102, 'x') + flag + two + flag, {first, third}, 1, 1},
        {"escaped at the limit", one + flag + Bytes(4101, 'x') + Bytes{0x7D, 0x5E} + flag + two + flag, {first, third}, 1, 1},
        {"an escape left over", one + flag + Bytes(4102, 'x') + Bytes{0x7D} + flag + two + flag, {first, third}, 1, 1},
        {"far more", one + flag + Bytes(20000, 'x') + flag + two + flag, {first, third}, 1, 1},
        {"twice", one + flag + Bytes(5000, 'x') + flag + Bytes(3000, 'y') + flag + two + flag,
         {first, ppp::deviceFrame(3, two)}, 2, 1},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        rig.start();
        ASSERT_EQ(ppp::toDevice(item.stream).frames, item.frames);
        EXPECT_EQ(throughDeFramer(rig, item.stream, [] { return ToWire{3000, true, true}; }), joined(item.frames));
        EXPECT_EQ(rig.count("PPP Frame to long, discard it"), item.discarded);
        EXPECT_EQ(rig.count("ASSERTION FAILED: (DeFramer->Count == 0)"), item.assertions);
        rig.traced.clear();
    }
}

}  // namespace
