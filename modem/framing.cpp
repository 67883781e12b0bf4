#include "modem/framing.h"

#include "modem/ppp_endpoint.h"

#include <algorithm>

namespace modem {
namespace {

constexpr std::uint8_t requestStart = 0x10;
constexpr std::uint8_t requestStop = 0x11;

// A packet may end the longest frame and hold as many short ones as fit; each byte may be escaped, each frame has two flags.
constexpr std::size_t shortFrames = Framing::packetBytes / (deviceFrameHead + 1) + 1;
static_assert(2 * (deviceFrameLimit + Framing::packetBytes) + 2 * shortFrames <= Framing::roomForPacket);

}  // namespace

// ---- the switch ----

void Framing::call(bool on) {
    if (on == inCall_)
        return;
    inCall_ = on;
    if (on) {
        asks_ = 0;
        watcher_.reset(false);
        return;
    }
    if (state_ == State::asked && !notices_.empty() && !escapesRead_ && !startDue_) {
        // It has not heard of it.
        notices_.clear();
        leave();
        return;
    }
    if (state_ != State::asked && state_ != State::framing)
        return;
    if (mode_ == FramingMode::keep) {
        leave();
        return;
    }
    state_ = State::stopping;
    started_ |= startDue_;
    startDue_ = askedAgain_ = false;
    sinceMs_ = nowMs_;
    notices_.push_back(requestStop);
}

// The host's last frame, or what has come of one, is what the mode waits for.
bool Framing::calledFor() const {
    if (mode_ == FramingMode::off || mode_ == FramingMode::midFrame)
        return false;
    const auto head = pppHead(watcher_.frame());
    return head && head->protocol == (mode_ == FramingMode::late ? pppIp : pppLcp);
}

void Framing::ask() {
    state_ = State::asked;
    ++asks_;
    sinceMs_ = nowMs_;
    escapesRead_ = startDue_ = started_ = false;
    notices_.push_back(requestStart);
    if (mode_ == FramingMode::twice)
        notices_.push_back(requestStart);
}

std::optional<std::uint8_t> Framing::notification() const {
    return notices_.empty() ? std::nullopt : std::optional(notices_.front());
}

void Framing::escapesRead() {
    escapesRead_ = true;
}

bool Framing::start() {
    if (state_ == State::bytes)
        return false;
    startDue_ = true;
    return true;
}

void Framing::stop() {
    stopDue_ = true;
}

// Framing begins, or begins anew.
void Framing::begin() {
    const bool again = state_ == State::framing;
    state_ = State::framing;
    started_ = true;
    ++counters_.starts;
    silentUntilMs_ = nowMs_ + settleMs;
    rawTail_ = !again;
    reader_.reset();
    sequence_ = 0;
    cutter_.reset(false);
    framed_.clear();
    askedAgain_ = mode_ == FramingMode::twice && !again;
    escapesRead_ = false;
    if (askedAgain_) {
        sinceMs_ = nowMs_;
        notices_.push_back(requestStart);
    }
}

void Framing::leave() {
    state_ = State::bytes;
    started_ = startDue_ = askedAgain_ = escapesRead_ = false;
    framed_.clear();
    watcher_.reset(false);
}

void Framing::tick(std::int64_t nowMs) {
    nowMs_ = std::max(nowMs_, nowMs);
    if (startDue_ && (state_ == State::asked || state_ == State::framing))
        begin();
    started_ |= startDue_;
    startDue_ = false;
    if (stopDue_) {
        stopDue_ = false;
        if (state_ != State::bytes)
            silentUntilMs_ = nowMs_ + settleMs;
        leave();
    }
    const bool waits = state_ == State::asked || state_ == State::stopping;
    const bool unnoticed = state_ == State::stopping && !notices_.empty() && nowMs_ >= sinceMs_ + noticeMs;
    if (unnoticed || (waits && nowMs_ >= sinceMs_ + answerMs)) {
        counters_.refusals += state_ == State::asked;
        notices_.clear();
        leave();
    }
    if (askedAgain_ && nowMs_ >= sinceMs_ + answerMs)
        askedAgain_ = false;
}

std::optional<std::int64_t> Framing::nextDeadlineMs() const {
    if (startDue_ || stopDue_)
        return nowMs_;
    std::optional<std::int64_t> nextMs;
    if (state_ == State::asked || state_ == State::stopping || askedAgain_)
        nextMs = sinceMs_ + (state_ == State::stopping && !notices_.empty() ? noticeMs : answerMs);
    if (nowMs_ < silentUntilMs_)
        nextMs = std::min(nextMs.value_or(silentUntilMs_), silentUntilMs_);
    return nextMs;
}

bool Framing::holds() const {
    return nowMs_ < silentUntilMs_ || state_ == State::stopping || askedAgain_ || (state_ == State::asked && escapesRead_);
}

// ---- from the host ----

void Framing::watch(std::span<const std::uint8_t> data) {
    if (!inCall_)
        return;
    for (const std::uint8_t byte : data) {
        const bool ended = watcher_.put(byte);
        if (ended && state_ == State::bytes && asks_ < maxAsks && calledFor())
            ask();
    }
    const bool inFrame = watcher_.inFrame() && !watcher_.partial().empty();
    if (mode_ == FramingMode::midFrame && inFrame && state_ == State::bytes && asks_ < maxAsks)
        ask();
}

std::size_t Framing::unframe(std::span<const std::uint8_t> data, ByteRing& bytes) {
    // The call is over: nobody is there for it.
    if (state_ == State::stopping)
        return data.size();
    std::size_t taken = 0;
    while (taken < data.size() && bytes.room() >= roomForPacket) {
        const auto packet = data.subspan(taken, std::min(packetBytes, data.size() - taken));
        for (const std::uint8_t byte : packet)
            receive(byte, bytes);
        taken += packet.size();
    }
    counters_.gaps = reader_.gaps();
    counters_.badHeaders = reader_.badHeaders();
    return taken;
}

void Framing::receive(std::uint8_t byte, ByteRing& bytes) {
    if (rawTail_) {
        // Sent before the switch and held up: it ends with a flag, and no PPP frame begins as a device frame does.
        rawTail_ = watcher_.inFrame() || byte != deviceFrameMagicLow;
        if (rawTail_) {
            watcher_.put(byte);
            bytes.push({&byte, 1});
            return;
        }
    }
    const bool ended = reader_.put(byte);
    if (ended || reader_.inFrame())
        silentUntilMs_ = nowMs_;
    if (!ended)
        return;
    encoded_.clear();
    encodeHdlcWithFcs(encoded_, reader_.frame(), everyControlCharacter);
    bytes.push(encoded_);
    ++counters_.framesIn;
}

// ---- to the host ----

void Framing::frame(std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) {
        if (!cutter_.put(byte))
            continue;
        const auto payload = cutter_.frame();
        const std::size_t length = deviceFrameHead + payload.size();
        const std::array<std::uint8_t, deviceFrameHead> head{deviceFrameMagicLow, deviceFrameMagicHigh,
                                                             static_cast<std::uint8_t>(sequence_ << 3 | length >> 8),
                                                             static_cast<std::uint8_t>(length)};
        framed_.push(head);
        framed_.push(payload);
        sequence_ = (sequence_ + 1) & deviceFrameSequenceMask;
        ++counters_.framesOut;
    }
    const HdlcCounters& cut = cutter_.counters();
    counters_.dropped = cut.fcsErrors + cut.tooLong + cut.aborted;
}

}  // namespace modem
