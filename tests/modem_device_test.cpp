// The modem as a USB device: requests, notifications byte for byte, and the data path under back-pressure.
#include "tests/modem_host.h"

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
    std::size_t at = 0;
    Bytes types, endpoints;
    for (; at < configuration.size(); at += configuration[at]) {
        types.push_back(configuration[at + 1]);
        if (types.back() == 5)
            endpoints.push_back(configuration[at + 2]);
        ASSERT_NE(configuration[at], 0);
    }
    EXPECT_EQ(at, configuration.size());
    EXPECT_EQ(configuration[2] | configuration[3] << 8, static_cast<int>(at));
    EXPECT_EQ(types, (Bytes{2, 4, 0x24, 0x24, 0x24, 0x24, 5, 4, 5, 5}));
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
    EXPECT_EQ(host.device.lineCoding(), (modem::LineCoding{9600, 2, 3, 7}));
    Bytes back(64);
    EXPECT_EQ(host.control({classIn, 0x21, 0, 0, 0}, back).length, 7u);
    back.resize(7);
    EXPECT_EQ(back, coding);
    EXPECT_EQ(host.ask("ATE0D100\r", 300), "ATE0D100\r\r\nCONNECT 9600\r\n");
}

TEST(ModemRequests, EscapedCharacters) {
    modem::Options options;
    options.escapedCharacters.assign(300, 0x11);
    Bytes data(300);
    EXPECT_EQ(Host(options).control({vendorIn, 0x60, 0, 0, 0}, data).length, 256u) << "as many as there are bytes";
    data.resize(256);
    EXPECT_EQ(data, Bytes(256, 0x11));
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
    EXPECT_EQ(host.told(), "003");
    host.request(0x23, 0xFFFF);
    host.request(0x23, 0);
    EXPECT_EQ(host.told(), "007") << "the echo sends the break back, once";
    host.device.reportErrors(modem::stateParityError | modem::stateRing);
    EXPECT_EQ(host.told(), "023") << "the bell is no error";
}

TEST(ModemNotifications, AHostThatDoesNotLookFindsTheNewestStateAndEveryError) {
    Host host;
    for (int i = 0; i < 100; ++i) {
        host.device.reportErrors(i == 90 ? modem::stateOverrun : modem::stateBreak);
        host.device.setHold(i % 2 == 0);
        host.pass(1);
    }
    host.device.setHold(true);
    host.pass(1);
    const std::string told = host.told();
    EXPECT_EQ(told.size(), std::string("cts1 ").size() + 16 * 4 - 1) << told;
    EXPECT_TRUE(told.ends_with(" 146")) << told;
}

TEST(ModemLines, ACallThatEndsLeavesNothingForTheNext) {
    for (const bool byHost : {true, false}) {
        Host host;
        host.lines(3);
        host.call("100");
        // More than the far end takes, so that the rest waits in the modem.
        std::string sent;
        const std::string block(4096, 'A');
        for (std::int32_t count; (count = host.write(block)) > 0;)
            sent += block.substr(0, static_cast<std::size_t>(count));
        EXPECT_GE(sent.size(), 128u * 1024);
        EXPECT_EQ(host.told(), "103");
        if (byHost) {
            host.lines(2);
        } else {
            host.device.dropCarrier();
        }
        EXPECT_EQ(host.told(), "002");
        EXPECT_EQ(host.read(), byHost ? "" : sent.substr(0, modem::Line::echoBytes) + "\r\nNO CARRIER\r\n");
        host.lines(3);
        EXPECT_EQ(host.ask("AT\r"), "\r\nOK\r\n") << "nothing of the call became a command";
    }
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
            EXPECT_EQ(host.device.dataIn(Modem::endpointIn, block), answer) << c.bytes << " in " << c.space;
        }
    }
}

TEST(ModemData, AsksToBeWokenOnlyForSomethingNew) {
    using Step = void (*)(Host&);
    const Step nothing = [](Host&) {};
    const Step ring = [](Host& host) {
        host.device.ringIn();
        host.device.tick(host.nowMs);
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
        host.told();
        item.before(host);
        host.device.suspended(true);
        item.asleep(host);
        EXPECT_EQ(host.device.wantsRemoteWake(), item.wakes);
        host.device.suspended(false);
        EXPECT_EQ(host.device.wantsRemoteWake(), item.listens && item.wakes) << "awake, the host looks for itself";
    }
}

}  // namespace
