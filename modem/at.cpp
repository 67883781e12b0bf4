#include "modem/at.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace modem {
namespace {

struct ResultText {
    std::string_view text;
    std::uint8_t number;
};

// In the order of AtInterpreter::Result.
constexpr std::array resultTexts{
    ResultText{"OK", 0},    ResultText{"CONNECT", 1},     ResultText{"RING", 2}, ResultText{"NO CARRIER", 3},
    ResultText{"ERROR", 4}, ResultText{"NO DIALTONE", 6}, ResultText{"BUSY", 7}, ResultText{"NO ANSWER", 8},
};
static_assert(resultTexts.size() == static_cast<std::size_t>(AtInterpreter::Result::noAnswer) + 1);

struct RateNumber {
    std::uint32_t rate;
    std::uint8_t number;
};

// The numeric form of CONNECT with a rate.
constexpr std::array rateNumbers{
    RateNumber{1200, 5},   RateNumber{2400, 10},  RateNumber{4800, 11},   RateNumber{9600, 12},   RateNumber{19200, 14},
    RateNumber{38400, 17}, RateNumber{57600, 18}, RateNumber{115200, 19}, RateNumber{230400, 20},
};

// A bell nobody reads about does not fill the memory.
constexpr std::size_t unreadRingLimit = 1024;

constexpr std::uint8_t lastCharacter = 0x7E;

}  // namespace

AtInterpreter::AtInterpreter(Line& line, Identity identity, Signals* signals)
    : line_(line), identity_(std::move(identity)), signals_(signals) {}

std::size_t AtInterpreter::put(std::span<const std::uint8_t> data) {
    std::size_t taken = 0;
    while (taken < data.size()) {
        if (mode_ == Mode::data) {
            const std::size_t count = putData(data.subspan(taken));
            if (count == 0)
                break;
            taken += count;
        } else {
            if (replies_.size() - repliesRead_ > replyLimit)
                break;
            putCommandByte(data[taken++]);
        }
    }
    return taken;
}

std::size_t AtInterpreter::get(std::span<std::uint8_t> space) {
    std::size_t done = std::min(space.size(), replies_.size() - repliesRead_);
    if (done != 0) {
        std::memcpy(space.data(), replies_.data() + repliesRead_, done);
        repliesRead_ += done;
        if (repliesRead_ == replies_.size() || repliesRead_ > replyLimit) {
            replies_.erase(0, repliesRead_);
            repliesRead_ = 0;
        }
    }
    if (mode_ == Mode::data && done < space.size())
        done += line_.receive(space.subspan(done));
    return done;
}

bool AtInterpreter::hasOutput() const {
    return !replies_.empty() || (mode_ == Mode::data && line_.hasData());
}

void AtInterpreter::tick(std::int64_t nowMs) {
    nowMs_ = std::max(nowMs_, nowMs);
    while (const auto event = line_.tick(nowMs_))
        onLineEvent(*event);
    const std::int64_t guardMs = settings_[Register::escapeGuard] * 20;
    if (mode_ == Mode::data && escapes_ == 3 && nowMs_ - lastDataMs_ >= guardMs)
        enterOnlineCommand();
}

std::optional<std::int64_t> AtInterpreter::nextDeadlineMs() const {
    auto deadlineMs = line_.nextDeadlineMs();
    if (mode_ == Mode::data && escapes_ == 3) {
        const std::int64_t escapeMs = lastDataMs_ + settings_[Register::escapeGuard] * 20;
        deadlineMs = std::min(deadlineMs.value_or(escapeMs), escapeMs);
    }
    return deadlineMs;
}

// ---- data mode ----

std::size_t AtInterpreter::putData(std::span<const std::uint8_t> data) {
    std::size_t count = std::min(data.size(), line_.sendRoom());
    if (count != 0) {
        count = watchEscape(data.first(count));
        // The far end sees the escape characters, too: nothing is held back for the watch.
        line_.send(data.first(count));
        lastDataMs_ = nowMs_;
        if (escapes_ == 3 && settings_[Register::escapeGuard] == 0)
            enterOnlineCommand();
    }
    stalled_ = mode_ == Mode::data && count < data.size();
    return count;
}

// Returns how many of `data` are to be sent in data mode: all, or those up to an escape that needs no silence.
std::size_t AtInterpreter::watchEscape(std::span<const std::uint8_t> data) {
    const std::uint8_t escape = settings_[Register::escapeCharacter];
    if (escape > 127)
        return data.size();
    const std::int64_t guardMs = settings_[Register::escapeGuard] * 20;
    if (guardMs == 0)
        return findUnguardedEscape(data);

    // Only escape characters alone after a silence can be the sequence: one look at a long block is enough.
    const bool silence = !stalled_ && nowMs_ - lastDataMs_ >= guardMs;
    if (silence)
        escapes_ = 0;
    const bool onlyEscapes = data.size() <= 3u - escapes_ &&
                             std::all_of(data.begin(), data.end(), [escape](std::uint8_t b) { return b == escape; });
    const bool follows = silence || (escapes_ != 0 && !stalled_);
    escapes_ = onlyEscapes && follows ? static_cast<std::uint8_t>(escapes_ + data.size()) : 0;
    return data.size();
}

std::size_t AtInterpreter::findUnguardedEscape(std::span<const std::uint8_t> data) {
    const std::uint8_t escape = settings_[Register::escapeCharacter];
    std::size_t at = 0;
    while (at < data.size()) {
        if (escapes_ == 0) {
            const void* found = std::memchr(data.data() + at, escape, data.size() - at);
            if (found == nullptr)
                break;
            at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - data.data());
        }
        escapes_ = data[at] == escape ? static_cast<std::uint8_t>(escapes_ + 1) : 0;
        ++at;
        if (escapes_ == 3)
            return at;
    }
    return data.size();
}

void AtInterpreter::enterOnlineCommand() {
    escapes_ = 0;
    keepPendingData();
    mode_ = Mode::onlineCommand;
    lineState_ = LineState::hunting;
    result(Result::ok);
}

// What the far end has sent so far stands before the result that follows.
void AtInterpreter::keepPendingData() {
    const std::size_t count = line_.pending();
    const std::size_t end = replies_.size();
    if (count == 0)
        return;
    replies_.resize(end + count);
    line_.receive({reinterpret_cast<std::uint8_t*>(replies_.data()) + end, count});
}

// ---- command mode ----

void AtInterpreter::putCommandByte(std::uint8_t byte) {
    if (mode_ == Mode::connecting) {
        // A line end of two characters, or one typed too much, must not abort the call that it began.
        if (byte == settings_[Register::lineFeed] || nowMs_ - connectingSinceMs_ < settleMs)
            return;
        hangUp();
        result(Result::noCarrier);
        return;
    }
    if (settings_.echo != 0 && byte != settings_[Register::backspace])
        replies_.push_back(static_cast<char>(byte));
    switch (lineState_) {
    case LineState::hunting:
        if (byte == 'A' || byte == 'a')
            lineState_ = LineState::afterA;
        break;
    case LineState::afterA:
        lineState_ = LineState::hunting;
        if (byte == 'T' || byte == 't') {
            lineState_ = LineState::collecting;
            command_.clear();
            tooLong_ = false;
        } else if (byte == '/') {
            execute(lastCommand_);
        } else if (byte == 'A' || byte == 'a') {
            lineState_ = LineState::afterA;
        }
        break;
    case LineState::collecting:
        collect(byte);
        break;
    }
}

void AtInterpreter::collect(std::uint8_t byte) {
    if (byte == settings_[Register::lineEnd]) {
        lineComplete();
    } else if (byte == settings_[Register::backspace]) {
        eraseLast();
    } else if (byte < ' ') {
        // Control characters have no meaning in a command.
    } else if (command_.size() == lineLimit) {
        tooLong_ = true;
    } else {
        command_.push_back(static_cast<char>(byte));
    }
}

void AtInterpreter::eraseLast() {
    if (command_.empty())
        return;
    command_.pop_back();
    if (settings_.echo != 0) {
        const char backspace = static_cast<char>(settings_[Register::backspace]);
        replies_.append({backspace, ' ', backspace});
    }
}

void AtInterpreter::lineComplete() {
    lineState_ = LineState::hunting;
    if (tooLong_) {
        result(Result::error);
        return;
    }
    // Bytes outside ASCII are kept up to here so that the line fails instead of meaning something else.
    const bool printable = std::all_of(command_.begin(), command_.end(),
                                       [](char c) { return static_cast<std::uint8_t>(c) <= lastCharacter; });
    if (!printable) {
        result(Result::error);
        return;
    }
    lastCommand_ = command_;
    execute(lastCommand_);
}

// ---- the line ----

void AtInterpreter::onLineEvent(LineEvent event) {
    switch (event) {
    case LineEvent::connected:
        connected();
        break;
    case LineEvent::busy:
        callEnded(settings_.resultCodes >= 3 ? Result::busy : Result::noCarrier);
        break;
    case LineEvent::noDialtone:
        callEnded(settings_.resultCodes == 2 || settings_.resultCodes == 4 ? Result::noDialtone : Result::noCarrier);
        break;
    case LineEvent::noAnswer:
        callEnded(Result::noAnswer);
        break;
    case LineEvent::noCarrier:
        callEnded(Result::noCarrier);
        break;
    case LineEvent::ring: {
        std::uint8_t& rings = settings_[Register::ringCount];
        if (rings != 255)
            ++rings;
        if (replies_.size() - repliesRead_ < unreadRingLimit)
            result(Result::ring);
        const std::uint8_t answerAfter = settings_[Register::autoAnswer];
        const bool ready = dtr_ || settings_.dtrMode < 2;
        if (answerAfter != 0 && rings >= answerAfter && ready && line_.answer()) {
            answering_ = true;
            startConnecting();
        }
        break;
    }
    case LineEvent::ringStopped:
        settings_[Register::ringCount] = 0;
        break;
    }
}

void AtInterpreter::startConnecting() {
    mode_ = Mode::connecting;
    connectingSinceMs_ = nowMs_;
    settings_[Register::ringCount] = 0;
}

void AtInterpreter::connected() {
    mode_ = Mode::data;
    lineState_ = LineState::hunting;
    escapes_ = 0;
    stalled_ = false;
    lastDataMs_ = nowMs_;
    result(Result::connect);
}

// The line is on the hook already.
void AtInterpreter::callEnded(Result why) {
    if (mode_ == Mode::data) {
        keepPendingData();
        callLost_ = true;
    }
    line_.discardPending();
    mode_ = Mode::command;
    lineState_ = LineState::hunting;
    result(why);
    answering_ = false;
}

// The host ends the call, and gets nothing more of it.
void AtInterpreter::hangUp() {
    line_.hangUp();
    line_.discardPending();
    mode_ = Mode::command;
    lineState_ = LineState::hunting;
    answering_ = false;
}

void AtInterpreter::setDtr(bool on) {
    const bool dropped = dtr_ && !on;
    dtr_ = on;
    if (!dropped || settings_.dtrMode == 0)
        return;
    if (settings_.dtrMode == 1) {
        if (mode_ == Mode::data)
            enterOnlineCommand();
        return;
    }
    // Nobody is there to read what is left, and the next one must not find it.
    callLost_ = true;
    replies_.clear();
    repliesRead_ = 0;
    if (mode_ != Mode::command || line_.state() == Line::State::offHook)
        hangUp();
    lineState_ = LineState::hunting;
    if (settings_.dtrMode == 3)
        settings_ = stored_;
}

bool AtInterpreter::takeCallLost() {
    return std::exchange(callLost_, false);
}

// ---- answers ----

void AtInterpreter::result(Result result) {
    if (settings_.quiet == 1 || (settings_.quiet == 2 && answering_))
        return;
    const ResultText& code = resultTexts[static_cast<std::size_t>(result)];
    std::uint8_t number = code.number;
    std::string text(code.text);
    if (result == Result::connect && settings_.resultCodes != 0) {
        text += " " + std::to_string(dteRate_);
        for (const RateNumber& rate : rateNumbers) {
            if (rate.rate == dteRate_)
                number = rate.number;
        }
    }
    if (settings_.verbose != 0) {
        replies_.append({lineEnd(), lineFeed()}).append(text).append({lineEnd(), lineFeed()});
    } else {
        replies_.append(std::to_string(number)).push_back(lineEnd());
    }
}

void AtInterpreter::information(std::string_view text) {
    if (settings_.verbose != 0)
        replies_.append({lineEnd(), lineFeed()});
    replies_.append(text).append({lineEnd(), lineFeed()});
}

}  // namespace modem
