// The USB side of the port: how bytes are cut into transfers, what becomes of failed ones, what a slow
// reader does to the device, stops and removals under traffic, the choice of configuration, framing.
#include "tests/support/rig.h"

#include "kernel/faults.h"
#include "kernel/thread.h"

#include <ntddser.h>

#include <algorithm>
#include <random>

namespace {

using test::Bytes;
using test::RigOptions;
using test::ScriptedDevice;
using test::TestRig;
using usb::Fault;

constexpr std::uint8_t kIn = 0x81, kOut = 0x01;
constexpr std::uint8_t kStartFraming = 0x61, kStopFraming = 0x62;

std::int64_t nowMs() { return static_cast<std::int64_t>(KeQueryInterruptTime() / 10000); }

RigOptions seeded(std::uint64_t seed, bool faulty = false) {
    RigOptions options;
    options.seed = seed;
    options.faulty = faulty;
    options.traceMask = 0x7;
    return options;
}

std::string letters(std::size_t length, unsigned from = 0) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>('a' + (from + i * 7 + i / 26) % 26);
    return text;
}

// Bytes an application asked for, and when they came.
struct Read {
    explicit Read(std::size_t size) : buffer(size, '\0') {}
    static void ended(nt::Request&, void* context) {
        auto& self = *static_cast<Read*>(context);
        self.atMs = nowMs();
        self.done = true;
    }
    std::string text() const { return buffer.substr(0, static_cast<std::size_t>(request.information())); }

    std::string buffer;
    bool done = false;
    std::int64_t atMs = 0;
    nt::Request request{ended, this};
};

struct Port {
    explicit Port(const RigOptions& options = seeded(1)) : rig(options) {
        EXPECT_EQ(rig.open(file), STATUS_SUCCESS);
        rig.clearTrace();
    }
    NTSTATUS write(const std::string& text) { return file.write(text.data(), static_cast<ULONG>(text.size())).status; }
    void read(Read& read) { file.read(read.request, read.buffer.data(), static_cast<ULONG>(read.buffer.size())); }
    // What is there now, without waiting.
    std::string take(std::size_t most) {
        const SERIAL_TIMEOUTS immediate{MAXULONG, 0, 0, 0, 0};
        EXPECT_EQ(file.control(IOCTL_SERIAL_SET_TIMEOUTS, &immediate, sizeof(immediate)).status, STATUS_SUCCESS);
        std::string buffer(most, '\0');
        const auto result = file.read(buffer.data(), static_cast<ULONG>(most));
        buffer.resize(static_cast<std::size_t>(result.information));
        return buffer;
    }
    template <class Body>
    auto device(Body&& body) {
        return rig.device(std::forward<Body>(body));
    }
    std::string received() {
        return device([](ScriptedDevice& d) { return d.outText(); });
    }
    void fault(Fault::Action action, std::uint8_t endpoint, unsigned times) {
        Fault fault;
        fault.action = action;
        fault.status = usb::TransferStatus::failed;
        fault.endpoint = endpoint;
        fault.times = times;
        rig.faults().add(fault);
    }

    TestRig rig;
    nt::File file;
};

// Whole packets are followed by an empty one, and nothing else is.
void expectMessagesEnd(Port& port) {
    port.device([](ScriptedDevice& d) {
        for (std::size_t i = 0; i < d.outs.size(); ++i) {
            const std::size_t length = d.outs[i].data.size();
            const bool emptyNext = i + 1 < d.outs.size() && d.outs[i + 1].data.empty();
            EXPECT_EQ(length != 0 && length % 64 == 0, emptyNext) << "transfer " << i << " of " << length << " bytes";
        }
    });
}

// --- Sending ----------------------------------------------------------------------------------------------------------

TEST(DriverTransport, an_empty_packet_follows_whole_packets) {
    Port port;
    std::string all;
    for (const std::size_t length : {1, 63, 64, 65, 128, 1000, 4095, 4096, 4097, 8192}) {
        all += letters(length, static_cast<unsigned>(length));
        EXPECT_EQ(port.write(letters(length, static_cast<unsigned>(length))), STATUS_SUCCESS);
        port.rig.run(20);
    }
    EXPECT_EQ(port.received(), all);
    expectMessagesEnd(port);
}

// A writer always has the next 64 bytes ready while the last transfer completes: none may pass its empty packet.
TEST(DriverTransport, no_chunk_overtakes_the_empty_packet) {
    for (const std::uint64_t seed : test::seeds(40)) {
        Port port(seeded(seed));
        std::vector<nt::Thread> writers;
        for (unsigned w = 0; w < 2; ++w) {
            writers.emplace_back("writer", [&port, w] {
                for (unsigned i = 0; i < 12; ++i) EXPECT_EQ(port.write(letters(64, w * 100 + i)), STATUS_SUCCESS);
            });
        }
        for (auto& writer : writers) writer.join();
        port.rig.run(50);
        EXPECT_EQ(port.received().size(), 2 * 12 * 64u);
        expectMessagesEnd(port);
    }
}

TEST(DriverTransport, the_flow_test_cuts_and_delays) {
    RigOptions options = seeded(1);
    options.deviceValues = {{"FlowTest", 20}, {"ReadBufferCount", 3}};
    Port port(options);
    EXPECT_EQ(port.write(letters(1000)), STATUS_SUCCESS);
    port.rig.run(100);
    EXPECT_EQ(port.received(), letters(1000));
    port.device([](ScriptedDevice& d) {
        for (const auto& out : d.outs) EXPECT_LE(out.data.size(), 64u);
    });
    // Three transfers wait; each that is used comes back 20 ms later.
    const std::int64_t start = nowMs();
    for (int i = 0; i < 7; ++i) port.device([](ScriptedDevice& d) { d.sendBulk("x"); });
    EXPECT_TRUE(port.rig.until([&] { return port.device([](ScriptedDevice& d) { return d.unsent(kIn); }) == 0; }));
    EXPECT_GE(nowMs() - start, 2 * 20);
}

// --- Failed transfers -------------------------------------------------------------------------------------------------

TEST(DriverTransport, a_failed_write_is_sent_again_once) {
    const struct {
        const char* what;
        unsigned failures;
        bool first;      // the first chunk arrives
        bool reinitialised;
    } cases[] = {{"one stall", 1, true, false}, {"two stalls", 2, false, true}};
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        Port port;
        port.device([&](ScriptedDevice& d) { d.stallOut = item.failures; });
        EXPECT_EQ(port.write("first"), STATUS_SUCCESS);
        port.rig.run(30);
        EXPECT_EQ(port.write("second"), STATUS_SUCCESS);
        port.rig.run(1000);
        EXPECT_EQ(port.received(), item.first ? "firstsecond" : "second");
        EXPECT_EQ(port.rig.traced("ScheduleReinit"), item.reinitialised);
        EXPECT_GE(port.device([](ScriptedDevice& d) { return d.haltsCleared; }), 1u);
    }
}

// Several transfers failing at once, failed resets, no memory for the work item: the receiver always comes back.
TEST(DriverTransport, the_receiver_comes_back_after_errors) {
    for (const std::uint64_t seed : test::seeds(12)) {
        for (const unsigned failures : {1u, 2u, 5u, 7u}) {
            SCOPED_TRACE(failures);
            Port port(seeded(seed, true));
            // The transfers that wait end by one abort after another, the next ones fail.
            port.fault(Fault::Action::end, kIn, failures);
            port.device([](ScriptedDevice& d) { d.stallIn = 1; });
            port.device([](ScriptedDevice& d) { d.sendBulk("lost"); });
            port.rig.run(3000);
            port.rig.faults().clear();
            port.rig.run(3000);
            port.device([](ScriptedDevice& d) { d.sendBulk("hello"); });
            port.rig.run(30);
            const std::string got = port.take(100);
            EXPECT_TRUE(got.ends_with("hello")) << got << port.rig.trace();
        }
    }
}

TEST(DriverTransport, a_failed_reset_reinitialises) {
    for (const bool send : {true, false}) {
        Port port(seeded(1, true));
        Fault clearHalt;
        clearHalt.request = 1;
        clearHalt.requestType = 0x02;
        port.rig.faults().add(clearHalt);
        port.device([&](ScriptedDevice& d) { (send ? d.stallOut : d.stallIn) = 1; });
        if (send) {
            EXPECT_EQ(port.write("gone"), STATUS_SUCCESS);
        } else {
            port.device([](ScriptedDevice& d) { d.sendBulk("x"); });
        }
        port.rig.run(2000);
        EXPECT_TRUE(port.rig.traced(send ? "ResetPipe write failed" : "ResetPipe read failed"));
        EXPECT_TRUE(port.rig.traced("]Reinit"));
        EXPECT_EQ(port.write("back"), STATUS_SUCCESS);
        port.device([](ScriptedDevice& d) { d.sendBulk("again"); });
        port.rig.run(50);
        EXPECT_TRUE(port.received().ends_with("back")) << port.received();
        EXPECT_TRUE(port.take(100).ends_with("again"));
    }
}

TEST(DriverTransport, recovery_without_memory_for_its_work_item) {
    for (const bool send : {true, false}) {
        Port port;
        port.device([&](ScriptedDevice& d) { d.holdOut = send; });
        if (send) {
            EXPECT_EQ(port.write("lost"), STATUS_SUCCESS);
        }
        port.rig.run(5);
        nt::faults::failNth(nt::faults::Kind::allocation, 1);
        port.device([&](ScriptedDevice& d) {
            (send ? d.stallOut : d.stallIn) = 1;
            d.holdOut = false;
        });
        if (!send) port.device([](ScriptedDevice& d) { d.sendBulk("x"); });
        port.rig.run(2000);
        EXPECT_EQ(nt::faults::failures(nt::faults::Kind::allocation), 1u);
        nt::faults::clear();
        EXPECT_EQ(port.write("back"), STATUS_SUCCESS);
        port.device([](ScriptedDevice& d) { d.sendBulk("again"); });
        port.rig.run(50);
        EXPECT_EQ(port.received(), "back");
        EXPECT_TRUE(port.take(100).ends_with("again"));
    }
}

// --- Receiving --------------------------------------------------------------------------------------------------------

TEST(DriverTransport, a_slow_reader_throttles_the_device_and_loses_nothing) {
    RigOptions options = seeded(3);
    options.deviceValues = {{"ReadCircBufferSize", 4096}, {"ReadBufferSize", 1024}, {"ReadBufferCount", 3}};
    Port port(options);
    constexpr std::size_t total = 40001;
    port.device([](ScriptedDevice& d) { d.pour = total; });
    port.rig.run(200);
    // Ring and packets are full; only the interrupt transfer is out.
    EXPECT_EQ(port.rig.statistics().pending, 1u);
    EXPECT_GT(port.device([](ScriptedDevice& d) { return d.pour; }), total - 4096 - 3 * 1024 - 1);
    std::string got;
    std::mt19937 random(3);
    for (int i = 0; got.size() < total && i < 2000; ++i) {
        got += port.take(1 + random() % 3000);
        if (random() % 2) port.rig.run(1);
    }
    ASSERT_EQ(got.size(), total);
    for (std::size_t i = 0; i < total; ++i) ASSERT_EQ(static_cast<std::uint8_t>(got[i]), ScriptedDevice::pattern(i)) << i;
}

TEST(DriverTransport, a_read_gets_all_of_a_transfer_larger_than_the_ring) {
    RigOptions options = seeded(1);
    options.deviceValues = {{"ReadCircBufferSize", 4096}};
    Port port(options);
    const SERIAL_TIMEOUTS forever{};
    EXPECT_EQ(port.file.control(IOCTL_SERIAL_SET_TIMEOUTS, &forever, sizeof(forever)).status, STATUS_SUCCESS);
    Read read(9000);
    port.read(read);
    port.device([](ScriptedDevice& d) { d.sendBulk(letters(9000)); });
    port.rig.run(20);
    EXPECT_TRUE(read.done);
    EXPECT_EQ(read.text(), letters(9000));
}

// --- Stops and removals -----------------------------------------------------------------------------------------------

TEST(DriverTransport, a_stop_keeps_what_waits_in_the_ring) {
    for (const std::uint64_t seed : test::seeds(20)) {
        RigOptions options = seeded(seed);
        options.deviceValues = {{"WriteCircBufferSize", 16384}};
        Port port(options);
        port.device([](ScriptedDevice& d) { d.holdOut = true; });
        EXPECT_EQ(port.write("in flight"), STATUS_SUCCESS);
        port.rig.run(5);
        EXPECT_EQ(port.write(letters(3000)), STATUS_SUCCESS);
        EXPECT_EQ(port.rig.executive().queryStop(port.rig.instancePath()), STATUS_SUCCESS);
        port.rig.run(20);
        EXPECT_EQ(port.rig.executive().cancelStop(port.rig.instancePath()), STATUS_SUCCESS);
        port.device([](ScriptedDevice& d) { d.holdOut = false; });
        port.rig.run(50);
        // The transfer under way was aborted.
        EXPECT_EQ(port.received(), letters(3000));
    }
}

// Unplugged at any moment under traffic and faults: a class request ends, the handle closes, nothing is left; or the
// same handle goes on when the modem is back.
TEST(DriverTransport, surprise_removal_at_any_moment) {
    for (const std::uint64_t seed : test::seeds(60)) {
        Port port(seeded(seed, true));
        std::mt19937_64 random(seed);
        port.device([](ScriptedDevice& d) { d.echo = true; });
        if (seed % 3 == 0) port.fault(Fault::Action::never, seed % 2 ? kOut : kIn, 3);
        if (seed % 5 == 0) port.device([](ScriptedDevice& d) { d.stallIn = d.stallOut = 2; });
        std::vector<std::unique_ptr<Read>> reads;
        for (int i = 0; i < 4; ++i) {
            reads.push_back(std::make_unique<Read>(3000));
            port.read(*reads.back());
        }
        const std::string text = letters(9000);
        Read written(0), flushed(0), line(0);
        port.file.write(written.request, text.data(), static_cast<ULONG>(text.size()));
        port.file.flush(flushed.request);
        if (seed % 2) port.rig.run(static_cast<std::uint32_t>(random() % 8));
        port.file.control(line.request, IOCTL_SERIAL_SET_DTR, nullptr, 0, nullptr, 0);
        const bool back = seed % 4 != 0;
        const std::int64_t start = nowMs();
        port.rig.unplug();
        port.rig.settle();
        EXPECT_TRUE(port.rig.until([&] { return line.done; }, 1000));
        EXPECT_LE(line.atMs - start, 1000);
        if (back) {
            port.rig.faults().clear();
            port.device([](ScriptedDevice& d) { d.stallIn = d.stallOut = 0; });
            port.rig.replug();
            port.rig.run(2000);
            port.device([](ScriptedDevice& d) { d.outs.clear(); });
            EXPECT_EQ(port.write("still here"), STATUS_SUCCESS);
            EXPECT_TRUE(port.rig.until([&] { return port.received().ends_with("still here"); })) << port.rig.trace();
        }
        port.file.cancelAll();
        port.file.close();
        port.rig.run(100);
        EXPECT_TRUE(written.done && flushed.done && std::ranges::all_of(reads, [](auto& read) { return read->done; }));
    }
}

// An error's restart is queued when the port closes: the next opening must not find bytes of the last one.
TEST(DriverTransport, a_restart_does_not_revive_a_closed_port) {
    for (const std::uint64_t seed : test::seeds(30)) {
        Port port(seeded(seed));
        port.device([](ScriptedDevice& d) {
            d.stallIn = 1;
            d.sendBulk("x");
        });
        port.file.close();
        port.rig.run(500);
        EXPECT_EQ(port.rig.statistics().pending, 0u) << "a closed port reads";
        ASSERT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
        port.device([](ScriptedDevice& d) { d.sendBulk("new"); });
        port.rig.run(500);
        EXPECT_TRUE(port.take(100).ends_with("new"));
    }
}

// --- Configuration ----------------------------------------------------------------------------------------------------

TEST(DriverTransport, the_hub_decides_the_configuration) {
    const struct {
        const char* what;
        std::uint8_t configurations;
        bool busPowered;
        ULONG highPowerCfg;
        std::uint8_t chosen;  // bConfigurationValue
    } cases[] = {
        {"one: the hub is not asked", 1, false, 1, 1},
        {"two behind a self-powered hub", 2, false, 1, 2},
        {"two behind a bus-powered hub", 2, true, 1, 1},
        {"clamped to the last", 2, false, 5, 2},
        {"three, the middle one", 3, false, 1, 2},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        RigOptions options = seeded(1);
        options.plug = false;
        options.bus.busPowered = item.busPowered;
        options.deviceValues = {{"HighPowerCfg", item.highPowerCfg}};
        TestRig rig(options);
        auto device = std::make_unique<ScriptedDevice>();
        device->deviceBytes = test::cdcDevice(item.configurations);
        device->configurations.clear();
        for (std::uint8_t value = 1; value <= item.configurations; ++value) {
            test::CdcShape shape;
            shape.configurationValue = value;
            device->configurations.push_back(test::cdcConfiguration(shape));
        }
        rig.plug(std::move(device), "0001");
        nt::File file;
        EXPECT_EQ(rig.open(file), STATUS_SUCCESS);
        EXPECT_EQ(rig.device([](ScriptedDevice& d) { return d.configuration; }), item.chosen);
        file.close();
    }
}

TEST(DriverTransport, a_missing_endpoint_fails_the_start) {
    const struct {
        test::CdcShape shape;
        const char* text;
    } cases[] = {
        {{.interruptIn = 0}, "Cannot find interrupt USB pipe"},
        {{.bulkIn = 0}, "Cannot find USB pipe"},
        {{.bulkOut = 0}, "Cannot find USB pipe"},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.text);
        RigOptions options = seeded(1);
        options.shape = item.shape;
        TestRig rig(options);
        EXPECT_TRUE(rig.traced(item.text));
        EXPECT_EQ(rig.device([](ScriptedDevice& d) { return d.configuration; }), 0);
        nt::File file;
        EXPECT_FALSE(NT_SUCCESS(rig.open(file, 100)));
    }
}

// --- Framing ----------------------------------------------------------------------------------------------------------

void notify(Port& port, std::uint8_t code) {
    port.device([&](ScriptedDevice& d) { d.notify(test::vendorNotification(code)); });
}

// What the device gets for one host frame with the byte 'A': the frame in the device's form, or as it is.
bool framing(Port& port) {
    port.device([](ScriptedDevice& d) { d.outs.clear(); });
    EXPECT_EQ(port.write("~A~"), STATUS_SUCCESS);
    port.rig.run(400);
    const std::string got = port.received();
    const bool framed = got.starts_with("\xAA\xBB") && got.ends_with("A");
    EXPECT_TRUE(framed || got == "~A~") << got;
    return framed;
}

TEST(DriverTransport, framing_starts_at_a_flag_and_stops) {
    Port port;
    notify(port, 0x10);
    port.rig.run(400);
    EXPECT_TRUE(port.rig.traced("SwitchToPppMode failed with timeout!!!"));
    EXPECT_FALSE(framing(port));
    port.device([](ScriptedDevice& d) { d.holdOut = true; });
    EXPECT_EQ(port.write("half"), STATUS_SUCCESS);
    notify(port, 0x10);
    port.rig.run(5);
    EXPECT_EQ(port.write(" a frame~whole~"), STATUS_SUCCESS);
    port.device([](ScriptedDevice& d) { d.holdOut = false; });
    port.rig.run(400);
    EXPECT_EQ(port.device([](ScriptedDevice& d) { return d.count(kStartFraming); }), 1u);
    EXPECT_EQ(port.received(), std::string("~A~half a frame~\xAA\xBB\0\x09whole", 25));
    // A device frame in two transfers reaches the host with flags and FCS.
    port.device([](ScriptedDevice& d) {
        d.send(kIn, {0xAA, 0xBB, 0x00, 0x08, 0xFF});
        d.send(kIn, {0x03, 0xC0, 0x21});
    });
    port.rig.run(20);
    const std::string host = port.take(100);
    EXPECT_EQ(host.size(), 8u);
    EXPECT_EQ(host.substr(0, 5), "~\xFF\x03\xC0!");
    notify(port, 0x11);
    port.rig.run(50);
    EXPECT_FALSE(framing(port));
}

// Notifications in any order and density: device and host agree in the end, and a storm of them is few requests.
TEST(DriverTransport, framing_requests_may_come_in_any_order) {
    for (const std::uint64_t seed : test::seeds(40)) {
        Port port(seeded(seed));
        std::mt19937_64 random(seed);
        EXPECT_EQ(port.write("~"), STATUS_SUCCESS);
        port.rig.run(20);
        bool start = false;
        for (unsigned i = 0; i < 30; ++i) {
            start = random() % 2;
            notify(port, start ? 0x10 : 0x11);
            if (random() % 8 == 0) port.rig.run(static_cast<std::uint32_t>(random() % 10));
        }
        port.rig.run(3000);
        std::uint8_t last = 0;
        port.device([&](ScriptedDevice& d) {
            for (const auto& record : d.controls) {
                if (record.setup.request == kStartFraming || record.setup.request == kStopFraming) last = record.setup.request;
            }
        });
        EXPECT_EQ(framing(port), last == kStartFraming) << port.rig.trace();
        EXPECT_EQ(last == kStartFraming, start);
    }
}

}  // namespace
