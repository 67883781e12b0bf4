#include "comport/framing_watch.h"

#include <algorithm>

#include "modem/hdlc.h"

namespace comport {

namespace {

// The vendor's requests to the interface, and its notifications.
constexpr std::uint8_t vendorOut = 0x41, vendorIn = 0xC1;
constexpr std::uint8_t requestReadEscapes = 0x60, requestStart = 0x61, requestStop = 0x62;
constexpr std::uint8_t notifyStart = 0x10, notifyStop = 0x11;
constexpr std::uint8_t kindMask = 0x60, kindVendor = 0x40;
constexpr std::size_t notificationHead = 8;
constexpr std::size_t fcsBytes = 2;

}  // namespace

void FramingWatch::completed(const usb::Transfer& transfer) {
    const bool ok = transfer.status == usb::TransferStatus::ok;
    if (transfer.type == usb::TransferType::control) {
        control(transfer);
        return;
    }
    const std::size_t moved = std::min(transfer.actual, transfer.length);
    if (moved == 0) {
        return;
    }
    const std::span<const std::uint8_t> bytes(transfer.data, moved);
    if (transfer.type == usb::TransferType::interrupt) {
        if (ok && transfer.isIn()) {
            notification(bytes);
        }
    } else if (!transfer.isIn()) {
        // What a transfer got across before it failed has got across.
        if (toModem_) {
            frames(out_, true, bytes);
        }
    } else if (fromModem_ && ok) {
        frames(in_, false, bytes);
    }
}

void FramingWatch::control(const usb::Transfer& transfer) {
    const usb::SetupPacket& setup = transfer.setup;
    const bool ok = transfer.status == usb::TransferStatus::ok;
    const bool configured = setup.requestType == 0 && setup.request == usb::requestSetConfiguration;
    const bool refused = setup.requestType == vendorIn && setup.request == requestReadEscapes && !ok;
    const bool start = setup.requestType == vendorOut && setup.request == requestStart;
    const bool stop = setup.requestType == vendorOut && setup.request == requestStop;
    if (start && ok) {
        in_.reset();
        out_.reset();
        fromModem_ = toModem_ = true;
    } else if (configured || refused || start || stop) {
        fromModem_ = toModem_ = false;
    }
}

// The driver takes what comes as bytes from either request on, until it has answered; it sends nothing more once it was asked for
// the end, but what it has sent before may still be on its way.
void FramingWatch::notification(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < notificationHead || (bytes[0] & kindMask) != kindVendor ||
        (bytes[1] != notifyStart && bytes[1] != notifyStop)) {
        return;
    }
    fromModem_ = false;
    toModem_ &= bytes[1] == notifyStop;
}

void FramingWatch::frames(modem::DeviceFrameReader& reader, bool sent, std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) {
        if (!reader.put(byte)) {
            continue;
        }
        auto frame = reader.frame();
        if (sent && frame.size() > fcsBytes && modem::fcs16(frame) == modem::goodFcs16) {
            frame = frame.first(frame.size() - fcsBytes);
        }
        found_(sent, frame);
    }
}

}  // namespace comport
