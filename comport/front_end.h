// Serves one COM port on a pseudo-terminal, on a thread of its own (opening and closing a port may take a second).
//
// Who has the terminal open is learnt from the kernel's file events and from the terminal's hang-up:
//
//   closed --somebody opens--> open, held (further openers are refused)
//   held --a close event--> released: is it hung up? --no, for holdAgainMs--> held
//                                                   --yes--> the session ends with its last byte --> closed
#pragma once

#include <asio.hpp>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

#include "comport/bridge.h"
#include "comport/port_file.h"
#include "comport/port_loop.h"
#include "comport/pty.h"
#include "comport/terminal_users.h"

namespace comport {

class FrontEnd {
public:
    // Makes the terminal, for `group`, too, and its link; throws std::runtime_error with a sentence. The executive must be running
    // in real mode.
    FrontEnd(const std::string& portName, PortLease& lease, TerminalUsers& users, const std::filesystem::path& link,
             std::optional<gid_t> group = std::nullopt);
    // end(), joins the thread, removes the link.
    ~FrontEnd();
    FrontEnd(const FrontEnd&) = delete;
    FrontEnd& operator=(const FrontEnd&) = delete;

    const std::filesystem::path& link() const { return link_; }
    // From any thread: the modem was plugged in (again).
    void modemArrived();
    // From any thread: begins to end the session and to close the port.
    void end();

private:
    static constexpr std::int64_t holdAgainMs = 100;
    static constexpr std::int64_t busyAfterMs = 1500;  // somebody else's close may take a second

    void makeTerminal();
    void renewTerminal();
    static void wake(void* self) { static_cast<FrontEnd*>(self)->loop_.wake(); }
    void step();
    void forgetTerminal();
    void takeUserEvents();
    void beginSession(std::int64_t now);
    void watchHangUp(std::int64_t now);
    void watchBusy(std::int64_t now);
    void endSession();
    void armTerminal();
    void armTimer();

    std::filesystem::path link_;
    const std::optional<gid_t> group_;
    PortLoop loop_{[this] { step(); }};
    TerminalUsers& users_;
    int watch_ = -1;                           // of the terminal
    asio::posix::stream_descriptor master_;    // the terminal's descriptor, duplicated
    std::unique_ptr<Pty> pty_;
    PortFile port_;
    std::unique_ptr<Bridge> bridge_;

    std::atomic<bool> arrived_{false};  // modemArrived() was called
    std::atomic<bool> stopping_{false};
    std::atomic<bool> closed_{false};   // somebody has closed the terminal
    bool inputArmed_ = false;
    bool eventsArmed_ = false;
    bool spaceArmed_ = false;
    bool hungUp_ = false;          // as last seen
    std::int64_t holdAtMs_ = -1;   // when to hold the terminal again; -1: not
    std::int64_t busyAtMs_ = -1;   // when to hang up on who waits for a port that a network client has
};

}  // namespace comport
