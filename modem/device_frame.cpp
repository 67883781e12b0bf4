#include "modem/device_frame.h"

namespace modem {

void DeviceFrameReader::reset() {
    headLength_ = missing_ = 0;
    lost_ = false;
    expected_ = 0;
    frame_.clear();
}

bool DeviceFrameReader::put(std::uint8_t byte) {
    if (missing_ == 0) {
        head_[headLength_++] = byte;
        header();
        return false;
    }
    frame_.push_back(byte);
    return --missing_ == 0;
}

// A byte of a head has come.
void DeviceFrameReader::header() {
    const std::size_t length = (head_[2] & 7u) << 8 | head_[3];
    const bool good = head_[0] == deviceFrameMagicLow && (headLength_ < 2 || head_[1] == deviceFrameMagicHigh) &&
                      (headLength_ < deviceFrameHead || length >= deviceFrameHead);
    if (!good) {
        badHeaders_ += !lost_;
        lost_ = true;
        const bool mayBegin = headLength_ > 1 && head_[headLength_ - 1] == deviceFrameMagicLow;
        headLength_ = mayBegin ? 1 : 0;
        head_[0] = deviceFrameMagicLow;
        return;
    }
    if (headLength_ < deviceFrameHead)
        return;
    const auto number = static_cast<std::uint8_t>(head_[2] >> 3);
    gaps_ += (number - expected_) & deviceFrameSequenceMask;
    expected_ = (number + 1) & deviceFrameSequenceMask;
    headLength_ = 0;
    lost_ = false;
    frame_.clear();
    missing_ = length - deviceFrameHead;
}

}  // namespace modem
