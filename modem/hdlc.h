// PPP frames on a line of bytes: HDLC-like framing of RFC 1662, asynchronous, with the 16-bit frame check sequence.
//
//   hunting --flag--> between frames --byte--> in a frame --flag--> between frames
//   in a frame --escape, flag (abort), or too long--> hunting
//
// A frame here is what stands between two flags, unescaped: address, control, protocol, information, and the FCS where said.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace modem {

inline constexpr std::uint8_t hdlcFlag = 0x7E;
inline constexpr std::uint8_t hdlcEscape = 0x7D;
inline constexpr std::uint8_t hdlcFlip = 0x20;
inline constexpr std::uint32_t everyControlCharacter = 0xFFFF'FFFF;  // as an async control character map

// RFC 1662, appendix C.2: from `fcs` (0xFFFF at the start) over `bytes`. The complement is sent, low byte first.
std::uint16_t fcs16(std::span<const std::uint8_t> bytes, std::uint16_t fcs = 0xFFFF);
// `fcs16` over a whole frame with its FCS, when that is right.
inline constexpr std::uint16_t goodFcs16 = 0xF0B8;

// Appends flag, `frame`, its FCS and flag; the control characters whose bit is set in `escaped` are escaped.
void encodeHdlc(std::vector<std::uint8_t>& out, std::span<const std::uint8_t> frame, std::uint32_t escaped);
// The same for a frame that brings its FCS along, right or wrong.
void encodeHdlcWithFcs(std::vector<std::uint8_t>& out, std::span<const std::uint8_t> frame, std::uint32_t escaped);

struct HdlcCounters {
    std::uint64_t frames = 0;     // good ones
    std::uint64_t fcsErrors = 0;  // among them those too short to have an FCS
    std::uint64_t tooLong = 0;
    std::uint64_t aborted = 0;  // by the sender
};

// The receiving end. Holds at most one frame.
class HdlcDecoder {
  public:
    // Frames of more than `limit` bytes, the FCS not counted, are dropped.
    explicit HdlcDecoder(std::size_t limit) : limit_(limit + fcsBytes) { frame_.reserve(limit_); }

    // Control characters whose bit is set are not the sender's unless escaped: somebody on the way put them in.
    void setDropped(std::uint32_t map) { dropped_ = map; }
    // Begins anew. `between`: as after a flag, so that a frame may follow without one.
    void reset(bool between);

    // Takes one byte. True: it ended a good frame, which is frame() until the next call.
    bool put(std::uint8_t byte);
    // Without its FCS.
    std::span<const std::uint8_t> frame() const { return std::span(frame_).first(frame_.size() - fcsBytes); }
    // Bytes of a frame have come and not its end; also when it is being passed over.
    bool inFrame() const { return state_ == State::hunting || escape_ || (!ended_ && !frame_.empty()); }
    // What has come of it, unescaped.
    std::span<const std::uint8_t> partial() const {
        return ended_ || state_ == State::hunting ? std::span<const std::uint8_t>() : frame_;
    }

    const HdlcCounters& counters() const { return counters_; }

  private:
    enum class State : std::uint8_t { hunting, inFrame };
    static constexpr std::size_t fcsBytes = 2;

    bool end();

    const std::size_t limit_;
    std::uint32_t dropped_ = 0;
    State state_ = State::hunting;
    bool escape_ = false;
    bool ended_ = false;  // frame_ is the last frame, not the one being built
    std::vector<std::uint8_t> frame_;
    HdlcCounters counters_;
};

}  // namespace modem
