// The host's end of a virtual modem or loop plug without a bus, for tests of the device alone.
#pragma once

#include "modem/loopback.h"
#include "modem/modem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace test {

using Bytes = std::vector<std::uint8_t>;

inline std::string textOf(std::span<const std::uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

inline std::span<const std::uint8_t> bytesIn(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// The host's end: a driver that does as the device says.
template <class Device>
struct DeviceHost {
    Device device;
    std::int64_t nowMs = 0;

    template <class... Options>
    explicit DeviceHost(Options&&... options) : device(std::forward<Options>(options)...) {
        device.busReset();
        device.configured(1);
    }

    usb::ControlReply control(usb::SetupPacket setup, std::span<std::uint8_t> data = {}) {
        setup.length = static_cast<std::uint16_t>(data.size());
        device.tick(nowMs);
        return device.control(setup, data);
    }
    bool request(std::uint8_t request, std::uint16_t value) {
        return control({0x21, request, value, 0, 0}).kind == usb::ControlReply::Kind::ack;
    }
    bool lines(std::uint16_t value) { return request(0x22, value); }

    std::int32_t write(std::string_view text) {
        device.tick(nowMs);
        return device.dataOut(Device::endpointOut, bytesIn(text), true);
    }

    // One transfer; nothing: the device has none.
    std::optional<std::string> transfer(std::size_t space) {
        Bytes block(space);
        device.tick(nowMs);
        const std::int32_t count = device.dataIn(Device::endpointIn, block);
        if (count < 0)
            return std::nullopt;
        return textOf(std::span(block).first(static_cast<std::size_t>(count)));
    }
    // Everything there is.
    std::string read() {
        std::string all;
        while (const auto block = transfer(4096))
            all += *block;
        return all;
    }

    Bytes notification(std::size_t space = 16) {
        Bytes bytes(space);
        device.tick(nowMs);
        const std::int32_t count = device.dataIn(Device::endpointNotify, bytes);
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }
    // All that was told since the last look: states as they are, clear to send as "cts0" and "cts1".
    std::string told() {
        std::string all;
        for (Bytes bytes = notification(); !bytes.empty(); bytes = notification()) {
            char text[16];
            std::snprintf(text, sizeof text, bytes[1] == 0x20 ? "%03x" : "cts%d",
                          bytes[1] == 0x20 ? bytes[8] | bytes[9] << 8 : bytes[2]);
            all += (all.empty() ? "" : " ") + std::string(text);
        }
        return all;
    }

    void pass(std::int64_t ms) {
        device.tick(nowMs);
        for (const std::int64_t endMs = nowMs + ms; nowMs < endMs;) {
            nowMs = std::min(device.nextDeadlineMs().value_or(endMs), endMs);
            device.tick(nowMs);
        }
    }

    // Types, waits and reads.
    std::string ask(std::string_view text, std::int64_t ms = 0) {
        write(text);
        pass(ms);
        return read();
    }
    void call(std::string_view number) {
        ask("ATE0\r");
        ASSERT_EQ(ask("ATD" + std::string(number) + "\r", 300), "\r\nCONNECT 115200\r\n");
        told();
    }
};

using ModemHost = DeviceHost<modem::Modem>;
using PlugHost = DeviceHost<modem::Loopback>;

}  // namespace test
