#include "modem/loopback.h"

#include <algorithm>
#include <utility>

namespace modem {

namespace {

constexpr std::uint16_t dtr = 1;
constexpr std::uint16_t rts = 2;

}  // namespace

Options Loopback::plugOptions() {
    Options options;
    options.productId = 0x0002;
    options.identity.model = "Loop plug";
    return options;
}

Loopback::Loopback(Options options) : AcmDevice(std::move(options)) {}

void Loopback::powerCycle() {
    wire_.clear();
    listening_ = false;
    AcmDevice::powerCycle();
}

void Loopback::tick(std::int64_t) {
    takePosted();
    reportLines();
}

bool Loopback::followedLine(LineName name) const {
    switch (name) {
    case LineName::carrier:
    case LineName::ready:
        return (controlLines() & dtr) != 0;
    case LineName::clearToSend:
        return (controlLines() & rts) != 0;
    case LineName::ring:
    case LineName::hold:
        break;
    }
    return false;
}

// Only as they fall: with its lines down on purpose a host may still send and read.
void Loopback::controlLinesChanged() {
    bool listens = (controlLines() & (dtr | rts)) != 0;
    if (listening_ && !listens)
        wire_.clear();
    listening_ = listens;
    reportLines();
}

std::int32_t Loopback::dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool) {
    if (endpoint != endpointOut || !isConfigured())
        return usb::dataStall;
    std::size_t taken = std::min(data.size(), wire_.room());
    // In part only by whole packets.
    if (taken < data.size())
        taken -= taken % packetBytes;
    wire_.push(data.first(taken));
    return taken == 0 && !data.empty() ? usb::dataNak : static_cast<std::int32_t>(taken);
}

}  // namespace modem
