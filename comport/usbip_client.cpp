#include "comport/usbip_client.h"

#include <chrono>
#include <cstdio>

#include "comport/port_loop.h"
#include "usb/usbip_client.h"
#include "usb/usbip_socket.h"

namespace comport {

int runUsbipList(const Options& options) {
    const auto devices = usb::listUsbip(options.usbServer->host, options.usbServer->port);
    for (const usb::usbip::DeviceRecord& device : devices) {
        std::string functions;
        for (const usb::usbip::Interface& interface : device.interfaces) {
            char text[16];
            std::snprintf(text, sizeof(text), " %02x/%02x/%02x", interface.classCode, interface.subclass, interface.protocol);
            functions += text;
        }
        // What the server says is shown, not believed: no control character reaches the terminal.
        std::string name = device.busId;
        for (char& c : name) {
            c = c >= 0x21 && c < 0x7F ? c : '?';
        }
        std::printf("%-12s %04x:%04x %s\n", name.c_str(), device.vendor, device.product, functions.c_str());
    }
    if (devices.empty()) {
        std::printf("nothing is exported, or all of it is in use\n");
    }
    return 0;
}

Reconnector::Reconnector(std::function<bool()> attempt) : attempt_(std::move(attempt)), thread_([this] { run(); }) {}

void Reconnector::lost() {
    std::lock_guard guard(lock_);
    lost_ = true;
    changed_.notify_all();
}

void Reconnector::now() {
    std::lock_guard guard(lock_);
    lost_ = hurry_ = true;
    changed_.notify_all();
}

void Reconnector::tellEnd() {
    std::lock_guard guard(lock_);
    ending_ = true;
    changed_.notify_all();
}

void Reconnector::end() {
    tellEnd();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Reconnector::run() {
    usb::usbip::BackOff backOff;
    std::unique_lock guard(lock_);
    backOff.connected(PortLoop::nowMs());
    for (;;) {
        changed_.wait(guard, [this] { return lost_ || ending_; });
        backOff.lost(PortLoop::nowMs());
        bool back = false;
        while (!back) {
            const auto wait = hurry_ ? std::chrono::milliseconds(0) : std::chrono::milliseconds(backOff.nextMs());
            changed_.wait_for(guard, wait, [this] { return ending_ || hurry_; });
            if (ending_) {
                return;
            }
            // What is lost from here on is lost again.
            lost_ = hurry_ = false;
            guard.unlock();
            back = attempt_();
            guard.lock();
        }
        backOff.connected(PortLoop::nowMs());
    }
}

}  // namespace comport
