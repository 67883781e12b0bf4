// What PPP frames a modem and its driver exchange, seen from the wire between them.
//
//   bytes --the driver's start request succeeds--> framed, both ways
//   framed --the modem asks for the end--> framed to the modem only --the driver's stop request--> bytes
//   framed --the modem asks for a start once more--> bytes, until the driver's start request succeeds again
//   any --SET_CONFIGURATION, a request for framing that fails--> bytes
//
// It believes nothing: what is no device frame is passed over, and at most one frame is kept each way.
#pragma once

#include <functional>
#include <span>

#include "modem/device_frame.h"
#include "usb/backend.h"

namespace comport {

class FramingWatch {
public:
    // A frame without its FCS, if that was right; as it is, if not. Valid during the call.
    using Found = std::function<void(bool sent, std::span<const std::uint8_t> frame)>;

    explicit FramingWatch(Found found) : found_(std::move(found)) {}

    // A transfer that is over, with its status and its data.
    void completed(const usb::Transfer& transfer);

private:
    void control(const usb::Transfer& transfer);
    void notification(std::span<const std::uint8_t> bytes);
    void frames(modem::DeviceFrameReader& reader, bool sent, std::span<const std::uint8_t> bytes);

    const Found found_;
    bool fromModem_ = false;  // framed
    bool toModem_ = false;
    modem::DeviceFrameReader in_;
    modem::DeviceFrameReader out_;
};

}  // namespace comport
