// The USB devices of this machine as libusb sees them: which one is meant, which ones there are, and when one arrives.
#pragma once

#include "usb/libusb_selector.h"

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

struct libusb_context;
struct libusb_device;
struct libusb_device_handle;

namespace usb::lib {

struct DeviceInfo {
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::string socket;  // bus and the ports on the way to the device, as the kernel writes them: "1-2.3"
    // Of the first configuration: class, subclass, protocol of each interface.
    std::vector<std::array<std::uint8_t, 3>> functions;
    std::string serial, name;  // "" as well where they could not be read
    std::string unreadable;    // why not

    // The driver is bound by the first interface.
    bool isAcm() const { return !functions.empty() && functions[0][0] == 2 && functions[0][1] == 2; }
    bool hasAcm() const;
};

// Thrown where something cannot be had; a clause without a full stop.
using Error = std::runtime_error;

struct ContextCloser {
    void operator()(libusb_context* context) const;
};
struct DeviceDropper {
    void operator()(libusb_device* device) const;
};
struct HandleCloser {
    void operator()(libusb_device_handle* handle) const;
};
using Context = std::unique_ptr<libusb_context, ContextCloser>;
using DevicePointer = std::unique_ptr<libusb_device, DeviceDropper>;
using Handle = std::unique_ptr<libusb_device_handle, HandleCloser>;

// Everything below may block, and may be called from any thread at PASSIVE_LEVEL.

// A new one looks at all devices, also where no udev tells of them. Throws.
Context makeContext();
// In the order of their sockets.
std::vector<DevicePointer> devicesOf(libusb_context* context);
// What can be told without opening it.
DeviceInfo describe(const DevicePointer& device);
// Opens it and adds serial number and name.
void readStrings(libusb_device* device, DeviceInfo& info);
// Throws an Error that says what to do about it.
Handle open(libusb_device* device, const DeviceInfo& info);
// The CDC-ACM devices that are plugged in. Throws.
std::vector<DeviceInfo> list();

// One port's right to a device. While it exists, no other seat of this process gets the same device.
//
//   open --choose(): the first that fits and is free--> settled
//
// From then on it is that device: with a serial number in whatever socket it comes back, otherwise one of the same kind in the
// same socket.
class Seat {
public:
    explicit Seat(Selector selector);
    ~Seat();
    Seat(const Seat&) = delete;
    Seat& operator=(const Seat&) = delete;

    // The device, if it is plugged in. Throws an Error that says why it is not to be had.
    std::pair<DevicePointer, DeviceInfo> choose(libusb_context* context);
    // Names the device as long as it is the same one: by its serial number, or by its socket. "" while open.
    std::string key() const;
    const Selector& selector() const { return selector_; }

private:
    bool fits(libusb_device* device, DeviceInfo& info, std::string& why) const;
    bool isTaken(const DeviceInfo& info) const;

    const Selector selector_;
    std::optional<DeviceInfo> settled_;  // guarded by the mutex of all seats
};

// Calls a hook whenever a device has arrived. All of them share one thread.
class Arrivals {
public:
    // `hook` is called from another thread, until the destructor returns. Nothing is told where the library cannot know.
    explicit Arrivals(std::function<void()> hook);
    ~Arrivals();
    Arrivals(const Arrivals&) = delete;
    Arrivals& operator=(const Arrivals&) = delete;

private:
    class Watch;
    std::shared_ptr<Watch> watch_;
    std::list<std::function<void()>>::iterator hook_;
};

}  // namespace usb::lib
