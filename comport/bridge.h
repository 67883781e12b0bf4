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
// All calls but Transfer completions belong to one thread.
#pragma once

#include <wdm.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "kernel/file.h"

namespace comport {

struct LineSettings {
    std::uint32_t baud = 115200;  // 0: hung up, DTR and RTS down
    bool twoStopBits = false;

    bool operator==(const LineSettings&) const = default;
};

// What an application did to its terminal beside writing.
enum TerminalEvent : unsigned {
    flushedInput = 1,      // it threw away what it had not read
    flushedOutput = 2,     // it threw away what it had written and we had not read
    changedSettings = 4,   // perhaps; compare
};

struct TerminalInput {
    enum class Kind { data, event, none, closed };
    Kind kind = Kind::none;
    std::size_t length = 0;  // data: bytes
    unsigned events = 0;     // event: TerminalEvent bits
};

class Terminal {
public:
    virtual ~Terminal() = default;
    // Events come ahead of the data that was written after them. `closed` comes after the last data. Without
    // space only an event is looked for.
    virtual TerminalInput read(std::span<std::uint8_t> space) = 0;
    // Bytes that wait to be read.
    virtual std::size_t waiting() = 0;
    // Returns the bytes taken; 0 when it is full.
    virtual std::size_t write(std::span<const std::uint8_t> bytes) = 0;
    virtual LineSettings settings() = 0;
    // Throws away bytes that were written and not yet read by an application.
    virtual void discardWritten() = 0;
};

// One asynchronous request at the port. The owner issues it, anyone may end it, the owner sees it at its next pump.
struct Transfer {
    nt::Request request;             // the port's, and so is the next
    class PortFile* port = nullptr;
    std::vector<std::uint8_t> data;  // untouched by the owner while in flight
    std::size_t offset = 0;          // bytes of data that have moved
    std::size_t length = 0;          // bytes of data that are meant to move
    bool inFlight = false;           // the owner's view: issued, end not seen yet
    bool discard = false;            // nobody wants the rest

    std::atomic<bool> ended{false};  // set last by whoever ends it; the two below are valid then
    NTSTATUS status = 0;
    std::size_t moved = 0;
};

class Port {
public:
    virtual ~Port() = default;
    // False: not now (no modem, or in use).
    virtual bool open() = 0;
    // Ends all requests of the handle; their ends may be seen later.
    virtual void close() = 0;
    // Each moves data[offset .. length) and ends the transfer exactly once.
    virtual void read(Transfer& transfer) = 0;
    virtual void write(Transfer& transfer) = 0;
    // Ends when everything taken has left the port, or after the driver's own time limit.
    virtual void flush(Transfer& transfer) = 0;
    // data[0 .. length) is the input.
    virtual void control(Transfer& transfer, ULONG code) = 0;
    // Takes effect before it returns.
    virtual void purge(ULONG mask) = 0;
};

class Bridge {
public:
    static constexpr std::size_t readSlots = 4;
    static constexpr std::size_t readBytes = 16384;
    static constexpr std::size_t writeSlots = 8;
    static constexpr std::size_t writeBytes = 16384;
    static constexpr std::int64_t retryMs = 100;
    static constexpr std::int64_t drainLimitMs = 30000;

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
    struct Step {
        ULONG code;
        std::array<std::uint8_t, 20> input;
        std::size_t length;
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

    void addStep(ULONG code, std::span<const std::uint8_t> input = {});
    void addLineSteps(const LineSettings& settings);
    void addModemLineSteps(bool up);
    void applySettings(const LineSettings& settings);
    bool stepsEnded();

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
    Transfer flush_;

    std::deque<Step> steps_;  // controls still to be carried out, one at a time
    Transfer control_;
    LineSettings applied_;
};

}  // namespace comport
