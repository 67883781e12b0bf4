#include <gtest/gtest.h>

#include "comport/options.h"

using namespace comport;

TEST(Options, ErrorsNameTheOptionAndTheRemedy) {
    struct Case {
        std::vector<std::string> arguments;
        int exitCode;
        std::vector<std::string> mentions;
    };
    const Case cases[] = {
        {{}, 2, {"subcommand", "--help"}},
        {{"serve", "--trace", "abc"}, 2, {"--trace", "'abc'", "0x3"}},
        {{"serve", "--trace", "0x100000000"}, 2, {"--trace", "32 bits"}},
        {{"serve", "--trace", "-1"}, 2, {"--trace"}},
        {{"serve", "--registry"}, 2, {"--registry"}},
        {{"serve", "--registry", ""}, 2, {"--registry", "give a path"}},
        {{"serve", "--no-such-thing"}, 2, {"--no-such-thing", "--help"}},
        {{"serve", "--rfc2217", "65536"}, 2, {"--rfc2217", "'65536'", "[ADDR:]PORT"}},
        {{"serve", "--rfc2217", "::1:2217"}, 2, {"--rfc2217", "[::1]:2217"}},
        {{"serve", "--tcp", ":22"}, 2, {"--tcp", "':22'"}},
        {{"serve", "--usb", "usbip://host"}, 2, {"--usb", "'usbip://host'", "BUSID"}},
        {{"serve", "--usb", "usbip://host:0/1-1"}, 2, {"--usb"}},
        {{"serve", "--usb", "usbip:///1-1"}, 2, {"--usb"}},
        {{"serve", "--usb", "usbip://host/1-1/2"}, 2, {"--usb"}},
        {{"serve", "--usb", "usbip://host/1-1", "--modem", "loopback"}, 2, {"--usb", "--modem"}},
        {{"list", "--usb", "usbip://host/1-1"}, 2, {"usbip://HOST[:PORT]"}},
        {{"modem"}, 2, {"--usbip"}},
        {{"check", "--registry", "x"}, 2, {"--registry"}},
        {{"serve", "--modem", "phone"}, 2, {"--modem", "phone"}},
        {{"ctl"}, 2, {"order"}},
        {{"list", "COM3"}, 2, {"COM3"}},
        {{"ctl", "--help"}, 0, {"line NAME on|off|auto", "--port", "--control"}},
        {{"serve", "--help"}, 0, {"--registry", "--pty-link", "--trace-file", "--no-verifier", "SIGUSR1"}},
        {{"--help"}, 0, {"serve", "check"}},
        {{"--version"}, 0, {"comport 0.1"}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(::testing::PrintToString(test.arguments));
        ParseResult result = parseOptions(test.arguments);
        EXPECT_FALSE(result.options);
        EXPECT_EQ(result.exitCode, test.exitCode);
        const std::string shown = result.text.c_str();   // what a zero byte cuts off is not seen
        for (const std::string& text : test.mentions) {
            EXPECT_NE(shown.find(text), std::string::npos) << text << " is missing in: " << result.text;
        }
    }
}

TEST(Options, AreTaken) {
    ParseResult full = parseOptions({"serve", "--trace", "0xFFFFFFFF", "--no-verifier", "--rfc2217", "2217", "--tcp", "[::]:0", "--kick"});
    ASSERT_TRUE(full.options && full.options->rfc2217 && full.options->tcp);
    EXPECT_EQ(full.options->traceMask, 0xFFFFFFFFu);
    EXPECT_FALSE(full.options->verifier);
    EXPECT_EQ(full.options->rfc2217->host, "127.0.0.1") << "nobody else unless asked for";
    EXPECT_EQ(full.options->rfc2217->port, 2217);
    EXPECT_EQ(full.options->tcp->host, "::");
    EXPECT_TRUE(full.options->kick);

    ParseResult check = parseOptions({"check", "--trace", "7"});
    ASSERT_TRUE(check.options);
    EXPECT_EQ(check.options->command, Command::check);
    EXPECT_EQ(check.options->registryFile, "") << "a check must not touch a user's registry";
    EXPECT_EQ(check.options->traceMask, 7u);
}

TEST(Options, ManyDevices) {
    const std::string here = "usbip://host/1-1";
    struct Case {
        std::size_t own;  // so many times --usb virtual
        std::vector<std::string> more;
        std::string refusal;  // part of it; "": taken
    };
    const Case cases[] = {
        {100, {}, ""},
        {101, {}, "at most 100"},
        {99, {"--usb", here}, ""},
        {100, {"--usb", here}, "101 devices"},
        {2, {"--usb", here, "--usb", here}, here + " is given twice"},
        {0, {"--usb", here, "--usb", "usbip://host:3240/1-1"}, "given twice"},
        {0, {"--usb", here, "--usb", "usbip://host/1-2"}, ""},
        {2, {"--usb", "modem"}, "'modem'"},
        {2, {"virtual"}, "virtual"},
        {0, {"--usb", "libusb:auto", "--usb", "libusb:auto", "--usb", "libusb:1209:0001", "--usb", "libusb:1209:0001"}, ""},
        {0, {"--usb", "libusb:1209:0001:A", "--usb", "libusb:1209:0001:B"}, ""},
        {0, {"--usb", "libusb:1209:0001:A", "--usb", "libusb:1209:0001:A"}, "libusb:1209:0001:A is given twice"},
        {0, {"--usb", "libusb:1209"}, "not a device"},
        {3, {"--rfc2217", "65533"}, ""},
        {3, {"--rfc2217", "65534"}, "not 3 ports from 65534 on"},
        {3, {"--tcp", "65535"}, "--tcp"},
        {3, {"--rfc2217", "0", "--tcp", "0"}, ""},
        {3, {"--rfc2217", "2217", "--tcp", "2220"}, ""},
        {3, {"--rfc2217", "2217", "--tcp", "2219"}, "overlap"},
        {3, {"--rfc2217", "2219", "--tcp", "2217"}, "overlap"},
        {3, {"--rfc2217", "[::1]:2219", "--tcp", "2217"}, ""},
        {1, {"--rfc2217", "2218", "--tcp", "2217"}, ""},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(std::to_string(test.own) + testing::PrintToString(test.more));
        std::vector<std::string> arguments{"serve"};
        for (std::size_t i = 0; i < test.own; ++i) {
            arguments.insert(arguments.end(), {"--usb", "virtual"});
        }
        arguments.insert(arguments.end(), test.more.begin(), test.more.end());
        const ParseResult result = parseOptions(arguments);
        EXPECT_EQ(result.options.has_value(), test.refusal.empty()) << result.text;
        EXPECT_EQ(result.exitCode, test.refusal.empty() ? 0 : 2);
        EXPECT_NE(result.text.find(test.refusal), std::string::npos) << result.text;
    }
    const ParseResult mixed = parseOptions({"serve", "--usb", "loopback", "--usb", here, "--usb=virtual"});
    ASSERT_TRUE(mixed.options && mixed.options->devices.size() == 3);
    EXPECT_EQ(mixed.options->devices[0].kind, DeviceKind::loopback) << "in the order given";
    EXPECT_EQ(mixed.options->devices[1].kind, DeviceKind::usbip);
    EXPECT_EQ(mixed.options->devices[2].kind, DeviceKind::modem);
}

TEST(Options, ADeviceOfAUsbipServer) {
    const std::pair<const char*, const char*> cases[] = {
        {"usbip://192.0.2.7/1-1", "192.0.2.7 3240 1-1"},
        {"usbip://host:3241/usbip-vudc.0", "host 3241 usbip-vudc.0"},
        {"usbip://[::1]/2-1.4", "::1 3240 2-1.4"},
        {"usbip://[fe80::1]:99/1-1", "fe80::1 99 1-1"},
    };
    for (const auto& [text, parts] : cases) {
        const ParseResult result = parseOptions({"serve", "--usb", text});
        ASSERT_TRUE(result.options && result.options->devices.size() == 1) << text;
        const UsbAddress& address = result.options->devices.front().usbip;
        EXPECT_EQ(address.host + " " + std::to_string(address.port) + " " + address.busId, parts);
    }
}
