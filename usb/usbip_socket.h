// A USB/IP connection over TCP, of one thread; send() and wake() from others, too.
#pragma once

#include "usb/usbip_backend.h"

namespace usb {

class UsbipSocket final : public UsbipLink {
public:
    UsbipSocket(std::string host, std::uint16_t port);
    ~UsbipSocket() override;

    bool open(std::uint32_t timeoutMs, std::string& why) override;
    void close() override;
    std::ptrdiff_t send(std::span<const std::uint8_t> bytes) override;
    std::ptrdiff_t receive(std::span<std::uint8_t> room) override;
    void wait(bool forRoom, std::int64_t timeoutMs) override;
    void wake() override;

private:
    struct Io;
    const std::string host_;
    const std::uint16_t port_;
    const std::unique_ptr<Io> io_;
};

// What a server exports. Blocks; throws std::runtime_error with a sentence when it cannot be reached or lies.
std::vector<usbip::DeviceRecord> listUsbip(const std::string& host, std::uint16_t port);

}  // namespace usb
