// The machine as a whole: a run is a function of its seed, a warm data path allocates nothing, many ports live side by side.
#include "tests/system_port.h"

#include "kernel/pool.h"

namespace {

using test::OpenPort;
using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::TestRig;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool addressesRepeat = false;
#elif defined(__has_feature)
constexpr bool addressesRepeat = !__has_feature(address_sanitizer);
#else
constexpr bool addressesRepeat = true;
#endif

using Record = std::pair<std::uint64_t, std::string>;  // its history's hash, its trace

// Everything of a port's life that draws on the scheduler, with every trace on.
Record runOf(std::uint64_t seed) {
    RigOptions options = test::seeded(seed);
    options.traceMask = 0xFFFFFFFF;
    OpenPort port(options);
    TestRig& rig = port.rig;
    nt::File& file = port.file;
    rig.device([](ScriptedDevice& d) { d.echo = true; });
    const std::string text = test::noise(5000);
    EXPECT_TRUE(test::echoed(file, text) == text);
    EXPECT_EQ(test::control(file, IOCTL_SERIAL_SET_DTR), STATUS_SUCCESS);
    Pending read(100);
    read.read(file);
    test::waitAtRandom(rig, 500, 5);
    rig.unplug();
    test::waitAtRandom(rig, 500, 5);
    rig.replug();
    rig.run(500);
    EXPECT_TRUE(test::echoed(file, text).size() <= text.size());
    file.close();
    const std::uint64_t history = nt::sim::historyHash();
    EXPECT_TRUE(rig.stop().clean());
    return {history, rig.trace()};
}

TEST(WholeRun, same_seed_same_trace) {
    std::vector<Record> all;
    for (const auto seed : test::seeds(3)) {
        all.push_back(runOf(seed));
        const auto& [history, one] = all.back();
        const auto [again, two] = runOf(seed);
        EXPECT_GT(two.size(), 10000u);
        EXPECT_EQ(history, again);
        const auto same = std::mismatch(one.begin(), one.end(), two.begin(), two.end()).first - one.begin();
        EXPECT_TRUE(!addressesRepeat || one == two) << "seed " << seed << ": " << one.substr(same, 200) << "\ninstead of "
                                                    << two.substr(same, 200);
        if (all.size() == 1) continue;
        EXPECT_NE(all[all.size() - 2].first, history);
        EXPECT_NE(all[all.size() - 2].second, one);
    }
}

// Writes in pieces that overlap, so that requests wait; every byte arrives.
void writeMuch(OpenPort& port, unsigned rounds) {
    std::array<Pending, 4> writes{Pending(4096), Pending(1000), Pending(64), Pending(4095)};
    const auto taken = [&] { return port.rig.device([](ScriptedDevice& d) { return d.outBytes; }); };
    std::uint64_t expected = taken();
    for (unsigned round = 0; round < rounds; ++round) {
        for (auto& write : writes) {
            ASSERT_TRUE(port.rig.until([&] { return round == 0 || write.done(); }));
            write.completions = 0;
            port.write(write);
            expected += write.buffer.size();
        }
    }
    for (auto& write : writes) ASSERT_TRUE(port.rig.until([&] { return write.done(); }));
    EXPECT_TRUE(port.rig.until([&] { return taken() == expected; }));
}

void readMuch(OpenPort& port, std::uint64_t& at, std::size_t total) {
    port.rig.device([&](ScriptedDevice& d) { d.pour = total; });
    Pending read(5000);
    for (std::size_t got = 0; got < total;) {
        read.completions = 0;
        port.read(read);
        ASSERT_TRUE(port.rig.until([&] { return read.done(); })) << "the read hangs at " << at;
        ASSERT_TRUE(NT_SUCCESS(read.status()));
        for (ULONG_PTR i = 0; i < read.request.information(); ++i) {
            ASSERT_EQ(static_cast<std::uint8_t>(read.buffer[i]), ScriptedDevice::pattern(at)) << at;
            ++at;
        }
        got += read.request.information();
    }
}

TEST(WholeRun, warm_data_path_allocates_nothing) {
    OpenPort port;
    port.rig.device([](ScriptedDevice& d) { d.discard = true; });
    port.timeouts(20, 0, 0);
    std::uint64_t at = 0;
    writeMuch(port, 10);
    // The odd byte makes the last packet a short one, which ends the transfer.
    readMuch(port, at, 100'001);
    const auto before = nt::pool::allocations();
    writeMuch(port, 110);
    EXPECT_EQ(nt::pool::allocations(), before);
    readMuch(port, at, 1'000'001);
    EXPECT_EQ(nt::pool::allocations(), before);
}

TEST(WholeRun, hundred_ports_and_no_more) {
    constexpr unsigned portCount = 100;
    RigOptions options;
    options.plug = false;
    TestRig rig(options);
    std::vector<test::Plugged> plugged;
    std::vector<nt::File> files(portCount);
    for (unsigned i = 0; i <= portCount; ++i) {
        auto device = std::make_unique<ScriptedDevice>();
        device->echo = true;
        plugged.push_back(rig.plug(std::move(device), std::to_string(1000 + i)));
    }
    EXPECT_TRUE(rig.traced("Pnpadd: CreateNumberedDeviceObject failed (C0000035)"));
    EXPECT_EQ(rig.executive().startDevice(rig.bus().instancePath(plugged.back().port)), STATUS_OBJECT_NAME_COLLISION);
    for (unsigned i = 0; i < portCount; ++i) {
        const std::string name = "\\DosDevices\\COM" + std::to_string(3 + i);
        rig.until([&] { return NT_SUCCESS(files[i].open(name)); });
        ASSERT_TRUE(files[i].isOpen()) << name;
    }
    EXPECT_EQ(rig.executive().registry().valueNames("HKLM\\HARDWARE\\DEVICEMAP\\SERIALCOMM").size(), portCount);
    for (const unsigned i : {0u, 42u, portCount - 1}) {
        const std::string text = test::noise(500, i);
        EXPECT_TRUE(test::echoed(files[i], text) == text) << i;
    }
    // A number that is free again goes to the next one.
    files[42].close();
    rig.bus().unplug(plugged[42].port);
    rig.settle();
    EXPECT_EQ(rig.executive().lookUp("\\Device\\qvcdcacm42"), nullptr);
    EXPECT_EQ(rig.executive().startDevice(rig.bus().instancePath(plugged.back().port)), STATUS_SUCCESS);
    EXPECT_NE(rig.executive().lookUp("\\Device\\qvcdcacm42"), nullptr);
}

// A pipe that is reset alone after its stall is no reinitialisation; the start is one, and so is the return of the device.
TEST(WholeRun, counters_tell_what_happened) {
    for (const auto seed : test::seeds(5)) {
        OpenPort port(test::seeded(seed));
        TestRig& rig = port.rig;
        rig.device([](ScriptedDevice& d) { d.echo = true; });
        const std::string text = test::noise(5000);
        ASSERT_TRUE(test::echoed(port.file, text) == text);
        usb::PortStatistics counts = rig.statistics();
        EXPECT_EQ(counts.bulkIn, text.size());
        EXPECT_EQ(counts.bulkOut, text.size());
        EXPECT_EQ(counts.stalls, 0u);
        EXPECT_EQ(counts.reinitialisations, 1u);
        rig.device([](ScriptedDevice& d) { d.stallIn = 1; });
        ASSERT_TRUE(test::echoed(port.file, text) == text);
        rig.run(500);
        counts = rig.statistics();
        EXPECT_GE(counts.stalls, 1u);
        EXPECT_EQ(counts.reinitialisations, 1u);
        rig.unplug();
        rig.run(500);
        rig.replug();
        rig.run(500);
        const usb::PortStatistics fresh = rig.statistics();
        EXPECT_EQ(fresh.reinitialisations, 1u) << "counted from the new arrival on";
        counts += fresh;
        EXPECT_EQ(counts.reinitialisations, 2u);
    }
}

}  // namespace
