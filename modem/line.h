// The telephone line of the virtual modem: the numbers one can call, the calls that come in, and the bytes of a call.
//
//   onHook --dial--> dialing --far end answers--> connected --hangUp, far end hangs up--> onHook
//          --offHook--> offHook                   ^
//          --ringIn--> ringing --answer--> answering
//                      ringing --caller gives up--> onHook
//   dialing --busy, no answer, no carrier, no dial tone--> onHook;  hangUp leads to onHook from everywhere
//
// No threads and no clock of its own: the time comes with tick(), in milliseconds, and never runs backwards.
#pragma once

#include "modem/byte_ring.h"
#include "modem/ppp_server.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace modem {

// What answers at a number.
enum class FarEnd : std::uint8_t {
    echo,     // sends back every byte, and every break
    pattern,  // sends patternByte(0), patternByte(1), … and ignores what it gets
    swallow,  // takes everything, sends nothing
    busy,
    noAnswer,
    noCarrier,  // answers, but no modem is there
    noDialtone,
    callBack,  // hangs up and calls back
    ppp,       // an access server
};

struct PhoneBookEntry {
    std::string_view number;
    FarEnd farEnd;
    std::string_view parameters;  // what may follow the number, each after a '*'
    std::string_view what;
};

// The whole phone book. Any other number is not in service and gives NO CARRIER. An access server's number may
// hold more between its first digits and its '#'.
std::span<const PhoneBookEntry> phoneBook();

// Byte `index` of what FarEnd::pattern sends: the low byte of index * 31 + index / 256.
constexpr std::uint8_t patternByte(std::uint64_t index) {
    return static_cast<std::uint8_t>(index * 31 + (index >> 8));
}

enum class LineEvent : std::uint8_t { connected, busy, noDialtone, noAnswer, noCarrier, ring, ringStopped };

struct DialTimes {
    std::int64_t pauseMs = 0;            // before the call is placed
    std::int64_t waitAnswerMs = 50'000;  // until an unanswered call is given up
};

class Line {
  public:
    enum class State : std::uint8_t { onHook, offHook, dialing, ringing, answering, connected };

    static constexpr std::int64_t answerMs = 300;  // from the last digit, or the answer, to the carrier
    static constexpr std::int64_t busyMs = 500;
    static constexpr std::int64_t ringOnMs = 2'000;     // one ring: the bell
    static constexpr std::int64_t ringCycleMs = 6'000;  // the bell and the silence after it
    static constexpr std::size_t echoBytes = 64 * 1024;
    static constexpr unsigned untilAnswered = 0xFFFF'FFFF;  // rings

    State state() const { return state_; }
    bool carrier() const { return state_ == State::connected; }
    // The bell rings now.
    bool bell() const { return state_ == State::ringing && bellOn_; }

    // Places a call; the outcome is an event. Only legal on or off the hook. `number`: digits, '*', '#', 'A' to 'D'.
    void dial(std::string_view number, const DialTimes& times);
    // Takes an incoming call. False: nobody calls.
    bool answer();
    void offHook();
    void hangUp();

    // Somebody calls and lets it ring `rings` times; the far end is the echo. False: the line is in use.
    bool ringIn(unsigned rings);
    // The far end hangs up, or a caller gives up; the event follows with the next tick.
    void dropCarrier();

    // Moves the clock. Returns the oldest event that is due; call it until there is none.
    std::optional<LineEvent> tick(std::int64_t nowMs);
    std::optional<std::int64_t> nextDeadlineMs() const;

    // Bytes to the far end: how many it takes now, and taking at most that many.
    std::size_t sendRoom() const;
    std::size_t send(std::span<const std::uint8_t> data);
    // Bytes from the far end; returns how many are there.
    std::size_t receive(std::span<std::uint8_t> space);
    // Some bytes are there, or will be without further time passing.
    bool hasData() const;
    // Bytes the far end has sent already, which outlive the call until they are read or another begins.
    std::size_t pending() const { return echo_.size(); }
    void discardPending() { echo_.clear(); }

    // A break towards the far end. True: it comes back.
    bool sendBreak();

    // The far end is an access server and the call stands.
    bool ppp() const { return state_ == State::connected && farEnd_ == FarEnd::ppp; }
    // Of access servers called from now on.
    void setPpp(const PppSettings& settings) { pppSettings_ = settings; }
    // Of all calls to them.
    PppCounters pppCounters() const;

  private:
    LineEvent finishDialing();
    std::optional<LineEvent> nextRingPhase();
    void startCall(FarEnd farEnd);
    std::uint64_t patternReady() const;

    State state_ = State::onHook;
    std::int64_t nowMs_ = 0;
    std::int64_t phaseEndMs_ = 0;  // dialing, answering, ringing

    // The call being placed or held.
    FarEnd farEnd_ = FarEnd::swallow;
    LineEvent outcome_ = LineEvent::noCarrier;  // of dialing
    std::optional<std::int64_t> hangUpAtMs_;    // the far end's
    std::optional<std::uint64_t> first_;        // parameters of the number
    std::optional<std::uint64_t> second_;

    // An incoming call.
    unsigned ringsLeft_ = 0;
    bool bellOn_ = false;
    std::optional<std::int64_t> callBackAtMs_;

    // Bytes on their way here.
    ByteRing echo_{echoBytes};
    PppSettings pppSettings_;
    std::optional<PppServer> server_;  // of the last call to one; speaks into echo_
    PppCounters earlierPpp_;           // of the servers before it
    std::uint64_t patternSent_ = 0;
    std::uint64_t patternLength_ = 0;     // 0: endless
    std::uint64_t patternPerSecond_ = 0;  // 0: as fast as it is read
    std::uint64_t patternCredit_ = 0;     // thousandths of a byte the rate allows now
};

}  // namespace modem
