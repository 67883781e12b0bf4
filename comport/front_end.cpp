#include "comport/front_end.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace comport {

namespace {

int checked(int fd, const char* what) {
    if (fd < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
    return fd;
}

}  // namespace

FrontEnd::FrontEnd(const std::string& portName, PortLease& lease, TerminalUsers& users, const std::filesystem::path& link,
                   std::optional<gid_t> group)
    : link_(link), group_(group), users_(users), master_(loop_.context()), port_(portName, lease, wake, this) {
    try {
        makeTerminal();
    } catch (...) {
        forgetTerminal();
        throw;
    }
    loop_.start([this] { loop_.step(); });  // somebody may have found the terminal already
}

FrontEnd::~FrontEnd() {
    end();
    loop_.join();
    forgetTerminal();
}

void FrontEnd::end() {
    stopping_ = true;
    loop_.wake();
}

void FrontEnd::modemArrived() {
    arrived_ = true;
    loop_.wake();
}

void FrontEnd::forgetTerminal() {
    if (watch_ >= 0) {
        users_.remove(watch_);
        watch_ = -1;
    }
}

// Also in the middle of the service, when an application left the old terminal closed to others.
void FrontEnd::makeTerminal() {
    forgetTerminal();
    closed_ = false;
    master_.close();
    pty_.reset();
    pty_ = std::make_unique<Pty>(link_, group_);
    bridge_ = std::make_unique<Bridge>(*pty_, port_);
    master_.assign(checked(::dup(pty_->master()), "cannot duplicate the terminal's descriptor"));
    watch_ = users_.add(pty_->path(), [this](bool closed) {
        if (closed) {
            closed_ = true;
        }
        loop_.wake();
    });
    // Not before: an opener that comes at once would not be seen.
    pty_->publish();
}

// A close event comes a moment before the hang-up it may lead to.
void FrontEnd::takeUserEvents() {
    if (closed_.exchange(false)) {
        // The release is itself a close and comes here once more, which does no harm.
        pty_->release();
        holdAtMs_ = PortLoop::nowMs() + holdAgainMs;
    }
}

void FrontEnd::step() {
    takeUserEvents();
    std::int64_t now = PortLoop::nowMs();
    if (arrived_.exchange(false)) {
        bridge_->modemArrived(now);
    }
    if (stopping_) {
        pty_->release();
        bridge_->abandon();
    } else if (bridge_->state() == Bridge::State::idle) {
        beginSession(now);
    } else if (!pty_->held()) {
        watchHangUp(now);
    }
    Bridge::State before = bridge_->state();
    bridge_->pump(now);
    if (bridge_->state() == Bridge::State::idle) {
        if (stopping_) {
            loop_.stop();
            return;
        }
        if (before != Bridge::State::idle) {
            endSession();
        }
    }
    watchBusy(now);
    armTerminal();
    armTimer();
}

// A terminal cannot refuse; it hangs up.
void FrontEnd::watchBusy(std::int64_t now) {
    if (bridge_->state() != Bridge::State::opening || !port_.busy()) {
        busyAtMs_ = -1;
    } else if (busyAtMs_ < 0) {
        busyAtMs_ = now + busyAfterMs;
    } else if (now >= busyAtMs_) {
        busyAtMs_ = holdAtMs_ = -1;
        bridge_->abandon();
        renewTerminal();
    }
}

// Bytes of somebody who has left already count as a session, too.
void FrontEnd::beginSession(std::int64_t now) {
    if (pty_->hungUp() && pty_->waiting() == 0) {
        return;
    }
    hungUp_ = false;
    if (holdAtMs_ < 0) {
        holdAtMs_ = now;
    }
    bridge_->terminalOpened(now);
    watchHangUp(now);
}

void FrontEnd::watchHangUp(std::int64_t now) {
    hungUp_ = pty_->hungUp();
    bool due = holdAtMs_ >= 0 && now >= holdAtMs_;
    if (due) {
        holdAtMs_ = -1;
        if (!hungUp_) {
            pty_->hold();
        }
    }
    // Bytes left behind while the port is being opened are carried; without a port they are not.
    bridge_->setHungUp(hungUp_, now);
}

void FrontEnd::endSession() {
    holdAtMs_ = -1;
    if (!pty_->admitAll()) {
        renewTerminal();
    }
    // Somebody may have opened it in the meantime.
    loop_.wake();
}

void FrontEnd::renewTerminal() {
    try {
        makeTerminal();
        loop_.wake();
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "comport: %s\n", error.what());
    }
}

void FrontEnd::armTerminal() {
    auto fired = [this](bool& armed) {
        return [this, &armed](const asio::error_code& error) {
            armed = false;
            if (!error) {
                loop_.step();
            }
        };
    };
    using Wait = asio::posix::stream_descriptor;
    if (bridge_->wantsTerminalInput() && !inputArmed_) {
        inputArmed_ = true;
        master_.async_wait(Wait::wait_read, fired(inputArmed_));
    }
    if (bridge_->wantsTerminalSpace() && !spaceArmed_) {
        spaceArmed_ = true;
        master_.async_wait(Wait::wait_write, fired(spaceArmed_));
    }
    // A hang-up counts as an event all the time it lasts.
    if (bridge_->wantsTerminalEvents() && !eventsArmed_ && !hungUp_) {
        eventsArmed_ = true;
        master_.async_wait(Wait::wait_error, fired(eventsArmed_));
    }
}

void FrontEnd::armTimer() {
    std::int64_t due = bridge_->deadlineMs();
    if (holdAtMs_ >= 0 && bridge_->state() != Bridge::State::idle && (due < 0 || holdAtMs_ < due)) {
        due = holdAtMs_;
    }
    loop_.setTimer(due);
}

}  // namespace comport
