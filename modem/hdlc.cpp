#include "modem/hdlc.h"

namespace modem {
namespace {

constexpr std::uint16_t polynomial = 0x8408;  // x^16 + x^12 + x^5 + 1, the lowest bit first

constexpr auto table = [] {
    std::array<std::uint16_t, 256> entries{};
    for (unsigned value = 0; value < entries.size(); ++value) {
        unsigned fcs = value;
        for (int bit = 0; bit < 8; ++bit)
            fcs = (fcs & 1) != 0 ? fcs >> 1 ^ polynomial : fcs >> 1;
        entries[value] = static_cast<std::uint16_t>(fcs);
    }
    return entries;
}();

void appendEscaped(std::vector<std::uint8_t>& out, std::uint8_t byte, std::uint32_t escaped) {
    const bool control = byte < 0x20 && (escaped >> byte & 1) != 0;
    if (control || byte == hdlcFlag || byte == hdlcEscape) {
        out.push_back(hdlcEscape);
        byte ^= hdlcFlip;
    }
    out.push_back(byte);
}

}  // namespace

std::uint16_t fcs16(std::span<const std::uint8_t> bytes, std::uint16_t fcs) {
    for (const std::uint8_t byte : bytes)
        fcs = static_cast<std::uint16_t>(fcs >> 8 ^ table[(fcs ^ byte) & 0xFF]);
    return fcs;
}

void encodeHdlcWithFcs(std::vector<std::uint8_t>& out, std::span<const std::uint8_t> frame, std::uint32_t escaped) {
    out.push_back(hdlcFlag);
    for (const std::uint8_t byte : frame)
        appendEscaped(out, byte, escaped);
    out.push_back(hdlcFlag);
}

void encodeHdlc(std::vector<std::uint8_t>& out, std::span<const std::uint8_t> frame, std::uint32_t escaped) {
    const auto fcs = static_cast<std::uint16_t>(~fcs16(frame));
    encodeHdlcWithFcs(out, frame, escaped);
    out.pop_back();
    appendEscaped(out, static_cast<std::uint8_t>(fcs), escaped);
    appendEscaped(out, static_cast<std::uint8_t>(fcs >> 8), escaped);
    out.push_back(hdlcFlag);
}

void HdlcDecoder::reset(bool between) {
    state_ = between ? State::inFrame : State::hunting;
    escape_ = ended_ = false;
    frame_.clear();
}

bool HdlcDecoder::put(std::uint8_t byte) {
    if (ended_) {
        ended_ = false;
        frame_.clear();
    }
    if (byte == hdlcFlag)
        return end();
    if (state_ == State::hunting || (byte < 0x20 && (dropped_ >> byte & 1) != 0))
        return false;
    if (!escape_ && byte == hdlcEscape) {
        escape_ = true;
        return false;
    }
    if (frame_.size() == limit_) {
        ++counters_.tooLong;
        reset(false);
        return false;
    }
    frame_.push_back(escape_ ? byte ^ hdlcFlip : byte);
    escape_ = false;
    return false;
}

// A flag: the end of one frame and perhaps the beginning of the next.
bool HdlcDecoder::end() {
    if (escape_)
        ++counters_.aborted;
    const bool empty = frame_.empty() || escape_ || state_ == State::hunting;
    const bool good = !empty && frame_.size() > fcsBytes && fcs16(frame_) == goodFcs16;
    state_ = State::inFrame;
    escape_ = false;
    if (!empty && !good)
        ++counters_.fcsErrors;
    if (!good) {
        frame_.clear();
        return false;
    }
    ++counters_.frames;
    ended_ = true;
    return true;
}

}  // namespace modem
