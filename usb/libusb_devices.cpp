#include "usb/libusb_devices.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace usb::lib {

namespace {

constexpr std::uint8_t communicationsClass = 2;
constexpr std::uint8_t abstractControlModel = 2;

// Bus and ports.
std::vector<std::uint8_t> placeOf(const DevicePointer& device) {
    std::vector<std::uint8_t> place(8);
    const int count = libusb_get_port_numbers(device.get(), place.data() + 1, static_cast<int>(place.size()) - 1);
    place[0] = libusb_get_bus_number(device.get());
    place.resize(1 + static_cast<std::size_t>(std::max(count, 0)));
    return place;
}

std::string socketOf(const DevicePointer& device) {
    std::string text;
    for (const std::uint8_t number : placeOf(device)) {
        text += (text.empty() ? "" : text.find('-') == std::string::npos ? "-" : ".") + std::to_string(number);
    }
    return text;
}

// What the device says is shown, not believed: no control character reaches the terminal.
std::string stringOf(libusb_device_handle* handle, std::uint8_t index) {
    unsigned char text[128];
    const int length = index == 0 ? 0 : libusb_get_string_descriptor_ascii(handle, index, text, sizeof text);
    std::string string(text, text + std::max(length, 0));
    for (char& c : string) c = c >= 0x20 && c < 0x7F ? c : '?';
    return string;
}

// All seats of the process.
std::mutex seatsMutex;
std::list<const Seat*> seats;

}  // namespace

bool DeviceInfo::hasAcm() const {
    return std::ranges::any_of(functions, [](const auto& function) {
        return function[0] == communicationsClass && function[1] == abstractControlModel;
    });
}

void ContextCloser::operator()(libusb_context* context) const { libusb_exit(context); }
void DeviceDropper::operator()(libusb_device* device) const { libusb_unref_device(device); }
void HandleCloser::operator()(libusb_device_handle* handle) const { libusb_close(handle); }

Context makeContext() {
    libusb_context* context = nullptr;
    const int error = libusb_init(&context);
    if (error != 0) throw Error(std::string("libusb does not start: ") + libusb_strerror(error));
    return Context(context);
}

std::vector<DevicePointer> devicesOf(libusb_context* context) {
    libusb_device** found = nullptr;
    const ssize_t count = libusb_get_device_list(context, &found);
    if (count < 0) throw Error(std::string("libusb lists no devices: ") + libusb_strerror(static_cast<int>(count)));
    std::vector<DevicePointer> devices;
    for (ssize_t i = 0; i < count; ++i) devices.emplace_back(found[i]);
    libusb_free_device_list(found, 0);
    std::ranges::sort(devices, {}, placeOf);
    return devices;
}

DeviceInfo describe(const DevicePointer& device) {
    DeviceInfo info;
    libusb_device_descriptor descriptor{};
    libusb_get_device_descriptor(device.get(), &descriptor);
    info.vendor = descriptor.idVendor;
    info.product = descriptor.idProduct;
    info.socket = socketOf(device);
    libusb_config_descriptor* configuration = nullptr;
    if (libusb_get_config_descriptor(device.get(), 0, &configuration) != 0) return info;
    for (int i = 0; i < configuration->bNumInterfaces; ++i) {
        const libusb_interface& interface = configuration->interface[i];
        if (interface.num_altsetting < 1) continue;
        const libusb_interface_descriptor& first = interface.altsetting[0];
        info.functions.push_back({first.bInterfaceClass, first.bInterfaceSubClass, first.bInterfaceProtocol});
    }
    libusb_free_config_descriptor(configuration);
    return info;
}

Handle open(libusb_device* device, const DeviceInfo& info) {
    libusb_device_handle* handle = nullptr;
    const int error = libusb_open(device, &handle);
    if (error == 0) return Handle(handle);
    const std::string what = numbersOf(info.vendor, info.product) + " at " + info.socket;
    if (error != LIBUSB_ERROR_ACCESS) throw Error(what + " cannot be opened: " + libusb_strerror(error));
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03u/%03u", libusb_get_bus_number(device), libusb_get_device_address(device));
    throw Error("there is no permission to use " + what + ": " + node +
                " must be writable, which the udev rule 70-comport.rules takes care of");
}

void readStrings(libusb_device* device, DeviceInfo& info) {
    libusb_device_descriptor descriptor{};
    libusb_get_device_descriptor(device, &descriptor);
    try {
        const Handle handle = open(device, info);
        info.serial = stringOf(handle.get(), descriptor.iSerialNumber);
        info.name = stringOf(handle.get(), descriptor.iProduct);
    } catch (const Error& error) {
        info.unreadable = error.what();
    }
}

std::vector<DeviceInfo> list() {
    const Context context = makeContext();
    std::vector<DeviceInfo> found;
    for (const DevicePointer& device : devicesOf(context.get())) {
        DeviceInfo info = describe(device);
        if (!info.hasAcm()) continue;
        readStrings(device.get(), info);
        found.push_back(std::move(info));
    }
    return found;
}

// Seats. ------------------------------------------------------------------------------------------------------------------

Seat::Seat(Selector selector) : selector_(std::move(selector)) {
    std::lock_guard guard(seatsMutex);
    seats.push_back(this);
}

Seat::~Seat() {
    std::lock_guard guard(seatsMutex);
    seats.remove(this);
}

std::string Seat::key() const {
    std::lock_guard guard(seatsMutex);
    if (!settled_) return {};
    return selector_.serial.empty() ? settled_->socket : "serial " + selector_.serial;
}

bool Seat::fits(libusb_device* device, DeviceInfo& info, std::string& why) const {
    if (settled_ && (info.vendor != settled_->vendor || info.product != settled_->product)) return false;
    if (settled_ && selector_.serial.empty() && info.socket != settled_->socket) return false;
    if (selector_.any) return info.isAcm();
    if (info.vendor != selector_.vendor || info.product != selector_.product) return false;
    if (selector_.serial.empty()) return true;
    readStrings(device, info);
    if (!info.unreadable.empty()) why = info.unreadable;
    return info.serial == selector_.serial;
}

// What has been asked for by its numbers is left alone by "auto".
bool Seat::isTaken(const DeviceInfo& info) const {
    return std::ranges::any_of(seats, [&](const Seat* other) {
        if (other == this) return false;
        const Selector& wanted = other->selector_;
        const bool asked = !wanted.any && wanted.vendor == info.vendor && wanted.product == info.product;
        return other->settled_ ? other->settled_->socket == info.socket : selector_.any && asked;
    });
}

std::pair<DevicePointer, DeviceInfo> Seat::choose(libusb_context* context) {
    std::lock_guard guard(seatsMutex);
    std::string why = selector_.any ? "no CDC-ACM device is plugged in" : selector_.text() + " is not plugged in";
    if (settled_ && selector_.serial.empty()) {
        why = numbersOf(settled_->vendor, settled_->product) + " is not plugged into " + settled_->socket;
    }
    for (DevicePointer& device : devicesOf(context)) {
        DeviceInfo info = describe(device);
        if (!fits(device.get(), info, why)) continue;
        if (isTaken(info)) {
            why = "every " + (selector_.any ? "CDC-ACM device" : selector_.text()) + " that is plugged in is another port's";
            continue;
        }
        settled_ = info;
        return {std::move(device), std::move(info)};
    }
    throw Error(why);
}

// Arrivals. ---------------------------------------------------------------------------------------------------------------

class Arrivals::Watch {
public:
    static std::shared_ptr<Watch> shared() {
        static std::mutex mutex;
        static std::weak_ptr<Watch> last;
        std::lock_guard guard(mutex);
        std::shared_ptr<Watch> watch = last.lock();
        if (!watch) last = watch = std::make_shared<Watch>();
        return watch;
    }

    Watch() : context_(makeContext()) {
        libusb_hotplug_register_callback(context_.get(), LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, LIBUSB_HOTPLUG_NO_FLAGS,
                                         LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, arrived,
                                         this, nullptr);
        thread_ = std::thread([this] {
            int error = 0;
            while (!ending_ && (error == 0 || error == LIBUSB_ERROR_INTERRUPTED)) error = libusb_handle_events(context_.get());
        });
    }
    ~Watch() {
        ending_ = true;
        libusb_interrupt_event_handler(context_.get());
        thread_.join();
    }

    std::mutex mutex;
    std::list<std::function<void()>> hooks;  // guarded by it, also while they are called

private:
    static int LIBUSB_CALL arrived(libusb_context*, libusb_device*, libusb_hotplug_event, void* data) {
        auto& self = *static_cast<Watch*>(data);
        std::lock_guard guard(self.mutex);
        for (const auto& hook : self.hooks) hook();
        return 0;
    }

    const Context context_;
    std::atomic<bool> ending_{false};
    std::thread thread_;
};

Arrivals::Arrivals(std::function<void()> hook) : watch_(Watch::shared()) {
    std::lock_guard guard(watch_->mutex);
    hook_ = watch_->hooks.insert(watch_->hooks.end(), std::move(hook));
}

Arrivals::~Arrivals() {
    std::lock_guard guard(watch_->mutex);
    watch_->hooks.erase(hook_);
}

}  // namespace usb::lib
