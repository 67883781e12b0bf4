#include "tests/support/scripted_device.h"

#include <algorithm>

namespace test {

namespace {

void append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

void appendEndpoint(Bytes& to, std::uint8_t address, std::uint8_t attributes, std::uint16_t packet,
                    std::uint8_t interval) {
    if (address == 0) return;
    append(to, {7, 5, address, attributes, static_cast<std::uint8_t>(packet), static_cast<std::uint8_t>(packet >> 8),
                interval});
}

}  // namespace

Bytes cdcConfiguration(const CdcShape& shape) {
    const auto commCount = static_cast<std::uint8_t>(shape.interruptIn != 0);
    const auto dataCount = static_cast<std::uint8_t>((shape.bulkIn != 0) + (shape.bulkOut != 0));
    Bytes bytes{9, 2, 0, 0, 2, shape.configurationValue, 0, shape.attributes, 50};
    append(bytes, {9, 4, 0, 0, commCount, 2, 2, 1, 0});
    append(bytes, {5, 0x24, 0, 0x10, 0x01});
    append(bytes, {5, 0x24, 1, 0, shape.dataInterface});
    append(bytes, {4, 0x24, 2, 2});
    append(bytes, {5, 0x24, 6, 0, shape.dataInterface});
    appendEndpoint(bytes, shape.interruptIn, 3, shape.interruptPacket, 9);
    append(bytes, {9, 4, shape.dataInterface, 0, dataCount, 10, 0, 0, 0});
    appendEndpoint(bytes, shape.bulkIn, 2, shape.bulkPacket, 0);
    appendEndpoint(bytes, shape.bulkOut, 2, shape.bulkPacket, 0);
    bytes[2] = static_cast<std::uint8_t>(bytes.size());
    bytes[3] = static_cast<std::uint8_t>(bytes.size() >> 8);
    return bytes;
}

Bytes cdcDevice(std::uint8_t configurations, std::uint16_t vendor, std::uint16_t product) {
    return {18, 1, 0x00, 0x02, 2, 0, 0, 64, static_cast<std::uint8_t>(vendor), static_cast<std::uint8_t>(vendor >> 8),
            static_cast<std::uint8_t>(product), static_cast<std::uint8_t>(product >> 8), 0x01, 0x01, 1, 2, 3,
            configurations};
}

Bytes serialState(std::uint16_t bits) {
    return {0xA1, 0x20, 0, 0, 0, 0, 2, 0, static_cast<std::uint8_t>(bits), static_cast<std::uint8_t>(bits >> 8)};
}

Bytes networkConnection(bool connected) { return {0xA1, 0x00, static_cast<std::uint8_t>(connected), 0, 0, 0, 0, 0}; }

Bytes vendorNotification(std::uint8_t code) { return {0xC1, code, 0, 0, 0, 0, 0, 0}; }

ScriptedDevice::ScriptedDevice() : ScriptedDevice(CdcShape{}) {}

ScriptedDevice::ScriptedDevice(const CdcShape& shape)
    : deviceBytes(cdcDevice()), configurations{cdcConfiguration(shape)},
      strings{{1, u"Tests"}, {2, u"Scripted modem"}, {3, u"0001"}}, interruptPacket_(shape.interruptPacket),
      bulkPacket_(shape.bulkPacket) {}

void ScriptedDevice::send(std::uint8_t endpoint, const Bytes& data, bool ends) {
    queues_[endpoint].push_back({data, 0, ends});
    wake();
}

std::size_t ScriptedDevice::unsent(std::uint8_t endpoint) const {
    const auto found = queues_.find(endpoint);
    std::size_t bytes = 0;
    if (found != queues_.end()) {
        for (const auto& message : found->second) bytes += message.data.size() - message.at;
    }
    return bytes;
}

std::string ScriptedDevice::outText() const {
    std::string text;
    for (const auto& out : outs) text.append(out.data.begin(), out.data.end());
    return text;
}

std::vector<std::string> ScriptedDevice::outMessages() const {
    std::vector<std::string> messages;
    bool open = false;
    for (const auto& out : outs) {
        if (!open) messages.emplace_back();
        messages.back().append(out.data.begin(), out.data.end());
        open = !out.ends;
    }
    return messages;
}

unsigned ScriptedDevice::count(std::uint8_t request) const {
    return static_cast<unsigned>(std::count_if(controls.begin(), controls.end(), [request](const auto& record) {
        return record.setup.request == request;
    }));
}

std::span<const std::uint8_t> ScriptedDevice::configurationDescriptor(std::uint8_t index) const {
    return index < configurations.size() ? std::span<const std::uint8_t>(configurations[index])
                                         : std::span<const std::uint8_t>();
}

std::optional<std::u16string> ScriptedDevice::stringDescriptor(std::uint8_t index) const {
    const auto found = strings.find(index);
    return found == strings.end() ? std::nullopt : std::optional(found->second);
}

std::optional<usb::ControlReply> ScriptedDevice::standardControl(const usb::SetupPacket& setup,
                                                                 std::span<std::uint8_t> data) {
    standards.push_back(setup);
    return onStandard ? onStandard(setup, data) : std::nullopt;
}

usb::ControlReply ScriptedDevice::control(const usb::SetupPacket& setup, std::span<std::uint8_t> data) {
    controls.push_back({setup, setup.isIn() ? Bytes() : Bytes(data.begin(), data.end())});
    if (stallControls) return usb::ControlReply::stall();
    if (onControl) {
        if (const auto reply = onControl(setup, data)) return *reply;
    }
    if (setup.request == 0x20) {
        if (data.size() != lineCoding.size()) return usb::ControlReply::stall();
        std::copy(data.begin(), data.end(), lineCoding.begin());
    } else if (setup.request == 0x21) {
        const std::size_t length = std::min(data.size(), lineCoding.size());
        std::copy_n(lineCoding.begin(), length, data.begin());
        return usb::ControlReply::ack(static_cast<std::uint32_t>(length));
    } else if (setup.request == 0x22) {
        controlLines = setup.value;
    }
    return usb::ControlReply::ack();
}

std::int32_t ScriptedDevice::dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool ends) {
    if (holdOut) return usb::dataNak;
    if (stallOut > 0) {
        --stallOut;
        return usb::dataStall;
    }
    std::size_t length = data.size();
    if (length > outAllowance) length = outAllowance - outAllowance % packetSize(endpoint);
    if (length == 0 && !data.empty()) return usb::dataNak;
    if (outAllowance != ~0ull) outAllowance -= length;
    outBytes += length;
    const auto taken = data.first(length);
    const bool ended = ends && length == data.size();
    if (!discard) {
        // A transfer taken in pieces is one record.
        if (outOpen_) {
            append(outs.back().data, Bytes(taken.begin(), taken.end()));
            outs.back().ends = ended;
        } else {
            outs.push_back({endpoint, Bytes(taken.begin(), taken.end()), ended});
        }
        outOpen_ = length < data.size();
    }
    if (echo && length != 0) send(endpoint | 0x80, Bytes(taken.begin(), taken.end()));
    return static_cast<std::int32_t>(length);
}

std::int32_t ScriptedDevice::dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) {
    if (stallIn > 0 && endpoint != 0x82) {
        --stallIn;
        return usb::dataStall;
    }
    if (endpoint != 0x82 && pour > 0) {
        const std::size_t length = std::min<std::uint64_t>(space.size(), pour);
        for (std::size_t i = 0; i < length; ++i) space[i] = pattern(poured_ + i);
        poured_ += length;
        pour -= length;
        return static_cast<std::int32_t>(length);
    }
    auto& queue = queues_[endpoint];
    if (queue.empty()) return usb::dataNak;
    Message& message = queue.front();
    const std::size_t length = std::min(space.size(), message.data.size() - message.at);
    std::copy_n(message.data.begin() + static_cast<std::ptrdiff_t>(message.at), length, space.begin());
    message.at += length;
    const bool whole = message.at == message.data.size();
    // What ends with a full packet is followed by an empty one, which the next call gives.
    const bool emptyFollows = whole && message.ends && length != 0 && length % packetSize(endpoint) == 0 &&
                              endpoint != 0x82;
    if (whole && !emptyFollows) queue.pop_front();
    return static_cast<std::int32_t>(length);
}

void ScriptedDevice::busReset() {
    ++busResets;
    configuration = 0;
}

}  // namespace test
