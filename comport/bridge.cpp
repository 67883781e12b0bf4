#include "comport/bridge.h"

#include <ntddser.h>

#include <algorithm>
#include <cstring>

namespace comport {

namespace {

std::span<const std::uint8_t> bytesOf(const auto& record) {
    return {reinterpret_cast<const std::uint8_t*>(&record), sizeof(record)};
}

}  // namespace

Bridge::Bridge(Terminal& terminal, Port& port) : terminal_(terminal), port_(port), watch_(port, terminal) {
    for (Transfer& transfer : reads_) {
        transfer.data.resize(readBytes);
    }
    for (Transfer& transfer : writes_) {
        transfer.data.resize(writeBytes);
    }
    control_.data.resize(sizeof(PortControl::data));
}

template <class Visit>
void Bridge::forEachTransfer(Visit visit) {
    std::ranges::for_each(reads_, visit);
    std::ranges::for_each(writes_, visit);
    visit(flush_);
    visit(control_);
    watch_.forEachTransfer(visit);
}

// ---- the session ----

void Bridge::terminalOpened(std::int64_t nowMs) {
    state_ = State::opening;
    hungUp_ = false;
    retryAtMs_ = nowMs;
}

void Bridge::modemArrived(std::int64_t nowMs) {
    retryAtMs_ = nowMs;
    if (state_ == State::running || state_ == State::draining) {
        renewPort();
    }
}

void Bridge::setHungUp(bool hungUp, std::int64_t nowMs) {
    if (hungUp && !hungUp_) {
        drainEndMs_ = nowMs + drainLimitMs;
    }
    hungUp_ = hungUp;
}

void Bridge::tryOpen(std::int64_t nowMs) {
    if (portUsable(nowMs) && port_.open()) {
        beginRunning();
        return;
    }
    // Somebody who left bytes and went is not waited for.
    if (hungUp_) {
        abandon();
    } else if (portUsable(nowMs)) {
        portFailed(nowMs);
    }
}

void Bridge::beginRunning() {
    // A read ends with the first bytes that come, however long that takes; a write when all its bytes are taken.
    SERIAL_TIMEOUTS timeouts = {};
    timeouts.ReadIntervalTimeout = MAXULONG;
    timeouts.ReadTotalTimeoutMultiplier = MAXULONG;
    timeouts.ReadTotalTimeoutConstant = 0x7FFFFFFE;
    addStep(IOCTL_SERIAL_SET_TIMEOUTS, bytesOf(timeouts));
    port_.purge(SERIAL_PURGE_RXCLEAR | SERIAL_PURGE_TXCLEAR);
    terminal_.discardWritten();
    if (!terminal_.hasRequests()) {
        applied_ = lastSettings_ = terminal_.settings();
    }
    renewPort();
    state_ = State::running;
}

// What nobody will carry any more must not reach the next session.
void Bridge::emptyTerminal() {
    std::array<std::uint8_t, writeBytes> scratch;
    // More than a terminal holds; one that is still being written to is left as it is.
    for (int rounds = 0; rounds < 64; ++rounds) {
        TerminalInput input = terminal_.read(scratch);
        if (input.kind == TerminalInput::Kind::none || input.kind == TerminalInput::Kind::closed) {
            return;
        }
    }
}

void Bridge::pump(std::int64_t nowMs) {
    nowMs_ = nowMs;
    wantsInput_ = wantsEvents_ = wantsSpace_ = false;
    if (state_ == State::opening) {
        tryOpen(nowMs);
    }
    if (state_ == State::running || state_ == State::draining) {
        // The first read waits for the timeouts, which say what a read is.
        if (stepsEnded() || readTail_ != 0) {
            pumpUp(nowMs);
        }
        pumpDown(nowMs);
        if (!watch_.pump(portUsable(nowMs))) {
            portFailed(nowMs);
        }
        bool givenUp = (hungUp_ || state_ == State::draining) && (nowMs >= drainEndMs_ || !portUsable(nowMs));
        if (givenUp) {
            abandon();
        } else if (state_ == State::draining) {
            pumpDraining();
        }
    }
    if (state_ == State::closing) {
        finishClosing();
    }
}

std::int64_t Bridge::deadlineMs() const {
    switch (state_) {
    case State::opening: return retryAtMs_;
    case State::running:
    case State::draining: {
        std::int64_t deadline = hungUp_ || state_ == State::draining ? drainEndMs_ : -1;
        auto atLatest = [&](bool counts, std::int64_t time) {
            if (counts && (deadline < 0 || time < deadline)) {
                deadline = time;
            }
        };
        atLatest(retryAtMs_ > nowMs_, retryAtMs_);
        atLatest(requestWaits_, requestLimitMs_);
        return deadline;
    }
    default: return -1;
    }
}

void Bridge::pumpDraining() {
    if (writesEnded() && flushEnded()) {
        closePort();
    }
}

void Bridge::abandon() {
    if (state_ == State::opening) {
        emptyTerminal();
        state_ = State::idle;
    } else if (state_ == State::running || state_ == State::draining) {
        emptyTerminal();
        closePort();
    }
}

void Bridge::closePort() {
    state_ = State::closing;
    port_.close();
    finishClosing();
}

void Bridge::finishClosing() {
    bool outstanding = false;
    forEachTransfer([&](Transfer& transfer) {
        transfer.seeEnd();
        outstanding |= transfer.inFlight;
    });
    if (outstanding) {
        return;
    }
    terminal_.discardWritten();
    readHead_ = readTail_ = 0;
    writeHead_ = writeNext_ = writeTail_ = 0;
    position_ = 0;
    markers_.clear();
    steps_.clear();
    flushed_ = flushStale_ = hungUp_ = false;
    requestWaits_ = requestRuns_ = false;
    retryAtMs_ = 0;
    state_ = State::idle;
}

// ---- up: port to terminal ----

void Bridge::issueReads(std::int64_t nowMs) {
    while (readTail_ - readHead_ < readSlots && portUsable(nowMs)) {
        Transfer& slot = readSlot(readTail_);
        slot.offset = 0;
        slot.length = readBytes;
        slot.heldBack = false;
        slot.markInFlight();
        ++readTail_;
        port_.read(slot);
        // A port that is gone says so at once; asking on would never end.
        if (slot.ended.load(std::memory_order_acquire) && NT_ERROR(slot.status)) {
            portFailed(nowMs);
        }
    }
}

void Bridge::pumpUp(std::int64_t nowMs) {
    while (readHead_ != readTail_) {
        Transfer& slot = readSlot(readHead_);
        if (slot.seeEnd()) {
            slot.length = slot.moved;
            if (NT_ERROR(slot.status)) {
                portFailed(nowMs);
            }
        }
        if (slot.inFlight) {
            return;
        }
        while (slot.offset < slot.length) {
            std::span<const std::uint8_t> rest(slot.data.data() + slot.offset, slot.length - slot.offset);
            std::size_t taken = terminal_.write(rest);
            if (taken == 0) {
                wantsSpace_ = true;
                if (!std::exchange(slot.heldBack, true)) {
                    port_.readHeldBack();
                }
                return;
            }
            slot.offset += taken;
        }
        ++readHead_;
        issueReads(nowMs);
    }
    issueReads(nowMs);
}

// ---- down: terminal to port ----

void Bridge::pumpDown(std::int64_t nowMs) {
    endWrites(nowMs);
    issueWrites(nowMs);
    bool more = true;
    while (more && state_ == State::running) {
        bool ready = requestPassed() && stepsEnded() && barrierPassed();
        bool held = !ready || writeTail_ - writeHead_ == writeSlots ||
                    (!portUsable(nowMs) && !terminal_.hasRequests());
        if (held) {
            TerminalInput input = terminal_.read({});
            if (input.kind == TerminalInput::Kind::event) {
                takeEvents(input.events);
                continue;
            }
            wantsEvents_ = true;
            return;
        }
        more = readTerminal(nowMs);
        endWrites(nowMs);
    }
}

// Retires writes in their order. One that did not move all its bytes takes those behind it along: they are issued
// again after it, when the last of them has ended.
void Bridge::endWrites(std::int64_t nowMs) {
    bool allSeen = true;
    for (std::uint64_t index = writeHead_; index != writeNext_; ++index) {
        Transfer& slot = writeSlot(index);
        if (slot.seeEnd()) {
            slot.offset += slot.moved;
            if (slot.discard) {
                slot.offset = slot.length;
            } else if (slot.offset < slot.length && (NT_ERROR(slot.status) || slot.moved == 0)) {
                portFailed(nowMs);
            }
        }
        allSeen &= !slot.inFlight;
        if (index == writeHead_ && !slot.inFlight && slot.offset == slot.length) {
            ++writeHead_;
        }
    }
    bool headFailed = writeHead_ != writeNext_ && !writeSlot(writeHead_).inFlight;
    if (headFailed && allSeen) {
        writeNext_ = writeHead_;
    }
}

void Bridge::issueWrites(std::int64_t nowMs) {
    bool headFailed = writeHead_ != writeNext_ && !writeSlot(writeHead_).inFlight;
    while (writeNext_ != writeTail_ && portUsable(nowMs) && !headFailed) {
        Transfer& slot = writeSlot(writeNext_);
        ++writeNext_;
        if (slot.offset == slot.length) {
            endWrites(nowMs);
            continue;
        }
        slot.markInFlight();
        port_.write(slot);
        // Nothing may go out behind one that is refused, should the modem come back this moment.
        if (slot.ended.load(std::memory_order_acquire) && NT_ERROR(slot.status)) {
            portFailed(nowMs);
        }
    }
}

// False when the terminal has nothing more for now.
bool Bridge::readTerminal(std::int64_t nowMs) {
    Transfer& slot = writeSlot(writeTail_);
    std::uint64_t limit = writeBytes;
    if (!markers_.empty()) {
        limit = std::min<std::uint64_t>(limit, markers_.front().position - position_);
    }
    TerminalInput input = terminal_.read(std::span(slot.data).first(limit));
    switch (input.kind) {
    case TerminalInput::Kind::data:
        slot.offset = 0;
        slot.length = input.length;
        slot.discard = false;
        position_ += input.length;
        ++writeTail_;
        issueWrites(nowMs);
        return true;
    case TerminalInput::Kind::event: takeEvents(input.events); return true;
    case TerminalInput::Kind::request: takeRequest(input.inOrder); return true;
    case TerminalInput::Kind::closed:
        state_ = State::draining;
        markers_.clear();
        flushed_ = false;
        drainEndMs_ = hungUp_ ? drainEndMs_ : nowMs + drainLimitMs;
        return false;
    case TerminalInput::Kind::none: break;
    }
    // Fewer bytes came than were said to wait: what was to come first is not coming.
    if (!markers_.empty() && terminal_.waiting() == 0) {
        markers_.front().position = position_;
        return true;
    }
    wantsInput_ = true;
    return false;
}

void Bridge::takeEvents(unsigned events) {
    if (events & flushedInput) {
        port_.purge(SERIAL_PURGE_RXCLEAR);
        for (std::uint64_t index = readHead_; index != readTail_; ++index) {
            Transfer& slot = readSlot(index);
            if (slot.seeEnd()) {
                slot.length = slot.moved;
            }
            if (!slot.inFlight) {
                slot.offset = slot.length;
            }
        }
    }
    if (events & flushedOutput) {
        for (std::uint64_t index = writeHead_; index != writeTail_; ++index) {
            Transfer& slot = writeSlot(index);
            slot.discard = true;
            if (!slot.inFlight) {
                slot.offset = slot.length;
            }
        }
        port_.purge(SERIAL_PURGE_TXABORT | SERIAL_PURGE_TXCLEAR);
        for (Marker& marker : markers_) {
            marker.position = position_;
        }
    }
    if (events & changedSettings) {
        LineSettings settings = terminal_.settings();
        if (settings != lastSettings_) {
            markers_.push_back({position_ + terminal_.waiting(), settings});
            lastSettings_ = settings;
        }
    }
}

// Carries out the settings changes that are due at this place of the stream; false while one is still waiting.
bool Bridge::barrierPassed() {
    while (!markers_.empty() && markers_.front().position <= position_) {
        LineSettings settings = markers_.front().settings;
        if (settings != applied_) {
            if (!writesEnded() || !flushEnded()) {
                return false;
            }
            applySettings(settings);
        }
        flushed_ = false;
        markers_.pop_front();
        if (!stepsEnded()) {
            return false;
        }
    }
    return true;
}

bool Bridge::flushEnded() {
    if (flushed_) {
        return true;
    }
    if (flush_.seeEnd()) {
        flushed_ = !std::exchange(flushStale_, false);
        if (flushed_) {
            return true;
        }
    }
    if (!flush_.inFlight) {
        flush_.markInFlight();
        port_.flush(flush_);
        if (flush_.seeEnd()) {
            flushed_ = true;
        }
    }
    return flushed_;
}

void Bridge::takeRequest(bool inOrder) {
    requestWaits_ = inOrder;
    requestRuns_ = !inOrder;
    requestLimitMs_ = nowMs_ + orderLimitMs;
}

// False while the request waits for what is ahead of it. A modem that takes nothing, or is away, is not waited for.
bool Bridge::requestPassed() {
    if (!requestWaits_) {
        return true;
    }
    bool waits = portUsable(nowMs_) && nowMs_ < requestLimitMs_;
    if (waits && (!writesEnded() || !flushEnded())) {
        return false;
    }
    flushStale_ = flush_.inFlight;
    flushed_ = false;
    requestWaits_ = false;
    requestRuns_ = true;
    return true;
}

// ---- controls, one at a time ----

void Bridge::addStep(ULONG code, std::span<const std::uint8_t> input) {
    PortControl step = {code, false, {}, input.size()};
    std::ranges::copy(input, step.data.begin());
    steps_.push_back(step);
}

// What an open port, or a new modem behind it, has to be told first.
void Bridge::renewPort() {
    if (terminal_.hasRequests()) {
        terminal_.portRenewed();
        requestRuns_ = true;
        return;
    }
    addLineSteps(applied_);
    // Nobody is told to hang up who was not connected.
    if (applied_.baud != 0 || readTail_ != 0) {
        addModemLineSteps(applied_.baud != 0);
    }
}

void Bridge::addLineSteps(const LineSettings& settings) {
    if (settings.baud != 0) {
        SERIAL_BAUD_RATE rate = {settings.baud};
        addStep(IOCTL_SERIAL_SET_BAUD_RATE, bytesOf(rate));
    }
    SERIAL_LINE_CONTROL line = {};
    line.StopBits = settings.twoStopBits ? STOP_BITS_2 : STOP_BIT_1;
    line.Parity = NO_PARITY;
    line.WordLength = 8;
    addStep(IOCTL_SERIAL_SET_LINE_CONTROL, bytesOf(line));
}

void Bridge::addModemLineSteps(bool up) {
    addStep(up ? IOCTL_SERIAL_SET_DTR : IOCTL_SERIAL_CLR_DTR);
    addStep(up ? IOCTL_SERIAL_SET_RTS : IOCTL_SERIAL_CLR_RTS);
}

void Bridge::applySettings(const LineSettings& settings) {
    bool wasUp = applied_.baud != 0;
    bool isUp = settings.baud != 0;
    addLineSteps(settings);
    if (wasUp != isUp) {
        addModemLineSteps(isUp);
    }
    applied_ = settings;
}

// A control that fails is not tried again: the driver keeps what was asked for, and a modem that comes back is told anew.
bool Bridge::nextStep() {
    stepIsRequest_ = steps_.empty();
    if (!stepIsRequest_) {
        step_ = steps_.front();
        steps_.pop_front();
        return true;
    }
    requestRuns_ = requestRuns_ && terminal_.nextControl(step_);
    return requestRuns_;
}

bool Bridge::stepsEnded() {
    for (;;) {
        if (control_.seeEnd() && stepIsRequest_) {
            std::copy_n(control_.data.begin(), step_.data.size(), step_.data.begin());
            terminal_.controlEnded(step_, control_.status);
        }
        if (control_.inFlight) {
            return false;
        }
        if (!nextStep()) {
            return true;
        }
        std::ranges::copy(step_.data, control_.data.begin());
        control_.offset = 0;
        control_.length = step_.length;
        control_.markInFlight();
        if (step_.query) {
            port_.query(control_, step_.code);
        } else {
            port_.control(control_, step_.code);
        }
    }
}

}  // namespace comport
