// Framed PPP transfers between the modem and its host, and the switch into them and out of them.
//
//   bytes --the host's first LCP frame--> asked --host starts--> framing --call ends--> stopping --host stops--> bytes
//   asked, stopping --no answer in time--> bytes
//   asked --call ends--> stopping, or bytes when the host had not heard of it
//
// While framed, both directions carry device frames (device_frame.h). From the host a frame brings its FCS along; to the host it
// has none. The call itself is a stream of RFC 1662 bytes all the time.
//
// The host takes what the modem sends by the mode it is in when it looks, so the modem is silent from the reading of the
// escapes, or from asking for the end, until shortly after the host has answered.
// No I/O, no threads; the time comes with tick().
#pragma once

#include "modem/byte_ring.h"
#include "modem/device_frame.h"
#include "modem/hdlc.h"
#include "modem/signals.h"

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

namespace modem {

struct FramingCounters {
    std::uint64_t framesIn = 0;   // device frames from the host
    std::uint64_t framesOut = 0;  // to the host
    std::uint64_t gaps = 0;       // numbers missing among those from the host
    std::uint64_t badHeaders = 0;
    std::uint64_t dropped = 0;   // for the host: cut by a switch, or longer than a device frame
    std::uint64_t starts = 0;    // the host started framing
    std::uint64_t refusals = 0;  // it did not
};

class Framing {
  public:
    enum class State : std::uint8_t { bytes, asked, framing, stopping };

    static constexpr std::size_t packetBytes = 64;
    static constexpr std::size_t roomForPacket = 4'608;  // what unframing one packet may need: the end of a long frame, escaped
    static constexpr std::size_t chunkBytes = 2'048;     // what frame() takes at once
    static constexpr std::int64_t answerMs = 2'000;      // the host's, to either request
    static constexpr std::int64_t noticeMs = 500;        // a host that does not look for so long has no port open
    static constexpr std::int64_t settleMs = 50;         // from the host's answer until it has changed its own mode, or shows it
    static constexpr unsigned maxAsks = 3;               // in a call

    State state() const { return state_; }
    FramingMode mode() const { return mode_; }
    void setMode(FramingMode mode) { mode_ = mode; }
    const FramingCounters& counters() const { return counters_; }

    void tick(std::int64_t nowMs);
    std::optional<std::int64_t> nextDeadlineMs() const;
    // Whether bytes pass to and from a PPP far end now.
    void call(bool on);

    // The oldest request the host has not fetched: the code of its notification.
    std::optional<std::uint8_t> notification() const;
    void notificationFetched() { notices_.pop_front(); }

    // The host's requests. start() is false when nobody asked for it. Both take effect with the next tick: what comes before was
    // on its way already.
    void escapesRead();
    bool start();
    void stop();

    // What the host sends goes through unframe(); else through watch() when it is for the call.
    bool unframes() const { return state_ == State::framing || (state_ == State::stopping && started_); }
    void watch(std::span<const std::uint8_t> data);
    // Takes `data`, or whole packets of it while `bytes` has roomForPacket; returns how much. Appends the call's bytes.
    std::size_t unframe(std::span<const std::uint8_t> data, ByteRing& bytes);

    // Nothing is to be sent to the host now.
    bool holds() const;
    // What is sent to the host goes through frame(), at most chunkBytes while it has room; and comes out of framed().
    bool frames() const { return state_ == State::framing; }
    bool hasRoom() const { return framed_.room() >= framedBytes / 2; }
    void frame(std::span<const std::uint8_t> bytes);
    ByteRing& framed() { return framed_; }
    const ByteRing& framed() const { return framed_; }

  private:
    static constexpr std::size_t framedBytes = 16 * 1024;

    bool calledFor() const;
    void ask();
    void begin();
    void leave();
    void receive(std::uint8_t byte, ByteRing& bytes);

    std::int64_t nowMs_ = 0;
    FramingMode mode_ = FramingMode::on;
    State state_ = State::bytes;
    std::int64_t sinceMs_ = 0;  // of the request that waits for its answer
    std::int64_t silentUntilMs_ = 0;
    bool inCall_ = false;
    unsigned asks_ = 0;
    bool askedAgain_ = false;
    bool escapesRead_ = false;
    bool startDue_ = false;  // with the next tick
    bool stopDue_ = false;
    bool started_ = false;
    std::deque<std::uint8_t> notices_;

    // From the host. The watcher sees the bytes of the call until framing begins; rawTail_: some of them may still come.
    HdlcDecoder watcher_{deviceFrameLimit};
    bool rawTail_ = false;
    DeviceFrameReader reader_;
    std::vector<std::uint8_t> encoded_;

    // To the host.
    HdlcDecoder cutter_{deviceFrameLimit - deviceFrameHead};
    std::uint8_t sequence_ = 0;
    ByteRing framed_{framedBytes};

    FramingCounters counters_;
};

}  // namespace modem
