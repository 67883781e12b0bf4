// Several ports of one machine, one of whose devices means ill: the others lose no byte and wait for nothing that it keeps waiting.
#include "tests/system_port.h"

#include "kernel/thread.h"

#include <memory>

namespace {

using test::Pending;
using test::ScriptedDevice;
using test::TestRig;

constexpr unsigned goodPorts = 3;
constexpr std::int64_t trafficMs = 20;  // of 6 KB there and back, if nobody else is waited for
constexpr std::uint32_t arrivalMs = 1000;  // a START that hangs ends with the time-out of its request, 400 ms

struct Hostile {
    const char* name;
    void (*script)(ScriptedDevice& device);  // before it is plugged in
};

const Hostile hostiles[] = {
    {"answers_no_request",
     [](ScriptedDevice& d) {
         d.onControl = [](const usb::SetupPacket&, std::span<std::uint8_t>) { return usb::ControlReply::never(); };
     }},
    {"cannot_be_configured",
     [](ScriptedDevice& d) {
         d.onStandard = [](const usb::SetupPacket& setup, std::span<std::uint8_t>) -> std::optional<usb::ControlReply> {
             if (setup.request == usb::requestSetConfiguration) return usb::ControlReply::never();
             return std::nullopt;
         };
     }},
    {"lies_in_its_descriptors",
     [](ScriptedDevice& d) {
         // Its class stays, so that the driver takes it; lengths, types and addresses do not.
         auto& bytes = d.configurations[0];
         for (std::size_t i = 18; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(nt::sim::random(256));
     }},
    {"floods",
     [](ScriptedDevice& d) {
         d.pour = ~0ull;
         for (int i = 0; i < 300; ++i) {
             test::Bytes noise(10);
             for (auto& byte : noise) byte = static_cast<std::uint8_t>(nt::sim::random(256));
             d.notify(noise);
         }
     }},
    {"stalls", [](ScriptedDevice& d) { d.stallIn = d.stallOut = ~0u; }},
    {"takes_nothing", [](ScriptedDevice& d) { d.holdOut = true; }},
};

// A port of its own, and what it does at the same time as the others.
struct Traffic {
    explicit Traffic(unsigned number) : text(test::noise(6000, number)) {}
    void start(const std::string& portName) {
        ASSERT_EQ(file.open("\\DosDevices\\" + portName), STATUS_SUCCESS) << portName;
        thread.start("application", [this] {
            const std::int64_t begin = test::nowMs();
            back = test::echoed(file, text);
            tookMs = test::nowMs() - begin;
        });
    }
    void expectWhole(const std::string& when) {
        thread.join();
        file.close();
        EXPECT_TRUE(back == text) << when << ": " << back.size() << " bytes came back";
        EXPECT_LE(tookMs, trafficMs) << when;
    }
    const std::string text;
    nt::File file;
    std::string back;
    std::int64_t tookMs = 0;
    nt::Thread thread;
};

std::unique_ptr<ScriptedDevice> echoing() {
    auto device = std::make_unique<ScriptedDevice>();
    device->echo = true;
    return device;
}

// The ill one is used, too, as far as it can be.
struct Victim {
    explicit Victim(const std::string& portName) {
        if (!NT_SUCCESS(file.open("\\DosDevices\\" + portName))) return;
        read.read(file);
        write.write(file);
        wait.write(file);
    }
    ~Victim() {
        file.cancelAll();
        file.close();
    }
    nt::File file;
    Pending read{100}, write{test::noise(5000)}, wait{test::noise(100)};
};

void everyoneElseCarriesOn(const Hostile& hostile, std::uint64_t seed) {
    TestRig rig({.seed = seed, .plug = false});
    for (unsigned i = 0; i < goodPorts; ++i) rig.plug(echoing(), std::to_string(1000 + i));
    rig.run(500);
    auto ill = std::make_unique<ScriptedDevice>();
    hostile.script(*ill);
    // Its arrival, with the START that it may keep waiting, and the traffic go on together.
    std::vector<std::unique_ptr<Traffic>> traffic;
    const auto startAll = [&] {
        for (unsigned i = 0; i < goodPorts; ++i) {
            traffic.push_back(std::make_unique<Traffic>(i));
            traffic.back()->start("COM" + std::to_string(3 + i));
        }
    };
    const auto endAll = [&](const char* when) {
        for (auto& each : traffic) each->expectWhole(when);
        traffic.clear();
    };
    startAll();
    const usb::PortNumber port =
        rig.bus().plug(std::make_shared<usb::VirtualBackend>(std::move(ill), "hostile"), "6666");
    ASSERT_NE(port, 0u);
    endAll("while it arrives");
    // It comes and goes while it is used.
    for (int round = 0; round < 2; ++round) {
        test::waitAtRandom(rig, 2000, 1000);
        startAll();
        Victim victim("COM" + std::to_string(3 + goodPorts));
        test::waitAtRandom(rig, 2000, 20);
        rig.bus().unplug(port);
        EXPECT_TRUE(rig.bus().replug(port));
        endAll("while it comes and goes");
    }
    // And one more that arrives behind it.
    const std::int64_t begin = test::nowMs();
    const auto late = rig.plug(echoing(), "2000");
    nt::File file;
    EXPECT_TRUE(rig.until([&] { return NT_SUCCESS(file.open("\\DosDevices\\COM" + std::to_string(4 + goodPorts))); }));
    EXPECT_LE(test::nowMs() - begin, arrivalMs);
    const std::string text = test::noise(3000, 9);
    EXPECT_TRUE(test::echoed(file, text) == text);
    file.close();
    EXPECT_TRUE(rig.stop().clean());
}

class SystemPorts : public testing::TestWithParam<Hostile> {};

TEST_P(SystemPorts, one_bad_device_disturbs_no_other) {
    for (const auto seed : test::seeds(8)) everyoneElseCarriesOn(GetParam(), seed);
}

INSTANTIATE_TEST_SUITE_P(Hostile, SystemPorts, testing::ValuesIn(hostiles),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
