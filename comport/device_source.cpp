#include "comport/device_source.h"

#include <charconv>
#include <cstdio>

#include "modem/loopback.h"
#include "modem/modem.h"
#include "usb/libusb_selector.h"
#include "usb/usbip_backend.h"
#include "usb/virtual_backend.h"

#ifdef HAVE_LIBUSB
#include "usb/libusb_backend.h"
#endif

namespace comport {

const char* const deviceForms = "virtual, loopback, usbip://HOST[:PORT]/BUSID, libusb:auto or libusb:VID:PID[:SERIAL]";

std::optional<NetAddress> parseAddress(const std::string& text) {
    NetAddress address;
    std::size_t colon = text.rfind(':');
    std::string port = text;
    if (colon != std::string::npos) {
        address.host = text.substr(0, colon);
        port = text.substr(colon + 1);
        bool bracketed = address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']';
        if (bracketed) {
            address.host = address.host.substr(1, address.host.size() - 2);
        }
        if (address.host.empty() || (!bracketed && address.host.find(':') != std::string::npos)) {
            return std::nullopt;
        }
    }
    auto [stop, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
    if (error != std::errc() || stop != port.data() + port.size()) {
        return std::nullopt;
    }
    return address;
}

std::optional<UsbAddress> parseUsbip(const std::string& text) {
    const std::string scheme = "usbip://";
    if (!text.starts_with(scheme)) {
        return std::nullopt;
    }
    const std::size_t slash = text.find('/', scheme.size());
    std::string place = text.substr(scheme.size(), slash == std::string::npos ? slash : slash - scheme.size());
    UsbAddress address;
    address.busId = slash == std::string::npos ? "" : text.substr(slash + 1);
    const bool portGiven = place.rfind(':') != std::string::npos && !place.ends_with(']');
    const std::optional<NetAddress> parsed = parseAddress(portGiven ? place : place + ":3240");
    // A bus id travels in 32 bytes with a zero at the end.
    if (place.empty() || !parsed || parsed->port == 0 || address.busId.size() > 31 ||
        address.busId.find_first_of("/\\") != std::string::npos) {
        return std::nullopt;
    }
    address.host = parsed->host;
    address.port = parsed->port;
    return address;
}

std::optional<DeviceName> parseDevice(const std::string& text) {
    if (text == "virtual") {
        return DeviceName{DeviceKind::modem, {}, {}};
    }
    if (text == "loopback") {
        return DeviceName{DeviceKind::loopback, {}, {}};
    }
    const std::string here = "libusb:";
    if (text.starts_with(here)) {
        const auto selector = usb::lib::parseSelector(text.substr(here.size()));
        return selector ? std::optional(DeviceName{DeviceKind::libusb, {}, selector->text()}) : std::nullopt;
    }
    const std::optional<UsbAddress> address = parseUsbip(text);
    if (address && !address->busId.empty()) {
        return DeviceName{DeviceKind::usbip, *address, {}};
    }
    return std::nullopt;
}

const char* wordOf(DeviceKind kind) {
    static const char* const words[] = {"modem", "loopback", "usbip", "libusb"};
    return words[static_cast<std::size_t>(kind)];
}

std::unique_ptr<modem::AcmDevice> makeAcmDevice(DeviceKind kind) {
    if (kind == DeviceKind::loopback) {
        return std::make_unique<modem::Loopback>();
    }
    return std::make_unique<modem::Modem>();
}

namespace {

#ifndef HAVE_LIBUSB
constexpr const char* withoutLibusb = "this program was built without libusb; install libusb-1.0-0-dev and build it anew";
#endif

DeviceSource makeOwn(DeviceKind kind, unsigned number) {
    char serial[8];
    std::snprintf(serial, sizeof serial, "%04u", number % 10000);
    DeviceSource source;
    const std::string place = number == 1 ? "virtual modem" : "virtual modem " + std::to_string(number);
    source.own = std::make_shared<usb::VirtualBackend>(makeAcmDevice(kind), place);
    source.backend = source.own;
    source.instanceId = serial;
    return source;
}

// The instance id names the place, so the device finds its port again whenever it comes back.
DeviceSource makeImported(const UsbAddress& address) {
    DeviceSource source;
    const auto backend = usb::makeUsbipBackend(address.host, address.port, address.busId);
    source.backend = backend;
    source.instanceId = "usbip&" + address.host + "&" + std::to_string(address.port) + "&" + address.busId;
    // A wake does not travel over the connection.
    source.options.wakeFromD2 = false;
    source.error = [backend] { return backend->error(); };
    source.watch = [backend](std::function<void()> lost, std::function<void()>) { backend->setLost(std::move(lost)); };
    return source;
}

DeviceSource makeLibusb(const std::string& selector) {
    DeviceSource source;
#ifdef HAVE_LIBUSB
    const auto backend = std::make_shared<usb::LibusbBackend>(*usb::lib::parseSelector(selector));
    source.backend = backend;
    source.locate = [backend] { return backend->find() ? backend->instanceId() : std::string(); };
    // The library knows of no wake.
    source.options.wakeFromD2 = false;
    source.error = [backend] { return backend->error(); };
    source.watch = [backend](std::function<void()> lost, std::function<void()> back) {
        backend->watch(std::move(lost), std::move(back));
    };
#else
    throw std::runtime_error("libusb:" + selector + ": " + withoutLibusb);
#endif
    return source;
}

}  // namespace

DeviceSource makeDevice(const DeviceName& name, unsigned number) {
    switch (name.kind) {
    case DeviceKind::usbip: return makeImported(name.usbip);
    case DeviceKind::libusb: return makeLibusb(name.libusb);
    default: return makeOwn(name.kind, number);
    }
}

int runLibusbList() {
#ifdef HAVE_LIBUSB
    const std::vector<usb::lib::DeviceInfo> devices = usb::lib::list();
    for (const usb::lib::DeviceInfo& device : devices) {
        usb::lib::Selector selector{false, device.vendor, device.product, device.serial};
        std::string functions;
        for (const auto& function : device.functions) {
            char text[16];
            std::snprintf(text, sizeof text, " %02x/%02x/%02x", function[0], function[1], function[2]);
            functions += text;
        }
        std::printf("libusb:%-24s %-8s%s  %s\n", selector.text().c_str(), device.socket.c_str(), functions.c_str(),
                    device.name.c_str());
        if (!device.unreadable.empty()) {
            std::printf("  %s\n", device.unreadable.c_str());
        }
    }
    if (devices.empty()) {
        std::printf("no CDC-ACM device is plugged in\n");
    }
    return 0;
#else
    throw std::runtime_error(withoutLibusb);
#endif
}

}  // namespace comport
