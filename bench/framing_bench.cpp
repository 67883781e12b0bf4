// The converters of framing mode beside plain loops: a byte at a time, a table of 256 entries for the FCS.
//
// "toHost" is a device frame through the framer into the receive ring; "toWire" is a host frame out of the send ring through
// the de-framer into a transfer, which an empty device takes. Each on frames of their own, so that no branch is learnt by heart.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <random>
#include <vector>

#include "tests/support/converter_rig.h"
#include "tests/support/ppp_oracle.h"

namespace {

using test::Bytes;
namespace ppp = test::ppp;

constexpr std::size_t frameSize = 1500;
constexpr unsigned frameCount = 128;   // a multiple of the sequence numbers

// The characters that the device has escaped: none but flag and escape, or all below 20h, too.
Bytes escapes(const benchmark::State& state) {
    Bytes special;
    for (std::uint8_t byte = 0; state.range(0) != 0 && byte < 0x20; ++byte) {
        special.push_back(byte);
    }
    return special;
}

struct Frames {
    explicit Frames(const Bytes& special) {
        std::mt19937_64 random(1662);
        for (unsigned i = 0; i < frameCount; ++i) {
            Bytes body(frameSize);
            for (std::uint8_t& byte : body) {
                byte = static_cast<std::uint8_t>(random() >> 24);
            }
            device.push_back(ppp::deviceFrame(i, body));
            host.push_back(ppp::hostFrame(body, special));
            bodies.push_back(std::move(body));
        }
    }
    std::vector<Bytes> bodies, device, host;
};

test::ConverterRig::Options quiet() {
    test::ConverterRig::Options options;
    options.mode = nt::Mode::real;
    options.verifier = false;
    options.receiveRing = options.sendRing = 8192;
    return options;
}

void setBytes(benchmark::State& state) { state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(frameSize)); }

// ---- The yardstick

struct PlainTable {
    PlainTable() {
        for (unsigned byte = 0; byte < 256; ++byte) {
            unsigned value = byte;
            for (int bit = 0; bit < 8; ++bit) {
                value = value & 1 ? value >> 1 ^ 0x8408 : value >> 1;
            }
            entry[byte] = static_cast<std::uint16_t>(value);
        }
    }
    std::array<std::uint16_t, 256> entry;
};

void plainToHost(benchmark::State& state) {
    const PlainTable table;
    const Bytes special = escapes(state);
    const Frames frames(special);
    bool escaped[256] = {};
    for (const std::uint8_t byte : special) {
        escaped[byte] = true;
    }
    escaped[0x7D] = escaped[0x7E] = true;
    Bytes out(2 * frameSize + 8);
    unsigned next = 0;
    for (auto _ : state) {
        const Bytes& in = frames.bodies[next++ % frameCount];
        std::uint8_t* to = out.data();
        std::uint16_t fcs = 0xFFFF;
        const auto put = [&](std::uint8_t byte) {
            if (escaped[byte]) {
                *to++ = 0x7D;
                *to++ = byte ^ 0x20;
            } else {
                *to++ = byte;
            }
        };
        *to++ = 0x7E;
        for (const std::uint8_t byte : in) {
            put(byte);
            fcs = static_cast<std::uint16_t>(fcs >> 8 ^ table.entry[(fcs ^ byte) & 0xFF]);
        }
        fcs ^= 0xFFFF;
        put(static_cast<std::uint8_t>(fcs));
        put(static_cast<std::uint8_t>(fcs >> 8));
        *to++ = 0x7E;
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}

void plainToWire(benchmark::State& state) {
    const PlainTable table;
    const Frames frames(escapes(state));
    Bytes out(frameSize + 8);
    unsigned next = 0;
    for (auto _ : state) {
        const Bytes& in = frames.host[next++ % frameCount];
        std::uint8_t* to = out.data();
        std::uint16_t fcs = 0xFFFF;
        bool escaped = false;
        for (std::uint8_t byte : in) {
            if (byte == 0x7E) {
                continue;
            }
            if (byte == 0x7D) {
                escaped = true;
                continue;
            }
            if (escaped) {
                byte ^= 0x20;
                escaped = false;
            }
            *to++ = byte;
            fcs = static_cast<std::uint16_t>(fcs >> 8 ^ table.entry[(fcs ^ byte) & 0xFF]);
        }
        if (fcs != 0xF0B8) {
            state.SkipWithError("a frame's FCS is wrong");
        }
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}

// ---- The driver's

void framer(benchmark::State& state, bool wholeFrames) {
    const Bytes special = escapes(state);
    const Frames frames(special);
    test::ConverterRig rig(quiet());
    rig.escape(special);
    rig.start();
    unsigned next = 0;
    std::uint64_t bytes = 0, expected = 0;
    for (auto _ : state) {
        const Bytes& in = frames.device[next % frameCount];
        expected += frames.host[next++ % frameCount].size();
        bytes += rig.locked([&] {
            if (wholeFrames) {
                PppFramerIndicateData(&rig.framer(), const_cast<UCHAR*>(in.data()), static_cast<ULONG>(in.size()));
            } else {
                for (const std::uint8_t byte : in) {
                    PppFramerIndicateChar(&rig.framer(), byte);
                }
            }
            const ULONG count = rig.port().CircRcvBuf.Count;
            CircBufReset(&rig.port().CircRcvBuf);
            return count;
        });
    }
    if (bytes != expected) {
        state.SkipWithError("a frame is lost");
    }
    setBytes(state);
}

void toWire(benchmark::State& state) {
    const Frames frames(escapes(state));
    test::ConverterRig rig(quiet());
    rig.keep = false;
    unsigned next = 0;
    for (auto _ : state) {
        const Bytes& in = frames.host[next++ % frameCount];
        rig.fill(in.data(), in.size());
        rig.send();
        if (rig.pending.size() != 1) {
            state.SkipWithError("a frame is lost");
            break;
        }
        rig.complete();
    }
    setBytes(state);
}

// The same without the ring: each byte by itself to the de-framer.
void toWireBytes(benchmark::State& state) {
    const Frames frames(escapes(state));
    test::ConverterRig rig(quiet());
    rig.keep = false;
    unsigned next = 0;
    for (auto _ : state) {
        const Bytes& in = frames.host[next++ % frameCount];
        rig.locked([&] {
            for (const std::uint8_t byte : in) {
                PppDeFramerSendChar(&rig.deFramer(), byte);
            }
        });
        rig.complete();
    }
    setBytes(state);
}

void toHost(benchmark::State& state) { framer(state, true); }
void toHostBytes(benchmark::State& state) { framer(state, false); }

BENCHMARK(plainToHost)->Name("toHost/yardstick")->Arg(0);
BENCHMARK(toHost)->Name("toHost")->Arg(0);
BENCHMARK(toHostBytes)->Name("toHost/bytes")->Arg(0);
BENCHMARK(plainToHost)->Name("toHost/controls/yardstick")->Arg(1);
BENCHMARK(toHost)->Name("toHost/controls")->Arg(1);
BENCHMARK(toHostBytes)->Name("toHost/controls/bytes")->Arg(1);
BENCHMARK(plainToWire)->Name("toWire/yardstick")->Arg(0);
BENCHMARK(toWire)->Name("toWire")->Arg(0);
BENCHMARK(toWireBytes)->Name("toWire/bytes")->Arg(0);
BENCHMARK(plainToWire)->Name("toWire/controls/yardstick")->Arg(1);
BENCHMARK(toWire)->Name("toWire/controls")->Arg(1);
BENCHMARK(toWireBytes)->Name("toWire/controls/bytes")->Arg(1);

}  // namespace
