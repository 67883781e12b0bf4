// Frames from the device to the host and, without what the host takes off, back.
#include "fuzz/framing.h"

namespace {

using namespace framing;

void check(Input& in) {
    std::span input = in.stream;
    Pace& pace = in.pace;
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
    run(data, size, check);
    return 0;
}
