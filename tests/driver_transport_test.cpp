// The USB side of the port: how bytes are cut into transfers, what becomes of failed ones, what a slow
// reader does to the device, the choice of configuration.
#include "tests/system_port.h"

#include "kernel/faults.h"
#include "kernel/thread.h"

#include <random>

namespace {

using test::nowMs;
using test::OpenPort;
using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::seeded;
using test::TestRig;
using test::traced;

constexpr std::uint8_t kIn = 0x81;

// What is there now, without waiting.
std::string take(OpenPort& port, std::size_t most) {
    port.timeouts(MAXULONG, 0, 0);
    Pending read(most);
    EXPECT_EQ(port.read(read), STATUS_SUCCESS);
    return read.text();
}

// --- Sending ----------------------------------------------------------------------------------------------------------

// A writer always has the next 64 bytes ready while the last transfer completes: none may pass its empty packet.
TEST(DriverTransport, no_chunk_overtakes_the_empty_packet) {
    for (const std::uint64_t seed : test::seeds(40)) {
        OpenPort port(seeded(seed));
        std::vector<nt::Thread> writers;
        for (unsigned w = 0; w < 2; ++w) {
            writers.emplace_back("writer", [&port, w] {
                for (unsigned i = 0; i < 12; ++i) EXPECT_EQ(port.write(test::noise(64, w * 100 + i)), STATUS_SUCCESS);
            });
        }
        for (auto& writer : writers) writer.join();
        port.rig.run(50);
        EXPECT_EQ(port.received().size(), 2 * 12 * 64u);
        // Whole packets are followed by an empty one, and nothing else is.
        port.rig.device([](ScriptedDevice& d) {
            for (std::size_t i = 0; i < d.outs.size(); ++i) {
                const std::size_t length = d.outs[i].data.size();
                const bool emptyNext = i + 1 < d.outs.size() && d.outs[i + 1].data.empty();
                EXPECT_EQ(length != 0 && length % 64 == 0, emptyNext) << "transfer " << i << " of " << length << " bytes";
            }
        });
    }
}

TEST(DriverTransport, the_flow_test_cuts_and_delays) {
    OpenPort port(seeded(1, {{"FlowTest", 20}, {"ReadBufferCount", 3}}));
    EXPECT_EQ(port.write(test::noise(1000)), STATUS_SUCCESS);
    port.rig.run(100);
    EXPECT_EQ(port.received(), test::noise(1000));
    port.rig.device([](ScriptedDevice& d) {
        for (const auto& out : d.outs) EXPECT_LE(out.data.size(), 64u);
    });
    // Three transfers wait; each that is used comes back 20 ms later.
    const std::int64_t start = nowMs();
    for (int i = 0; i < 7; ++i) port.rig.device([](ScriptedDevice& d) { d.sendBulk("x"); });
    EXPECT_TRUE(port.rig.until([&] { return port.rig.device([](ScriptedDevice& d) { return d.unsent(kIn); }) == 0; }));
    EXPECT_GE(nowMs() - start, 2 * 20);
}

// --- Failed transfers -------------------------------------------------------------------------------------------------

// Either way, the port works again afterwards; a failed write is sent again once.
TEST(DriverTransport, failed_transfers) {
    const struct {
        const char* what;
        bool send;
        unsigned stalls;
        bool resetFails, noMemory;
        const char* received;
        const char* traced;   // null: no reinitialisation
    } cases[] = {
        {"one stall", true, 1, false, false, "firstback", nullptr},
        {"two stalls", true, 2, false, false, "back", "ScheduleReinit"},
        {"stall, reset fails", true, 1, true, false, "back", "ResetPipe write failed"},
        {"stall, no memory for the work item", true, 1, false, true, "back", "ScheduleReinit"},
        {"received: stall", false, 1, false, false, "back", nullptr},
        {"received: stall, reset fails", false, 1, true, false, "back", "ResetPipe read failed"},
        {"received: stall, no memory for the work item", false, 1, false, true, "back", "ScheduleReinit"},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        RigOptions options = traced(0x7);
        options.faulty = true;
        OpenPort port(options);
        port.rig.clearTrace();
        usb::Fault clearHalt;
        clearHalt.request = usb::requestClearFeature;
        clearHalt.requestType = 0x02;
        if (item.resetFails) port.rig.faults().add(clearHalt);
        port.hold(item.send);
        if (item.send) port.write("first");
        port.rig.run(5);
        if (item.noMemory) nt::faults::failNth(nt::faults::Kind::allocation, 1);
        port.rig.device([&](ScriptedDevice& d) {
            (item.send ? d.stallOut : d.stallIn) = item.stalls;
            d.holdOut = false;
            if (!item.send) d.sendBulk("x");
        });
        port.rig.run(2000);
        EXPECT_TRUE(!item.noMemory || nt::faults::failures(nt::faults::Kind::allocation) == 1);
        nt::faults::clear();
        EXPECT_EQ(port.write("back"), STATUS_SUCCESS);
        port.send("again");
        port.rig.run(50);
        EXPECT_EQ(port.received(), item.received);
        EXPECT_TRUE(take(port, 100).ends_with("again"));
        EXPECT_EQ(port.rig.traced("]Reinit"), item.traced != nullptr) << port.rig.trace();
        EXPECT_TRUE(item.traced == nullptr || port.rig.traced(item.traced)) << port.rig.trace();
    }
}

// Several transfers failing at once: the receiver always comes back.
TEST(DriverTransport, the_receiver_comes_back_after_errors) {
    for (const std::uint64_t seed : test::seeds(12)) {
        for (const unsigned failures : {1u, 2u, 5u, 7u}) {
            SCOPED_TRACE(failures);
            RigOptions options = seeded(seed);
            options.faulty = true;
            OpenPort port(options);
            // The transfers that wait end by one abort after another, the next ones fail.
            usb::Fault fault;
            fault.endpoint = kIn;
            fault.times = failures;
            port.rig.faults().add(fault);
            port.rig.device([](ScriptedDevice& d) { d.stallIn = 1; });
            port.send("lost");
            port.rig.run(3000);
            port.rig.faults().clear();
            port.rig.run(3000);
            port.send("hello");
            port.rig.run(30);
            const std::string got = take(port, 100);
            EXPECT_TRUE(got.ends_with("hello")) << got << port.rig.trace();
        }
    }
}

// --- Receiving --------------------------------------------------------------------------------------------------------

TEST(DriverTransport, a_slow_reader_throttles_the_device_and_loses_nothing) {
    OpenPort port(seeded(3, {{"ReadCircBufferSize", 4096}, {"ReadBufferSize", 1024}, {"ReadBufferCount", 3}}));
    constexpr std::size_t total = 40001;
    port.rig.device([](ScriptedDevice& d) { d.pour = total; });
    port.rig.run(200);
    // Ring and packets are full; only the interrupt transfer is out.
    EXPECT_EQ(port.rig.statistics().pending, 1u);
    EXPECT_GT(port.rig.device([](ScriptedDevice& d) { return d.pour; }), total - 4096 - 3 * 1024 - 1);
    std::string got;
    std::mt19937 random(3);
    for (int i = 0; got.size() < total && i < 2000; ++i) {
        got += take(port, 1 + random() % 3000);
        if (random() % 2) port.rig.run(1);
    }
    ASSERT_EQ(got.size(), total);
    for (std::size_t i = 0; i < total; ++i) ASSERT_EQ(static_cast<std::uint8_t>(got[i]), ScriptedDevice::pattern(i)) << i;
}

TEST(DriverTransport, a_read_gets_all_of_a_transfer_larger_than_the_ring) {
    OpenPort port(seeded(1, {{"ReadCircBufferSize", 4096}}));
    Pending read(9000);
    port.read(read);
    port.send(test::noise(9000));
    port.rig.run(20);
    EXPECT_TRUE(read.done());
    EXPECT_EQ(read.text(), test::noise(9000));
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
        RigOptions options = seeded(1, {{"HighPowerCfg", item.highPowerCfg}});
        options.plug = false;
        options.bus.busPowered = item.busPowered;
        TestRig rig(options);
        auto device = std::make_unique<ScriptedDevice>();
        device->deviceBytes = test::cdcDevice(item.configurations);
        device->configurations.clear();
        for (std::uint8_t value = 1; value <= item.configurations; ++value) {
            device->configurations.push_back(test::cdcConfiguration({.configurationValue = value}));
        }
        rig.plug(std::move(device), "0001");
        nt::File file;
        EXPECT_EQ(rig.open(file), STATUS_SUCCESS);
        EXPECT_EQ(rig.device([](ScriptedDevice& d) { return d.configuration; }), item.chosen);
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
        RigOptions options = traced(0x7);
        options.shape = item.shape;
        TestRig rig(options);
        EXPECT_TRUE(rig.traced(item.text));
        EXPECT_EQ(rig.device([](ScriptedDevice& d) { return d.configuration; }), 0);
        nt::File file;
        EXPECT_FALSE(NT_SUCCESS(rig.open(file, 100)));
    }
}

}  // namespace
