// The records of USB/IP on the wire, as the Linux kernel documents them (Documentation/usb/usbip_protocol.rst), version 1.1.1.
//
// A connection begins with one operation: a list, after which it is over, or an import, after which it carries transfers:
//
//   client: import, bus id ---------> server        submit, payload of an OUT ---> server
//   client <--- status, the device    server        client <--- reply, payload of an IN
//
// Everything is big-endian but the eight bytes of SETUP, which are as on the bus. Nothing here knows a socket.
#pragma once

#include "usb/backend.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace usb::usbip {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint16_t defaultPort = 3240;
inline constexpr std::uint16_t protocolVersion = 0x0111;
inline constexpr std::size_t operationBytes = 8;
inline constexpr std::size_t busIdBytes = 32;
inline constexpr std::size_t deviceBytes = 312;  // without its interfaces
inline constexpr std::size_t interfaceBytes = 4;
inline constexpr std::size_t headerBytes = 48;

enum class OperationCode : std::uint16_t {
    importReply = 0x0003,
    listReply = 0x0005,
    importRequest = 0x8003,
    listRequest = 0x8005,
};

enum class OperationStatus : std::uint32_t { ok = 0, failed = 1, busy = 2, deviceError = 3, noDevice = 4 };

struct Operation {
    std::uint16_t version = protocolVersion;
    OperationCode code = OperationCode::importRequest;
    OperationStatus status = OperationStatus::ok;
};

struct Interface {
    std::uint8_t classCode = 0, subclass = 0, protocol = 0;
    bool operator==(const Interface&) const = default;
};

struct DeviceRecord {
    std::string path;
    std::string busId;
    std::uint32_t busNumber = 0, deviceNumber = 0;
    std::uint32_t speed = 2;  // 1 low, 2 full, 3 high
    std::uint16_t vendor = 0, product = 0, release = 0;
    std::uint8_t classCode = 0, subclass = 0, protocol = 0;
    std::uint8_t configuration = 0, configurations = 1;
    std::uint8_t interfaceCount = 0;
    std::vector<Interface> interfaces;  // in a list only

    // What names the device in the messages of its connection.
    std::uint32_t id() const { return (busNumber << 16) | (deviceNumber & 0xFFFF); }
};

enum class Command : std::uint32_t { submit = 1, unlink = 2, submitReply = 3, unlinkReply = 4 };

// Results of a transfer: the negative error numbers of Linux.
inline constexpr std::int32_t statusOk = 0;
inline constexpr std::int32_t statusGone = -19, statusShutdown = -108;
inline constexpr std::int32_t statusStall = -32;
inline constexpr std::int32_t statusProtocol = -71;
inline constexpr std::int32_t statusOverflow = -75;
inline constexpr std::int32_t statusReset = -104;  // unlinked
inline constexpr std::int32_t statusShort = -121;

// The 48 bytes before every payload. What a command does not have is left as it is here.
struct Message {
    Command command = Command::submit;
    std::uint32_t sequence = 0;
    std::uint32_t deviceId = 0;
    bool in = false;
    std::uint32_t endpoint = 0;  // number, without the direction

    // submit
    std::uint32_t flags = 0;
    std::uint32_t length = 0;
    std::uint32_t interval = 0;
    std::array<std::uint8_t, 8> setup{};
    // unlink
    std::uint32_t unlinked = 0;  // sequence number
    // replies
    std::int32_t status = 0;
    std::uint32_t actual = 0;  // of a submit
};

inline constexpr std::uint32_t flagDirectionIn = 0x200;

// Each appends to `out`. Texts that are too long are cut.
void put(Bytes& out, const Operation& operation);
void putBusId(Bytes& out, const std::string& busId);
void put(Bytes& out, const DeviceRecord& device);
void putInterfaces(Bytes& out, const DeviceRecord& device);
void putCount(Bytes& out, std::uint32_t count);
void put(Bytes& out, const Message& message);

// `bytes` hold the whole record, of the size named above. Nothing: it is none of these.
std::optional<Operation> operationOf(std::span<const std::uint8_t> bytes);
std::string busIdOf(std::span<const std::uint8_t> bytes);
DeviceRecord deviceOf(std::span<const std::uint8_t> bytes);
std::uint32_t countOf(std::span<const std::uint8_t> bytes);
std::optional<Message> messageOf(std::span<const std::uint8_t> bytes);

std::array<std::uint8_t, 8> setupBytes(const SetupPacket& setup);
SetupPacket setupOf(const std::array<std::uint8_t, 8>& bytes);

// How a transfer ended, here and on the wire.
std::int32_t wireStatus(TransferStatus status);
TransferStatus transferStatus(std::int32_t status);

// A device as its descriptors say it.
DeviceRecord describe(std::span<const std::uint8_t> device, std::span<const std::uint8_t> configuration);

}  // namespace usb::usbip
