#include "modem/ppp_server.h"

namespace modem {

PppServer::PppServer(const PppSettings& settings, ByteRing& out) : out_(out), endpoint_(settings) {
    decoder_.setDropped(settings.receiveAccm);
}

void PppServer::take(std::span<const std::uint8_t> data) {
    for (const std::uint8_t byte : data) {
        if (decoder_.put(byte))
            endpoint_.input(decoder_.frame());
    }
    pump();
}

void PppServer::pump() {
    // Every byte of a frame, its FCS and two flags, all escaped.
    constexpr std::size_t worst = 2 * (PppEndpoint::frameLimit + 2) + 2;
    while (out_.room() >= worst && !endpoint_.output().empty()) {
        const auto frame = endpoint_.output();
        const auto head = pppHead(frame);
        encoded_.clear();
        encodeHdlc(encoded_, frame, head && head->protocol == pppLcp ? everyControlCharacter : endpoint_.sendAccm());
        endpoint_.dropOutput();
        out_.push(encoded_);
        ++framesOut_;
    }
}

void PppServer::tick(std::int64_t nowMs) {
    endpoint_.tick(nowMs);
    pump();
}

PppCounters PppServer::counters() const {
    const HdlcCounters& line = decoder_.counters();
    return {line.frames, framesOut_, line.fcsErrors, line.tooLong + line.aborted + endpoint_.dropped()};
}

}  // namespace modem
