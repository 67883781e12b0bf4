#include "modem/modem.h"

#include <algorithm>

namespace modem {

Modem::Modem(Options options) : AcmDevice(std::move(options)) {
    powerCycle();
}

void Modem::powerCycle() {
    line_.emplace();
    at_.emplace(*line_, options().identity, static_cast<Signals*>(this));
    fromHost_.clear();
    full_ = false;
    AcmDevice::powerCycle();
}

// ---- the world outside ----

void Modem::ringIn(unsigned rings) {
    post(Stimulus::ring, rings);
}
void Modem::dropCarrier() {
    post(Stimulus::dropCarrier, 0);
}

void Modem::act(Stimulus what, std::uint32_t value) {
    if (what == Stimulus::ring)
        line_->ringIn(value);
    if (what == Stimulus::dropCarrier)
        line_->dropCarrier();
}

void Modem::signalLine(LineName line, std::optional<bool> level) {
    holdLine(line, level);
    reportLines();
}

// ---- what the host says ----

void Modem::lineCodingChanged() {
    at_->setDteRate(lineCoding().rate);
}

void Modem::controlLinesChanged() {
    at_->setDtr((controlLines() & 1) != 0);
    settle();
}

void Modem::breakBegun() {
    if (line_->sendBreak())
        reportNow(stateBreak);
}

bool Modem::followedLine(LineName name) const {
    switch (name) {
    case LineName::carrier:
        return at_->carrierSignal();
    case LineName::ready:
        return at_->readySignal();
    case LineName::ring:
        return line_->bell();
    case LineName::clearToSend:
        return true;
    case LineName::hold:
        return full_;
    }
    return false;
}

std::optional<std::int64_t> Modem::nextDeadlineMs() const {
    return at_->nextDeadlineMs();
}

void Modem::tick(std::int64_t nowMs) {
    at_->tick(nowMs);
    takePosted();
    at_->tick(nowMs);
    settle();
}

// ---- data ----

bool Modem::hasBytes() const {
    return at_->hasOutput();
}

std::size_t Modem::give(std::span<std::uint8_t> space) {
    return at_->get(space);
}

std::int32_t Modem::dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) {
    const std::int32_t count = AcmDevice::dataIn(endpoint, space);
    // What the host fetched made room.
    if (count > 0 && endpoint == endpointIn)
        settle();
    return count;
}

// Moves bytes from the host to the interpreter until it holds back.
void Modem::pump() {
    while (!fromHost_.empty()) {
        const std::size_t taken = at_->put(fromHost_.front());
        if (taken == 0)
            break;
        fromHost_.drop(taken);
    }
}

// After everything that can change the call or make room.
void Modem::settle() {
    if (at_->takeCallLost())
        fromHost_.clear();
    pump();
    full_ = fromHost_.size() > (full_ ? releaseAtBytes : holdAtBytes);
    reportLines();
}

std::int32_t Modem::dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool) {
    if (endpoint != endpointOut || !isConfigured())
        return usb::dataStall;
    if (data.empty())
        return 0;
    settle();
    // With nothing waiting the bytes go straight on; only what the interpreter refuses is kept.
    const std::size_t direct = fromHost_.empty() ? at_->put(data) : 0;
    std::size_t taken = direct + std::min(data.size() - direct, fromHost_.room());
    if (taken < data.size())
        taken -= taken % packetBytes;
    // Room for a packet is kept free whenever the queue is empty, so what went on is never cut off by the rounding.
    static_assert(queueBytes > packetBytes);
    fromHost_.push(data.subspan(direct, taken - direct));
    settle();
    return taken == 0 ? usb::dataNak : static_cast<std::int32_t>(taken);
}

}  // namespace modem
