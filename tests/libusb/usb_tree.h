// A machine's USB devices as libusb meets them, made with umockdev: the device tree, udev's events, and the kernel's USB file
// system, whose transfers a virtual device carries out. A device node is a terminal, because a terminal can be made to look as such a
// node does to poll(): ready to write when a request has ended, in error once the device has left.
#pragma once

#include "usb/device.h"
#include "usb/virtual_backend.h"

#include <atomic>
#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

struct usbdevfs_urb;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;

namespace test {

struct SocketOptions {
    std::string socket = "1-2";
    std::string driver = "cdc_acm";  // what the kernel binds to each interface, "" nothing
    bool permitted = true;
    bool inUse = false;  // another program has its interfaces
};

// Ends its thread and removes its files. No device is left.
void removeUsbTree();

// A device that is plugged in as long as it exists. The executive must be running in the real mode.
class UsbDeviceNode final : private usb::BackendEvents {
public:
    explicit UsbDeviceNode(std::unique_ptr<usb::Device> device, const SocketOptions& options = {});
    // Nobody has it open any more.
    ~UsbDeviceNode();
    UsbDeviceNode(const UsbDeviceNode&) = delete;
    UsbDeviceNode& operator=(const UsbDeviceNode&) = delete;

    void unplug();
    usb::VirtualBackend& inside() { return inside_; }
    // What the kernel was asked for beside transfers: "claim 0", "configure 1", "clear 81", ...
    std::vector<std::string> calls();
    std::string driver(unsigned interface);
    std::size_t pending();
    // The next transfer ends at once with this errno, or is not even taken.
    void endNext(int error) { nextError_ = error; }
    void refuseNext(int error) { nextRefusal_ = error; }
    // Port resets fail, as with a device that comes back as another.
    void failReset() { failReset_ = true; }
    // The kernel no longer waits for the answer to a control request of its own.
    void giveUp();

private:
    struct Urb;
    struct Answer {
        long result = 0;
        int error = 0;
    };

    void gone() override {}
    void remoteWake() override {}
    void addToTree();
    static int handle(UMockdevIoctlBase* base, UMockdevIoctlClient* client, void* self);
    Answer carryOut(unsigned long request, void* argument);
    Answer submit(usbdevfs_urb& user);
    Answer reap(void* argument);
    Answer discard(const void* user);
    Answer claim(unsigned interface);
    Answer control(std::uint8_t type, std::uint8_t request, std::uint16_t value, std::uint16_t index);
    Answer configure(unsigned value);
    Answer reset();
    Answer driverCall(void* argument);
    Answer driverName(void* argument);
    static void ended(usb::Transfer* transfer);
    void note(const std::string& call);
    void bindDrivers();
    void showReady();

    const SocketOptions options_;
    usb::VirtualBackend inside_;
    std::vector<std::uint8_t> deviceBytes_, configurationBytes_;
    unsigned interfaces_ = 0;
    std::string path_, node_;
    UMockdevIoctlBase* base_ = nullptr;
    int master_ = -1, slave_ = -1;
    std::atomic<int> nextError_{0}, nextRefusal_{0};
    std::atomic<bool> failReset_{false};

    std::mutex mutex_;
    std::condition_variable idle_;
    std::list<Urb> pending_, ended_;
    std::map<unsigned, std::string> drivers_;  // "usbfs": claimed
    std::vector<std::string> calls_;
    usb::Transfer* kernels_ = nullptr;  // what giveUp() ends
    unsigned configuration_ = 0;
    bool left_ = false;
};

}  // namespace test
