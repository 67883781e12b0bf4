// The modem as a USB device: requests, notifications byte for byte, and the data path under back-pressure.
#include "tests/modem_host.h"

#include <random>
#include <string>
#include <string_view>

namespace {

using test::Bytes;
using Host = test::ModemHost;
using modem::Modem;
using usb::ControlReply;

constexpr std::uint8_t classOut = 0x21, classIn = 0xA1, vendorOut = 0x41, vendorIn = 0xC1;

TEST(ModemDescriptors, DescribeThemselves) {
    modem::Options options;
    options.vendorId = 0xABCD;
    options.productId = 0x1234;
    options.identity.serialNumber = "77";
    const Modem modem(options);
    const auto device = modem.deviceDescriptor();
    EXPECT_EQ(Bytes(device.begin(), device.end()),
              (Bytes{18, 1, 0, 2, 2, 0, 0, 64, 0xCD, 0xAB, 0x34, 0x12, 0, 1, 1, 2, 3, 1}));
    const auto configuration = modem.configurationDescriptor(0);
    // The chain of descriptors ends exactly where the total length says, and holds what a host looks for.
    std::size_t at = 0, interfaces = 0, functional = 0;
    Bytes endpoints;
    while (at < configuration.size()) {
        const std::uint8_t type = configuration[at + 1];
        interfaces += type == 4;
        functional += type == 0x24;
        if (type == 5)
            endpoints.push_back(configuration[at + 2]);
        ASSERT_NE(configuration[at], 0);
        at += configuration[at];
    }
    EXPECT_EQ(at, configuration.size());
    EXPECT_EQ(configuration[2] | configuration[3] << 8, static_cast<int>(at));
    EXPECT_EQ(interfaces, configuration[4]);
    EXPECT_EQ(functional, 4u);
    EXPECT_EQ(endpoints, (Bytes{Modem::endpointNotify, Modem::endpointOut, Modem::endpointIn}));
    EXPECT_TRUE(modem.configurationDescriptor(1).empty());
    EXPECT_EQ(modem.stringDescriptor(3), u"77");
    EXPECT_FALSE(modem.stringDescriptor(4));
}

TEST(ModemRequests, Answers) {
    struct {
        const char* name;
        usb::SetupPacket setup;
        std::size_t length;
        bool accepted;
    } const cases[] = {
        {"line coding", {classOut, 0x20, 0, 0, 0}, 7, true},
        {"line coding, short", {classOut, 0x20, 0, 0, 0}, 6, false},
        {"line coding, read", {classIn, 0x21, 0, 0, 0}, 7, true},
        {"line coding, read in part", {classIn, 0x21, 0, 0, 0}, 3, true},
        {"control lines", {classOut, 0x22, 3, 0, 0}, 0, true},
        {"control lines with data", {classOut, 0x22, 3, 0, 0}, 1, false},
        {"control lines of another interface", {classOut, 0x22, 3, 1, 0}, 0, false},
        {"control lines of the device", {0x20, 0x22, 3, 0, 0}, 0, false},
        {"break", {classOut, 0x23, 0xFFFF, 0, 0}, 0, true},
        {"unknown class request", {classOut, 0x24, 0, 0, 0}, 0, false},
        {"escaped characters", {vendorIn, 0x60, 0, 0, 0}, 256, true},
        {"escaped characters, wrong way", {vendorOut, 0x60, 0, 0, 0}, 0, false},
        {"start framing", {vendorOut, 0x61, 0, 0, 0}, 0, false},
        {"stop framing", {vendorOut, 0x62, 0, 0, 0}, 0, true},
        {"unknown vendor request", {vendorOut, 0x63, 0, 0, 0}, 0, false},
        {"standard request", {0x01, 0x0B, 0, 0, 0}, 0, false},
    };
    Host host;
    for (const auto& c : cases) {
        Bytes data(c.length);
        EXPECT_EQ(host.control(c.setup, data).kind == ControlReply::Kind::ack, c.accepted) << c.name;
    }
}

TEST(ModemRequests, LineCodingRoundTripAndConnectRate) {
    Host host;
    Bytes coding{0x80, 0x25, 0, 0, 2, 3, 7};
    host.control({classOut, 0x20, 0, 0, 0}, coding);
    EXPECT_EQ(host.modem.lineCoding(), (modem::LineCoding{9600, 2, 3, 7}));
    Bytes back(64);
    EXPECT_EQ(host.control({classIn, 0x21, 0, 0, 0}, back).length, 7u);
    back.resize(7);
    EXPECT_EQ(back, coding);
    host.write("ATE0D100\r");
    host.pass(300);
    EXPECT_EQ(host.read(), "ATE0D100\r\r\nCONNECT 9600\r\n");
}

TEST(ModemRequests, EscapedCharacters) {
    for (const std::size_t count : {0, 1, 256, 300}) {
        modem::Options options;
        options.escapedCharacters.clear();
        for (std::size_t i = 0; i < count; ++i)
            options.escapedCharacters.push_back(static_cast<std::uint8_t>(i));
        Host host(options);
        Bytes data(256, 0xEE);
        EXPECT_EQ(host.control({vendorIn, 0x60, 0, 0, 0}, data).length, std::min<std::size_t>(count, 256));
        const Bytes expected(
            options.escapedCharacters.begin(),
            options.escapedCharacters.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(count, 256)));
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), data.begin()));
    }
}

TEST(ModemNotifications, ByteForByte) {
    Host host;
    const Bytes connected{0xA1, 0x00, 1, 0, 0, 0, 0, 0};
    const Bytes ready{0xA1, 0x20, 0, 0, 0, 0, 2, 0, 0x02, 0x00};
    EXPECT_EQ(host.notification(), connected);
    EXPECT_EQ(host.notification(9), Bytes{}) << "no room: it stays";
    EXPECT_EQ(host.notification(10), ready);
    EXPECT_EQ(host.notification(), Bytes{});

    host.write("ATE0D100*2\r");
    host.pass(300);
    EXPECT_EQ(host.states(), std::vector<int>{0x03});
    EXPECT_TRUE(host.control({classOut, 0x23, 0xFFFF, 0, 0}).kind == ControlReply::Kind::ack);
    host.control({classOut, 0x23, 0, 0, 0});
    EXPECT_EQ(host.states(), std::vector<int>{0x07}) << "the echo sends the break back, once";
    host.modem.reportErrors(modem::stateParityError | modem::stateRing);
    host.modem.setHold(true);
    host.modem.setClearToSend(false);
    host.pass(1);
    EXPECT_EQ(host.notification(), (Bytes{0xA1, 0x00, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(host.states(), (std::vector<int>{0x23, 0x103}));
    host.pass(2000);
    EXPECT_EQ(host.states(), std::vector<int>{0x102});

    host.modem.busReset();
    host.modem.configured(1);
    EXPECT_EQ(host.states(), std::vector<int>{0x102}) << "after a reset the host is told anew";
}

TEST(ModemNotifications, BellRingsInTheState) {
    Host host;
    host.states();
    host.modem.ringIn(2);
    host.pass(20'000);
    EXPECT_EQ(host.states(), (std::vector<int>{0x0A, 0x02, 0x0A, 0x02}));
    EXPECT_EQ(host.read(), "\r\nRING\r\n\r\nRING\r\n");
}

TEST(ModemNotifications, AHostThatDoesNotLookFindsTheNewestStateAndEveryError) {
    Host host;
    for (int i = 0; i < 100; ++i) {
        host.modem.reportErrors(i == 90 ? modem::stateOverrun : modem::stateBreak);
        host.modem.setHold(i % 2 == 0);
        host.pass(1);
    }
    host.modem.setHold(true);
    host.pass(1);
    const auto states = host.states();
    ASSERT_EQ(states.size(), 16u);
    EXPECT_EQ(states.back(), 0x102 | modem::stateBreak | modem::stateOverrun);
}

TEST(ModemNotifications, CarrierAlwaysOnWhenAskedFor) {
    Host host;
    host.states();
    host.write("AT&C0\r");
    EXPECT_EQ(host.states(), std::vector<int>{0x03});
    host.write("AT&C1\r");
    EXPECT_EQ(host.states(), std::vector<int>{0x02});
}

TEST(ModemLines, DtrDropEndsTheCallAndLeavesNothingBehind) {
    Host host;
    ASSERT_TRUE(host.lines(3));
    host.call("100");
    // More than the far end takes, so that the rest waits in the modem.
    std::int32_t taken = 0;
    for (std::int32_t count; (count = host.write(std::string(4096, 'A'))) > 0;)
        taken += count;
    EXPECT_GE(taken, 128 * 1024);
    EXPECT_EQ(host.states(), std::vector<int>{0x103});
    ASSERT_TRUE(host.lines(2));
    EXPECT_EQ(host.states(), std::vector<int>{0x02});
    EXPECT_EQ(host.read(), "");
    ASSERT_TRUE(host.lines(3));
    host.write("AT\r");
    EXPECT_EQ(host.read(), "\r\nOK\r\n") << "nothing of the call became a command";
}

TEST(ModemLines, LostCarrierDropsOnlyWhatTheFarEndHadNotTaken) {
    Host host;
    host.call("100");
    std::string sent;
    const std::string block(4096, 'T');
    for (std::int32_t count; (count = host.write(block)) > 0;)
        sent += block.substr(0, static_cast<std::size_t>(count));
    host.modem.dropCarrier();
    host.pass(1);
    const std::string got = host.read();
    EXPECT_EQ(got, sent.substr(0, modem::Line::echoBytes) + "\r\nNO CARRIER\r\n");
    host.write("AT\r");
    EXPECT_EQ(host.read(), "\r\nOK\r\n");
}

TEST(ModemData, ShortPacketsEndTransfers) {
    struct {
        std::size_t bytes;
        std::size_t space;
        std::vector<std::int32_t> answers;
    } const cases[] = {
        {64, 64, {64, usb::dataNak}},    {64, 128, {64, 0, usb::dataNak}},   {63, 64, {63, usb::dataNak}},
        {128, 128, {128, usb::dataNak}}, {130, 128, {128, 2, usb::dataNak}},
    };
    for (const auto& c : cases) {
        Host host;
        host.call("100");
        host.write(std::string(c.bytes, 'x'));
        for (const std::int32_t answer : c.answers) {
            Bytes block(c.space);
            EXPECT_EQ(host.modem.dataIn(Modem::endpointIn, block), answer) << c.bytes << " in " << c.space;
        }
    }
}

TEST(ModemData, CallAndBytesSurviveABusReset) {
    Host host;
    host.call("100");
    host.write("before ");
    host.modem.busReset();
    std::uint8_t byte = 0;
    EXPECT_EQ(host.modem.dataIn(Modem::endpointIn, {&byte, 1}), usb::dataStall);
    EXPECT_EQ(host.write("x"), usb::dataStall);
    host.modem.configured(1);
    host.write("after");
    EXPECT_EQ(host.read(), "before after");
    host.modem.powerCycle();
    host.modem.configured(1);
    host.write("AT\r");
    EXPECT_EQ(host.read(), "AT\r\r\nOK\r\n");
}

TEST(ModemData, AsksToBeWokenOnlyForSomethingNew) {
    using Step = void (*)(Host&);
    const Step nothing = [](Host&) {};
    const Step ring = [](Host& host) {
        host.modem.ringIn();
        host.modem.tick(host.nowMs);
    };
    const Step unread = [](Host& host) { host.write("AT\r"); };
    const struct {
        const char* name;
        bool listens;
        Step before, asleep;
        bool wakes;
    } table[] = {
        {"nothing", true, nothing, nothing, false},
        {"a call", true, nothing, ring, true},
        {"a call, port closed", false, nothing, ring, true},
        {"unread answer", true, unread, nothing, true},
        {"unread answer, port closed", false, unread, nothing, false},
        {"a call before", true, ring, nothing, true},
        {"a call before, port closed", false, ring, nothing, false},
    };
    for (const auto& item : table) {
        SCOPED_TRACE(item.name);
        Host host;
        EXPECT_TRUE(host.lines(item.listens ? 1 : 0));
        host.states();
        item.before(host);
        host.modem.suspended(true);
        item.asleep(host);
        EXPECT_EQ(host.modem.wantsRemoteWake(), item.wakes);
        host.modem.suspended(false);
        EXPECT_EQ(host.modem.wantsRemoteWake(), item.listens && item.wakes) << "awake, the host looks for itself";
    }
}

// Transfers of any size, taken in part or refused, against a reader that is often slow.
class ModemEcho : public testing::TestWithParam<unsigned> {};

TEST_P(ModemEcho, LosesNothing) {
    const unsigned seed = GetParam();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Host host;
    host.call("100");
    std::string data(3'000'000, '\0');
    for (char& c : data)
        c = static_cast<char>(random());
    std::string echoed;
    std::size_t sent = 0, end = 0;
    while (echoed.size() < data.size()) {
        // A transfer: its rest is offered again until it is taken, as the bus does.
        if (sent == end)
            end = std::min(data.size(), sent + 1 + random() % (random() % 4 == 0 ? 128'000 : 500));
        const std::int32_t taken = host.write(std::string_view(data).substr(sent, end - sent));
        if (sent != end && taken > 0) {
            ASSERT_TRUE(sent + static_cast<std::size_t>(taken) == end || taken % 64 == 0);
            sent += static_cast<std::size_t>(taken);
        }
        if (random() % 3 != 0)
            continue;
        Bytes block(random() % 2 == 0 ? 64 : 1 + random() % 100'000);
        const std::int32_t count = host.modem.dataIn(Modem::endpointIn, block);
        if (count > 0)
            echoed.append(reinterpret_cast<char*>(block.data()), static_cast<std::size_t>(count));
    }
    EXPECT_TRUE(echoed == data);
}
INSTANTIATE_TEST_SUITE_P(Seeds, ModemEcho, testing::Values(1u, 2u, 3u));

}  // namespace
