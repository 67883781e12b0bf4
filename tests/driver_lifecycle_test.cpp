// The life of a port under way: last handles, removals, restarts and sleep meeting each other at any moment.
#include "tests/support/kernel_request.h"

#include "cdcacm/pnpadd.h"
#include "cdcacm/wdmpwr.h"
#include "kernel/faults.h"
#include "kernel/sim.h"
#include "kernel/thread.h"
#include "usb/sync.h"

namespace {

using test::nowMs;
using test::OpenPort;
using test::Pending;
using test::PortPower;
using test::RigOptions;
using test::ScriptedDevice;
using test::seeded;
using test::spin;
using usb::ControlReply;
using usb::SetupPacket;

constexpr const char* deviceName = "\\Device\\qvcdcacm0";
constexpr std::uint8_t setConfiguration = 9, setControlLineState = 0x22;

// A port with whatever the modem gets coming back, and its driver's record at hand.
struct Modem : OpenPort {
    explicit Modem(const RigOptions& options = {}) : OpenPort(options), power(rig) {
        rig.device([](ScriptedDevice& d) { d.echo = true; });
    }
    DEVICE& record() { return *static_cast<DEVICE*>(rig.executive().lookUp(deviceName)->DeviceExtension); }
    void expectAlive() {
        Pending back(5);
        timeouts(0, 0, 3000);
        EXPECT_EQ(write("hello"), STATUS_SUCCESS);
        read(back);
        EXPECT_TRUE(rig.until([&] { return back.done(); })) << rig.trace();
        file.cancel(back.request);
        rig.run(1);
        EXPECT_EQ(back.text(), "hello");
    }
    void expectDeleted() { EXPECT_TRUE(rig.until([&] { return rig.executive().lookUp(deviceName) == nullptr; }, 3000)); }
    void leave() {
        rig.unplug();
        rig.settle();
    }
    // The device and the handle, whatever else may hold the port.
    void expectGoes() {
        file.close();
        leave();
        expectDeleted();
    }
    void expectOpensAndLives() {
        file.close();
        ASSERT_EQ(rig.open(file), STATUS_SUCCESS);
        expectAlive();
    }
    void stop() {
        EXPECT_EQ(rig.executive().queryStop(rig.instancePath()), STATUS_SUCCESS);
        EXPECT_EQ(rig.executive().stopDevice(rig.instancePath()), STATUS_SUCCESS);
    }
    NTSTATUS start() { return rig.executive().startDevice(rig.instancePath()); }
    // Stalls the class or standard request from now on.
    void stall(std::uint8_t request, bool on) {
        rig.device([&](ScriptedDevice& d) {
            auto hook = [request](const SetupPacket& setup, std::span<std::uint8_t>) -> std::optional<ControlReply> {
                if (setup.request == request) return ControlReply::stall();
                return std::nullopt;
            };
            auto& slot = request == setConfiguration ? d.onStandard : d.onControl;
            slot = nullptr;
            if (on) slot = hook;
        });
    }

    PortPower power;
};

// Runs `body` for each seed, up to the first failure.
template <class Body>
void overSeeds(unsigned count, const std::map<std::string, std::uint32_t>& values, Body&& body) {
    for (const auto seed : test::seeds(count)) {
        Modem modem(seeded(seed, values));
        body(modem, seed);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

// --- The last handle --------------------------------------------------------------------------------------------------

// The read that is being cancelled ends with the handle, and the port with both: the cancellation comes to its end first.
TEST(DriverLifecycle, last_close_meets_a_cancellation) {
    overSeeds(100, {}, [](Modem& m, std::uint64_t) {
        Pending read(5);
        m.read(read);
        m.leave();
        DEVICE& device = m.record();
        nt::Thread closer, canceller;
        {
            const usb::SpinGuard lock(device.Lock);
            canceller.start("canceller", [&] { m.file.cancel(read.request); });
            spin(60);
            closer.start("closer", [&] { m.file.close(); });
            spin(100);
        }
        canceller.join();
        closer.join();
        m.rig.settle();
        EXPECT_EQ(read.completions, 1u);
        m.expectDeleted();
    });
}

// Whoever tries the name or the interface while the device goes gets a handle that works or an error.
TEST(DriverLifecycle, opens_race_removal) {
    overSeeds(100, {}, [](Modem& m, std::uint64_t) {
        m.file.close();
        const auto links = m.rig.executive().enabledInterfaces();
        ASSERT_EQ(links.size(), 1u);
        const std::string name = "\\DosDevices\\" + m.rig.comName();
        std::vector<nt::Thread> openers;
        for (const auto& path : {name, links[0]}) {
            openers.emplace_back("opener", [path] {
                for (int i = 0; i < 25; ++i) {
                    nt::File file;
                    if (NT_SUCCESS(file.open(path)) && i % 2) file.write("x", 1);
                    spin(nt::sim::random(20));
                }
            });
        }
        spin(nt::sim::random(400));
        m.leave();
        openers.clear();
        m.rig.settle();
        m.expectDeleted();
    });
}

// The removal after a failed start is not held up by who is just opening the interface.
TEST(DriverLifecycle, opens_race_a_failing_start) {
    overSeeds(60, {}, [](Modem& m, std::uint64_t seed) {
        m.file.close();
        const auto link = m.rig.executive().enabledInterfaces().at(0);
        m.leave();
        m.stall(setConfiguration, true);
        nt::Thread opener("opener", [&] {
            for (int i = 0; i < 150; ++i) {
                nt::File file;
                const NTSTATUS status = file.open(link);
                EXPECT_TRUE(status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_NO_SUCH_DEVICE || status == STATUS_UNSUCCESSFUL)
                    << std::hex << status;
                spin(seed % 6);
            }
        });
        m.rig.replug();
        opener.join();
        EXPECT_TRUE(m.rig.traced("PnpStartDevice failed")) << m.rig.trace();
        m.expectDeleted();
        m.stall(setConfiguration, false);
        m.rig.replug();
        m.expectOpensAndLives();
    });
}

// The modem is back while the last handle on it goes: the port goes on or is made anew, never half of each.
TEST(DriverLifecycle, last_close_races_return) {
    overSeeds(150, {}, [](Modem& m, std::uint64_t) {
        m.leave();
        nt::Thread closer("closer", [&] {
            spin(nt::sim::random(900));
            m.file.close();
        });
        m.rig.replug();
        closer.join();
        EXPECT_EQ(m.rig.comName(), "COM3");
        m.expectOpensAndLives();
    });
}

// The return is the first in line for the list of devices when the last reference falls.
TEST(DriverLifecycle, return_meets_a_port_about_to_be_deleted) {
    overSeeds(10, {}, [](Modem& m, std::uint64_t) {
        m.leave();
        nt::Thread plugger, closer;
        {
            const usb::MutexGuard list(DeviceListMutex);
            plugger.start("plugger", [&] { m.rig.replug(); });
            m.rig.run(10);
            closer.start("closer", [&] { m.file.close(); });
            m.rig.run(1500);
        }
        plugger.join();
        closer.join();
        m.expectOpensAndLives();
    });
}

// The open is already inside the driver when the removal drops the last reference, or takes its turn after the open.
TEST(DriverLifecycle, open_waits_behind_the_removal) {
    unsigned refused = 0;
    overSeeds(20, {}, [&](Modem& m, std::uint64_t) {
        const std::string name = "\\DosDevices\\" + m.rig.comName(), path = m.rig.instancePath();
        m.file.close();
        m.rig.run(10);
        EXPECT_EQ(m.rig.executive().queryRemove(path), STATUS_SUCCESS);
        nt::Thread remover, opener;
        nt::File file;
        NTSTATUS status = STATUS_PENDING;
        {
            const usb::MutexGuard device(m.record().Mutex);
            remover.start("remover", [&] { m.rig.executive().removeDevice(path); });
            m.rig.run(10);
            opener.start("opener", [&] { status = file.open(name); });
            m.rig.run(10);
        }
        remover.join();
        opener.join();
        if (status == STATUS_UNSUCCESSFUL) {
            ++refused;
        } else {
            EXPECT_EQ(status, STATUS_SUCCESS);
            EXPECT_GE(m.record().OpenCount, 1);
            file.close();
        }
        m.expectDeleted();
    });
    EXPECT_TRUE(test::seeds(2).size() == 1 || refused > 0);
}

// --- Restart ----------------------------------------------------------------------------------------------------------

// A recovery that waits its turn finds the device stopped or the port closed: no transfer goes to either, and both go on afterwards.
TEST(DriverLifecycle, error_then_stop_or_close) {
    for (const bool closes : {false, true}) {
        overSeeds(60, {}, [closes](Modem& m, std::uint64_t seed) {
            m.rig.device([](ScriptedDevice& d) {
                d.stallIn = 1;
                d.sendBulk("x");
            });
            if (seed % 2) spin(seed * 5 % 200);
            closes ? m.file.close() : m.stop();
            m.rig.run(600);
            EXPECT_EQ(m.rig.statistics().pending, 0u) << "a stopped device or a closed port has transfers";
            EXPECT_EQ(closes ? m.rig.open(m.file) : m.start(), STATUS_SUCCESS);
            m.rig.run(100);
            m.rig.device([](ScriptedDevice& d) { d.sendBulk("y"); });
            Pending read(1);
            m.read(read);
            EXPECT_TRUE(m.rig.until([&] { return read.done(); }));
            EXPECT_EQ(read.status(), STATUS_SUCCESS);
        });
    }
}

// The old pipes are gone and there are no new ones when a retry of the port's initialisation comes due.
TEST(DriverLifecycle, retry_after_a_start_that_failed) {
    overSeeds(40, {}, [](Modem& m, std::uint64_t seed) {
        const std::string path = m.rig.instancePath();
        m.stall(setControlLineState, true);
        EXPECT_EQ(m.rig.executive().queryStop(path), STATUS_SUCCESS);
        EXPECT_EQ(m.rig.executive().cancelStop(path), STATUS_SUCCESS);
        ScheduleReinit(&m.record());
        m.rig.run(10);
        EXPECT_TRUE(m.rig.traced("InitPort failed")) << m.rig.trace();
        m.stall(setControlLineState, false);
        // SET_CONFIGURATION is answered only after the retry's turn has come.
        m.stop();
        m.stall(setConfiguration, true);
        m.rig.allowAssertions();   // a pipe that is not there is asserted and refused
        m.rig.run(460 + static_cast<std::uint32_t>(seed % 10) * 3);
        ScheduleReinit(&m.record());
        nt::Thread starter("starter", [&] { EXPECT_NE(m.start(), STATUS_SUCCESS); });
        spin(seed * 17 % 300);
        ScheduleReinit(&m.record());
        starter.join();
        m.rig.run(100);
        m.stall(setConfiguration, false);
        EXPECT_EQ(m.control(IOCTL_SERIAL_SET_DTR), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(m.start(), STATUS_SUCCESS);
        m.expectAlive();
    });
}

// However often the tick is started while one is due, a stop waits for the last of them only.
TEST(DriverLifecycle, tick_is_counted_right_over_restarts) {
    overSeeds(20, {{"TimerInterval", 1}}, [](Modem& m, std::uint64_t) {
        for (int i = 0; i < 12; ++i) {
            m.power.set(PowerDeviceD0);
            spin(nt::sim::random(40));
            if (i % 4 == 0) m.rig.run(1);
        }
        m.rig.run(20);
        const auto begin = nowMs();
        m.file.close();
        EXPECT_LT(nowMs() - begin, 100);
        EXPECT_FALSE(m.rig.traced("PwrSetDevicePowerState KeWaitForSingleObject"));
    });
}

// --- Sleep ------------------------------------------------------------------------------------------------------------

TEST(DriverLifecycle, power_up_races_last_close) {
    overSeeds(60, {}, [](Modem& m, std::uint64_t seed) {
        m.power.set(PowerDeviceD2);
        const LONG asleep = m.record().Ref;
        nt::Thread waker("waker", [&] { m.power.set(PowerDeviceD0); });
        spin(seed * 3 % 90);
        m.file.close();
        waker.join();
        m.rig.run(100);
        EXPECT_EQ(m.rig.statistics().pending, 0u) << "a closed port reads";
        EXPECT_LE(m.record().Ref, asleep) << "a reference more than the open left";
        m.expectOpensAndLives();
        m.expectGoes();
    });
}

// Its cancel routine is used up and the timer that would end it goes with the power.
TEST(DriverLifecycle, cancelled_wait_ends_as_the_device_sleeps) {
    overSeeds(20, {}, [](Modem& m, std::uint64_t seed) {
        Pending wait, next;
        m.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
        EXPECT_EQ(m.wait(wait), STATUS_PENDING);
        nt::Thread canceller("canceller", [&] { m.file.cancel(wait.request); });
        if (seed % 4 == 0) m.rig.run(static_cast<std::uint32_t>(seed * 6));
        m.power.set(PowerDeviceD2);
        canceller.join();
        m.rig.run(200);
        EXPECT_EQ(wait.completions, 1u);
        m.power.set(PowerDeviceD0);
        EXPECT_EQ(m.wait(next), STATUS_PENDING);
        m.rig.run(300);
        EXPECT_FALSE(next.done());
        m.send("!");
        EXPECT_TRUE(next.done());
    });
}

// The port's initialisation meets the device asleep, or is cut short by the sleep: waking up makes up for it.
TEST(DriverLifecycle, initialisation_overtaken_by_sleep) {
    for (const bool retrying : {false, true}) {
        Modem m;
        m.stall(setControlLineState, retrying);
        if (retrying) {
            ScheduleReinit(&m.record());
            m.rig.run(100);
            EXPECT_TRUE(m.rig.traced("InitPort failed"));
        }
        m.power.set(PowerDeviceD2);
        if (!retrying) ScheduleReinit(&m.record());
        m.rig.run(2000);
        EXPECT_EQ(m.record().Initialized, 0);
        m.stall(setControlLineState, false);
        m.power.set(PowerDeviceD0);
        m.rig.run(1000);
        m.expectAlive();
        m.file.close();
        EXPECT_EQ(m.rig.open(m.file), STATUS_SUCCESS);
    }
}

// Activity at any moment of the way down: the device is never left asleep with nobody to wake it.
TEST(DriverLifecycle, suspend_races_activity) {
    overSeeds(40, {{"IdleInterval", 1}}, [](Modem& m, std::uint64_t) {
        std::string sent;
        for (int i = 0; i < 4; ++i) {
            m.rig.until([&] { return m.rig.statistics().idlePending; }, 3000);
            spin(nt::sim::random(250));
            EXPECT_EQ(m.write("w"), STATUS_SUCCESS);
            sent += "w";
            EXPECT_TRUE(m.rig.until([&] { return m.received() == sent; }, 500)) << m.received() << m.rig.trace();
        }
    });
}

// Activity at the very moment the interval ends starts it again: the timer that has just run out does not count any more. What a
// suspended device is left with goes out at the next request only.
TEST(DriverLifecycle, activity_when_the_idle_interval_ends) {
    overSeeds(200, {{"IdleInterval", 1}, {"WriteBufferSize", 64}}, [](Modem& m, std::uint64_t) {
        m.rig.run(1);
        EXPECT_EQ(m.write("a"), STATUS_SUCCESS);
        const std::int64_t begin = test::nowMs();
        const std::string rest(300, 'b');
        m.rig.run(static_cast<std::uint32_t>(begin + 1000 - test::nowMs()));
        spin(nt::sim::random(40));
        EXPECT_EQ(m.write(rest), STATUS_SUCCESS);
        EXPECT_TRUE(m.rig.until([&] { return m.received() == "a" + rest; }, 100)) << m.received().size() << m.rig.trace();
    });
}

// Any request of the way down that cannot be made leaves a port that works, and that can be removed.
TEST(DriverLifecycle, suspend_without_memory) {
    for (std::uint64_t n = 1;; ++n) {
        SCOPED_TRACE(n);
        Modem m(seeded(n, {{"IdleInterval", 1}}));
        m.rig.run(500);
        nt::faults::failNth(nt::faults::Kind::request, n);
        m.rig.run(1500);
        const bool struck = nt::faults::failures(nt::faults::Kind::request) != 0;
        nt::faults::clear();
        m.expectAlive();
        m.expectGoes();
        if (!struck) break;
        ASSERT_LT(n, 50u);
    }
}

// The wake request ends by itself while somebody cancels it; none is forgotten and none touched after its end.
TEST(DriverLifecycle, wake_races_removal_and_restart) {
    overSeeds(60, {}, [](Modem& m, std::uint64_t seed) {
        // The first initialisation comes before the capabilities are known.
        ScheduleReinit(&m.record());
        m.rig.run(50);
        EXPECT_TRUE(m.rig.statistics().wakeArmed);
        if (seed % 2) {
            m.stop();
            EXPECT_EQ(m.start(), STATUS_SUCCESS);
            m.rig.run(100);
            EXPECT_TRUE(m.rig.statistics().wakeArmed);
            m.expectAlive();
        } else {
            m.power.set(PowerDeviceD2);
            m.rig.device([](ScriptedDevice& d) { d.wakesHost = true; });
            spin(seed * 7 % 150);
        }
        m.leave();
        m.file.close();
        m.expectDeleted();
    });
}

// The wake request ends while it is being cancelled, and the next one is made: each takes only its own, and the next one stands.
// So does one that another driver tries to double.
TEST(DriverLifecycle, wake_ends_while_it_is_cancelled) {
    overSeeds(100, {}, [](Modem& m, std::uint64_t) {
        DEVICE& device = m.record();
        ScheduleReinit(&device);
        m.rig.run(50);
        m.power.set(PowerDeviceD2);
        nt::Thread waker, canceller;
        {
            const usb::SpinGuard lock(device.Lock);
            waker.start("waker", [&] { m.rig.device([](ScriptedDevice& d) { d.wakesHost = true; }); });
            canceller.start("canceller", [&] {
                CancelWakeIrp(&device);
                RequestWakeupIrp(&device);
            });
            spin(150);
        }
        waker.join();
        canceller.join();
        m.rig.run(10);
        m.power.set(PowerDeviceD0);
        m.rig.run(50);
        EXPECT_TRUE(m.rig.statistics().wakeArmed);
        EXPECT_NE(device.WakeIrp, nullptr);
        EXPECT_EQ(m.power.waitForWake(), STATUS_UNSUCCESSFUL);
        EXPECT_NE(device.WakeIrp, nullptr);
        m.leave();
        m.file.close();
        m.expectDeleted();
    });
}

// --- Removal ----------------------------------------------------------------------------------------------------------

// Every text of a port's life and of the way out names the port, whoever prints it and whatever is freed by then. The empty things are
// traced as well.
TEST(DriverLifecycle, everything_traced) {
    for (const auto seed : test::seeds(30)) {
        RigOptions options = seeded(seed);
        options.traceMask = MAXULONG;
        Modem m(options);
        EXPECT_EQ(m.write(std::string(128, 'z')), STATUS_SUCCESS);   // an empty packet follows
        EXPECT_EQ(m.write(""), STATUS_SUCCESS);
        EXPECT_EQ(m.control(IOCTL_SERIAL_IMMEDIATE_CHAR), STATUS_SUCCESS);
        EXPECT_EQ(m.file.flush().status, STATUS_SUCCESS);
        EXPECT_TRUE(m.rig.traced("<<NULL>>"));
        Pending read(100'000), cancelled(10), wait, write(std::string(5000, 'w'));
        m.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_CTS);
        m.wait(wait);
        m.read(read);
        m.read(cancelled);
        m.file.cancel(cancelled.request);
        m.file.cancel(wait.request);
        m.write(write);
        spin(seed * 9 % 300);
        nt::Thread closer("closer", [&] {
            spin(seed * 31 % 400);
            m.file.close();
        });
        m.leave();
        closer.join();
        m.expectDeleted();
        m.rig.replug();
        EXPECT_TRUE(m.rig.traced(":COM3:DecRef: 0, ") || m.rig.traced(":COM?:DecRef: 0, "));
        EXPECT_EQ(m.rig.trace().find('\xEE'), std::string::npos);
    }
}

// --- At each moment of something ----------------------------------------------------------------------------------------

// One thread stands still at each of its scheduling points in turn, while everything else comes to rest and the modem leaves.
template <class Acts, class Meanwhile>
void atEachPoint(unsigned points, bool low, Acts&& acts, Meanwhile&& meanwhile) {
    for (unsigned n = 1; n <= points; ++n) {
        SCOPED_TRACE(n);
        RigOptions options = seeded(1 + n % 4);
        options.traceMask = TRC_REF | TRC_ERROR | TRC_ASSERT;
        Modem m(options);
        ScheduleReinit(&m.record());
        m.rig.run(50);
        low ? static_cast<void>(m.power.set(PowerDeviceD2)) : m.file.close();
        nt::Thread thread("stands", [&] { acts(m, n); });
        spin(200);
        meanwhile(m);
        m.leave();
        thread.join();
        m.file.close();
        m.expectDeleted();
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DriverLifecycle, wake_ends_at_any_moment_of_its_cancellation) {
    atEachPoint(25, true, [](Modem& m, unsigned n) {
        nt::sim::standStill(n);
        CancelWakeIrp(&m.record());
    }, [](Modem& m) {
        // So that no other request gets the memory of the one that ended.
        usb::PortOptions asleep;
        asleep.rejectD0 = true;
        m.rig.bus().setOptions(m.rig.first().port, asleep);
        m.rig.device([](ScriptedDevice& d) { d.wakesHost = true; });
        m.rig.run(10);
    });
}

// The last reference goes while a power request, whose own one may have gone before, is on its way out.
TEST(DriverLifecycle, removal_at_any_moment_of_a_power_request) {
    atEachPoint(150, true, [](Modem& m, unsigned n) {
        nt::sim::standStill(n);
        m.power.set(PowerDeviceD0);
    }, [](Modem& m) { m.file.close(); });
}

// A request for the stack as a whole, to either device object.
NTSTATUS systemControl(PDEVICE_OBJECT device) { return test::KernelRequest(device).run(IRP_MJ_SYSTEM_CONTROL, 0, {}, 0, 0).first; }

// Passed down as long as there is a stack; nothing is sent to one that has gone.
TEST(DriverLifecycle, removal_at_any_moment_of_a_system_control) {
    for (const bool top : {false, true}) {
        unsigned passed = 0;
        atEachPoint(30, true, [&](Modem& m, unsigned n) {
            const PDEVICE_OBJECT device = top ? IoGetAttachedDeviceReference(m.power.pdo()) : m.rig.executive().lookUp(deviceName);
            if (!top) ObReferenceObject(device);
            nt::sim::standStill(n);
            passed += systemControl(device) == STATUS_SUCCESS;
            EXPECT_TRUE(m.rig.until([&] { return systemControl(device) == STATUS_UNSUCCESSFUL; }));
            ObDereferenceObject(device);
        }, [](Modem& m) { m.power.release(); });
        EXPECT_GT(passed, 0u);
    }
}

TEST(DriverLifecycle, removal_at_any_moment_of_an_open) {
    atEachPoint(150, false, [](Modem& m, unsigned n) {
        const std::string name = "\\DosDevices\\" + m.rig.comName();
        nt::sim::standStill(n);
        nt::File file;
        file.open(name);
    }, [](Modem& m) { m.power.release(); });
}

}  // namespace
