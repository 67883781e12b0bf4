// The host's end of a virtual modem without a bus, for tests of the modem alone.
#pragma once

#include "modem/modem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace test {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t modemClassOut = 0x21;

// The host's end: a driver that does as the device says.
struct ModemHost {
    modem::Modem modem;
    std::int64_t nowMs = 0;

    explicit ModemHost(modem::Options options = {}, bool configure = true) : modem(std::move(options)) {
        if (!configure)
            return;
        modem.busReset();
        modem.configured(1);
    }

    usb::ControlReply control(usb::SetupPacket setup, std::span<std::uint8_t> data = {}) {
        setup.length = static_cast<std::uint16_t>(data.size());
        modem.tick(nowMs);
        return modem.control(setup, data);
    }
    bool lines(std::uint16_t value) { return control({modemClassOut, 0x22, value, 0, 0}).kind == usb::ControlReply::Kind::ack; }

    std::int32_t write(std::string_view text) {
        modem.tick(nowMs);
        return modem.dataOut(modem::Modem::endpointOut, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()},
                             true);
    }

    // Everything there is, in transfers of `space` bytes.
    std::string read(std::size_t space = 4096) {
        std::string all;
        Bytes block(space);
        for (;;) {
            modem.tick(nowMs);
            const std::int32_t count = modem.dataIn(modem::Modem::endpointIn, block);
            if (count < 0)
                return all;
            all.append(reinterpret_cast<const char*>(block.data()), static_cast<std::size_t>(count));
        }
    }

    Bytes notification(std::size_t space = 16) {
        Bytes bytes(space);
        const std::int32_t count = modem.dataIn(modem::Modem::endpointNotify, bytes);
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }
    // The states reported since the last look; the other kinds of notification are skipped.
    std::vector<int> states() {
        std::vector<int> found;
        for (Bytes bytes = notification(); !bytes.empty(); bytes = notification()) {
            if (bytes[1] == 0x20)
                found.push_back(bytes[8] | bytes[9] << 8);
        }
        return found;
    }

    void pass(std::int64_t ms) {
        modem.tick(nowMs);
        for (const std::int64_t endMs = nowMs + ms; nowMs < endMs;) {
            nowMs = std::min(modem.nextDeadlineMs().value_or(endMs), endMs);
            modem.tick(nowMs);
        }
    }

    void call(std::string_view number) {
        write("ATE0\r");
        write("ATD" + std::string(number) + "\r");
        pass(300);
        ASSERT_TRUE(read().ends_with("\r\nCONNECT 115200\r\n"));
        states();
    }
};

}  // namespace test
