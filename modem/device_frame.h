// Device frames: how a framed PPP transfer looks on the bulk pipes, either way. 0xAA 0xBB, then 16 bits, high byte first: a
// sequence number (5) and the length with these four bytes (11), then a PPP frame without flags and escapes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace modem {

inline constexpr std::uint8_t deviceFrameMagicLow = 0xAA;
inline constexpr std::uint8_t deviceFrameMagicHigh = 0xBB;
inline constexpr std::uint8_t deviceFrameSequenceMask = 0x1F;
inline constexpr std::size_t deviceFrameHead = 4;
inline constexpr std::size_t deviceFrameLimit = 0x7FF;  // its bytes, the head among them

// Takes the frames out of a stream of bytes, whatever that holds; looks for the next head when one is broken.
class DeviceFrameReader {
  public:
    DeviceFrameReader() { frame_.reserve(deviceFrameLimit); }

    // Begins anew, with sequence number 0. The counters stay.
    void reset();
    // Takes one byte. True: it ended a frame, which is frame() until the next call. One without a byte is none.
    bool put(std::uint8_t byte);
    std::span<const std::uint8_t> frame() const { return frame_; }
    // A head has come and not the whole frame.
    bool inFrame() const { return missing_ != 0; }

    std::uint64_t gaps() const { return gaps_; }  // numbers missing
    std::uint64_t badHeaders() const { return badHeaders_; }

  private:
    void header();

    std::array<std::uint8_t, deviceFrameHead> head_{};
    std::size_t headLength_ = 0;
    std::size_t missing_ = 0;  // of the frame's bytes
    bool lost_ = false;        // looking for a head
    std::uint8_t expected_ = 0;
    std::vector<std::uint8_t> frame_;
    std::uint64_t gaps_ = 0;
    std::uint64_t badHeaders_ = 0;
};

}  // namespace modem
