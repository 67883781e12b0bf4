// The USB side for a program or a test: a bus with one root hub, into whose ports devices are plugged.
//
//   nt::Executive executive(options);
//   usb::Bus bus(executive);
//   auto port = bus.plug(backend, "0001");     // the PnP manager finds it; executive.settle() waits for that
//   bus.unplug(port);                          // surprise removal
//   bus.replug(port);                          // the same device under the same instance id
//
// The bus must be destroyed after executive.stop() or before it, but not while requests are on their way.
#pragma once

#include "usb/backend.h"

#include <wdm.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace nt {
class Executive;
}

namespace usb {

class Hub;
class Tap;

using PortNumber = unsigned;  // from 1

// What the bus says and does about one device, beside moving its bytes. The defaults are those of a good one.
struct PortOptions {
    // Nothing: what the device's configuration descriptor says.
    std::optional<bool> wakeFromD2;
    SYSTEM_POWER_STATE systemWake = PowerSystemSleeping3;
    // The device states of PowerSystemUnspecified ... PowerSystemShutdown.
    DEVICE_POWER_STATE deviceState[PowerSystemMaximum] = {PowerDeviceUnspecified, PowerDeviceD0, PowerDeviceD2,
                                                          PowerDeviceD2,          PowerDeviceD2, PowerDeviceD3,
                                                          PowerDeviceD3};
    // Misbehaviour.
    bool rejectD0WhenGone = false;      // fails the D0 request of a device that left
    bool rejectD0 = false;              // fails every D0 request
    bool ignorePrivateControls = false; // the open and close notifications end by cancellation only
    bool hangReset = false;             // a port reset ends by cancellation only
};

struct PortStatistics {
    std::uint64_t submitted = 0;  // URBs that reached the backend
    std::uint64_t completed = 0;
    std::uint64_t failed = 0;     // completed with another status than success
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    std::uint64_t bulkIn = 0;     // bytes of these on bulk pipes
    std::uint64_t bulkOut = 0;
    std::uint64_t zeroLengthPackets = 0;  // bulk transfers without a byte, either way
    std::uint64_t stalls = 0;             // the device answered STALL
    std::uint64_t reinitialisations = 0;  // all three pipes were reset in a row, as a driver that starts over does
    std::uint32_t pending = 0;    // at the backend now
    std::uint32_t openNotifications = 0;
    std::uint32_t closeNotifications = 0;
    std::uint32_t resets = 0;
    DEVICE_POWER_STATE power = PowerDeviceD0;
    bool idlePending = false;
    bool wakeArmed = false;

    // Adds what counts up; the rest stays.
    PortStatistics& operator+=(const PortStatistics& other);
};

class Bus {
public:
    struct Options {
        bool busPowered = false;
        Tap* tap = nullptr;  // listens in; outlives the bus
    };

    // PASSIVE_LEVEL. Loads the hub driver as the service "usbhub" unless it is there, and adds a root hub. Throws
    // std::runtime_error when that fails.
    explicit Bus(nt::Executive& executive);
    Bus(nt::Executive& executive, const Options& options);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    // PASSIVE_LEVEL, all of them. The port of the new device, 0 when its backend does not start.
    PortNumber plug(std::shared_ptr<Backend> backend, std::string instanceId, const PortOptions& options = {});
    // Everything pending ends as gone, the backend is stopped, and the PnP manager hears of it. Harmless when the device has left.
    void unplug(PortNumber port);
    // The device of this port (the last one) arrives again, under its instance id or another. False when its backend does not start.
    bool replug(PortNumber port, const std::string& instanceId = {});

    // "USB\VID_0525&PID_A4A7\0001", for the executive's Plug and Play by hand.
    std::string instancePath(PortNumber port) const;
    PortStatistics statistics(PortNumber port) const;
    void setOptions(PortNumber port, const PortOptions& options);
    Backend& backend(PortNumber port) const;

private:
    nt::Executive& executive_;
    std::shared_ptr<Hub> hub_;
};

}  // namespace usb

// The hub and bus driver.
extern "C" DRIVER_INITIALIZE UsbHubDriverEntry;
