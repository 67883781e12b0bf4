// The converters of framing mode against definitions that know nothing of state: what comes out must be what the whole stream
// says, however it was cut, and however much room there was.
//
// The first byte of an input picks the escapes, the second the pace; the rest is the stream.
#pragma once

#include "fuzz/actions.h"
#include "tests/support/converter_rig.h"
#include "tests/support/ppp_oracle.h"

#include <span>

namespace framing {

using fuzz::require;
using test::Bytes;
namespace ppp = test::ppp;

inline test::ConverterRig& rig() {
    // Gone before the executive's own globals.
    static test::ConverterRig one({.receiveRing = 5000, .sendRing = 5000});
    return one;
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

inline Bytes escapeSet(std::uint8_t kind) {
    Bytes special;
    for (unsigned byte = 0; byte < 256; ++byte) {
        if ((kind % 4 == 1 && byte < 0x20) || (kind % 4 == 2 && (byte * kind & 8) != 0) || (kind % 4 == 3 && byte == kind))
            special.push_back(static_cast<std::uint8_t>(byte));
    }
    return special;
}

inline Bytes throughFramer(const Bytes& stream, Pace& pace) {
    const ULONG ring = 1 + static_cast<ULONG>(pace.upTo(3000));
    rig().receiveRing(ring);
    return rig().throughFramer(stream, [&] {
        return test::ConverterRig::FramerPace{pace.upTo(400), pace.upTo(ring), pace.upTo(3) == 0};
    });
}

inline Bytes throughDeFramer(const Bytes& stream, Pace& pace) {
    rig().dev().MaxWriteChunk = pace.upTo(1) != 0 ? 4096 : 1 + static_cast<ULONG>(pace.upTo(600));
    return rig().throughDeFramer(stream, [&] {
        return test::ConverterRig::WirePace{pace.upTo(900), true, pace.upTo(2) != 0};
    });
}

struct Input {
    std::span<const std::uint8_t> stream;
    Bytes special;
    Pace pace;
};

// What a fuzzer asks of an input.
void check(Input& input);

}  // namespace framing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace framing;
    if (size < 2 || size > 4096)
        return 0;
    Input input{{data + 2, size - 2}, escapeSet(data[0]), Pace(data[1])};
    rig().escape(input.special);
    rig().start();
    check(input);
    // The start after a frame of the very limit notes its bytes; nothing else may be asserted.
    require(rig().count("ASSERTION FAILED") == rig().count("ASSERTION FAILED: (DeFramer->Count == 0)"));
    return 0;
}
