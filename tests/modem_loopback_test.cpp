// The loop plug's wiring, and the lines of every device: who holds them, and what the host is told.
#include "modem/loopback.h"
#include "modem/modem.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

namespace {

using modem::LineName;
using Bytes = std::vector<std::uint8_t>;

template <class Device>
struct Host {
    Device device;
    std::int64_t nowMs = 0;

    Host() {
        device.busReset();
        device.configured(1);
        lines();
    }
    void request(std::uint8_t request, std::uint16_t value) {
        device.tick(nowMs);
        EXPECT_EQ(device.control({0x21, request, value, 0, 0}, {}).kind, usb::ControlReply::Kind::ack);
    }
    std::int32_t write(std::string_view text) {
        device.tick(nowMs);
        return device.dataOut(0x02, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, true);
    }
    std::string read(std::size_t space = 4096) {
        Bytes block(space);
        device.tick(nowMs);
        const std::int32_t count = device.dataIn(0x81, block);
        return {block.begin(), block.begin() + std::max(count, 0)};
    }
    // All that was told since the last look: states as they are, clear to send as "cts0" and "cts1".
    std::string lines() {
        std::string told;
        device.tick(nowMs);
        for (;;) {
            Bytes bytes(16);
            if (device.dataIn(0x83, bytes) < 0)
                return told;
            if (!told.empty())
                told += " ";
            char text[16];
            std::snprintf(text, sizeof text, bytes[1] == 0x20 ? "%03x" : "cts%d",
                          bytes[1] == 0x20 ? bytes[8] | bytes[9] << 8 : bytes[2]);
            told += text;
        }
    }
};

TEST(Loopback, LinesAreTiedToEachOther) {
    Host<modem::Loopback> host;
    struct {
        std::uint8_t request;
        std::uint16_t value;
        const char* told;
    } const steps[] = {
        {0x22, 1, "003"},       {0x22, 3, "cts1"}, {0x22, 3, ""},       {0x22, 2, "000"},  {0x22, 0, "cts0"},
        {0x22, 3, "cts1 003"},  {0x23, 0xFFFF, "007"}, {0x23, 0, ""},   {0x23, 200, "007"}, {0x22, 0, "cts0 000"},
    };
    for (const auto& step : steps) {
        host.request(step.request, step.value);
        EXPECT_EQ(host.lines(), step.told) << int(step.request) << " " << step.value;
    }
}

// The plug has no memory of the one before, and a bus reset does not lose a byte.
TEST(Loopback, BytesSurviveAResetAndNotAnUnplugging) {
    Host<modem::Loopback> host;
    host.request(0x22, 3);
    host.device.setLine(LineName::ring, true);
    host.write("kept");
    host.device.busReset();
    EXPECT_EQ(host.write("x"), usb::dataStall);
    host.device.configured(1);
    EXPECT_EQ(host.lines(), "cts1 00b") << "told anew";
    EXPECT_EQ(host.read(), "kept");
    host.write("lost");
    host.device.powerCycle();
    host.device.configured(1);
    EXPECT_EQ(host.lines(), "");
    EXPECT_EQ(host.read(), "");
}

// Whoever opens the port next does not find the bytes of the last one; lines moved one at a time, or left down, lose nothing.
TEST(Loopback, BytesNobodyListensForAreLost) {
    struct {
        std::vector<std::uint16_t> lines;  // before and after the bytes
        const char* found;
    } const cases[] = {
        {{3, 0, 3}, ""}, {{3, 2, 0, 3}, ""}, {{3, 2, 3}, "sent"}, {{3, 1, 2, 3}, "sent"}, {{0, 0, 3}, "sent"}, {{3, 3}, "sent"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.lines));
        Host<modem::Loopback> host;
        host.request(0x22, test.lines.front());
        host.write("sent");
        for (std::size_t i = 1; i < test.lines.size(); ++i)
            host.request(0x22, test.lines[i]);
        EXPECT_EQ(host.read(), test.found);
    }
}

class LoopbackBytes : public testing::TestWithParam<unsigned> {};

TEST_P(LoopbackBytes, ComeBackInOrderUnderBackPressure) {
    std::mt19937 random(GetParam());
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    Host<modem::Loopback> host;
    std::string data(1'000'000, '\0');
    for (char& c : data)
        c = static_cast<char>(random());
    std::string back;
    std::size_t sent = 0, end = 0, refused = 0;
    while (back.size() < data.size()) {
        if (sent == end)
            end = std::min(data.size(), sent + 1 + random() % (random() % 4 == 0 ? 100'000 : 500));
        const std::int32_t taken = host.write(std::string_view(data).substr(sent, end - sent));
        refused += taken == usb::dataNak;
        if (sent != end && taken > 0) {
            ASSERT_TRUE(sent + static_cast<std::size_t>(taken) == end || taken % 64 == 0);
            sent += static_cast<std::size_t>(taken);
        }
        if (random() % 3 == 0)
            back += host.read(random() % 2 == 0 ? 64 : 64 * (1 + random() % 1000));
    }
    EXPECT_TRUE(back == data);
    EXPECT_GT(refused, 0u);
}
INSTANTIATE_TEST_SUITE_P(Seeds, LoopbackBytes, testing::Values(1u, 2u, 3u));

// The same five lines, held from outside and let go, on both devices.
template <class Device>
void holdAndLetGo(const char* idle, std::vector<std::pair<LineName, std::string>> up) {
    Host<Device> host;
    for (const auto& [line, told] : up) {
        const bool followed = host.device.line(line);
        host.device.setLine(line, !followed);
        EXPECT_EQ(host.lines(), told);
        EXPECT_EQ(host.device.line(line), !followed);
        host.device.setLine(line, !followed);
        EXPECT_EQ(host.lines(), "") << "no change, nothing to tell";
        host.device.setLine(line, std::nullopt);
        EXPECT_EQ(host.lines(), line == LineName::clearToSend ? (followed ? "cts1" : "cts0") : idle);
    }
}

TEST(DeviceLines, AreHeldAndFollowAgain) {
    holdAndLetGo<modem::Modem>("002", {{LineName::carrier, "003"},
                                       {LineName::ready, "000"},
                                       {LineName::ring, "00a"},
                                       {LineName::clearToSend, "cts0"},
                                       {LineName::hold, "102"}});
    holdAndLetGo<modem::Loopback>("000", {{LineName::carrier, "001"},
                                          {LineName::ready, "002"},
                                          {LineName::ring, "008"},
                                          {LineName::clearToSend, "cts1"},
                                          {LineName::hold, "100"}});
}

// What is typed reaches the lines in the same round, before its OK can be read.
TEST(DeviceLines, ObeyCommands) {
    struct {
        const char* command;
        const char* answer;
        const char* told;
    } const steps[] = {
        {"AT+LINE=DCD,1", "OK", "003"},
        {"AT+LINE=DSR,0;+LINE=RI,1", "OK", "001 009"},
        {"AT+LINE?", "+LINE: DCD,1,held", ""},
        {"AT+LINE?", "+LINE: CTS,1\r", ""},
        {"AT+LINE=DCD;+LINE=DSR;+LINE=RI", "OK", "008 00a 002"},
        {"AT+LINE=CTS,0", "OK", "cts0"},
        {"AT+LINE=CTS", "OK", "cts1"},
        {"AT+LINE=HOLD,1", "OK", "102"},
        {"AT+LINE=HOLD,0", "OK", "002"},
        {"AT+ERROR=BREAK;+ERROR=PARITY", "OK", "006 022"},
        {"AT+ERROR=FRAMING;+ERROR=OVERRUN", "OK", "012 042"},
        {"AT+ERROR=?", "FRAMING", ""},
        {"AT+LINE=DCD,2", "ERROR", ""},
        {"AT+LINE=DTR,1", "ERROR", ""},
        {"AT+LINE=", "ERROR", ""},
        {"AT+LINE", "ERROR", ""},
        {"AT+ERROR=RING", "ERROR", ""},
        {"AT+RING=x", "ERROR", ""},
        {"AT+RING=0", "ERROR", ""},
        {"AT&S1", "OK", "000"},
        {"AT&S0", "OK", "002"},
    };
    Host<modem::Modem> host;
    for (const auto& step : steps) {
        host.write(std::string(step.command) + "\r");
        EXPECT_EQ(host.lines(), step.told) << step.command;
        EXPECT_NE(host.read().find(step.answer), std::string::npos) << step.command;
    }
}

// A call from outside or by command rings every 6 s until somebody answers, or the caller gives up.
TEST(DeviceLines, BellRingsUntilAnsweredOrGivenUp) {
    for (const bool answered : {true, false}) {
        Host<modem::Modem> host;
        host.write("ATE0+RING\r");
        EXPECT_TRUE(host.read().ends_with("\r\nOK\r\n\r\nRING\r\n"));
        std::string rings;
        for (; host.nowMs <= 60'000; host.nowMs += 1000)
            rings += host.read();
        EXPECT_EQ(rings.size(), std::string("\r\nRING\r\n").size() * (60 / 6)) << rings;
        EXPECT_TRUE(host.lines().ends_with("00a"));
        if (answered) {
            host.write("ATA\r");
            host.nowMs += 300;
            EXPECT_EQ(host.lines(), "002 003");
        } else {
            host.device.dropCarrier();
            EXPECT_EQ(host.lines(), "002");
            host.nowMs += 30'000;
            EXPECT_EQ(host.read(), "");
            EXPECT_TRUE(host.lines().empty());
            host.write("ATA\r");
            EXPECT_EQ(host.read(), "\r\nNO CARRIER\r\n");
        }
    }
}

// The host is told to stop when the queue fills and to go on well before it is empty; no byte depends on its obeying.
TEST(DeviceLines, FlowOffWithTheQueue) {
    Host<modem::Modem> host;
    host.write("ATE0D100\r");
    host.nowMs += 300;
    host.read();
    host.lines();
    std::size_t sent = 0;
    std::string told;
    for (std::int32_t taken; (taken = host.write(std::string(1024, 'x'))) > 0;) {
        const std::string now = host.lines();
        if (!now.empty() && told.empty()) {
            EXPECT_GT(sent + static_cast<std::size_t>(taken), modem::Line::echoBytes + modem::Modem::holdAtBytes);
        }
        told += now;
        sent += static_cast<std::size_t>(taken);
    }
    EXPECT_EQ(told, "103");
    std::size_t got = 0;
    while (host.device.line(LineName::hold))
        got += host.read(1024).size();
    EXPECT_EQ(host.lines(), "003");
    EXPECT_GE(sent - got, modem::Line::echoBytes);
    for (std::string block; !(block = host.read()).empty();)
        got += block.size();
    EXPECT_EQ(got, sent);
}

}  // namespace
