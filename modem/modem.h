// The virtual modem: a CDC-ACM device whose firmware is AtInterpreter on a Line.
//
//   host --bulk OUT--> fromHost_ --> AtInterpreter --> Line
//   host <--bulk IN--  replies, then the call's bytes
//   host <--interrupt IN-- SERIAL_STATE (DCD, DSR, RI, break, errors), NETWORK_CONNECTION (CTS)
//
// Both ways are bounded and hold back (NAK) when full: a byte the modem took is never dropped or overtaken, but
// for what is left of a call that ended. The telephone side does not notice a reset of the bus; powerCycle() does.
#pragma once

#include "modem/at.h"
#include "usb/device.h"

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace modem {

// Bits of SERIAL_STATE.
inline constexpr std::uint16_t stateCarrier = 0x01;
inline constexpr std::uint16_t stateReady = 0x02;
inline constexpr std::uint16_t stateBreak = 0x04;
inline constexpr std::uint16_t stateRing = 0x08;
inline constexpr std::uint16_t stateFramingError = 0x10;
inline constexpr std::uint16_t stateParityError = 0x20;
inline constexpr std::uint16_t stateOverrun = 0x40;
inline constexpr std::uint16_t stateHold = 0x100;  // the modem cannot take data

struct Options {
    std::uint16_t vendorId = 0x1209;  // a number set aside for tests
    std::uint16_t productId = 0x0001;
    Identity identity;
    std::vector<std::uint8_t> escapedCharacters;  // answer to the request for the characters to escape, at most 256
};

struct LineCoding {
    std::uint32_t rate = 115'200;
    std::uint8_t stopBits = 0;
    std::uint8_t parity = 0;
    std::uint8_t dataBits = 8;

    bool operator==(const LineCoding&) const = default;
};

class Modem final : public usb::Device {
  public:
    static constexpr std::uint8_t endpointIn = 0x81;
    static constexpr std::uint8_t endpointOut = 0x02;
    static constexpr std::uint8_t endpointNotify = 0x83;
    static constexpr std::size_t packetBytes = 64;
    static constexpr std::size_t queueBytes = 64 * 1024;

    explicit Modem(Options options = {});

    // ---- the world outside: from any thread; takes effect in the next round of calls ----

    // Somebody calls; no effect while the line is in use.
    void ringIn(unsigned rings = 8);
    // The far end hangs up.
    void dropCarrier();
    // Break and errors on the line: bits stateBreak, stateFramingError, stateParityError, stateOverrun, reported once.
    void reportErrors(std::uint16_t bits);
    // Clear to send, which the host sees as NETWORK_CONNECTION.
    void setClearToSend(bool on);
    // The modem's own flow control (stateHold): the host is told to send nothing. Bytes that come all the same are
    // kept.
    void setHold(bool on);

    // As after unplugging: no call, no bytes, the settings a new modem has. Only while nobody runs the device.
    void powerCycle();

    // To look at from the thread that runs the device, or while nobody does.
    const AtInterpreter& interpreter() const { return *at_; }
    const LineCoding& lineCoding() const { return coding_; }
    std::uint16_t controlLines() const { return controlLines_; }

    // ---- usb::Device ----

    std::span<const std::uint8_t> deviceDescriptor() const override { return device_; }
    std::span<const std::uint8_t> configurationDescriptor(std::uint8_t index) const override;
    std::optional<std::u16string> stringDescriptor(std::uint8_t index) const override;
    usb::ControlReply control(const usb::SetupPacket& setup, std::span<std::uint8_t> data) override;
    std::int32_t dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool ends) override;
    std::int32_t dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) override;
    void busReset() override;
    void configured(std::uint8_t value) override;
    void haltCleared(std::uint8_t endpoint) override;
    void suspended(bool on) override { suspended_ = on; }
    bool wantsRemoteWake() override;
    std::optional<std::int64_t> nextDeadlineMs() const override;
    void tick(std::int64_t nowMs) override;

  private:
    enum class Stimulus : std::uint8_t { ring, dropCarrier, errors, clearToSend, hold };
    struct Posted {
        Stimulus what;
        std::uint32_t value;
    };
    using Notification = std::array<std::uint8_t, 10>;
    static constexpr std::size_t notificationLimit = 16;

    void post(Stimulus what, std::uint32_t value);
    void takePosted();
    usb::ControlReply classRequest(const usb::SetupPacket& setup, std::span<std::uint8_t> data);
    usb::ControlReply vendorRequest(const usb::SetupPacket& setup, std::span<std::uint8_t> data);
    void sendBreak(std::uint16_t durationMs);
    void pump();
    void settle();
    std::uint16_t lineState() const;
    void reportLines();
    void notify(std::uint16_t state);
    bool popNotification(std::span<std::uint8_t> space, std::int32_t& length);

    const Options options_;
    std::array<std::uint8_t, 18> device_;

    std::mutex postedLock_;
    std::vector<Posted> posted_;  // under postedLock_

    // All below: the one thread that runs the device.
    std::optional<Line> line_;
    std::optional<AtInterpreter> at_;
    ByteRing fromHost_{queueBytes};  // taken from the host, not yet by the interpreter
    LineCoding coding_;
    std::uint16_t controlLines_ = 0;  // bit 0 DTR, bit 1 RTS
    bool configured_ = false;
    bool suspended_ = false;
    bool shortPacketDue_ = false;  // the last IN data ended on a whole packet and the transfer goes on

    // What the host shall know and what it has been told.
    bool clearToSend_ = true;
    bool hold_ = false;
    std::vector<std::uint16_t> states_;  // SERIAL_STATE values not yet fetched, oldest first
    std::uint16_t reportedState_ = 0;    // the newest of those queued or fetched, without break and errors
    bool reportedClearToSend_ = false;   // as fetched
};

}  // namespace modem
