// Any stream from the device. FD, n, length... stands for a well-made frame with the number that is expected, so that frames are found.
#include "fuzz/framing.h"

using namespace framing;

void framing::check(Input& in) {
    const std::span input = in.stream;
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
    const ppp::ToHost expected = ppp::toHost(stream, in.special);
    require(throughFramer(stream, in.pace) == expected.bytes);
    require((rig().framer().ExpectedSeq & 31) == expected.expected);
    require(rig().count("unexpected magic_lo") == expected.strayBytes && rig().count("invalid Magic") == expected.badMagic &&
            rig().count("invalid Sequence") == expected.badSequence);
}
