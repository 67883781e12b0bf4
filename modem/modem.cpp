#include "modem/modem.h"

#include <algorithm>

namespace modem {

Modem::Modem(Options options) : AcmDevice(std::move(options)) {
    powerCycle();
}

void Modem::powerCycle() {
    line_.emplace();
    at_.emplace(*line_, options().identity, static_cast<Signals*>(this));
    framing_.emplace();
    framing_->setMode(options().framing);
    escapes_ = options().escapedCharacters;
    tellLine();
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
    if (what == Stimulus::framing)
        framing_->setMode(static_cast<FramingMode>(value));
    if (what == Stimulus::escapes)
        chooseFraming({framing_->mode(), value});
}

// ---- framed PPP transfers ----

void Modem::setFraming(const FramingChoice& choice) {
    post(Stimulus::framing, static_cast<std::uint32_t>(choice.mode));
    post(Stimulus::escapes, choice.escapes);
}

void Modem::chooseFraming(const FramingChoice& choice) {
    framing_->setMode(choice.mode);
    escapes_ = controlCharacters(choice.escapes);
    tellLine();
}

void Modem::tellLine() {
    PppSettings settings;
    settings.receiveAccm = framingChoice().escapes;
    line_->setPpp(settings);
}

FramingChoice Modem::framingChoice() const {
    FramingChoice choice{framing_->mode(), 0};
    for (const std::uint8_t character : escapes_)
        choice.escapes |= character < 32 ? 1u << character : 0;
    return choice;
}

std::string_view Modem::framingState() const {
    constexpr std::array<std::string_view, 4> words{"bytes", "asked", "framing", "stopping"};
    return words[static_cast<std::size_t>(framing_->state())];
}

std::span<const std::uint8_t> Modem::readEscapes() {
    framing_->escapesRead();
    return escapes_;
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
    const auto callMs = at_->nextDeadlineMs();
    const auto framingMs = framing_->nextDeadlineMs();
    return callMs && framingMs ? std::min(callMs, framingMs) : callMs ? callMs : framingMs;
}

void Modem::tick(std::int64_t nowMs) {
    framing_->tick(nowMs);
    at_->tick(nowMs);
    takePosted();
    at_->tick(nowMs);
    settle();
}

// ---- data ----

bool Modem::hasBytes() const {
    return !framing_->holds() && ((framing_->frames() && !framing_->framed().empty()) || at_->hasOutput());
}

std::size_t Modem::give(std::span<std::uint8_t> space) {
    if (framing_->holds())
        return 0;
    if (!framing_->frames())
        return at_->get(space);
    std::array<std::uint8_t, Framing::chunkBytes> chunk;
    while (framing_->hasRoom()) {
        const std::size_t count = at_->get(chunk);
        if (count == 0)
            break;
        framing_->frame(std::span(chunk).first(count));
    }
    return framing_->framed().pop(space);
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
    framing_->call(at_->mode() == AtInterpreter::Mode::data && line_->ppp());
    full_ = fromHost_.size() > (full_ ? releaseAtBytes : holdAtBytes);
    reportLines();
}

std::int32_t Modem::dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool) {
    if (endpoint != endpointOut || !isConfigured())
        return usb::dataStall;
    if (data.empty())
        return 0;
    settle();
    if (!framing_->unframes())
        return bytesOut(data);
    const std::size_t taken = framing_->unframe(data, fromHost_);
    settle();
    return taken == 0 ? usb::dataNak : static_cast<std::int32_t>(taken);
}

std::int32_t Modem::bytesOut(std::span<const std::uint8_t> data) {
    // With nothing waiting the bytes go straight on; only what the interpreter refuses is kept.
    const std::size_t direct = fromHost_.empty() ? at_->put(data) : 0;
    std::size_t taken = direct + std::min(data.size() - direct, fromHost_.room());
    if (taken < data.size())
        taken -= taken % packetBytes;
    // Room for a packet is kept free whenever the queue is empty, so what went on is never cut off by the rounding.
    static_assert(queueBytes > packetBytes);
    fromHost_.push(data.subspan(direct, taken - direct));
    framing_->watch(data.first(taken));
    settle();
    return taken == 0 ? usb::dataNak : static_cast<std::int32_t>(taken);
}

}  // namespace modem
