// The two ends of a bridge: a terminal, where an application's bytes and wishes come from, and a COM port.
#pragma once

#include <wdm.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
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
    enum class Kind { data, event, request, none, closed };
    Kind kind = Kind::none;
    std::size_t length = 0;  // data: bytes
    unsigned events = 0;     // event: TerminalEvent bits
    bool inOrder = false;    // request: only after everything ahead of it has left the port
};

// One control at the port. `query`: data[0 .. length) is its output, else its input.
struct PortControl {
    ULONG code = 0;
    bool query = false;
    std::array<std::uint8_t, 20> data = {};
    std::size_t length = 0;
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

    // A terminal with requests gives them in its stream and steers the port by itself, lines and settings included, also when
    // the port is opened; settings() is not asked. Its requests are answered without a modem, too.
    virtual bool hasRequests() const { return false; }
    // The port was opened, or has a new modem: what is in force has to be set again.
    virtual void portRenewed() {}
    // The next control to carry out for the request that read() gave, or after portRenewed(); false when there is none.
    virtual bool nextControl(PortControl&) { return false; }
    virtual void controlEnded(const PortControl&, NTSTATUS) {}

    // SERIAL_EV_* that this terminal wants to hear of; 0: the lines are not watched.
    virtual ULONG watchedEvents() const { return 0; }
    // Events that came, and the lines as GET_MODEMSTATUS gives them; all down when there is no modem.
    virtual void linesChanged(ULONG, ULONG) {}
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
    bool heldBack = false;           // a read whose bytes the terminal has refused once

    std::atomic<bool> ended{false};  // set last by whoever ends it; the two below are valid then
    NTSTATUS status = 0;
    std::size_t moved = 0;

    void markInFlight() {
        ended.store(false, std::memory_order_relaxed);
        inFlight = true;
    }
    // True once: it has ended and is the owner's again.
    bool seeEnd() {
        if (!inFlight || !ended.load(std::memory_order_acquire)) {
            return false;
        }
        inFlight = false;
        return true;
    }
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
    // data[0 .. length) is the output.
    virtual void query(Transfer& transfer, ULONG code) = 0;
    // Takes effect before it returns.
    virtual void purge(ULONG mask) = 0;
    // The terminal is full: a read is not issued again before it took the bytes of the last.
    virtual void readHeldBack() {}
};

}  // namespace comport
