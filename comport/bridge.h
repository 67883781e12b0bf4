// Carries bytes and line settings between a terminal (the PTY an application opened) and a COM port, both given as
// interfaces, so that its decisions can be tested without either.
//
//   idle --terminalOpened--> opening --port open, settings sent--> running --terminal closed--> draining
//   opening --port refuses--> opening (again at the next retry)   opening --terminal closed--> idle
//   draining --written bytes sent, or drainLimitMs over--> closing --last request ended--> idle
//
// Down (terminal to port): write slots in a ring, filled and issued in order. A change of the line settings has a place in
// the stream: nothing behind it is read before everything ahead of it has left the port. Up (port to terminal): read
// slots in a ring, issued and delivered in order, whatever order their completions come in. A slot is issued again only
// when the terminal has taken all its bytes, so a slow reader holds the modem back.
//
// A read or write that fails (the modem was unplugged) takes the port out of use until a retry succeeds; the rest of
// a failed write is issued again in its place.
//
// A terminal with requests (a network client) has them in its stream: one that is carried out in order waits as a change of
// settings does, though orderLimitMs at most, the others go ahead of unsent bytes. Nothing is read behind a request
// before it has ended.
//
// All calls but Transfer completions belong to one thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

#include "comport/line_watch.h"
#include "comport/port.h"

namespace comport {

class Bridge {
public:
    static constexpr std::size_t readSlots = 4;
    static constexpr std::size_t readBytes = 16384;
    static constexpr std::size_t writeSlots = 8;
    static constexpr std::size_t writeBytes = 16384;
    static constexpr std::int64_t retryMs = 100;
    static constexpr std::int64_t drainLimitMs = 30000;
    static constexpr std::int64_t orderLimitMs = 1000;  // for a request; clients wait three seconds for an answer

    enum class State { idle, opening, running, draining, closing };

    Bridge(Terminal& terminal, Port& port);

    // Somebody has the terminal open, or had and left bytes. Only while idle.
    void terminalOpened(std::int64_t nowMs);
    // The modem is back: the port is used again and gets the settings, which a new modem does not have.
    void modemArrived(std::int64_t nowMs);
    // Nobody has the terminal open, or somebody again: from then on unread bytes keep the session for drainLimitMs, and not
    // at all while the port is out of use. (The terminal's own `closed` cannot be seen while its bytes are held back.)
    void setHungUp(bool hungUp, std::int64_t nowMs);
    // Ends the session without waiting for bytes to be sent.
    void abandon();
    // Does whatever can be done now. Call it after a wake, when the terminal can be read or written, when the time has come.
    void pump(std::int64_t nowMs);

    State state() const { return state_; }
    // What pump() waits for beside the ends of transfers.
    bool wantsTerminalInput() const { return wantsInput_; }
    bool wantsTerminalEvents() const { return wantsEvents_; }
    bool wantsTerminalSpace() const { return wantsSpace_; }
    // Absolute time, or -1.
    std::int64_t deadlineMs() const;

private:
    struct Marker {
        std::uint64_t position;  // the settings change after this many bytes read from the terminal
        LineSettings settings;
    };
    void tryOpen(std::int64_t nowMs);
    void beginRunning();
    void emptyTerminal();
    void portFailed(std::int64_t nowMs) { retryAtMs_ = nowMs + retryMs; }
    bool portUsable(std::int64_t nowMs) const { return nowMs >= retryAtMs_; }

    void pumpUp(std::int64_t nowMs);
    void issueReads(std::int64_t nowMs);

    void pumpDown(std::int64_t nowMs);
    void endWrites(std::int64_t nowMs);
    void issueWrites(std::int64_t nowMs);
    bool readTerminal(std::int64_t nowMs);
    void takeEvents(unsigned events);
    bool barrierPassed();
    bool flushEnded();
    void takeRequest(bool inOrder);
    bool requestPassed();

    void addStep(ULONG code, std::span<const std::uint8_t> input = {});
    void addLineSteps(const LineSettings& settings);
    void addModemLineSteps(bool up);
    void applySettings(const LineSettings& settings);
    void renewPort();
    bool stepsEnded();
    bool nextStep();

    void pumpDraining();
    void closePort();
    void finishClosing();
    bool writesEnded() const { return writeHead_ == writeTail_; }

    template <class Visit>
    void forEachTransfer(Visit visit);

    Transfer& readSlot(std::uint64_t index) { return reads_[index % readSlots]; }
    Transfer& writeSlot(std::uint64_t index) { return writes_[index % writeSlots]; }

    Terminal& terminal_;
    Port& port_;
    State state_ = State::idle;
    bool wantsInput_ = false;
    bool wantsEvents_ = false;  // bytes are held back, events are not
    bool wantsSpace_ = false;
    std::int64_t nowMs_ = 0;      // at the last pump
    std::int64_t retryAtMs_ = 0;  // the port is out of use until then
    bool hungUp_ = false;
    std::int64_t drainEndMs_ = 0;  // while hungUp_ or draining

    // Up: [readHead_, readTail_) are in flight or waiting for the terminal, oldest first.
    std::array<Transfer, readSlots> reads_;
    std::uint64_t readHead_ = 0;
    std::uint64_t readTail_ = 0;

    // Down: [writeHead_, writeNext_) in flight, [writeNext_, writeTail_) filled and not issued.
    std::array<Transfer, writeSlots> writes_;
    std::uint64_t writeHead_ = 0;
    std::uint64_t writeNext_ = 0;
    std::uint64_t writeTail_ = 0;

    std::uint64_t position_ = 0;  // bytes read from the terminal in this session
    std::deque<Marker> markers_;  // in the order of their positions
    LineSettings lastSettings_;   // the newest seen, applied or in markers_
    bool flushed_ = false;        // the flush ahead of the first marker, or of the close, has ended
    bool flushStale_ = false;     // the one in flight is for something that did not wait for it
    Transfer flush_;

    bool requestWaits_ = false;   // for what is ahead of it
    bool requestRuns_ = false;    // its controls are carried out, behind steps_
    std::int64_t requestLimitMs_ = 0;

    std::deque<PortControl> steps_;  // controls still to be carried out, one at a time
    PortControl step_;               // the one in control_
    bool stepIsRequest_ = false;
    Transfer control_;
    LineSettings applied_;
    LineWatch watch_;
};

}  // namespace comport
