#include "modem/line.h"

#include <array>

namespace modem {
namespace {

constexpr std::array book{
    PhoneBookEntry{"100", FarEnd::echo, "*SECONDS", "echo; hangs up after SECONDS, if given"},
    PhoneBookEntry{
        "101", FarEnd::pattern, "*LENGTH*RATE",
        "sends LENGTH bytes of a known pattern (0: endless) at RATE bytes a second (0: at once), then hangs up"},
    PhoneBookEntry{"102", FarEnd::swallow, "*SECONDS",
                   "takes everything, sends nothing; hangs up after SECONDS, if given"},
    PhoneBookEntry{"103", FarEnd::busy, "", "busy"},
    PhoneBookEntry{"104", FarEnd::noAnswer, "", "nobody answers"},
    PhoneBookEntry{"105", FarEnd::noCarrier, "*SECONDS", "answers without a carrier; gives up after SECONDS (3)"},
    PhoneBookEntry{"106", FarEnd::noDialtone, "", "no dial tone"},
    PhoneBookEntry{"107", FarEnd::callBack, "*SECONDS", "hangs up and calls you after SECONDS (5)"},
    PhoneBookEntry{"*99#", FarEnd::ppp, "", "PPP access server"},
};

// The pattern repeats after 65536 bytes: a block of it is one copy.
constexpr std::size_t patternPeriod = 65'536;
static_assert(patternByte(0) == patternByte(patternPeriod) && patternByte(1000) == patternByte(patternPeriod + 1000));

const std::array<std::uint8_t, patternPeriod>& patternTable() {
    static const auto table = [] {
        std::array<std::uint8_t, patternPeriod> bytes{};
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = patternByte(i);
        return bytes;
    }();
    return table;
}

constexpr std::uint64_t maxParameter = 1'000'000'000'000;
constexpr std::uint64_t maxRate = 1'000'000'000;
constexpr std::int64_t maxSeconds = 1'000'000;
constexpr std::int64_t dialtoneMs = 200;
constexpr std::int64_t defaultNoCarrierS = 3;
constexpr std::int64_t defaultCallBackS = 5;
constexpr unsigned callBackRings = 8;
constexpr std::int64_t patternBurstMs = 1'000;  // what a far end with a rate saves up while nobody reads
constexpr std::int64_t patternStepMs = 10;

// Takes "*123" off the front of `rest`; nothing if there is no number.
std::optional<std::uint64_t> takeParameter(std::string_view& rest) {
    if (rest.empty() || rest.front() != '*')
        return std::nullopt;
    rest.remove_prefix(1);
    std::optional<std::uint64_t> value;
    while (!rest.empty() && rest.front() >= '0' && rest.front() <= '9') {
        value = std::min(value.value_or(0) * 10 + static_cast<std::uint64_t>(rest.front() - '0'), maxParameter);
        rest.remove_prefix(1);
    }
    return value;
}

// *99#, *99***1# and the like.
bool isAccessNumber(std::string_view number) {
    constexpr std::string_view begin = "*99";
    if (!number.starts_with(begin) || !number.ends_with('#'))
        return false;
    const std::string_view middle = number.substr(begin.size(), number.size() - begin.size() - 1);
    return middle.find_first_not_of("*0123456789") == std::string_view::npos && (middle.empty() || middle.front() == '*');
}

std::int64_t secondsToMs(std::uint64_t seconds) {
    return std::min(static_cast<std::int64_t>(seconds), maxSeconds) * 1000;
}

}  // namespace

std::span<const PhoneBookEntry> phoneBook() {
    return book;
}

void Line::dial(std::string_view number, const DialTimes& times) {
    std::string_view rest = number;
    while (!rest.empty() && rest.front() != '*')
        rest.remove_prefix(1);
    const std::string_view called = number.substr(0, number.size() - rest.size());
    first_ = takeParameter(rest);
    second_ = takeParameter(rest);

    state_ = State::dialing;
    callBackAtMs_.reset();
    phaseEndMs_ = nowMs_ + times.pauseMs;
    farEnd_ = FarEnd::noCarrier;
    for (const PhoneBookEntry& entry : book) {
        if (entry.number == called && rest.empty())
            farEnd_ = entry.farEnd;
    }
    if (isAccessNumber(number)) {
        farEnd_ = FarEnd::ppp;
        first_.reset();
    }
    outcome_ = LineEvent::noCarrier;
    switch (farEnd_) {
    case FarEnd::echo:
    case FarEnd::pattern:
    case FarEnd::swallow:
    case FarEnd::ppp:
        outcome_ = LineEvent::connected;
        phaseEndMs_ += answerMs;
        break;
    case FarEnd::busy:
        outcome_ = LineEvent::busy;
        phaseEndMs_ += busyMs;
        break;
    case FarEnd::noAnswer:
        outcome_ = LineEvent::noAnswer;
        phaseEndMs_ += times.waitAnswerMs;
        break;
    case FarEnd::noCarrier:
        phaseEndMs_ += std::min(secondsToMs(first_.value_or(defaultNoCarrierS)), times.waitAnswerMs);
        break;
    case FarEnd::noDialtone:
        outcome_ = LineEvent::noDialtone;
        phaseEndMs_ += dialtoneMs;
        break;
    case FarEnd::callBack:
        phaseEndMs_ += answerMs;
        break;
    }
}

bool Line::answer() {
    if (state_ != State::ringing)
        return false;
    state_ = State::answering;
    first_.reset();
    second_.reset();
    phaseEndMs_ = nowMs_ + answerMs;
    return true;
}

void Line::offHook() {
    if (state_ == State::onHook)
        state_ = State::offHook;
}

void Line::hangUp() {
    state_ = State::onHook;
    bellOn_ = false;
    hangUpAtMs_.reset();
}

bool Line::ringIn(unsigned rings) {
    if (state_ != State::onHook || rings == 0)
        return false;
    callBackAtMs_.reset();
    state_ = State::ringing;
    ringsLeft_ = rings;
    bellOn_ = false;
    phaseEndMs_ = nowMs_;
    return true;
}

void Line::dropCarrier() {
    if (state_ == State::connected)
        hangUpAtMs_ = nowMs_;
    if (state_ == State::ringing) {
        ringsLeft_ = 0;
        bellOn_ = false;
        phaseEndMs_ = nowMs_;
    }
}

std::optional<LineEvent> Line::tick(std::int64_t nowMs) {
    if (nowMs > nowMs_) {
        const auto elapsedMs = static_cast<std::uint64_t>(std::min(nowMs - nowMs_, patternBurstMs));
        patternCredit_ = std::min(patternCredit_ + elapsedMs * patternPerSecond_, patternBurstMs * patternPerSecond_);
        nowMs_ = nowMs;
    }
    switch (state_) {
    case State::dialing:
        if (nowMs_ >= phaseEndMs_)
            return finishDialing();
        break;
    case State::answering:
        if (nowMs_ >= phaseEndMs_) {
            startCall(FarEnd::echo);
            return LineEvent::connected;
        }
        break;
    case State::ringing:
        return nextRingPhase();
    case State::connected:
        if (ppp()) {
            server_->tick(nowMs_);
            if (server_->over() && !hangUpAtMs_)
                hangUpAtMs_ = nowMs_;
        }
        if (hangUpAtMs_ && nowMs_ >= *hangUpAtMs_) {
            hangUp();
            return LineEvent::noCarrier;
        }
        break;
    case State::onHook:
        if (callBackAtMs_ && nowMs_ >= *callBackAtMs_ && ringIn(callBackRings))
            return nextRingPhase();
        break;
    case State::offHook:
        break;
    }
    return std::nullopt;
}

LineEvent Line::finishDialing() {
    if (outcome_ == LineEvent::connected) {
        startCall(farEnd_);
    } else {
        if (farEnd_ == FarEnd::callBack)
            callBackAtMs_ = nowMs_ + secondsToMs(first_.value_or(defaultCallBackS));
        hangUp();
    }
    return outcome_;
}

void Line::startCall(FarEnd farEnd) {
    state_ = State::connected;
    farEnd_ = farEnd;
    bellOn_ = false;
    echo_.clear();
    patternSent_ = patternCredit_ = 0;
    patternLength_ = patternPerSecond_ = 0;
    if (farEnd == FarEnd::pattern) {
        patternLength_ = first_.value_or(0);
        patternPerSecond_ = std::min(second_.value_or(0), maxRate);
    } else if (farEnd == FarEnd::ppp) {
        earlierPpp_ = pppCounters();
        server_.emplace(pppSettings_, echo_);
    } else if (first_) {
        hangUpAtMs_ = nowMs_ + secondsToMs(*first_);
    }
}

// The phases count from the end of the one before, so a late tick does not stretch the cadence.
std::optional<LineEvent> Line::nextRingPhase() {
    while (nowMs_ >= phaseEndMs_) {
        if (bellOn_) {
            bellOn_ = false;
            phaseEndMs_ += ringCycleMs - ringOnMs;
        } else if (ringsLeft_ == 0) {
            state_ = State::onHook;
            return LineEvent::ringStopped;
        } else {
            if (ringsLeft_ != untilAnswered)
                --ringsLeft_;
            bellOn_ = true;
            phaseEndMs_ += ringOnMs;
            return LineEvent::ring;
        }
    }
    return std::nullopt;
}

std::optional<std::int64_t> Line::nextDeadlineMs() const {
    switch (state_) {
    case State::dialing:
    case State::answering:
    case State::ringing:
        return phaseEndMs_;
    case State::onHook:
        return callBackAtMs_;
    case State::offHook:
        return std::nullopt;
    case State::connected:
        break;
    }
    if (ppp()) {
        const auto serverMs = server_->nextDeadlineMs();
        return hangUpAtMs_ && serverMs ? std::min(hangUpAtMs_, serverMs) : hangUpAtMs_ ? hangUpAtMs_ : serverMs;
    }
    // A far end with a rate has more to say a step from now, unless it has already.
    if (farEnd_ == FarEnd::pattern && patternPerSecond_ != 0 && patternReady() == 0 && !hangUpAtMs_) {
        const std::uint64_t missing = 1000 - patternCredit_ + patternPerSecond_ - 1;
        return nowMs_ + std::max(patternStepMs, static_cast<std::int64_t>(missing / patternPerSecond_));
    }
    return hangUpAtMs_;
}

std::size_t Line::sendRoom() const {
    if (ppp())
        return server_->room();
    return farEnd_ == FarEnd::echo ? echo_.room() : SIZE_MAX;
}

std::size_t Line::send(std::span<const std::uint8_t> data) {
    if (state_ != State::connected)
        return 0;
    if (ppp()) {
        const auto part = data.first(std::min(data.size(), server_->room()));
        server_->take(part);
        return part.size();
    }
    return farEnd_ == FarEnd::echo ? echo_.push(data) : data.size();
}

// Bytes of the pattern the far end may send now.
std::uint64_t Line::patternReady() const {
    if (state_ != State::connected || farEnd_ != FarEnd::pattern)
        return 0;
    const std::uint64_t left = patternLength_ == 0 ? UINT64_MAX : patternLength_ - patternSent_;
    return patternPerSecond_ == 0 ? left : std::min(left, patternCredit_ / 1000);
}

bool Line::hasData() const {
    return !echo_.empty() || patternReady() != 0;
}

std::size_t Line::receive(std::span<std::uint8_t> space) {
    if (state_ != State::connected || farEnd_ != FarEnd::pattern) {
        const std::size_t count = echo_.pop(space);
        if (ppp())
            server_->pump();
        return count;
    }
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(space.size(), patternReady()));
    for (std::size_t done = 0; done < count;) {
        const std::size_t at = (patternSent_ + done) % patternPeriod;
        const std::size_t piece = std::min(count - done, patternPeriod - at);
        std::memcpy(space.data() + done, patternTable().data() + at, piece);
        done += piece;
    }
    patternSent_ += count;
    if (patternPerSecond_ != 0)
        patternCredit_ -= count * 1000;
    if (patternLength_ != 0 && patternSent_ == patternLength_)
        hangUpAtMs_ = nowMs_;
    return count;
}

PppCounters Line::pppCounters() const {
    PppCounters sum = earlierPpp_;
    if (server_) {
        const PppCounters last = server_->counters();
        sum.framesIn += last.framesIn;
        sum.framesOut += last.framesOut;
        sum.fcsErrors += last.fcsErrors;
        sum.dropped += last.dropped;
    }
    return sum;
}

bool Line::sendBreak() {
    return state_ == State::connected && farEnd_ == FarEnd::echo;
}

}  // namespace modem
