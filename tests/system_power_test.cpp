// Sleep, wake and selective suspend through the driver, the bus and the modem: each seed is another moment and another order of events.
#include "tests/system_port.h"

#include "cdcacm/pnpadd.h"
#include "kernel/faults.h"
#include "kernel/power.h"
#include "kernel/thread.h"
#include "modem/modem.h"

#include <memory>
#include <optional>

namespace {

using test::OpenPort;
using test::Pending;
using test::Reader;
using test::RigOptions;
using test::ScriptedDevice;
using test::seeded;
using test::spin;
using test::TestRig;

constexpr const char* deviceName = "\\Device\\qvcdcacm0";
constexpr std::uint64_t stepBound = 200'000'000;
constexpr auto S3 = PowerSystemSleeping3;

template <class Rig>
DEVICE& recordOf(Rig& rig) {
    return *static_cast<DEVICE*>(rig.executive().lookUp(deviceName)->DeviceExtension);
}

bool suspended(TestRig& rig) { return rig.statistics().power == PowerDeviceD2; }

// --- A scripted device ------------------------------------------------------------------------------------------------

// An open port whose device sends everything back.
struct EchoPort : OpenPort {
    explicit EchoPort(const RigOptions& options = {}) : OpenPort(options) {
        nt::sim::setMaxSteps(stepBound);
        rig.device([](ScriptedDevice& d) { d.echo = true; });
    }
    void expectAlive() {
        set<ULONG>(IOCTL_SERIAL_PURGE, SERIAL_PURGE_RXCLEAR);
        rig.device([](ScriptedDevice& d) { d.echo = true; });
        const std::string sent = test::noise(500, 9);
        EXPECT_TRUE(test::echoed(file, sent, 2000) == sent) << rig.trace();
        timeouts(0, 0, 0);
    }
    // Unplugged and closed, whatever it was before.
    void expectDeleted() {
        file.close();
        rig.unplug();
        rig.settle();
        EXPECT_TRUE(rig.until([&] { return rig.executive().lookUp(deviceName) == nullptr; }, 3000)) << rig.trace();
    }
};

// --- A virtual modem --------------------------------------------------------------------------------------------------

// The port of a virtual modem.
struct ModemPort {
    explicit ModemPort(RigOptions options) : rig((options.plug = false, options)) {
        nt::sim::setMaxSteps(stepBound);
        rig.plugOther(std::make_unique<modem::Modem>(), "0001");
        EXPECT_EQ(rig.open(file), STATUS_SUCCESS);
        EXPECT_EQ(test::setTimeouts(file, 0, 0, 0), STATUS_SUCCESS);
        EXPECT_EQ(test::control(file, IOCTL_SERIAL_SET_DTR), STATUS_SUCCESS);
    }
    template <class Body>
    auto modem(Body&& body) {
        return rig.first().backend->withDevice([&](usb::Device& d) { return body(static_cast<modem::Modem&>(d)); });
    }
    std::string ask(const std::string& command) {
        test::control(file, IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR});
        return test::echoed(file, command, 500);
    }
    // The number that sends everything back. While nothing comes one read waits and the port may become idle.
    void call() {
        EXPECT_EQ(test::control(file, IOCTL_SERIAL_SET_WAIT_MASK, ULONG{SERIAL_EV_RLSD}), STATUS_SUCCESS);
        EXPECT_EQ(file.write("ATE0D100\r", 9).status, STATUS_SUCCESS);
        ULONG events = 0;
        EXPECT_EQ(file.control(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, &events, sizeof(events)).status, STATUS_SUCCESS);
        rig.run(100);
        EXPECT_EQ(test::control(file, IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR}), STATUS_SUCCESS);
        EXPECT_EQ(test::control(file, IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{MAXULONG, MAXULONG, MAXLONG, 0, 0}), STATUS_SUCCESS);
    }

    TestRig rig;
    nt::File file;
};

// How many pieces of `sent` are missing; -1 when `received` is not made of the rest in order.
int missingPieces(const std::string& received, const std::string& sent) {
    int pieces = 0;
    std::size_t at = 0;
    for (std::size_t i = 0; i < received.size(); ++i, ++at) {
        if (at < sent.size() && received[i] == sent[at]) continue;
        at = sent.find(received.substr(i, 8), at);
        if (at == std::string::npos) return -1;
        ++pieces;
    }
    return pieces + (at < sent.size());
}

// --- Sleep and wake ---------------------------------------------------------------------------------------------------

// Leaving full power takes at most the transfers under way with it; what comes after is whole and in order.
TEST(SystemPower, sleep_and_wake_with_bytes_moving) {
    for (const auto seed : test::seeds(25)) {
        ModemPort port(seeded(seed));
        port.call();
        std::optional<Reader> back(std::in_place, port.file, 4096);
        const std::string sent = test::noise(20'000, static_cast<std::uint32_t>(seed));
        constexpr int sleeps = 3;
        nt::Thread sender("sender", [&] {
            for (std::size_t at = 0; at < sent.size(); at += 400) {
                EXPECT_EQ(port.file.write(sent.data() + at, 400).status, STATUS_SUCCESS);
            }
        });
        for (int i = 0; i < sleeps; ++i) {
            spin(nt::sim::random(1500));
            EXPECT_EQ(nt::sleepSystem(i % 2 ? S3 : PowerSystemSleeping1), STATUS_SUCCESS);
            test::waitAtRandom(port.rig, 400, 20);
            nt::wakeSystem();
            EXPECT_EQ(nt::systemState(), PowerSystemWorking);
        }
        sender.join();
        port.rig.until([&] { back->poll(); return back->text.size() == sent.size(); }, 1000);
        // One each way for each sleep.
        const int missing = missingPieces(back->text, sent);
        EXPECT_GE(missing, 0);
        EXPECT_LE(missing, 2 * sleeps);
        EXPECT_GT(back->text.size(), sent.size() / 2);
        back.reset();
        const std::string after = test::noise(3000, 77);
        EXPECT_TRUE(test::echoed(port.file, after) == after);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

// What lies in the rings, at the device or with a waiting request is there after the wake, byte for byte.
TEST(SystemPower, sleep_keeps_what_rests) {
    for (const auto seed : test::seeds(20)) {
        EchoPort port(seeded(seed));
        const std::string unread = test::noise(300, 1), unsent = test::noise(2500, 2), asleep = test::noise(200, 3), late = test::noise(900, 4);
        port.rig.device([](ScriptedDevice& d) { d.echo = false; });
        port.send(unread);
        // The device stops the host before it has anything: no transfer is under way.
        port.rig.device([](ScriptedDevice& d) { d.notify(test::serialState(0x100)); });
        port.rig.run(20);
        Pending write(unsent), inSleep(asleep), read(unread.size() + late.size());
        port.outRing(1000);
        EXPECT_EQ(port.write(write), STATUS_PENDING);
        EXPECT_EQ(port.read(read), STATUS_PENDING);
        spin(seed * 13 % 200);
        EXPECT_EQ(nt::sleepSystem(S3), STATUS_SUCCESS);
        EXPECT_EQ(port.write(inSleep), STATUS_PENDING);
        port.rig.device([&](ScriptedDevice& d) { d.send(0x81, test::bytesOf(late)); });
        port.rig.run(2000);
        EXPECT_FALSE(write.done() || read.done() || inSleep.done());
        nt::wakeSystem();
        port.rig.device([](ScriptedDevice& d) { d.notify(test::serialState(0)); });
        EXPECT_TRUE(port.rig.until([&] { return write.done() && inSleep.done() && read.done(); })) << port.rig.trace();
        port.rig.run(50);
        EXPECT_TRUE(port.received() == unsent + asleep);
        EXPECT_TRUE(read.text() == unread + late);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(SystemPower, device_states_follow_the_capabilities) {
    const struct {
        SYSTEM_POWER_STATE system;
        DEVICE_POWER_STATE device;
    } table[] = {{PowerSystemSleeping1, PowerDeviceD1}, {PowerSystemSleeping2, PowerDeviceD2}, {S3, PowerDeviceD3},
                 {PowerSystemHibernate, PowerDeviceD3}, {PowerSystemShutdown, PowerDeviceD3}};
    RigOptions options;
    options.port.deviceState[PowerSystemSleeping1] = PowerDeviceD1;
    options.port.deviceState[S3] = PowerDeviceD3;
    options.port.deviceState[PowerSystemShutdown] = PowerDeviceD0;
    EchoPort port(options);
    const auto said = [&] {
        for (const auto& node : nt::powerNodes()) {
            if (node.instancePath == port.rig.instancePath()) return node.deviceState;
        }
        return PowerDeviceUnspecified;
    };
    for (const auto& item : table) {
        SCOPED_TRACE(item.system);
        EXPECT_EQ(nt::sleepSystem(item.system), STATUS_SUCCESS);
        EXPECT_EQ(said(), item.device);
        EXPECT_EQ(port.rig.statistics().power, item.device);
        nt::wakeSystem();
        EXPECT_EQ(said(), PowerDeviceD0);
        port.expectAlive();
    }
}

// --- Wake by the device -----------------------------------------------------------------------------------------------

TEST(SystemPower, ring_wakes_the_system) {
    const struct {
        const char* name;
        SYSTEM_POWER_STATE state;
        bool wakeFromD2, open, wakes;
    } table[] = {
        {"S1", PowerSystemSleeping1, true, true, true},
        {"S3", S3, true, true, true},
        {"S3, port closed", S3, true, false, true},
        {"deeper than the device can", PowerSystemHibernate, true, true, false},
        {"not armed", S3, false, true, false},
    };
    for (const auto& item : table) {
        for (const auto seed : test::seeds(20)) {
            SCOPED_TRACE(item.name);
            ModemPort port({.seed = seed, .port = {.wakeFromD2 = item.wakeFromD2}});
            port.rig.run(100);
            Pending event;
            if (item.open) {
                EXPECT_EQ(test::control(port.file, IOCTL_SERIAL_SET_WAIT_MASK, ULONG{SERIAL_EV_RING}), STATUS_SUCCESS);
                port.file.control(event.on(port.file), IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, &event.value, sizeof(event.value));
            } else {
                port.file.close();
            }
            EXPECT_EQ(nt::sleepSystem(item.state), STATUS_SUCCESS);
            port.rig.run(1000);
            EXPECT_EQ(nt::systemState(), item.state) << "nothing has happened yet";
            test::waitAtRandom(port.rig, 200, 20);
            port.modem([](modem::Modem& m) { m.ringIn(2); });
            EXPECT_EQ(port.rig.until([] { return nt::systemState() == PowerSystemWorking; }, 1000), item.wakes);
            nt::wakeSystem();
            if (item.open) {
                EXPECT_TRUE(port.rig.until([&] { return event.done(); }, 8000)) << "the call rings when awake";
                EXPECT_EQ(event.value, ULONG{SERIAL_EV_RING});
                port.rig.run(20'000);
                EXPECT_EQ(port.ask("ATE0\r"), "ATE0\r");
            }
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

// The call comes while the system is on its way down or up.
TEST(SystemPower, ring_at_any_moment_of_the_way) {
    for (const auto seed : test::seeds(60)) {
        ModemPort port(seeded(seed));
        port.rig.run(100);
        nt::Thread caller("caller", [&] {
            spin(nt::sim::random(600));
            port.modem([](modem::Modem& m) { m.ringIn(1); });
        });
        EXPECT_EQ(nt::sleepSystem(S3), STATUS_SUCCESS);
        caller.join();
        EXPECT_TRUE(port.rig.until([] { return nt::systemState() == PowerSystemWorking; }, 7000)) << "asleep with a call";
        port.rig.run(10'000);
        EXPECT_EQ(port.ask("ATE0\r"), "ATE0\r");
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

// --- Arrival and removal ----------------------------------------------------------------------------------------------

TEST(SystemPower, unplugged_while_asleep) {
    const struct {
        const char* name;
        std::uint32_t idleSeconds;
        bool rejectD0, back;
    } table[] = {
        {"for good", 0, false, false},       {"for good, the bus refuses D0", 0, true, false},
        {"back at the wake", 0, true, true}, {"idle detection on", 1, false, true},
        {"idle detection on, the bus refuses D0", 1, true, true},
    };
    for (const auto& item : table) {
        for (const auto seed : test::seeds(25)) {
            SCOPED_TRACE(item.name);
            RigOptions options = seeded(seed, {{"IdleInterval", item.idleSeconds}});
            options.port.rejectD0WhenGone = item.rejectD0;
            EchoPort port(options);
            Pending read(10);
            port.read(read);
            EXPECT_EQ(nt::sleepSystem(S3), STATUS_SUCCESS);
            // An application that does not know yet.
            Pending write("late");
            nt::Thread writer("writer", [&] { port.write(write); });
            test::waitAtRandom(port.rig, 300, 10);
            port.rig.unplug();
            port.rig.settle();
            if (item.back) port.rig.replug();
            spin(nt::sim::random(200));
            nt::wakeSystem();
            writer.join();
            port.file.cancelAll();
            EXPECT_TRUE(port.rig.until([&] { return read.done() && write.done(); }, 3000));
            if (item.back) {
                EXPECT_TRUE(port.rig.until([&] { return recordOf(port.rig).Initialized != 0; }));
                port.rig.run(300);
                port.expectAlive();
            }
            port.expectDeleted();
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

// The way to the end of the machine, with the port open and bytes moving up to the last moment.
TEST(SystemPower, shutdown) {
    for (const auto seed : test::seeds(25)) {
        RigOptions options = seeded(seed, {{"IdleInterval", static_cast<std::uint32_t>(seed % 2)}});
        options.port.rejectD0 = seed % 3 == 0;
        EchoPort port(options);
        Pending read(100'000), write(test::noise(9000));
        port.read(read);
        port.write(write);
        spin(nt::sim::random(400));
        EXPECT_EQ(nt::sleepSystem(PowerSystemShutdown), STATUS_SUCCESS);
        EXPECT_EQ(recordOf(port.rig).DevicePowerState, ULONG{PowerDeviceD3});
        EXPECT_EQ(port.rig.statistics().pending, 0u) << "the device is used in D3";
        port.file.cancelAll();
        port.file.close();
        EXPECT_TRUE(read.done() && write.done());
    }
}

// --- Selective suspend ------------------------------------------------------------------------------------------------

// Every kind of event that ends a suspension, over and over, with bytes both ways after each.
TEST(SystemPower, suspend_resume_1000_times_under_load) {
    ModemPort port(seeded(test::seeds(1).front(), {{"IdleInterval", 1}}));
    port.call();
    Reader back(port.file, 4096);

    std::string sent;
    const auto settled = [&] {
        return port.rig.until([&] { back.poll(); return back.text.size() == sent.size(); }, 900);
    };
    LONG reference = 0;
    unsigned suspensions = 0;
    for (unsigned cycle = 0; cycle < 1000; ++cycle) {
        // On the way down or when down.
        ASSERT_TRUE(port.rig.until([&] { return port.rig.statistics().idlePending; }, 3000)) << cycle << port.rig.trace();
        if (nt::sim::random(4) == 0) {
            spin(nt::sim::random(250));
        } else {
            ASSERT_TRUE(port.rig.until([&] { return suspended(port.rig); }, 500)) << cycle;
            ++suspensions;
            test::waitAtRandom(port.rig, 100, 50);
        }
        if (cycle == 20) reference = recordOf(port.rig).Ref;
        if (cycle > 20) {
            EXPECT_LE(recordOf(port.rig).Ref, reference + 2) << cycle;
        }
        switch (nt::sim::random(3)) {
        case 0:
            break;
        case 1:
            EXPECT_EQ(test::control(port.file, IOCTL_SERIAL_SET_RTS), STATUS_SUCCESS);
            break;
        default:
            port.modem([](modem::Modem& m) { m.setLine(modem::LineName::ready, !m.line(modem::LineName::ready)); });
            EXPECT_TRUE(port.rig.until([&] { return !suspended(port.rig); }, 100)) << "it does not wake the host";
        }
        const std::string piece = test::noise(1 + nt::sim::random(3000), cycle + 1);
        EXPECT_EQ(port.file.write(piece.data(), static_cast<ULONG>(piece.size())).status, STATUS_SUCCESS);
        sent += piece;
        ASSERT_TRUE(settled()) << cycle << ": " << back.text.size() << " of " << sent.size() << port.rig.trace();
        port.rig.clearTrace();
    }
    EXPECT_TRUE(back.text == sent);
    EXPECT_GT(suspensions, 600u);
}

// The device leaves while it is suspended or on its way there: everybody who waits for it comes to an end, and it is deleted.
TEST(SystemPower, removal_while_suspended_ends_all_waits) {
    enum : unsigned { writer = 1, reader = 2, opener = 4, manager = 8, waker = 16 };
    const struct {
        const char* name;
        unsigned others, steps, seeds;  // who is there, and within how many steps all come
        bool onItsWay, rejectD0, rejectD0WhenGone, back = false;
    } table[] = {
        {"requests, the last close, the deletion", writer | reader | opener, 250, 30, false, false, false},
        {"likewise, before it is suspended", writer | reader | opener, 250, 20, true, false, false},
        {"the bus refuses D0", writer | reader | opener, 250, 40, false, true, false},
        {"it returns", writer | reader, 250, 20, false, false, false, true},
        {"it returns, and the bus refused D0 meanwhile", writer | reader, 250, 20, false, false, true, true},
        // Who waits for the same D0 as the request and cannot say so.
        {"the bus refuses D0 to one that has left", writer | manager, 60, 60, false, false, true},
        {"the wake request ends well while it is cancelled", waker, 80, 150, false, false, false},
    };
    for (const auto& item : table) {
        for (const auto seed : test::seeds(item.seeds)) {
            SCOPED_TRACE(item.name);
            RigOptions options = seeded(seed, {{"IdleInterval", 1}});
            options.port.rejectD0 = item.rejectD0;
            options.port.rejectD0WhenGone = item.rejectD0WhenGone;
            EchoPort port(options);
            ASSERT_TRUE(port.rig.until([&] { return item.onItsWay ? port.rig.statistics().idlePending : suspended(port.rig); }));
            Pending write("w"), read(1);
            std::vector<nt::Thread> others;
            const auto along = [&](unsigned who, const char* name, auto act) {
                if (!(item.others & who)) return;
                others.emplace_back(name, [act, &item] {
                    spin(nt::sim::random(item.steps));
                    act();
                });
            };
            along(writer, "writer", [&] { port.write(write); });
            along(reader, "reader", [&] { port.read(read); });
            along(opener, "opener", [] {
                nt::File second;
                second.open("\\DosDevices\\COM3");
            });
            along(manager, "manager", [&] { port.rig.executive().queryStop(port.rig.instancePath()); });
            along(waker, "waker", [&] { port.rig.device([](ScriptedDevice& d) { d.wakesHost = true; }); });
            spin(nt::sim::random(item.steps));
            port.rig.unplug();
            port.rig.settle();
            others.clear();
            port.file.cancelAll();
            port.rig.run(500);
            EXPECT_TRUE(write.done() || !(item.others & writer));
            EXPECT_TRUE(read.done() || !(item.others & reader));
            if (item.back) {
                // A life of its own: its suspension holds a request up as the first one did.
                port.rig.replug();
                ASSERT_TRUE(port.rig.until([&] { return suspended(port.rig); }));
                EXPECT_EQ(port.control(IOCTL_SERIAL_SET_RTS), STATUS_SUCCESS) << "sent to a suspended device";
                ASSERT_TRUE(port.rig.until([&] { return suspended(port.rig); }));
                port.expectAlive();
            }
            port.expectDeleted();
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

// The system sleeps and wakes over a device that suspends and resumes by itself.
TEST(SystemPower, sleep_meets_selective_suspend) {
    for (const auto seed : test::seeds(60)) {
        EchoPort port(seeded(seed, {{"IdleInterval", 1}}));
        std::string sent;
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(port.rig.until([&] { return port.rig.statistics().idlePending; }, 3000)) << port.rig.trace();
            spin(nt::sim::random(300));
            nt::Thread writer("writer", [&] {
                spin(nt::sim::random(200));
                EXPECT_EQ(port.write("w"), STATUS_SUCCESS);
            });
            EXPECT_EQ(nt::sleepSystem(S3), STATUS_SUCCESS);
            test::waitAtRandom(port.rig, 300, 2500);
            nt::wakeSystem();
            writer.join();
            port.rig.run(100);
        }
        port.expectAlive();
        port.expectDeleted();
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

// A request of the way up that cannot be made: whoever waits does so until the device leaves, and nothing is kept.
TEST(SystemPower, resume_without_memory) {
    for (const bool byDevice : {false, true}) {
        for (std::uint64_t n = 1;; ++n) {
            SCOPED_TRACE(n);
            EchoPort port(seeded(n, {{"IdleInterval", 1}}));
            ASSERT_TRUE(port.rig.until([&] { return suspended(port.rig); }));
            nt::faults::failNth(nt::faults::Kind::request, n);
            Pending write("w");
            nt::Thread writer;
            if (byDevice) {
                port.rig.device([](ScriptedDevice& d) { d.wakesHost = true; });
            } else {
                writer.start("writer", [&] { port.write(write); });
            }
            port.rig.run(500);
            const bool struck = nt::faults::failures(nt::faults::Kind::request) != 0;
            nt::faults::clear();
            port.rig.unplug();
            port.rig.settle();
            writer.join();
            port.file.cancelAll();
            port.rig.run(50);
            EXPECT_TRUE(byDevice || write.done());
            port.expectDeleted();
            if (!struck) break;
            ASSERT_LT(n, 20u);
        }
    }
}

// A handle keeps the old stack there while the device is back: power of the old one means nothing to the port.
TEST(SystemPower, power_of_the_old_stack) {
    EchoPort port;
    test::PortPower old(port.rig);
    port.file.close();
    ASSERT_EQ(port.file.open(port.rig.executive().enabledInterfaces().at(0)), STATUS_SUCCESS);
    port.rig.unplug();
    port.rig.settle();
    port.rig.replug();
    port.rig.run(500);
    for (const auto state : {PowerDeviceD3, PowerDeviceD0, PowerDeviceD2}) {
        old.set(state);
        EXPECT_EQ(recordOf(port.rig).DevicePowerState, ULONG{PowerDeviceD0});
    }
    port.expectAlive();
    old.release();
}

}  // namespace
