// The converters of framing mode against definitions that know nothing of state: what comes out must be what the whole stream
// says, however it was cut, and however much room there was.
//
// The first byte picks the direction (or a round trip), the second the escapes, the third the pace; the rest is the stream. In a
// stream for the framer FD, n, length... stands for a well-made frame with the number that is expected, so that frames are found.
#include "tests/support/converter_rig.h"
#include "tests/support/ppp_oracle.h"

#include <cstdlib>
#include <span>

namespace {

using test::Bytes;
namespace ppp = test::ppp;

void require(bool holds) {
    if (!holds)
        std::abort();
}

test::ConverterRig& rig() {
    static auto* const one = [] {
        test::ConverterRig::Options options;
        options.receiveRing = options.sendRing = 5000;
        return new test::ConverterRig(options);   // as long as the process
    }();
    return *one;
}

// A sequence of numbers that an input decides.
class Pace {
  public:
    explicit Pace(std::uint8_t seed) : state_(seed * 2654435761u + 1) {}
    std::size_t upTo(std::size_t most) {
        state_ = state_ * 1664525u + 1013904223u;
        return (state_ >> 8) % (most + 1);
    }

  private:
    std::uint32_t state_;
};

Bytes escapeSet(std::uint8_t kind) {
    Bytes special;
    for (unsigned byte = 0; byte < 256; ++byte) {
        if ((kind % 4 == 1 && byte < 0x20) || (kind % 4 == 2 && (byte * kind & 8) != 0) || (kind % 4 == 3 && byte == kind))
            special.push_back(static_cast<std::uint8_t>(byte));
    }
    return special;
}

void requireInBounds(const PPP_FRAMER& framer) {
    const bool header = framer.State == FRAMER_HEADER;
    const UCHAR* const begin = header ? framer.Header : framer.OutBuf;
    const UCHAR* const end = header ? std::end(framer.Header) : std::end(framer.OutBuf);
    require(framer.State <= FRAMER_DELIVER && framer.Dev == &rig().dev());
    require(framer.State == FRAMER_HUNT || framer.State == FRAMER_RESYNC || (framer.OutPtr >= begin && framer.OutPtr <= end));
}

// In blocks of their own size: one byte read too far is seen.
Bytes throughFramer(const Bytes& stream, Pace& pace) {
    Bytes host;
    const ULONG ring = 1 + static_cast<ULONG>(pace.upTo(3000));
    rig().receiveRing(ring);
    for (std::size_t at = 0; at < stream.size() || rig().framer().State == FRAMER_DELIVER;) {
        const std::size_t length = std::min(pace.upTo(400), stream.size() - at);
        const auto from = stream.begin() + static_cast<std::ptrdiff_t>(at);
        const Bytes piece(from, from + static_cast<std::ptrdiff_t>(length));
        at += rig().offer(piece.data(), length);
        if (at == stream.size() && rig().framer().State == FRAMER_DELIVER)
            rig().locked([] { PppFramerDeliver(&rig().framer()); });
        requireInBounds(rig().framer());
        rig().read(host, pace.upTo(ring));
    }
    while (rig().read(host, ring) != 0) {}
    return host;
}

Bytes throughDeFramer(const Bytes& stream, Pace& pace) {
    rig().dev().MaxWriteChunk = pace.upTo(1) != 0 ? 4096 : 1 + static_cast<ULONG>(pace.upTo(600));
    for (std::size_t at = 0; at < stream.size() || !rig().idle();) {
        at += rig().fill(stream.data() + at, std::min(pace.upTo(900), stream.size() - at));
        rig().send();
        if (!rig().pending.empty() && pace.upTo(2) != 0)
            rig().complete();
    }
    Bytes wire;
    for (const Bytes& transfer : rig().transfers)
        ppp::append(wire, transfer);
    return wire;
}

void fromDevice(std::span<const std::uint8_t> input, const Bytes& special, Pace& pace) {
    Bytes stream;
    unsigned next = 0;
    for (std::size_t i = 0; i < input.size(); ++i) {
        if (input[i] != 0xFD || i + 2 >= input.size()) {
            stream.push_back(input[i]);
            continue;
        }
        ppp::append(stream, ppp::deviceFrame(next++, Bytes(1 + input[i + 2] * 8u, input[i + 1])));
        i += 2;
    }
    const ppp::ToHost expected = ppp::toHost(stream, special);
    require(throughFramer(stream, pace) == expected.bytes);
    require((rig().framer().ExpectedSeq & 31) == expected.expected);
    require(rig().count("unexpected magic_lo") == expected.strayBytes && rig().count("invalid Magic") == expected.badMagic &&
            rig().count("invalid Sequence") == expected.badSequence);
}

void fromHost(std::span<const std::uint8_t> input, Pace& pace) {
    Bytes stream;
    for (std::size_t i = 0; i < input.size(); ++i) {   // FD, byte, n: a long run, or no input would be too long
        const bool run = input[i] == 0xFD && i + 2 < input.size();
        stream.insert(stream.end(), run ? input[i + 2] * 20u : 1u, run ? input[i + 1] : input[i]);
        i += run ? 2 : 0;
    }
    const ppp::ToDevice expected = ppp::toDevice(stream);
    Bytes wire;
    for (const Bytes& frame : expected.frames)
        ppp::append(wire, frame);
    require(throughDeFramer(stream, pace) == wire);
    require(rig().count("PPP Frame to long, discard it") == expected.tooLong);
}

// Frames from the device to the host and, without what the host takes off, back.
void roundTrip(std::span<const std::uint8_t> input, Pace& pace) {
    Bytes stream, wire;
    unsigned next = 0;
    while (!input.empty()) {
        const std::size_t length = 1 + pace.upTo(std::min<std::size_t>(input.size(), 2041) - 1);
        Bytes body(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(length));
        input = input.subspan(length);
        ppp::append(stream, ppp::deviceFrame(next, body));
        const std::uint16_t check = static_cast<std::uint16_t>(~ppp::fcs(body));
        body.push_back(static_cast<std::uint8_t>(check));
        body.push_back(static_cast<std::uint8_t>(check >> 8));
        ppp::append(wire, ppp::deviceFrame(next++, body));
    }
    require(throughDeFramer(throughFramer(stream, pace), pace) == wire);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3 || size > 4096)
        return 0;
    const std::span stream(data + 3, size - 3);
    const Bytes special = escapeSet(data[1]);
    Pace pace(data[2]);
    rig().escape(special);
    rig().start();
    switch (data[0] % 3) {
    case 0: fromDevice(stream, special, pace); break;
    case 1: fromHost(stream, pace); break;
    case 2: roundTrip(stream, pace); break;
    }
    // The start after a frame of the very limit notes its bytes; nothing else may be asserted.
    require(rig().count("ASSERTION FAILED") == rig().count("ASSERTION FAILED: (DeFramer->Count == 0)"));
    return 0;
}
