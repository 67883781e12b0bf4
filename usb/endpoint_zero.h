// The default pipe of a virtual device: the standard requests, and what they decide about its endpoints.
//
// configuration 0 --SET_CONFIGURATION(n)--> n: the endpoints of its descriptor exist, none is halted
// endpoint: running --stall or SET_FEATURE--> halted --CLEAR_FEATURE, SET_CONFIGURATION, reset--> running
#pragma once

#include "usb/device.h"

#include <array>

namespace usb {

// 0...15 are OUT, 16...31 IN.
inline constexpr unsigned endpointCount = 32;
constexpr unsigned endpointIndex(std::uint8_t address) { return (address & 0x0Fu) | ((address & 0x80u) >> 3); }

// One thread at a time, like the device itself.
class EndpointZero {
public:
    explicit EndpointZero(Device& device) : device_(device) {}

    // One control request as the device sees it.
    ControlReply answer(const SetupPacket& setup, std::span<std::uint8_t> data);

    // A bus reset; `configuration` is set again afterwards, as the host does after it reset a port.
    void reset(std::uint8_t configuration);

    std::uint8_t configuration() const { return configuration_; }
    bool remoteWakeEnabled() const { return remoteWake_; }
    // The host's request for it, which a device without remote wake in its descriptor refuses.
    void enableRemoteWake(bool on);
    // 0: there is no such endpoint in the configuration.
    std::uint16_t packetSize(std::uint8_t endpoint) const { return endpoints_[endpointIndex(endpoint)].packetSize; }
    bool halted(std::uint8_t endpoint) const { return endpoints_[endpointIndex(endpoint)].halted; }
    void halt(std::uint8_t endpoint) { endpoints_[endpointIndex(endpoint)].halted = true; }

private:
    struct Endpoint {
        std::uint16_t packetSize = 0;
        bool halted = false;
    };

    ControlReply standard(const SetupPacket& setup, std::span<std::uint8_t> data);
    ControlReply getDescriptor(const SetupPacket& setup, std::span<std::uint8_t> data);
    ControlReply getStatus(const SetupPacket& setup, std::span<std::uint8_t> data);
    ControlReply feature(const SetupPacket& setup, bool set);
    bool mayWake() const;
    bool configure(std::uint8_t value);
    void addEndpoints(std::span<const std::uint8_t> configuration);

    Device& device_;
    std::array<Endpoint, endpointCount> endpoints_{};
    std::array<std::uint8_t, 256> settings_{};
    std::uint8_t configuration_ = 0;
    bool remoteWake_ = false;
};

}  // namespace usb
