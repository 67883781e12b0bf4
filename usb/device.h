// The firmware end of the wire: what a device implements to be plugged in without hardware.
//
// A device is plain code without threads, locks or I/O. Whoever runs it (usb/virtual_backend.h) calls it
// from one thread at a time and moves the packets:
//
//   attached --busReset--> default --configured(n)--> configured --configured(0)--> default
//                 any state --suspended(true)--> no calls but tick --suspended(false)--> as before
//
// Time is in milliseconds of the executive's clock and is told by tick(), which precedes each round of calls.
#pragma once

#include "usb/backend.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace usb {

// The answer to a control request.
struct ControlReply {
    enum class Kind : std::uint8_t { ack, stall, never };
    Kind kind = Kind::stall;
    std::uint32_t length = 0;  // bytes put into the data of an IN request

    static constexpr ControlReply ack(std::uint32_t length = 0) { return {Kind::ack, length}; }
    static constexpr ControlReply stall() { return {Kind::stall, 0}; }
    static constexpr ControlReply never() { return {Kind::never, 0}; }
};

// Results of dataIn and dataOut beside a number of bytes.
inline constexpr std::int32_t dataNak = -1;    // nothing now; asked again after wake() or tick()
inline constexpr std::int32_t dataStall = -2;  // the endpoint is halted until the host clears it

class Device {
public:
    virtual ~Device() = default;

    // The 18 bytes of the device descriptor; a test device may return others.
    virtual std::span<const std::uint8_t> deviceDescriptor() const = 0;
    // A whole configuration, `index` from 0; empty: there is none, the request stalls.
    virtual std::span<const std::uint8_t> configurationDescriptor(std::uint8_t index) const = 0;
    // Text of string descriptor `index` (1...); nothing: the request stalls. The language is 0x0409.
    virtual std::optional<std::u16string> stringDescriptor(std::uint8_t index) const = 0;

    // Sees every standard request before the usual answer is given; nothing: the usual answer. For misbehaviour.
    virtual std::optional<ControlReply> standardControl(const SetupPacket& setup, std::span<std::uint8_t> data) {
        static_cast<void>(setup);
        static_cast<void>(data);
        return std::nullopt;
    }
    // A class or vendor request. OUT: `data` holds what the host sent. IN: room for setup.length bytes.
    virtual ControlReply control(const SetupPacket& setup, std::span<std::uint8_t> data) = 0;

    // Host to device on a bulk or interrupt OUT endpoint. `ends`: the data ends with a short or empty packet, the
    // host's transfer is over. Returns the bytes taken, dataNak or dataStall. The rest is offered again after wake()
    // or tick(); what is taken short of all must be whole packets. An empty packet is taken by returning 0.
    virtual std::int32_t dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool ends) = 0;
    // Device to host on a bulk or interrupt IN endpoint. Returns the bytes put into `space`, dataNak or dataStall. A length that is
    // no multiple of the packet size (0 included) is a short packet and ends the host's transfer. Otherwise
    // the transfer goes on until `space` is full: the device is asked again at once and answers 0 to end it.
    virtual std::int32_t dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) = 0;

    virtual void busReset() {}
    // SET_CONFIGURATION came; 0: unconfigured.
    virtual void configured(std::uint8_t value) { static_cast<void>(value); }
    // The host selected an alternate setting.
    virtual void interfaceSet(std::uint8_t interfaceNumber, std::uint8_t setting) {
        static_cast<void>(interfaceNumber);
        static_cast<void>(setting);
    }
    // The host cleared the halt of an endpoint.
    virtual void haltCleared(std::uint8_t endpoint) { static_cast<void>(endpoint); }
    virtual void suspended(bool on) { static_cast<void>(on); }
    // While suspended: true asks the host to resume, if it allowed that. Asked after wake() and tick().
    virtual bool wantsRemoteWake() { return false; }

    // The device's own timers: the absolute time of the next one, if any is running. Asked after each round of calls.
    virtual std::optional<std::int64_t> nextDeadlineMs() const { return std::nullopt; }
    // The time now. Comes before each round of calls and when the deadline is reached.
    virtual void tick(std::int64_t nowMs) { static_cast<void>(nowMs); }

    // Set by whoever runs the device. May be called from any thread.
    void setWake(std::function<void()> hook) { wake_ = std::move(hook); }

protected:
    // The device has something new for the host (data, state, room), from outside the calls above.
    void wake() const {
        if (wake_) wake_();
    }

private:
    std::function<void()> wake_;
};

}  // namespace usb
