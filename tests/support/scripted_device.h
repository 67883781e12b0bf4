// A CDC-ACM device whose every answer a test can set, and which remembers what the host did.
//
// The backend's thread calls it; a test reaches it through VirtualBackend::withDevice (TestRig::device).
#pragma once

#include "usb/device.h"

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }
// Two digits a byte, with spaces between any of them.
inline Bytes hex(std::string_view text) {
    Bytes bytes;
    for (std::size_t at = 0; at + 1 < text.size(); ++at) {
        if (text[at] != ' ') bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(text.substr(at++, 2)), nullptr, 16)));
    }
    return bytes;
}

// What the usual descriptors look like. An endpoint of 0 is missing.
struct CdcShape {
    std::uint8_t configurationValue = 1;
    std::uint8_t attributes = 0xA0;  // bus-powered, remote wake
    std::uint8_t interruptIn = 0x82;
    std::uint8_t bulkIn = 0x81;
    std::uint8_t bulkOut = 0x01;
    std::uint16_t interruptPacket = 10;
    std::uint16_t bulkPacket = 64;
    std::uint8_t dataInterface = 1;
};

Bytes cdcConfiguration(const CdcShape& shape = {});
Bytes cdcDevice(std::uint8_t configurations = 1, std::uint16_t vendor = 0x1209, std::uint16_t product = 0x0001);

// SERIAL_STATE and NETWORK_CONNECTION as they stand on the wire.
Bytes serialState(std::uint16_t bits);
Bytes networkConnection(bool connected);
Bytes vendorNotification(std::uint8_t code);

class ScriptedDevice : public usb::Device {
public:
    ScriptedDevice();
    explicit ScriptedDevice(const CdcShape& shape);

    // Script: ---------------------------------------------------------------------------------------------------------
    Bytes deviceBytes;
    std::vector<Bytes> configurations;
    std::map<std::uint8_t, std::u16string> strings;
    // Asked first; nothing: the usual answer (OUT requests acknowledged, GET_LINE_CODING answered).
    std::function<std::optional<usb::ControlReply>(const usb::SetupPacket&, std::span<std::uint8_t>)> onControl;
    // The same for standard requests.
    std::function<std::optional<usb::ControlReply>(const usb::SetupPacket&, std::span<std::uint8_t>)> onStandard;
    bool stallControls = false;            // every class and vendor request
    bool holdOut = false;                  // NAK every OUT transfer
    std::uint64_t outAllowance = ~0ull;    // bytes taken before the device NAKs
    unsigned stallOut = 0, stallIn = 0;    // how many of the next transfers on a bulk endpoint stall
    bool echo = false;                     // what comes in on bulk OUT goes back on bulk IN
    bool discard = false;                  // OUT data is counted, not kept
    std::uint64_t pour = 0;                // bytes of pattern() that bulk IN gives before the queue
    bool wakesHost = false;

    // Byte `index` of what `pour` gives.
    static std::uint8_t pattern(std::uint64_t index) { return static_cast<std::uint8_t>(index * 31 + (index >> 8)); }

    // Queues data for an IN endpoint. `ends`: a short packet follows, if necessary an empty one.
    void send(std::uint8_t endpoint, const Bytes& data, bool ends = true);
    void sendBulk(std::string_view text) { send(0x81, bytesOf(text)); }
    void notify(const Bytes& notification) { send(0x82, notification); }
    // What is queued there is never sent.
    void drop(std::uint8_t endpoint) { queues_.erase(endpoint); }
    std::size_t unsent(std::uint8_t endpoint) const;

    // Record: ---------------------------------------------------------------------------------------------------------
    struct ControlRecord {
        usb::SetupPacket setup;
        Bytes data;  // of an OUT request
    };
    struct OutRecord {
        std::uint8_t endpoint;
        Bytes data;
        bool ends;
    };
    std::vector<ControlRecord> controls;      // class and vendor requests, in order
    std::vector<usb::SetupPacket> standards;  // standard requests
    std::vector<OutRecord> outs;              // OUT transfers, an empty packet as one of length 0
    std::uint64_t outBytes = 0;
    std::array<std::uint8_t, 7> lineCoding{};
    std::uint16_t controlLines = 0;
    std::uint8_t configuration = 0;
    unsigned busResets = 0, haltsCleared = 0;
    bool isSuspended = false;
    std::int64_t nowMs = 0;

    // All OUT data in order, boundaries forgotten.
    std::string outText() const;
    // The OUT data cut where a short or empty packet ended a transfer; an unfinished rest is last.
    std::vector<std::string> outMessages() const;
    unsigned count(std::uint8_t request) const;

    // usb::Device: ------------------------------------------------------------------------------------------------------
    std::span<const std::uint8_t> deviceDescriptor() const override { return deviceBytes; }
    std::span<const std::uint8_t> configurationDescriptor(std::uint8_t index) const override;
    std::optional<std::u16string> stringDescriptor(std::uint8_t index) const override;
    std::optional<usb::ControlReply> standardControl(const usb::SetupPacket& setup,
                                                     std::span<std::uint8_t> data) override;
    usb::ControlReply control(const usb::SetupPacket& setup, std::span<std::uint8_t> data) override;
    std::int32_t dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool ends) override;
    std::int32_t dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) override;
    void busReset() override;
    void configured(std::uint8_t value) override { configuration = value; }
    void haltCleared(std::uint8_t) override { ++haltsCleared; }
    void suspended(bool on) override { isSuspended = on; }
    bool wantsRemoteWake() override { return wakesHost; }
    void tick(std::int64_t now) override { nowMs = now; }

private:
    struct Message {
        Bytes data;
        std::size_t at = 0;
        bool ends = true;
    };
    std::uint16_t packetSize(std::uint8_t endpoint) const { return endpoint == 0x82 ? interruptPacket_ : bulkPacket_; }

    std::map<std::uint8_t, std::deque<Message>> queues_;
    std::uint16_t interruptPacket_ = 10;
    std::uint16_t bulkPacket_ = 64;
    std::uint64_t poured_ = 0;
    bool outOpen_ = false;
};

}  // namespace test
