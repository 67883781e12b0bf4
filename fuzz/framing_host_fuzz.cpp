// Any stream from the host. FD, byte, n stands for a long run of the byte.
#include "fuzz/framing.h"

using namespace framing;

void framing::check(Input& in) {
    const std::span input = in.stream;
    Bytes stream;
    for (std::size_t i = 0; i < input.size(); ++i) {   // FD, byte, n: a long run, or no input would be too long
        const bool run = input[i] == 0xFD && i + 2 < input.size();
        stream.insert(stream.end(), run ? input[i + 2] * 20u : 1u, run ? input[i + 1] : input[i]);
        i += run ? 2 : 0;
    }
    const ppp::ToDevice expected = ppp::toDevice(stream);
    require(throughDeFramer(stream, in.pace) == ppp::joined(expected.frames));
    require(rig().count("PPP Frame to long, discard it") == expected.tooLong);
}
