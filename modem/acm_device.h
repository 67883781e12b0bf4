// A CDC-ACM device with one configuration: descriptors, class requests, and the lines it reports. What carries the bytes derives
// from it: the modem, the loop plug.
//
//   host --control--> line coding, DTR, RTS, break
//   host <--interrupt IN-- SERIAL_STATE (DCD, DSR, RI, break, errors, flow-off), NETWORK_CONNECTION (CTS)
//
// Each line follows the device until somebody holds it up or down, and does so again when let go.
#pragma once

#include "modem/signals.h"
#include "usb/device.h"

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace modem {

// Those whose bit is set.
std::vector<std::uint8_t> controlCharacters(std::uint32_t map);

struct Options {
    std::uint16_t vendorId = 0x1209;  // a number set aside for tests
    std::uint16_t productId = 0x0001;
    Identity identity;
    // Answer to the request for the characters to escape, at most 256.
    std::vector<std::uint8_t> escapedCharacters = controlCharacters(0xFFFF'FFFF);
    FramingMode framing = FramingMode::on;
};

struct LineCoding {
    std::uint32_t rate = 115'200;
    std::uint8_t stopBits = 0;
    std::uint8_t parity = 0;
    std::uint8_t dataBits = 8;

    bool operator==(const LineCoding&) const = default;
};

class AcmDevice : public usb::Device {
  public:
    static constexpr std::uint8_t endpointIn = 0x81;
    static constexpr std::uint8_t endpointOut = 0x02;
    static constexpr std::uint8_t endpointNotify = 0x83;
    static constexpr std::size_t packetBytes = 64;

    // ---- the world outside: from any thread; takes effect in the next round of calls ----

    // Holds a line up or down; nothing: it follows the device again.
    void setLine(LineName line, std::optional<bool> level);
    // Break and errors on the line: bits stateBreak, stateFramingError, stateParityError, stateOverrun, reported once.
    void reportErrors(std::uint16_t bits);
    // Clear to send, which the host sees as NETWORK_CONNECTION.
    void setClearToSend(bool on) { setLine(LineName::clearToSend, on); }
    // The device's own flow control: the host is told to send nothing. Bytes that come all the same are kept.
    void setHold(bool on) { setLine(LineName::hold, on); }

    // As after unplugging: nothing of the past is left. Only while nobody runs the device.
    virtual void powerCycle();

    // To look at from the thread that runs the device, or while nobody does.
    const Options& options() const { return options_; }
    const LineCoding& lineCoding() const { return coding_; }
    std::uint16_t controlLines() const { return controlLines_; }
    bool line(LineName name) const;
    std::optional<bool> heldAt(LineName name) const { return held_[static_cast<std::size_t>(name)]; }

    // ---- usb::Device ----

    std::span<const std::uint8_t> deviceDescriptor() const override { return device_; }
    std::span<const std::uint8_t> configurationDescriptor(std::uint8_t index) const override;
    std::optional<std::u16string> stringDescriptor(std::uint8_t index) const override;
    usb::ControlReply control(const usb::SetupPacket& setup, std::span<std::uint8_t> data) override;
    std::int32_t dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) override;
    void busReset() override;
    void configured(std::uint8_t value) override;
    void haltCleared(std::uint8_t endpoint) override;
    void suspended(bool on) override;
    bool wantsRemoteWake() override;

  protected:
    enum class Stimulus : std::uint8_t { ring, dropCarrier, errors, line, framing, escapes };

    explicit AcmDevice(Options options);

    // ---- what the deriving device says and is told; the thread that runs the device ----

    virtual bool followedLine(LineName name) const = 0;
    virtual void lineCodingChanged() {}
    virtual void controlLinesChanged() {}
    // The host began a break.
    virtual void breakBegun() = 0;
    // Bytes for the host, at most space.size(); 0: none now.
    virtual std::size_t give(std::span<std::uint8_t> space) = 0;
    virtual bool hasBytes() const = 0;
    // What the device asks of the host beside its lines: the code of a vendor notification; and the host's answers.
    virtual std::optional<std::uint8_t> vendorNotification() const { return std::nullopt; }
    virtual void vendorNotificationFetched() {}
    virtual std::span<const std::uint8_t> readEscapes() { return options_.escapedCharacters; }
    // False: refused.
    virtual bool startFraming() { return false; }
    virtual void stopFraming() {}
    virtual void act(Stimulus what, std::uint32_t value) {
        static_cast<void>(what);
        static_cast<void>(value);
    }

    void post(Stimulus what, std::uint32_t value);
    void takePosted();
    bool isConfigured() const { return configured_; }
    // Tells the host of the lines if they changed.
    void reportLines();
    // Tells it once of break and errors.
    void reportNow(std::uint16_t bits);
    void holdLine(LineName line, std::optional<bool> level) { held_[static_cast<std::size_t>(line)] = level; }

  private:
    struct Posted {
        Stimulus what;
        std::uint32_t value;
    };
    using Notification = std::array<std::uint8_t, 10>;
    static constexpr std::size_t notificationLimit = 16;

    usb::ControlReply classRequest(const usb::SetupPacket& setup, std::span<std::uint8_t> data);
    usb::ControlReply vendorRequest(const usb::SetupPacket& setup, std::span<std::uint8_t> data);
    std::uint16_t lineState() const;
    void notify(std::uint16_t state);
    bool popNotification(std::span<std::uint8_t> space, std::int32_t& length);

    const Options options_;
    std::array<std::uint8_t, 18> device_;

    std::mutex postedLock_;
    std::vector<Posted> posted_;  // under postedLock_

    // All below: the one thread that runs the device.
    LineCoding coding_;
    std::uint16_t controlLines_ = 0;  // bit 0 DTR, bit 1 RTS
    std::array<std::optional<bool>, lineCount> held_;
    bool configured_ = false;
    bool suspended_ = false;
    bool changedAsleep_ = false;  // a line has, since the suspension
    bool shortPacketDue_ = false;  // the last IN data ended on a whole packet and the transfer goes on

    // What the host has been told.
    std::vector<std::uint16_t> states_;  // SERIAL_STATE values not yet fetched, oldest first
    std::uint16_t reportedState_ = 0;    // the newest of those queued or fetched, without break and errors
    bool reportedClearToSend_ = false;   // as fetched
};

}  // namespace modem
