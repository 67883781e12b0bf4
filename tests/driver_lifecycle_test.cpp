// The life of a port under way: last handles, removals, restarts and sleep meeting each other at any moment.
#include "tests/support/port.h"

#include "cdcacm/pnpadd.h"
#include "cdcacm/wdmpwr.h"
#include "kernel/faults.h"
#include "kernel/sim.h"
#include "kernel/thread.h"

#include <algorithm>

namespace {

using test::nowMs;
using test::OpenPort;
using test::Pending;
using test::PortPower;
using test::RigOptions;
using test::ScriptedDevice;
using test::seeded;
using test::spin;
using test::TestRig;
using usb::ControlReply;
using usb::SetupPacket;

constexpr const char* deviceName = "\\Device\\qvcdcacm0";
constexpr std::uint8_t setConfiguration = 9, setControlLineState = 0x22;

// A port with whatever the modem gets coming back, and its driver's record at hand.
struct Modem : OpenPort {
    explicit Modem(const RigOptions& options = {}) : OpenPort(options), power(rig) {
        rig.device([](ScriptedDevice& d) { d.echo = true; });
    }
    bool exists() { return rig.executive().lookUp(deviceName) != nullptr; }
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
    void expectDeleted() { EXPECT_TRUE(rig.until([&] { return !exists(); }, 3000)); }
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

// The last request's end closes the file on another thread, and with it the removed port goes.
TEST(DriverLifecycle, port_deleted_while_its_last_requests_end) {
    overSeeds(60, {}, [](Modem& m, std::uint64_t seed) {
        std::vector<std::unique_ptr<Pending>> reads;
        for (int i = 0; i < 3; ++i) m.read(*reads.emplace_back(std::make_unique<Pending>(5)));
        m.rig.unplug();
        m.rig.settle();
        nt::Thread closer("closer", [&] { m.file.close(); });
        spin(seed % 60);
        m.file.cancelAll();
        closer.join();
        m.rig.settle();
        for (const auto& read : reads) EXPECT_EQ(read->completions, 1u);
        m.expectDeleted();
    });
}

// Keeps others from a spin lock of the driver until they have come to stand before it.
class HeldLock {
public:
    explicit HeldLock(KSPIN_LOCK& lock) : lock_(lock) { KeAcquireSpinLock(&lock_, &irql_); }
    ~HeldLock() { KeReleaseSpinLock(&lock_, irql_); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

private:
    KSPIN_LOCK& lock_;
    KIRQL irql_;
};

// The read that is being cancelled ends with the handle, and the port with both: the cancellation comes to its end first.
TEST(DriverLifecycle, last_close_meets_a_cancellation) {
    overSeeds(100, {}, [](Modem& m, std::uint64_t) {
        Pending read(5);
        m.read(read);
        m.rig.unplug();
        m.rig.settle();
        DEVICE& device = m.record();
        nt::Thread closer, canceller;
        {
            HeldLock lock(device.Lock);
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
        m.rig.unplug();
        m.rig.settle();
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
        m.rig.unplug();
        m.rig.settle();
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
        ASSERT_EQ(m.rig.open(m.file), STATUS_SUCCESS);
        m.expectAlive();
    });
}

// The modem is back while the last handle on it goes: the port goes on or is made anew, never half of each.
TEST(DriverLifecycle, last_close_races_return) {
    overSeeds(150, {}, [](Modem& m, std::uint64_t) {
        m.rig.unplug();
        m.rig.settle();
        nt::Thread closer("closer", [&] {
            spin(nt::sim::random(900));
            m.file.close();
        });
        m.rig.replug();
        closer.join();
        EXPECT_EQ(m.rig.comName(), "COM3");
        nt::File again;
        ASSERT_EQ(m.rig.open(again), STATUS_SUCCESS);
        m.file = std::move(again);
        m.expectAlive();
    });
}

// Holds back whoever wants one of the driver's mutexes, so that a test decides in which order they go on.
class Held {
public:
    explicit Held(KMUTEX& mutex) : mutex_(mutex) {
        KeWaitForSingleObject(&mutex_, Executive, KernelMode, FALSE, nullptr);
    }
    ~Held() { KeReleaseMutex(&mutex_, FALSE); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

private:
    KMUTEX& mutex_;
};

// The return is the first in line for the list of devices when the last reference falls.
TEST(DriverLifecycle, return_meets_a_port_about_to_be_deleted) {
    overSeeds(10, {}, [](Modem& m, std::uint64_t) {
        m.rig.unplug();
        m.rig.settle();
        nt::Thread plugger, closer;
        {
            Held list(DeviceListMutex);
            plugger.start("plugger", [&] { m.rig.replug(); });
            m.rig.run(10);
            closer.start("closer", [&] { m.file.close(); });
            m.rig.run(1500);
        }
        plugger.join();
        closer.join();
        nt::File again;
        ASSERT_EQ(m.rig.open(again), STATUS_SUCCESS);
        m.file = std::move(again);
        m.expectAlive();
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
            Held device(m.record().Mutex);
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

// Bytes on the way in both directions when the device is stopped, started, removed.
TEST(DriverLifecycle, restart_under_traffic) {
    overSeeds(30, {}, [](Modem& m, std::uint64_t seed) {
        const std::string path = m.rig.instancePath();
        m.rig.device([](ScriptedDevice& d) { d.pour = 200'000; });
        Pending read(100'000), write(std::string(20'000, 'w'));
        m.read(read);
        m.write(write);
        spin(seed * 13 % 400);
        EXPECT_EQ(m.rig.executive().queryStop(path), STATUS_SUCCESS);
        EXPECT_EQ(m.rig.executive().stopDevice(path), STATUS_SUCCESS);
        m.rig.run(200);
        EXPECT_EQ(m.rig.statistics().pending, 0u) << "a stopped device has transfers";
        EXPECT_EQ(m.rig.executive().startDevice(path), STATUS_SUCCESS);
        EXPECT_TRUE(m.rig.until([&] { return read.done() && write.done(); }));
        EXPECT_EQ(read.information(), 100'000u);
        EXPECT_EQ(write.status(), STATUS_SUCCESS);
    });
}

// A recovery that waits its turn finds the device stopped, and no transfer goes to a stopped device.
TEST(DriverLifecycle, error_then_stop) {
    overSeeds(30, {}, [](Modem& m, std::uint64_t seed) {
        const std::string path = m.rig.instancePath();
        m.rig.device([](ScriptedDevice& d) {
            d.stallIn = 1;
            d.sendBulk("x");
        });
        spin(seed * 5 % 200);
        EXPECT_EQ(m.rig.executive().queryStop(path), STATUS_SUCCESS);
        EXPECT_EQ(m.rig.executive().stopDevice(path), STATUS_SUCCESS);
        m.rig.run(600);
        EXPECT_EQ(m.rig.statistics().pending, 0u) << "a stopped device has transfers";
        EXPECT_EQ(m.rig.executive().startDevice(path), STATUS_SUCCESS);
        m.rig.run(100);
        m.rig.device([](ScriptedDevice& d) { d.sendBulk("y"); });
        Pending read(1);
        m.read(read);
        EXPECT_TRUE(m.rig.until([&] { return read.done(); }));
    });
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
        EXPECT_EQ(m.rig.executive().queryStop(path), STATUS_SUCCESS);
        EXPECT_EQ(m.rig.executive().stopDevice(path), STATUS_SUCCESS);
        m.stall(setConfiguration, true);
        m.rig.allowAssertions();   // a pipe that is not there is asserted and refused
        m.rig.run(460 + static_cast<std::uint32_t>(seed % 10) * 3);
        ScheduleReinit(&m.record());
        nt::Thread starter("starter", [&] { EXPECT_NE(m.rig.executive().startDevice(path), STATUS_SUCCESS); });
        spin(seed * 17 % 300);
        ScheduleReinit(&m.record());
        starter.join();
        m.rig.run(100);
        m.stall(setConfiguration, false);
        EXPECT_EQ(m.control(IOCTL_SERIAL_SET_DTR), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(m.rig.executive().startDevice(path), STATUS_SUCCESS);
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
        ASSERT_EQ(m.rig.open(m.file), STATUS_SUCCESS);
        m.expectAlive();
        m.file.close();
        m.rig.unplug();
        m.rig.settle();
        m.expectDeleted();
    });
}

TEST(DriverLifecycle, removal_races_power_up) {
    overSeeds(100, {}, [](Modem& m, std::uint64_t) {
        m.power.set(PowerDeviceD2);
        nt::Thread waker("waker", [&] { m.power.set(PowerDeviceD0); });
        nt::Thread closer("closer", [&] {
            spin(nt::sim::random(700));
            m.file.close();
        });
        spin(nt::sim::random(150));
        m.rig.unplug();
        m.rig.settle();
        waker.join();
        closer.join();
        m.expectDeleted();
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

TEST(DriverLifecycle, unplugged_asleep_comes_back_awake) {
    const struct {
        const char* what;
        std::uint32_t idleSeconds;
        bool rejectD0;
    } cases[] = {{"sleeping", 0, false}, {"suspended for idleness", 1, false}, {"and never woken by the bus", 1, true}};
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        RigOptions options = seeded(1, {{"IdleInterval", item.idleSeconds}});
        options.port.rejectD0WhenGone = item.rejectD0;
        Modem m(options);
        if (item.idleSeconds == 0) m.power.set(PowerDeviceD2);
        ASSERT_TRUE(m.rig.until([&] { return m.rig.statistics().power == PowerDeviceD2; }, 5000));
        m.rig.unplug();
        m.rig.settle();
        m.rig.run(100);
        m.rig.replug();
        m.rig.run(500);
        m.expectAlive();
        m.file.close();
        m.rig.unplug();
        m.rig.settle();
        m.expectDeleted();
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
        m.file.close();
        m.rig.unplug();
        m.rig.settle();
        m.expectDeleted();
        if (!struck) break;
        ASSERT_LT(n, 50u);
    }
}

// The wake request ends by itself while somebody cancels it; none is forgotten and none touched after its end.
TEST(DriverLifecycle, wake_races_removal_and_restart) {
    overSeeds(60, {}, [](Modem& m, std::uint64_t seed) {
        const std::string path = m.rig.instancePath();
        // The first initialisation comes before the capabilities are known.
        ScheduleReinit(&m.record());
        m.rig.run(50);
        EXPECT_TRUE(m.rig.statistics().wakeArmed);
        if (seed % 2) {
            EXPECT_EQ(m.rig.executive().queryStop(path), STATUS_SUCCESS);
            EXPECT_EQ(m.rig.executive().stopDevice(path), STATUS_SUCCESS);
            EXPECT_EQ(m.rig.executive().startDevice(path), STATUS_SUCCESS);
            m.rig.run(100);
            EXPECT_TRUE(m.rig.statistics().wakeArmed);
            m.expectAlive();
        } else {
            m.power.set(PowerDeviceD2);
            m.rig.device([](ScriptedDevice& d) { d.wakesHost = true; });
            spin(seed * 7 % 150);
        }
        m.rig.unplug();
        m.rig.settle();
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
            HeldLock lock(device.Lock);
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
        m.rig.unplug();
        m.rig.settle();
        m.file.close();
        m.expectDeleted();
    });
}

// --- Removal ----------------------------------------------------------------------------------------------------------

// Every text of the way out names the port, whoever prints it and whatever is freed by then.
TEST(DriverLifecycle, removal_with_all_traces_on) {
    for (const auto seed : test::seeds(30)) {
        RigOptions options = seeded(seed);
        options.traceMask = MAXULONG;
        Modem m(options);
        Pending read(100'000), write(std::string(5000, 'w'));
        m.read(read);
        m.write(write);
        spin(seed * 9 % 300);
        nt::Thread closer("closer", [&] {
            spin(seed * 31 % 400);
            m.file.close();
        });
        m.rig.unplug();
        m.rig.settle();
        closer.join();
        m.expectDeleted();
        m.rig.replug();
        EXPECT_TRUE(m.rig.traced(":COM3:DecRef: 0, ") || m.rig.traced(":COM?:DecRef: 0, "));
        EXPECT_EQ(m.rig.trace().find('\xEE'), std::string::npos);
    }
}

// A request for the stack as a whole, to either device object.
NTSTATUS systemControl(PDEVICE_OBJECT device) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    const PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_SYSTEM_CONTROL;
    const auto ended = [](PDEVICE_OBJECT, PIRP, PVOID event) -> NTSTATUS {
        KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    IoSetCompletionRoutine(irp, static_cast<PIO_COMPLETION_ROUTINE>(ended), &done, TRUE, TRUE, TRUE);
    IoCallDriver(device, irp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    const NTSTATUS status = irp->IoStatus.Status;
    IoFreeIrp(irp);
    return status;
}

TEST(DriverLifecycle, system_control_races_removal) {
    overSeeds(60, {}, [](Modem& m, std::uint64_t seed) {
        const PDEVICE_OBJECT data = m.rig.executive().lookUp(deviceName);
        const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(m.power.pdo());
        ObReferenceObject(data);
        EXPECT_EQ(systemControl(top), STATUS_NOT_SUPPORTED);
        m.file.close();
        std::vector<nt::Thread> senders;
        for (const PDEVICE_OBJECT device : {data, top}) {
            senders.emplace_back("sender", [device] {
                for (int i = 0; i < 15; ++i) systemControl(device);
            });
        }
        spin(seed * 5 % 200);
        m.power.release();
        m.rig.unplug();
        m.rig.settle();
        senders.clear();
        EXPECT_EQ(systemControl(data), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(systemControl(top), STATUS_UNSUCCESSFUL);
        ObDereferenceObject(data);
        ObDereferenceObject(top);
        m.expectDeleted();
    });
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
        m.rig.unplug();
        m.rig.settle();
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

// Nothing is sent to a stack that has gone.
TEST(DriverLifecycle, removal_at_any_moment_of_a_system_control) {
    for (const bool top : {false, true}) {
        atEachPoint(30, true, [top](Modem& m, unsigned n) {
            const PDEVICE_OBJECT device = top ? IoGetAttachedDeviceReference(m.power.pdo()) : m.rig.executive().lookUp(deviceName);
            if (!top) ObReferenceObject(device);
            nt::sim::standStill(n);
            systemControl(device);
            ObDereferenceObject(device);
        }, [](Modem& m) { m.power.release(); });
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
