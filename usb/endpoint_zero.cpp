#include "usb/endpoint_zero.h"

#include <algorithm>
#include <cstring>

namespace usb {

namespace {

constexpr std::uint8_t descriptorDevice = 1, descriptorConfiguration = 2, descriptorString = 3, descriptorEndpoint = 5;
constexpr std::uint8_t recipientDevice = 0, recipientInterface = 1, recipientEndpoint = 2;
constexpr std::uint16_t featureEndpointHalt = 0, featureRemoteWake = 1;
constexpr std::uint8_t attributeRemoteWake = 0x20;

ControlReply put(std::span<const std::uint8_t> source, std::span<std::uint8_t> data) {
    const std::size_t length = std::min(source.size(), data.size());
    if (length != 0) std::memcpy(data.data(), source.data(), length);
    return ControlReply::ack(static_cast<std::uint32_t>(length));
}

}  // namespace

ControlReply EndpointZero::answer(const SetupPacket& setup, std::span<std::uint8_t> data) {
    if ((setup.requestType & 0x60) != 0) return device_.control(setup, data);
    if (auto reply = device_.standardControl(setup, data)) return *reply;
    return standard(setup, data);
}

void EndpointZero::reset(std::uint8_t configuration) {
    endpoints_ = {};
    settings_ = {};
    configuration_ = 0;
    remoteWake_ = false;
    device_.busReset();
    if (configuration != 0) configure(configuration);
}

ControlReply EndpointZero::standard(const SetupPacket& setup, std::span<std::uint8_t> data) {
    const std::uint8_t recipient = setup.requestType & 0x1F;
    switch (setup.request) {
    case requestGetStatus:
        return getStatus(setup, data);
    case requestClearFeature:
        return feature(setup, false);
    case requestSetFeature:
        return feature(setup, true);
    case requestGetDescriptor:
        return getDescriptor(setup, data);
    case requestGetConfiguration:
        return put(std::span(&configuration_, 1), data);
    case requestSetConfiguration:
        return configure(static_cast<std::uint8_t>(setup.value)) ? ControlReply::ack() : ControlReply::stall();
    case requestGetInterface:
        if (recipient != recipientInterface || configuration_ == 0) return ControlReply::stall();
        return put(std::span(&settings_[setup.index & 0xFF], 1), data);
    case requestSetInterface:
        if (recipient != recipientInterface || configuration_ == 0) return ControlReply::stall();
        settings_[setup.index & 0xFF] = static_cast<std::uint8_t>(setup.value);
        device_.interfaceSet(static_cast<std::uint8_t>(setup.index), static_cast<std::uint8_t>(setup.value));
        return ControlReply::ack();
    default:
        return ControlReply::stall();
    }
}

ControlReply EndpointZero::getDescriptor(const SetupPacket& setup, std::span<std::uint8_t> data) {
    const auto index = static_cast<std::uint8_t>(setup.value);
    switch (setup.value >> 8) {
    case descriptorDevice:
        return put(device_.deviceDescriptor(), data);
    case descriptorConfiguration: {
        const auto descriptor = device_.configurationDescriptor(index);
        return descriptor.empty() ? ControlReply::stall() : put(descriptor, data);
    }
    case descriptorString: {
        std::array<std::uint8_t, 255> bytes{4, descriptorString, 0x09, 0x04};
        if (index != 0) {
            const auto text = device_.stringDescriptor(index);
            if (!text) return ControlReply::stall();
            const std::size_t units = std::min<std::size_t>(text->size(), 126);
            bytes[0] = static_cast<std::uint8_t>(2 + 2 * units);
            for (std::size_t i = 0; i < units; ++i) {
                bytes[2 + 2 * i] = static_cast<std::uint8_t>((*text)[i]);
                bytes[3 + 2 * i] = static_cast<std::uint8_t>((*text)[i] >> 8);
            }
        }
        return put(std::span(bytes).first(bytes[0]), data);
    }
    default:
        return ControlReply::stall();
    }
}

ControlReply EndpointZero::getStatus(const SetupPacket& setup, std::span<std::uint8_t> data) {
    std::array<std::uint8_t, 2> status{};
    const std::uint8_t recipient = setup.requestType & 0x1F;
    if (recipient == recipientDevice && remoteWake_) status[0] = 2;
    if (recipient == recipientEndpoint && halted(static_cast<std::uint8_t>(setup.index))) status[0] = 1;
    return put(status, data);
}

// As the configuration in use, or the one there is, declares.
bool EndpointZero::mayWake() const {
    for (std::uint8_t index = 0; index < 255; ++index) {
        const auto descriptor = device_.configurationDescriptor(index);
        if (descriptor.size() < 8) return false;
        if (configuration_ == 0 || descriptor[5] == configuration_) return (descriptor[7] & attributeRemoteWake) != 0;
    }
    return false;
}

void EndpointZero::enableRemoteWake(bool on) {
    const SetupPacket setup{0x00, on ? requestSetFeature : requestClearFeature, featureRemoteWake, 0, 0};
    answer(setup, {});
}

ControlReply EndpointZero::feature(const SetupPacket& setup, bool set) {
    const std::uint8_t recipient = setup.requestType & 0x1F;
    if (recipient == recipientDevice && setup.value == featureRemoteWake) {
        if (set && !mayWake()) return ControlReply::stall();
        remoteWake_ = set;
        return ControlReply::ack();
    }
    const auto address = static_cast<std::uint8_t>(setup.index);
    if (recipient != recipientEndpoint || setup.value != featureEndpointHalt) return ControlReply::stall();
    if ((address & 0x0F) == 0) return ControlReply::ack();
    if (packetSize(address) == 0) return ControlReply::stall();
    endpoints_[endpointIndex(address)].halted = set;
    if (!set) device_.haltCleared(address);
    return ControlReply::ack();
}

bool EndpointZero::configure(std::uint8_t value) {
    std::span<const std::uint8_t> chosen;
    for (std::uint8_t index = 0; value != 0 && index < 255; ++index) {
        const auto descriptor = device_.configurationDescriptor(index);
        if (descriptor.empty()) break;
        if (descriptor.size() >= 6 && descriptor[5] == value) {
            chosen = descriptor;
            break;
        }
    }
    if (value != 0 && chosen.empty()) return false;
    endpoints_ = {};
    settings_ = {};
    configuration_ = value;
    addEndpoints(chosen);
    device_.configured(value);
    return true;
}

void EndpointZero::addEndpoints(std::span<const std::uint8_t> configuration) {
    for (std::size_t at = 0; at + 2 <= configuration.size() && configuration[at] >= 2; at += configuration[at]) {
        const std::size_t length = configuration[at];
        if (at + length > configuration.size()) return;
        if (configuration[at + 1] != descriptorEndpoint || length < 7) continue;
        const std::uint8_t address = configuration[at + 2];
        if ((address & 0x0F) == 0) continue;
        const auto size = static_cast<std::uint16_t>(configuration[at + 4] | (configuration[at + 5] << 8));
        endpoints_[endpointIndex(address)].packetSize = size & 0x7FF;
    }
}

}  // namespace usb
