#include "usb/usbip_protocol.h"

#include <algorithm>

namespace usb::usbip {

namespace {

constexpr std::size_t pathBytes = 256;
constexpr std::uint32_t noPackets = 0xFFFFFFFF;  // what says that a transfer is not isochronous

void put8(Bytes& out, std::uint8_t value) { out.push_back(value); }

void put16(Bytes& out, std::uint16_t value) {
    put8(out, static_cast<std::uint8_t>(value >> 8));
    put8(out, static_cast<std::uint8_t>(value));
}

void put32(Bytes& out, std::uint32_t value) {
    put16(out, static_cast<std::uint16_t>(value >> 16));
    put16(out, static_cast<std::uint16_t>(value));
}

// Always ends with a zero.
void putText(Bytes& out, const std::string& text, std::size_t room) {
    const std::size_t length = std::min(text.size(), room - 1);
    out.insert(out.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length));
    out.insert(out.end(), room - length, 0);
}

// Reads on from the beginning of a record that is as long as it must be.
class Reader {
public:
    explicit Reader(std::span<const std::uint8_t> bytes) : left_(bytes) {}

    std::uint8_t byte() {
        const std::uint8_t value = left_.front();
        left_ = left_.subspan(1);
        return value;
    }
    std::uint16_t word() {
        const unsigned high = byte();
        return static_cast<std::uint16_t>(high << 8 | byte());
    }
    std::uint32_t number() {
        const std::uint32_t high = word();
        return high << 16 | word();
    }
    std::string text(std::size_t room) {
        const auto field = left_.first(room);
        left_ = left_.subspan(room);
        return std::string(field.begin(), std::find(field.begin(), field.end(), 0));
    }
    void skip(std::size_t count) { left_ = left_.subspan(count); }

private:
    std::span<const std::uint8_t> left_;
};

void readSubmit(Reader& reader, Message& message) {
    message.flags = reader.number();
    message.length = reader.number();
    reader.skip(8);  // start frame, packets
    message.interval = reader.number();
    for (std::uint8_t& byte : message.setup) byte = reader.byte();
}

}  // namespace

void put(Bytes& out, const Operation& operation) {
    put16(out, operation.version);
    put16(out, static_cast<std::uint16_t>(operation.code));
    put32(out, static_cast<std::uint32_t>(operation.status));
}

void putBusId(Bytes& out, const std::string& busId) { putText(out, busId, busIdBytes); }

void putCount(Bytes& out, std::uint32_t count) { put32(out, count); }

void put(Bytes& out, const DeviceRecord& device) {
    putText(out, device.path, pathBytes);
    putText(out, device.busId, busIdBytes);
    put32(out, device.busNumber);
    put32(out, device.deviceNumber);
    put32(out, device.speed);
    put16(out, device.vendor);
    put16(out, device.product);
    put16(out, device.release);
    for (const std::uint8_t byte : {device.classCode, device.subclass, device.protocol, device.configuration,
                                    device.configurations, device.interfaceCount}) {
        put8(out, byte);
    }
}

void putInterfaces(Bytes& out, const DeviceRecord& device) {
    for (const Interface& interface : device.interfaces) {
        for (const std::uint8_t byte : {interface.classCode, interface.subclass, interface.protocol, std::uint8_t{0}}) {
            put8(out, byte);
        }
    }
}

void put(Bytes& out, const Message& message) {
    const std::size_t end = out.size() + headerBytes;
    out.reserve(end);
    put32(out, static_cast<std::uint32_t>(message.command));
    put32(out, message.sequence);
    put32(out, message.deviceId);
    put32(out, message.in);
    put32(out, message.endpoint);
    switch (message.command) {
    case Command::submit:
        put32(out, message.flags);
        put32(out, message.length);
        put32(out, 0);
        put32(out, noPackets);
        put32(out, message.interval);
        out.insert(out.end(), message.setup.begin(), message.setup.end());
        break;
    case Command::unlink:
        put32(out, message.unlinked);
        break;
    case Command::submitReply:
        put32(out, static_cast<std::uint32_t>(message.status));
        put32(out, message.actual);
        put32(out, 0);
        put32(out, noPackets);
        break;
    case Command::unlinkReply:
        put32(out, static_cast<std::uint32_t>(message.status));
        break;
    }
    out.resize(end);
}

std::optional<Operation> operationOf(std::span<const std::uint8_t> bytes) {
    Reader reader(bytes);
    Operation operation;
    operation.version = reader.word();
    operation.code = static_cast<OperationCode>(reader.word());
    operation.status = static_cast<OperationStatus>(reader.number());
    switch (operation.code) {
    case OperationCode::importReply:
    case OperationCode::listReply:
    case OperationCode::importRequest:
    case OperationCode::listRequest:
        return operation.version >> 8 == protocolVersion >> 8 ? std::optional(operation) : std::nullopt;
    }
    return std::nullopt;
}

std::string busIdOf(std::span<const std::uint8_t> bytes) { return Reader(bytes).text(busIdBytes); }

std::uint32_t countOf(std::span<const std::uint8_t> bytes) { return Reader(bytes).number(); }

DeviceRecord deviceOf(std::span<const std::uint8_t> bytes) {
    Reader reader(bytes);
    DeviceRecord device;
    device.path = reader.text(pathBytes);
    device.busId = reader.text(busIdBytes);
    device.busNumber = reader.number();
    device.deviceNumber = reader.number();
    device.speed = reader.number();
    device.vendor = reader.word();
    device.product = reader.word();
    device.release = reader.word();
    for (std::uint8_t* field : {&device.classCode, &device.subclass, &device.protocol, &device.configuration,
                                &device.configurations, &device.interfaceCount}) {
        *field = reader.byte();
    }
    return device;
}

std::optional<Message> messageOf(std::span<const std::uint8_t> bytes) {
    Reader reader(bytes);
    Message message;
    message.command = static_cast<Command>(reader.number());
    message.sequence = reader.number();
    message.deviceId = reader.number();
    const std::uint32_t direction = reader.number();
    message.in = direction == 1;
    message.endpoint = reader.number();
    if (direction > 1) return std::nullopt;
    switch (message.command) {
    case Command::submit:
        readSubmit(reader, message);
        return message;
    case Command::unlink:
        message.unlinked = reader.number();
        return message;
    case Command::submitReply:
        message.status = static_cast<std::int32_t>(reader.number());
        message.actual = reader.number();
        return message;
    case Command::unlinkReply:
        message.status = static_cast<std::int32_t>(reader.number());
        return message;
    }
    return std::nullopt;
}

std::array<std::uint8_t, 8> setupBytes(const SetupPacket& setup) {
    const auto low = [](std::uint16_t value) { return static_cast<std::uint8_t>(value); };
    const auto high = [](std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); };
    return {setup.requestType, setup.request,     low(setup.value),  high(setup.value),
            low(setup.index),  high(setup.index), low(setup.length), high(setup.length)};
}

SetupPacket setupOf(const std::array<std::uint8_t, 8>& bytes) {
    const auto word = [&bytes](std::size_t at) { return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8); };
    return {bytes[0], bytes[1], word(2), word(4), word(6)};
}

std::int32_t wireStatus(TransferStatus status) {
    switch (status) {
    case TransferStatus::ok:
        return statusOk;
    case TransferStatus::stalled:
        return statusStall;
    case TransferStatus::cancelled:
        return statusReset;
    case TransferStatus::gone:
        return statusShutdown;
    case TransferStatus::overrun:
        return statusOverflow;
    case TransferStatus::failed:
        break;
    }
    return statusProtocol;
}

TransferStatus transferStatus(std::int32_t status) {
    switch (status) {
    case statusOk:
    case statusShort:  // the host of a server may call a short packet an error
        return TransferStatus::ok;
    case statusStall:
        return TransferStatus::stalled;
    case statusReset:
        return TransferStatus::cancelled;
    case statusGone:
    case statusShutdown:
        return TransferStatus::gone;
    case statusOverflow:
        return TransferStatus::overrun;
    default:
        return TransferStatus::failed;
    }
}

DeviceRecord describe(std::span<const std::uint8_t> device, std::span<const std::uint8_t> configuration) {
    DeviceRecord record;
    const auto word = [&device](std::size_t at) { return static_cast<std::uint16_t>(device[at] | device[at + 1] << 8); };
    if (device.size() >= 18) {
        record.classCode = device[4];
        record.subclass = device[5];
        record.protocol = device[6];
        record.vendor = word(8);
        record.product = word(10);
        record.release = word(12);
        record.configurations = device[17];
    }
    constexpr std::uint8_t descriptorInterface = 4;
    for (std::size_t at = 0; at + 2 <= configuration.size() && configuration[at] >= 2; at += configuration[at]) {
        const auto entry = configuration.subspan(at);
        // One entry each, whatever its alternate settings are.
        if (entry[0] < 9 || entry.size() < 9 || entry[1] != descriptorInterface || entry[3] != 0) continue;
        record.interfaces.push_back({entry[5], entry[6], entry[7]});
    }
    record.interfaceCount = static_cast<std::uint8_t>(record.interfaces.size());
    return record;
}

}  // namespace usb::usbip
