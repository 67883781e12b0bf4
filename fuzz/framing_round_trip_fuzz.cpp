// Frames from the device to the host and, without what the host takes off, back.
#include "fuzz/framing.h"

using namespace framing;

void framing::check(Input& in) {
    std::span input = in.stream;
    Pace& pace = in.pace;
    Bytes stream, wire;
    unsigned next = 0;
    while (!input.empty()) {
        const std::size_t length = 1 + pace.upTo(std::min<std::size_t>(input.size(), 2041) - 1);
        const Bytes body(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(length));
        input = input.subspan(length);
        ppp::append(stream, ppp::deviceFrame(next, body));
        ppp::append(wire, ppp::deviceFrame(next++, ppp::withFcs(body)));
    }
    require(throughDeFramer(throughFramer(stream, pace), pace) == wire);
}
