// What `comport list`, `status` and `ctl` ask of a running server: one line of JSON in, one line of JSON out. No I/O here.
//
//   {"command":"list"}   {"command":"status","port":"COM3"}   {"command":"ctl","port":"COM3","words":["line","dcd","on"]}
//   {"ok":true,"ports":[...]}   {"ok":true}   {"ok":false,"error":"a sentence"}
//
// "port" may be left out while there is one port, and for orders to the machine.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modem/acm_device.h"
#include "modem/framing.h"
#include "modem/ppp_server.h"

namespace comport {

// What only the one who has the port open can ask it.
struct OpenPort {
    std::uint32_t baud = 0;
    std::uint8_t dataBits = 0;
    std::uint8_t parity = 0;     // 0 none, odd, even, mark, space
    std::uint8_t stopBits = 0;   // 0 one, 1 one and a half, 2 two
    std::uint32_t dtrRts = 0;    // as GET_DTRRTS tells
    std::optional<std::uint32_t> modemStatus = 0;  // nothing: asking would take the changes from whoever has the port open
    std::uint32_t inQueue = 0;   // bytes
    std::uint32_t outQueue = 0;
};

// Since the server began; not reset when the modem comes back.
struct PortCounters {
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    std::uint64_t zeroLengthPackets = 0;
    std::uint64_t stalls = 0;
    std::uint64_t resets = 0;
    std::uint64_t reinitialisations = 0;
    std::uint64_t reconnects = 0;
    std::uint64_t heldBackReads = 0;  // for an application that did not read
};

// What the modem says of its PPP calls since it was plugged in.
struct PppStatus {
    std::string state;  // what passes between modem and port
    modem::FramingChoice choice;
    modem::PppCounters frames;
    modem::FramingCounters framing;
};

struct PortStatus {
    struct ModemLine {
        bool level = false;
        bool held = false;
    };

    std::string name;      // "" while its device was never there
    std::string device;    // instance path; where it is to come from, while it is not there
    unsigned captureDevice = 0;  // its number in captures; 0: was never there
    std::string modem;     // its kind
    std::string state;     // the executive's word for it, or "waiting", "unplugged"
    std::string terminal;  // path of the link
    std::vector<std::string> network;  // URLs
    bool pluggedIn = false;
    std::optional<OpenPort> open;
    bool asleep = false;  // open, and not asked: that would wait for power, or wake the modem
    std::string systemState;  // S0 ... S4
    std::string deviceState;  // D0 ... D3, of the modem
    bool wakeArmed = false;
    bool idleOffered = false;  // an idle notification is outstanding
    bool modemSide = true;  // the next three are known: the modem is a virtual one
    modem::LineCoding coding;        // as the modem was told
    std::uint16_t controlLines = 0;  // the same: bit 0 DTR, bit 1 RTS
    std::array<ModemLine, modem::lineCount> lines;  // as the modem has them; by LineName
    std::optional<PppStatus> ppp;  // of a modem
    PortCounters counters;
};

// One thing `ctl` does.
struct Order {
    enum class Action : std::uint8_t { line, errors, ring, drop, unplug, plug, trace, frame, sleep, wake, suspend };
    Action action = Action::line;
    modem::LineName line = modem::LineName::carrier;
    std::optional<bool> level;  // nothing: the line follows the modem
    std::uint32_t value = 0;    // error bits, rings, trace mask, FramingMode, 1 to 4 for S1 to S4, seconds
    std::optional<std::uint32_t> escapes;

    // It is about no port in particular.
    bool isForMachine() const { return action == Action::trace || action == Action::sleep || action == Action::wake; }
};

// Either an order or what is wrong with the words.
struct OrderResult {
    std::optional<Order> order;
    std::string error;
};
OrderResult parseOrder(std::span<const std::string> words);

// One line for each order, for the help text.
std::string_view orderHelp();

class ControlTarget {
public:
    virtual std::vector<PortStatus> ports() = 0;
    // Back when it is done. `port` is "" for an order to the machine. Throws std::runtime_error with a sentence when it cannot be.
    virtual void carryOut(const std::string& port, const Order& order) = 0;

protected:
    ~ControlTarget() = default;
};

// The reply to one request, without line ends.
std::string answer(ControlTarget& target, std::string_view request);

// What one client sends: lines, each answered with one line, in order.
class ControlSession {
public:
    static constexpr std::size_t lineLimit = 4096;

    explicit ControlSession(ControlTarget& target) : target_(target) {}

    // Returns the replies to the lines that end in `bytes`. A line beyond the limit ends the session: its reply is the last.
    std::string take(std::string_view bytes);
    bool over() const { return over_; }

private:
    ControlTarget& target_;
    std::string line_;
    bool over_ = false;
};

}  // namespace comport
