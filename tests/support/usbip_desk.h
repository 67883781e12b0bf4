// A USB/IP server and what it lends: one device that keeps every request until somebody ends it.
#pragma once

#include "usb/usbip_server.h"

#include <string>
#include <vector>

namespace test {

struct UsbipDesk : usb::usbip::Lender {
    std::vector<usb::usbip::DeviceRecord> list() override { return {record()}; }
    usb::usbip::OperationStatus lend(const std::string& busId, usb::usbip::DeviceRecord& device) override {
        device = record();
        return busId == "1-1" ? usb::usbip::OperationStatus::ok : usb::usbip::OperationStatus::noDevice;
    }
    void submit(usb::Transfer* transfer) override { held.push_back(transfer); }
    void cancel(usb::Transfer* transfer) override { cancelled.push_back(transfer); }
    static usb::usbip::DeviceRecord record() {
        usb::usbip::DeviceRecord device;
        device.busId = "1-1";
        device.busNumber = 1;
        device.deviceNumber = 2;
        device.interfaceCount = 2;
        device.interfaces = {{2, 2, 1}, {10, 0, 0}};
        return device;
    }
    // What an IN transfer carries is in its memory by now.
    void end(usb::Transfer* transfer, usb::TransferStatus status, std::uint32_t actual) {
        std::erase(held, transfer);
        std::erase(cancelled, transfer);
        transfer->status = status;
        transfer->actual = actual;
        server.ended(transfer);
    }
    void endAll() {
        while (!held.empty()) end(held.front(), usb::TransferStatus::gone, 0);
    }

    std::vector<usb::Transfer*> held, cancelled;
    usb::usbip::Server server{*this, nullptr, nullptr};
};

}  // namespace test
