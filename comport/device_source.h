// What `--usb` names and what becomes of it: the one place that knows which kinds of devices there are.
//
//   virtual                    the virtual modem
//   loopback                   the wired loop plug
//   usbip://HOST[:PORT]/BUSID  a device that a USB/IP server exports
//   libusb:VID:PID[:SERIAL]    a device that is plugged into this machine
//   libusb:auto                the first of them that is a CDC-ACM function
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "usb/backend.h"
#include "usb/host.h"

namespace usb {
class VirtualBackend;
}
namespace modem {
class AcmDevice;
}

namespace comport {

struct NetAddress {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;  // 0: any free one

    bool operator==(const NetAddress&) const = default;
};

// "PORT", "ADDRESS:PORT" or "[ADDRESS]:PORT"; nothing when it is none of them.
std::optional<NetAddress> parseAddress(const std::string& text);

// A device at a USB/IP server; for a list, without the bus id.
struct UsbAddress {
    std::string host;
    std::uint16_t port = 3240;
    std::string busId;

    bool operator==(const UsbAddress&) const = default;
};

// "usbip://HOST[:PORT][/BUSID]", an IPv6 address in brackets.
std::optional<UsbAddress> parseUsbip(const std::string& text);

enum class DeviceKind : std::uint8_t { modem, loopback, usbip, libusb };

struct DeviceName {
    DeviceKind kind = DeviceKind::modem;
    UsbAddress usbip;         // of that kind
    std::string libusb = {};  // of that kind: which one, "auto", "VID:PID" or "VID:PID:SERIAL"

    // There is one device of that name; of the program's own there are as many as are wanted.
    bool isUnique() const { return kind == DeviceKind::usbip || std::ranges::count(libusb, ':') > 1; }
    bool isOwn() const { return kind == DeviceKind::modem || kind == DeviceKind::loopback; }
    bool operator==(const DeviceName&) const = default;
};

std::optional<DeviceName> parseDevice(const std::string& text);
// What parseDevice() takes, for messages.
extern const char* const deviceForms;
// "modem", "loopback", "usbip", "libusb"
const char* wordOf(DeviceKind kind);

// A device that can be plugged in. The executive must be running as long as it exists.
struct DeviceSource {
    std::shared_ptr<usb::Backend> backend;
    std::string instanceId;  // the same whenever this device comes back, and no other's
    // Where it is known only once the device has been found: looks for it. "": it is not there.
    std::function<std::string()> locate;
    usb::PortOptions options;
    std::shared_ptr<usb::VirtualBackend> own;  // the backend of a device of this program's own, which never fails to start
    // Of a device that is elsewhere: why it does not start or has left, a clause without a full stop.
    std::function<std::string()> error;
    // The same: `lost` is called after a started device has left, `back` when it may be worth another start (not every kind knows).
    // Set while stopped; called from any thread at PASSIVE_LEVEL.
    std::function<void(std::function<void()> lost, std::function<void()> back)> watch;
};

// `number` is from 1 and tells the devices of this program's own apart. Throws std::runtime_error when this program cannot.
DeviceSource makeDevice(const DeviceName& name, unsigned number);
// Prints the CDC-ACM devices that are plugged into this machine. The exit code; throws std::runtime_error.
int runLibusbList();
// The device of kind modem or loopback.
std::unique_ptr<modem::AcmDevice> makeAcmDevice(DeviceKind kind);

}  // namespace comport
