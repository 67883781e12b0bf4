// The libusb backend over the real library and a simulated machine (tests/libusb/usb_tree.h): real threads on the real clock, and
// every wait is for an event.
#include "comport/server.h"
#include "modem/loopback.h"
#include "modem/modem.h"
#include "tests/libusb/usb_tree.h"
#include "tests/support/scripted_device.h"
#include "tests/system_port.h"
#include "tests/terminal.h"
#include "usb/libusb_backend.h"

#include <atomic>
#include <csignal>
#include <future>

using namespace test;
using usb::TransferStatus;
using usb::TransferType;
using usb::lib::parseSelector;

namespace {

using Calls = std::vector<std::string>;

struct Machine {
    // The scripted device of a node, reached through `with`.
    UsbDeviceNode& plug(const SocketOptions& options = {}, const std::u16string& serial = u"0001", std::uint16_t product = 1,
                        std::uint8_t functionClass = 2) {
        auto device = std::make_unique<ScriptedDevice>();
        device->strings[3] = serial;
        device->deviceBytes = cdcDevice(1, 0x1209, product);
        device->configurations[0][14] = functionClass;  // of the first interface
        nodes.push_back(std::make_unique<UsbDeviceNode>(std::move(device), options));
        return *nodes.back();
    }
    template <class Body>
    static auto with(UsbDeviceNode& node, Body&& body) {
        return node.inside().withDevice([&](usb::Device& d) { return body(static_cast<ScriptedDevice&>(d)); });
    }

    TestRig rig{{.mode = nt::Mode::real, .loadDriver = false, .plug = false}};
    std::vector<std::unique_ptr<UsbDeviceNode>> nodes;  // gone before the executive is
};

// Within ten seconds.
bool happens(KEVENT& event) {
    LARGE_INTEGER time;
    time.QuadPart = -100'000'000;
    return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &time) == STATUS_SUCCESS;
}

// A transfer with its memory and its end.
struct Move {
    Move(TransferType type, std::uint8_t endpoint, std::string data) : buffer(std::move(data)) {
        KeInitializeEvent(&ended, NotificationEvent, FALSE);
        transfer.type = type;
        transfer.endpoint = endpoint;
        transfer.data = reinterpret_cast<std::uint8_t*>(buffer.data());
        transfer.length = static_cast<std::uint32_t>(buffer.size());
        transfer.context = this;
        transfer.complete = [](usb::Transfer* over) {
            auto& self = *static_cast<Move*>(over->context);
            ++self.completions;
            self.inside = self.submitter == KeGetCurrentThread();
            self.irql = KeGetCurrentIrql();
            KeSetEvent(&self.ended, 0, FALSE);
        };
    }
    Move(const Move&) = delete;
    Move(usb::SetupPacket setup, std::string data) : Move(TransferType::control, 0, std::move(data)) {
        setup.length = static_cast<std::uint16_t>(transfer.length);
        transfer.setup = setup;
    }
    bool over() { return happens(ended); }
    TransferStatus status() {
        EXPECT_TRUE(over()) << "it never ends";
        EXPECT_EQ(completions, 1u);
        EXPECT_FALSE(inside);
        EXPECT_EQ(irql, DISPATCH_LEVEL);
        return transfer.status;
    }
    std::string text() const { return buffer.substr(0, transfer.actual); }

    std::string buffer;
    usb::Transfer transfer;
    KEVENT ended;
    unsigned completions = 0;
    std::atomic<PKTHREAD> submitter{nullptr};  // while it is inside submit()
    bool inside = false;
    KIRQL irql = 0;
};

Move bulkIn(std::size_t length = 64) { return {TransferType::bulk, 0x81, std::string(length, '-')}; }
Move bulkOut(const std::string& text) { return {TransferType::bulk, 0x01, text}; }
Move configure(std::uint8_t value) { return {{0x00, usb::requestSetConfiguration, value, 0, 0}, ""}; }
Move clearHalt(std::uint8_t endpoint) { return {{0x02, usb::requestClearFeature, 0, endpoint, 0}, ""}; }

// Who has the backend.
class Host final : public usb::BackendEvents {
public:
    explicit Host(const std::string& selector = "auto") : backend(*parseSelector(selector)) {
        KeInitializeEvent(&left_, NotificationEvent, FALSE);
        KeInitializeEvent(&came_, SynchronizationEvent, FALSE);
        backend.watch([this] { ++losses; }, [this] { KeSetEvent(&came_, 0, FALSE); });
    }
    ~Host() { backend.stop(); }

    bool start() {
        KeClearEvent(&left_);
        return backend.start(*this);
    }
    void submit(Move& move) {
        move.submitter = KeGetCurrentThread();
        backend.submit(&move.transfer);
        move.submitter = nullptr;
    }
    TransferStatus run(Move move) {
        submit(move);
        return move.status();
    }
    bool hasLeft() { return happens(left_); }
    bool hasCome() { return happens(came_); }
    void gone() override {
        ++goneCalls;
        KeSetEvent(&left_, 0, FALSE);
    }
    void remoteWake() override {}

    usb::LibusbBackend backend;
    std::atomic<unsigned> goneCalls{0}, losses{0};

private:
    KEVENT left_, came_;
};

// A machine with a device that somebody has.
class LibusbBackend : public testing::Test {
protected:
    LibusbBackend() { EXPECT_TRUE(host.start()); }
    template <class Body>
    auto with(Body&& body) {
        return Machine::with(node, body);
    }

    Machine m;
    UsbDeviceNode& node = m.plug();
    Host host;
};

}  // namespace

TEST(LibusbDevices, ASelectorIsReadOrRefused) {
    const char* good[] = {"auto", "1209:0001", "0a12:00ff:ABC-1", "1209:0001:a:b"};
    for (const char* text : good) {
        const auto selector = parseSelector(text);
        ASSERT_TRUE(selector) << text;
        EXPECT_EQ(selector->text(), text);
    }
    const char* bad[] = {"",           "auto:1",    "1209",      "1209:",      "1209:1",
                         "1209:00001", "1209:000g", "+209:0001", "1209:0001:", "1209 0001"};
    for (const char* text : bad) EXPECT_FALSE(parseSelector(text)) << text;
}

TEST(LibusbDevices, TheRightOneIsChosenAndNoneTwice) {
    Machine m;
    m.plug({.socket = "1-4"}, u"0001", 3, 8);
    m.plug({.socket = "1-1"}, u"A b", 1);
    UsbDeviceNode& second = m.plug({.socket = "1-2"}, u"0002", 1);
    m.plug({.socket = "1-3"}, u"0001", 2);
    m.plug({.socket = "1-5", .permitted = false}, u"0001", 5);
    struct Case {
        std::vector<const char*> selectors;  // each a port, in this order
        const char* key;                     // of the last one, or
        const char* error = "";
    };
    const Case cases[] = {
        {{"1209:0001"}, "libusb&1-1"},
        {{"1209:0003"}, "libusb&1-4"},
        {{"1209:0001:0002"}, "libusb&serial_0002"},
        {{"1209:0001:A b"}, "libusb&serial_A_b"},
        {{"1209:0001", "1209:0001"}, "libusb&1-2"},
        {{"1209:0001:0002", "1209:0001", "1209:0001"}, "", "every 1209:0001 that is plugged in is another port's"},
        {{"auto", "auto", "auto", "auto", "auto"}, "", "every CDC-ACM device that is plugged in is another port's"},
        {{"1209:0009"}, "", "1209:0009 is not plugged in"},
        {{"1209:0001:0009"}, "", "1209:0001:0009 is not plugged in"},
        {{"1209:0005:0001"}, "", "there is no permission to use 1209:0005 at 1-5: "},
        {{"1209:0005:0001"}, "", " which the udev rule 70-comport.rules takes care of"},
    };
    for (const Case& c : cases) {
        std::vector<std::unique_ptr<Host>> hosts;
        for (const char* selector : c.selectors) {
            hosts.push_back(std::make_unique<Host>(selector));
            EXPECT_EQ(hosts.back()->backend.find(), *c.key != '\0' || hosts.size() < c.selectors.size()) << selector;
        }
        EXPECT_EQ(hosts.back()->backend.instanceId(), c.key);
        EXPECT_NE(hosts.back()->backend.error().find(c.error), std::string::npos) << hosts.back()->backend.error();
    }
    // "auto" leaves alone what another port is to have, found already or not.
    Host any, byNumber("1209:0001"), bySerial("1209:0002:0001");
    EXPECT_TRUE(any.backend.find());
    EXPECT_EQ(any.backend.instanceId(), "libusb&1-5");
    second.unplug();
    std::vector<std::string> listed;
    for (const auto& info : usb::lib::list()) listed.push_back(info.socket + " " + info.serial + " " + info.name);
    std::ranges::sort(listed);
    EXPECT_EQ(listed, (Calls{"1-1 A b Scripted modem", "1-3 0001 Scripted modem", "1-5  "}));
}

TEST(LibusbDevices, WhyADeviceCannotBeHadIsSaid) {
    Machine m;
    Host host;
    EXPECT_FALSE(host.start());
    EXPECT_EQ(host.backend.error(), "no CDC-ACM device is plugged in");
    m.plug({.inUse = true});
    EXPECT_TRUE(host.hasCome()) << "nobody told of its arrival";
    EXPECT_FALSE(host.start());
    EXPECT_EQ(host.backend.error(), "it is in use by another program");
    EXPECT_EQ(m.nodes[0]->calls(), (Calls{"claim 0"}));
}

TEST_F(LibusbBackend, TheKernelsDriverIsDetachedAndGivenBack) {
    const Calls taken = {"detach 0", "claim 0", "detach 1", "claim 1"};
    const Calls given = {"release 0", "release 1", "attach 0", "attach 1"};
    EXPECT_EQ(node.calls(), taken);
    EXPECT_EQ(node.driver(0), "usbfs");
    // The same configuration again; none, as a driver that stops leaves it; one that there is not.
    EXPECT_EQ(host.run(configure(1)), TransferStatus::ok);
    EXPECT_EQ(node.calls(), (Calls{"release 0", "release 1", "configure 1", "claim 0", "claim 1"}));
    host.backend.stop();
    EXPECT_EQ(node.calls(), given);
    EXPECT_EQ(node.driver(1), "cdc_acm");

    ASSERT_TRUE(host.start());
    EXPECT_EQ(host.run(configure(9)), TransferStatus::stalled);
    EXPECT_EQ(host.run(configure(0)), TransferStatus::ok);
    EXPECT_EQ(with([](ScriptedDevice& d) { return d.configuration; }), 0);
    host.backend.stop();
    EXPECT_EQ(with([](ScriptedDevice& d) { return d.configuration; }), 1);
    EXPECT_EQ(node.driver(0), "cdc_acm");

    // A device that had no driver gets none.
    UsbDeviceNode& other = m.plug({.socket = "1-3", .driver = ""}, u"0001", 7);
    Host second("1209:0007");
    ASSERT_TRUE(second.start());
    second.backend.stop();
    EXPECT_EQ(other.calls(), (Calls{"claim 0", "claim 1", "release 0", "release 1"}));
}

TEST_F(LibusbBackend, TransfersOfEveryKindMoveWhatTheyShould) {
    with([](ScriptedDevice& d) { d.echo = true; });
    for (const std::size_t length : {1u, 63u, 64u, 65u, 16'384u, 16'385u, 65'536u}) {
        const std::string sent = noise(length, static_cast<std::uint32_t>(length));
        Move in = bulkIn((length / 64 + 1) * 64);
        host.submit(in);
        EXPECT_EQ(host.run(bulkOut(sent)), TransferStatus::ok);
        EXPECT_EQ(in.status(), TransferStatus::ok);
        EXPECT_TRUE(in.text() == sent) << length << ", " << in.transfer.actual << " came";
    }
    with([](ScriptedDevice& d) {
        d.outs.clear();
        d.notify(serialState(3));
    });
    EXPECT_EQ(host.run(bulkOut("")), TransferStatus::ok);
    EXPECT_EQ(with([](ScriptedDevice& d) { return d.outs.size() == 1 && d.outs[0].ends; }), true);
    Move state(TransferType::interrupt, 0x82, std::string(10, '-'));
    host.submit(state);
    EXPECT_EQ(state.status(), TransferStatus::ok);
    EXPECT_EQ(bytesOf(state.text()), serialState(3));
    Move put({0x21, 0x20, 0, 0, 0}, "1234567"), get({0xA1, 0x21, 0, 0, 0}, "-------"), refused({0xC0, 0x77, 0, 0, 0}, "----");
    with([](ScriptedDevice& d) {
        d.onControl = [](const usb::SetupPacket& setup, auto) {
            return setup.request == 0x77 ? std::optional(usb::ControlReply::stall()) : std::nullopt;
        };
    });
    for (Move* move : {&put, &get, &refused}) host.submit(*move);
    EXPECT_EQ(put.status(), TransferStatus::ok);
    EXPECT_EQ(get.status(), TransferStatus::ok);
    EXPECT_EQ(get.text(), "1234567");
    EXPECT_EQ(refused.status(), TransferStatus::stalled);
    EXPECT_EQ(host.run(Move(TransferType::bulk, 0x05, "nowhere")), TransferStatus::failed);
}

TEST_F(LibusbBackend, WhatTheKernelReportsIsToldAsOtherBackendsDo) {
    const struct {
        void (UsbDeviceNode::*answer)(int error);
        int error;
        TransferStatus status;
    } cases[] = {
        {&UsbDeviceNode::endNext, EPIPE, TransferStatus::stalled},     {&UsbDeviceNode::endNext, EOVERFLOW, TransferStatus::overrun},
        {&UsbDeviceNode::endNext, EPROTO, TransferStatus::failed},     {&UsbDeviceNode::endNext, EILSEQ, TransferStatus::failed},
        {&UsbDeviceNode::endNext, ETIME, TransferStatus::failed},      {&UsbDeviceNode::endNext, ESHUTDOWN, TransferStatus::gone},
        {&UsbDeviceNode::refuseNext, ENOMEM, TransferStatus::failed},  {&UsbDeviceNode::refuseNext, EBUSY, TransferStatus::failed},
        {&UsbDeviceNode::refuseNext, ENODEV, TransferStatus::gone},
    };
    for (const auto& [answer, error, status] : cases) {
        (node.*answer)(error);
        EXPECT_EQ(host.run(bulkIn()), status) << error;
        // Only a device that has left is given up.
        EXPECT_EQ(host.run(bulkOut("next")), status == TransferStatus::gone ? status : TransferStatus::ok) << error;
        host.backend.stop();
        ASSERT_TRUE(host.start());
    }
}

TEST_F(LibusbBackend, AStallHaltsUntilTheKernelClearsIt) {
    with([](ScriptedDevice& d) { d.stallIn = 1; });
    EXPECT_EQ(host.run(bulkIn()), TransferStatus::stalled);
    EXPECT_EQ(host.run(bulkIn()), TransferStatus::stalled);
    node.calls();
    // What is submitted behind the request waits for it.
    Move clear = clearHalt(0x81), in = bulkIn();
    host.submit(clear);
    host.submit(in);
    EXPECT_EQ(clear.status(), TransferStatus::ok);
    EXPECT_EQ(node.calls(), (Calls{"clear 129"}));
    with([](ScriptedDevice& d) { d.sendBulk("again"); });
    EXPECT_EQ(in.status(), TransferStatus::ok);
    EXPECT_EQ(in.text(), "again");
}

TEST_F(LibusbBackend, ManyInFlightKeepTheirOrderUnderCancelsAndLoseNothing) {
    std::string sent, got;
    for (std::uint32_t round = 0; round < 60; ++round) {
        const std::string chunk = noise(1 + round * 37 % 700, round);
        std::vector<std::unique_ptr<Move>> reads;
        for (int i = 0; i < 5; ++i) {
            reads.push_back(std::make_unique<Move>(TransferType::bulk, 0x81, std::string(128, '-')));
            host.submit(*reads.back());
        }
        nt::Thread canceller("canceller", [&] {
            for (auto read = reads.rbegin(); read != reads.rend(); ++read) host.backend.cancel(&(*read)->transfer);
        });
        with([&](ScriptedDevice& d) { d.sendBulk(chunk); });
        sent += chunk;
        canceller.join();
        for (const auto& read : reads) {
            const TransferStatus status = read->status();
            EXPECT_TRUE(status == TransferStatus::ok || status == TransferStatus::cancelled);
            got += read->text();
        }
    }
    while (got.size() < sent.size()) {
        Move read = bulkIn(4096);
        host.submit(read);
        ASSERT_EQ(read.status(), TransferStatus::ok) << got.size() << " of " << sent.size();
        got += read.text();
    }
    EXPECT_TRUE(got == sent);
    EXPECT_EQ(node.pending(), 0u);
}

TEST_F(LibusbBackend, ACancelNeedNotWaitForTheKernel) {
    with([](ScriptedDevice& d) {
        d.onStandard = [](const usb::SetupPacket& setup, auto) {
            return setup.request == usb::requestClearFeature ? std::optional(usb::ControlReply::never()) : std::nullopt;
        };
    });
    node.calls();
    Move clear = clearHalt(0x81), behind = bulkOut("behind"), third = bulkOut("third");
    for (Move* move : {&clear, &behind, &third}) host.submit(*move);
    m.rig.until([&] { return !node.calls().empty(); });
    host.backend.cancel(&behind.transfer);
    EXPECT_EQ(behind.status(), TransferStatus::cancelled);
    host.backend.cancel(&clear.transfer);
    EXPECT_EQ(clear.status(), TransferStatus::cancelled);
    EXPECT_EQ(KeReadStateEvent(&third.ended), 0);
    // The kernel gives up, and what waited goes on.
    node.giveUp();
    EXPECT_EQ(third.status(), TransferStatus::ok);
    EXPECT_EQ(with([](ScriptedDevice& d) { return d.outText(); }), "third");
}

TEST(LibusbDevices, UnpluggedWithTransfersInFlightItComesBackInItsSocket) {
    Machine m;
    for (int round = 0; round < 8; ++round) {
        UsbDeviceNode& node = m.plug();
        Machine::with(node, [](ScriptedDevice& d) {
            d.holdOut = true;
            d.onControl = [](const auto&, auto) { return std::optional(usb::ControlReply::never()); };
        });
        Host host("1209:0001");
        ASSERT_TRUE(host.start());
        const std::string key = host.backend.instanceId();
        std::vector<std::unique_ptr<Move>> moves;
        for (int i = 0; i < 5; ++i) moves.push_back(std::make_unique<Move>(TransferType::bulk, 0x81, std::string(65'536, '-')));
        moves.push_back(std::make_unique<Move>(TransferType::interrupt, 0x82, std::string(10, '-')));
        moves.push_back(std::make_unique<Move>(TransferType::bulk, 0x01, "stuck"));
        moves.push_back(std::make_unique<Move>(usb::SetupPacket{0x21, 0x22, 3, 0, 0}, ""));
        for (const auto& move : moves) host.submit(*move);
        // At any moment: some may not have reached the kernel yet.
        if (round % 2 == 0) m.rig.until([&] { return node.pending() == moves.size(); });
        node.unplug();
        for (const auto& move : moves) EXPECT_EQ(move->status(), TransferStatus::gone);
        EXPECT_TRUE(host.hasLeft());
        EXPECT_EQ(host.run(bulkIn()), TransferStatus::gone);
        EXPECT_FALSE(host.backend.resetPort());
        host.backend.stop();
        EXPECT_EQ(host.goneCalls, 1u);
        EXPECT_EQ(host.losses, 1u);
        // Another socket is another device, and so is another product in this one.
        m.plug({.socket = "1-3"});
        UsbDeviceNode& stranger = m.plug({}, u"0001", 2);
        EXPECT_FALSE(host.start());
        EXPECT_EQ(host.backend.error(), "1209:0001 is not plugged into 1-2");
        stranger.unplug();
        m.plug();
        ASSERT_TRUE(host.start()) << host.backend.error();
        EXPECT_EQ(host.backend.instanceId(), key);
        EXPECT_EQ(host.run(bulkOut("back")), TransferStatus::ok);
        host.backend.stop();
        m.nodes.clear();
    }
    // One that is known by its serial number may move.
    Host host("1209:0001:0001");
    m.plug();
    ASSERT_TRUE(host.start());
    m.nodes[0]->unplug();
    EXPECT_TRUE(host.hasLeft());
    host.backend.stop();
    m.plug({.socket = "1-7"});
    EXPECT_TRUE(host.start());
}

TEST_F(LibusbBackend, AResetKeepsTheConfigurationOrTheDeviceHasLeft) {
    with([](ScriptedDevice& d) { d.busResets = 0; });
    EXPECT_TRUE(host.backend.resetPort());
    EXPECT_EQ(with([](ScriptedDevice& d) { return d.configuration; }), 1);
    EXPECT_EQ(with([](ScriptedDevice& d) { return d.busResets; }), 1u);
    EXPECT_EQ(node.driver(1), "usbfs");
    EXPECT_EQ(host.run(bulkOut("after")), TransferStatus::ok);
    node.failReset();
    EXPECT_FALSE(host.backend.resetPort());
    EXPECT_TRUE(host.hasLeft());
    EXPECT_EQ(host.backend.error(), "it did not come back from a reset");
}

TEST(LibusbPort, TheProgramWaitsForItsDeviceAndForItsReturn) {
    comport::Options options;
    options.registryFile = "";
    options.traceMask = 0;
    const std::string link = testing::TempDir() + "libusb-" + std::to_string(getpid());
    options.ptyLink = link;
    options.controlPath = link + ".sock";
    options.devices = {*comport::parseDevice("libusb:1209:0001")};
    comport::Server server(options);
    std::promise<std::string> name;
    EXPECT_TRUE(server.served([&](const comport::ServedPort& port) { name.set_value(port.name()); }).empty());
    // Another comes first.
    UsbDeviceNode other(std::make_unique<modem::Loopback>(), {.socket = "1-1"});
    std::optional<UsbDeviceNode> node(std::in_place, std::make_unique<modem::Modem>());
    auto served = name.get_future();
    ASSERT_EQ(served.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(served.get(), "COM3");
    const int terminal = open(link.c_str(), O_RDWR | O_NOCTTY);
    makeRaw(terminal);
    // What is written while the modem is away may be lost.
    const auto answers = [&] {
        for (int tries = 0; tries < 40; ++tries) {
            EXPECT_EQ(write(terminal, "AT\r", 3), 3);
            if (readUntil(terminal, "OK", 250).ends_with("OK")) return true;
        }
        return false;
    };
    EXPECT_TRUE(answers());
    // As many bytes as the number says come through whole.
    std::string poured;
    for (unsigned i = 0; i < 200'000; ++i) poured += static_cast<char>(i * 31 + i / 256);
    EXPECT_EQ(write(terminal, "ATD101*200000\r", 14), 14);
    EXPECT_TRUE(readUntil(terminal, "NO CARRIER", 10'000).find("CONNECT 115200\r\n" + poured) != std::string::npos);
    // What arrives elsewhere does not concern it.
    UsbDeviceNode third(std::make_unique<modem::Loopback>(), {.socket = "1-3"});
    EXPECT_TRUE(answers());
    EXPECT_EQ(node->driver(0), "usbfs");
    node->unplug();
    UsbDeviceNode again(std::make_unique<modem::Modem>());
    // The application keeps its handle.
    EXPECT_TRUE(answers());
    server.unplug();
    EXPECT_EQ(again.driver(0), "cdc_acm");
    server.plugIn();
    EXPECT_TRUE(answers());
    close(terminal);
    server.unplug();
    node.reset();
    EXPECT_EQ(other.calls(), Calls{});
}

// Closing a terminal's other end, which is how a device leaves here, must not end the process.
int main(int argc, char** argv) {
    std::signal(SIGHUP, SIG_IGN);
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    removeUsbTree();
    return result;
}
