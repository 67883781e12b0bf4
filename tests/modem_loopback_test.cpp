// The loop plug's wiring, and what every device does: its lines, who holds them, what the host is told, and no byte lost.
#include "tests/modem_host.h"

#include <random>

namespace {

using modem::LineName;
using test::ModemHost;
using test::PlugHost;

TEST(Loopback, LinesAreTiedToEachOther) {
    PlugHost host;
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
        EXPECT_EQ(host.told(), step.told) << int(step.request) << " " << step.value;
    }
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
        PlugHost host;
        host.lines(test.lines.front());
        host.write("sent");
        for (std::size_t i = 1; i < test.lines.size(); ++i)
            host.lines(test.lines[i]);
        EXPECT_EQ(host.read(), test.found);
    }
}

// Transfers of any size, taken in part or refused, against a reader that is often slow; escapes and silences among them.
template <class Device>
void losesNothing(test::DeviceHost<Device>& host, unsigned seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::string data(2'000'000, '\0');
    for (char& c : data)
        c = random() % 4 == 0 ? '+' : static_cast<char>(random());
    std::string back;
    std::size_t sent = 0, end = 0, refused = 0;
    while (back.size() < data.size()) {
        // A transfer: its rest is offered again until it is taken, as the bus does.
        if (sent == end)
            end = std::min(data.size(), sent + 1 + random() % (random() % 4 == 0 ? 128'000 : 500));
        const std::int32_t taken = host.write(std::string_view(data).substr(sent, end - sent));
        refused += taken == usb::dataNak;
        if (sent != end && taken > 0) {
            ASSERT_TRUE(sent + static_cast<std::size_t>(taken) == end || taken % 64 == 0);
            sent += static_cast<std::size_t>(taken);
        }
        if (random() % 3 == 0)
            back += host.transfer(random() % 2 == 0 ? 64 : 1 + random() % 100'000).value_or("");
        if (random() % 16 == 0)
            host.pass(random() % 900);
    }
    EXPECT_TRUE(back == data);
    EXPECT_GT(refused, 0u);
}

TEST(DeviceBytes, AreNotLostUnderBackPressure) {
    for (const unsigned seed : {1u, 2u, 3u}) {
        PlugHost plug;
        losesNothing(plug, seed);
        ModemHost modem;
        modem.call("100");
        losesNothing(modem, seed);
    }
}

// A reset of the bus loses no byte, and the host is told anew; who is unplugged has no memory of it.
template <class Device>
void resetAndUnplug(test::DeviceHost<Device>& host, const std::string& told) {
    host.write("before ");
    host.device.busReset();
    EXPECT_EQ(host.transfer(1), std::nullopt);
    EXPECT_EQ(host.write("x"), usb::dataStall);
    host.device.configured(1);
    EXPECT_EQ(host.told(), told);
    host.write("after");
    EXPECT_EQ(host.read(), "before after");
    host.write("lost");
    host.device.powerCycle();
    host.device.configured(1);
    EXPECT_EQ(host.read(), "");
}

TEST(DeviceBytes, SurviveAResetAndNotAnUnplugging) {
    PlugHost plug;
    plug.lines(3);
    plug.device.setLine(LineName::ring, true);
    resetAndUnplug(plug, "cts1 00b");
    ModemHost modem;
    modem.call("100");
    modem.device.setHold(true);
    resetAndUnplug(modem, "cts1 103");
}

// The same five lines, held from outside and let go, on both devices.
template <class Device>
void holdAndLetGo(const char* idle, std::vector<std::pair<LineName, std::string>> up) {
    test::DeviceHost<Device> host;
    host.told();
    for (const auto& [line, told] : up) {
        const bool followed = host.device.line(line);
        host.device.setLine(line, !followed);
        EXPECT_EQ(host.told(), told);
        EXPECT_EQ(host.device.line(line), !followed);
        host.device.setLine(line, !followed);
        EXPECT_EQ(host.told(), "") << "no change, nothing to tell";
        host.device.setLine(line, std::nullopt);
        EXPECT_EQ(host.told(), line == LineName::clearToSend ? (followed ? "cts1" : "cts0") : idle);
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
        {"AT&C0", "OK", "003"},
        {"AT&C1", "OK", "002"},
        {"AT&S1", "OK", "000"},
        {"AT&S0", "OK", "002"},
    };
    ModemHost host;
    host.told();
    for (const auto& step : steps) {
        host.write(std::string(step.command) + "\r");
        EXPECT_EQ(host.told(), step.told) << step.command;
        EXPECT_NE(host.read().find(step.answer), std::string::npos) << step.command;
    }
}

// A call rings, 2 s on and 4 s off, until somebody answers or the caller gives up.
TEST(DeviceLines, BellRingsUntilAnsweredOrGivenUp) {
    struct {
        unsigned rings;
        const char* act;  // 13 s later
        const char* log;  // what is told by the second, and how often it rang
    } const cases[] = {
        {2, "", "0:00a 2:002 6:00a 8:002 rang 2"},
        {99, "", "0:00a 2:002 6:00a 8:002 12:00a 14:002 18:00a 20:002 24:00a 26:002 30:00a 32:002 36:00a 38:002 rang 7"},
        {99, "ATA\r", "0:00a 2:002 6:00a 8:002 12:00a 13:002 14:003 rang 3"},
        {99, nullptr, "0:00a 2:002 6:00a 8:002 12:00a 13:002 rang 3"},
    };
    for (const auto& c : cases) {
        ModemHost host;
        host.write("ATE0\r");
        host.told();
        host.device.ringIn(c.rings);
        std::string log, said;
        for (; host.nowMs <= 40'000; host.nowMs += 1000) {
            if (host.nowMs == 13'000 && c.act == nullptr)
                host.device.dropCarrier();
            if (host.nowMs == 13'000 && c.act != nullptr)
                host.write(c.act);
            const std::string told = host.told();
            log += told.empty() ? "" : std::to_string(host.nowMs / 1000) + ":" + told + " ";
            said += host.read();
        }
        std::size_t rang = 0;
        for (std::size_t at = 0; (at = said.find("\r\nRING\r\n", at)) != std::string::npos; ++at)
            ++rang;
        EXPECT_EQ(log + "rang " + std::to_string(rang), c.log);
        host.write("ATA\r");
        EXPECT_EQ(host.read().find("NO CARRIER") != std::string::npos, c.rings == 2 || c.act == nullptr);
    }
}

// The host is told to stop when the queue fills and to go on well before it is empty; no byte depends on its obeying.
TEST(DeviceLines, FlowOffWithTheQueue) {
    ModemHost host;
    host.call("100");
    std::size_t sent = 0, sentBefore = 0;  // it is told
    std::string told;
    for (std::int32_t taken; (taken = host.write(std::string(1024, 'x'))) > 0; told += host.told()) {
        sent += static_cast<std::size_t>(taken);
        sentBefore = told.empty() ? sent : sentBefore;
    }
    EXPECT_EQ(told, "103");
    EXPECT_GT(sentBefore, modem::Line::echoBytes + modem::Modem::holdAtBytes);
    std::size_t got = 0;
    while (host.device.line(LineName::hold))
        got += host.transfer(1024).value_or("").size();
    EXPECT_EQ(host.told(), "003");
    EXPECT_GE(sent - got, modem::Line::echoBytes);
    EXPECT_EQ(got + host.read().size(), sent);
}

}  // namespace
