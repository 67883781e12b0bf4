// Real threads on the real clock, with delays wherever threads may get ahead of each other. Made for the thread sanitizer.
#include "tests/system_port.h"

#include "comport/usbip_modem.h"
#include "kernel/faults.h"
#include "kernel/hand.h"
#include "kernel/thread.h"
#include "usb/usbip_backend.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

namespace {

using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::TestRig;

constexpr unsigned rounds = 4;
constexpr std::size_t bytesPerRound = 20'000;

RigOptions realTime() {
    RigOptions options;
    options.mode = nt::Mode::real;
    return options;
}

// A generator of its own for each thread.
struct Dice : std::minstd_rand {
    explicit Dice(std::uint32_t seed) : std::minstd_rand(seed) {}
    std::uint32_t roll(std::uint32_t bound) { return static_cast<std::uint32_t>((*this)() % bound); }
};

// A request whose end another thread waits for.
class Waited {
public:
    Waited() { KeInitializeEvent(&ended_, NotificationEvent, FALSE); }
    template <class Issue>
    void issue(Issue&& issue) {
        KeClearEvent(&ended_);
        issue(request_);
    }
    void await() { KeWaitForSingleObject(&ended_, Executive, KernelMode, FALSE, nullptr); }
    nt::Request& request() { return request_; }

private:
    static void done(nt::Request&, void* context) {
        KeSetEvent(&static_cast<Waited*>(context)->ended_, IO_NO_INCREMENT, FALSE);
    }
    KEVENT ended_;
    nt::Request request_{done, this};
};

void pause(std::uint32_t ms) {
    LARGE_INTEGER time;
    time.QuadPart = -static_cast<LONGLONG>(ms) * 10000;
    KeDelayExecutionThread(KernelMode, FALSE, &time);
}

// Everything an application does beside its data.
void controls(nt::File& file, Dice dice, const std::atomic<bool>& stop) {
    while (!stop) {
        switch (dice.roll(6)) {
        case 0: test::control(file, IOCTL_SERIAL_SET_DTR); break;
        case 1: test::control(file, IOCTL_SERIAL_CLR_RTS); break;
        case 2: test::control(file, IOCTL_SERIAL_SET_BAUD_RATE, SERIAL_BAUD_RATE{57600}); break;
        case 3: file.flush(); break;
        case 4: {
            SERIAL_STATUS status;
            file.control(IOCTL_SERIAL_GET_COMMSTATUS, nullptr, 0, &status, sizeof(status));
            break;
        }
        default: test::control(file, IOCTL_SERIAL_SET_WAIT_MASK, ULONG{SERIAL_EV_RXCHAR | SERIAL_EV_TXEMPTY}); break;
        }
        pause(dice.roll(2));
    }
}

// Waits for events, some of them cancelled.
void waits(nt::File& file, Dice dice, const std::atomic<bool>& stop) {
    while (!stop) {
        Waited wait;
        ULONG mask = 0;
        wait.issue([&](nt::Request& r) { file.control(r, IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, &mask, sizeof(mask)); });
        pause(dice.roll(3));
        file.cancel(wait.request());
        wait.await();
    }
}

// Reads, writes and purges that are cancelled at any moment; their bytes do not matter. The thread serves the device itself when
// it feels like it, and blocks with that work in hand when not.
void transfers(nt::File& file, Dice dice, const std::atomic<bool>& stop) {
    std::string out = test::noise(3000, 9), in(3000, '\0');
    nt::HandScope hand;
    while (!stop) {
        Waited read, write;
        const ULONG length = 1 + dice.roll(3000);
        read.issue([&](nt::Request& r) { file.read(r, in.data(), length); });
        write.issue([&](nt::Request& r) { file.write(r, out.data(), length); });
        if (dice.roll(2) == 0) hand.work();
        pause(dice.roll(3));
        if (dice.roll(4) == 0) test::control(file, IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR | SERIAL_PURGE_TXABORT});
        if (dice.roll(8) == 0) {
            file.cancelAll();
        } else {
            file.cancel(read.request());
            file.cancel(write.request());
        }
        read.await();
        write.await();
    }
}

// Sends a stream through the echo in random pieces and checks every byte of it. The writer serves the device itself now and then.
void checkedStream(nt::File& file, std::uint32_t seed) {
    const std::string sent = test::noise(bytesPerRound, seed);
    nt::Thread writer("writer", [&] {
        Dice dice(seed);
        nt::HandScope hand;
        for (std::size_t at = 0; at < sent.size();) {
            const auto length = static_cast<ULONG>(std::min<std::size_t>(1 + dice.roll(3000), sent.size() - at));
            Waited write;
            write.issue([&](nt::Request& r) { file.write(r, sent.data() + at, length); });
            if (dice.roll(2) == 0) hand.work();
            write.await();
            EXPECT_EQ(write.request().status(), STATUS_SUCCESS);
            at += length;
        }
    });
    Dice dice(seed + 1);
    std::string back, buffer(4000, '\0');
    while (back.size() < sent.size()) {
        const auto length = static_cast<ULONG>(std::min<std::size_t>(1 + dice.roll(4000), sent.size() - back.size()));
        const auto result = file.read(buffer.data(), length);
        back.append(buffer, 0, result.information);
        if (result.status != STATUS_SUCCESS) break;
    }
    writer.join();
    EXPECT_EQ(back.size(), sent.size());
    EXPECT_TRUE(sent.starts_with(back));
}

// Takes what earlier requests left on its way through the echo.
void drain(nt::File& file) {
    std::string rest(4096, '\0');
    EXPECT_EQ(test::setTimeouts(file, 0, 200, 5000), STATUS_SUCCESS);
    while (file.read(rest.data(), static_cast<ULONG>(rest.size())).information != 0) {
    }
    EXPECT_EQ(test::setTimeouts(file, 0, 20'000, 20'000), STATUS_SUCCESS);
}

// Everything at once while the device leaves three times, as `leave` makes it; what comes afterwards must be whole.
template <class Leave>
void underFire(TestRig& rig, nt::File& file, unsigned round, Leave&& leave) {
    ASSERT_EQ(rig.open(file, 20'000), STATUS_SUCCESS);
    EXPECT_EQ(test::setTimeouts(file, 10, 0, 0), STATUS_SUCCESS);
    std::atomic<bool> stop{false};
    std::vector<nt::Thread> threads;
    threads.emplace_back("controls", [&] { controls(file, Dice(round + 30), stop); });
    threads.emplace_back("transfers", [&] { transfers(file, Dice(round + 40), stop); });
    threads.emplace_back("more transfers", [&] { transfers(file, Dice(round + 50), stop); });
    threads.emplace_back("second opener", [&, dice = Dice(round + 60)]() mutable {
        while (!stop) {
            nt::File second;
            EXPECT_FALSE(NT_SUCCESS(second.open("\\DosDevices\\" + rig.comName())));
            pause(dice.roll(5));
        }
    });
    Dice dice(round + 70);
    for (unsigned i = 0; i < 3; ++i) {
        pause(dice.roll(40));
        leave(dice);
        // A server may not yet have noticed that the device is free.
        EXPECT_TRUE(rig.until([&] { return rig.bus().replug(rig.first().port); }, 20'000));
    }
    pause(200);
    stop = true;
    threads.clear();
    rig.settle();
    drain(file);
    checkedStream(file, round + 100);
    file.close();
}

class Stress : public testing::Test {
protected:
    Stress() : rig(realTime()) {
        rig.device([](ScriptedDevice& d) {
            d.echo = true;
            d.discard = true;
        });
        nt::faults::setDelays(true, 7);
    }
    ~Stress() override { nt::faults::setDelays(false); }
    void open() { ASSERT_EQ(rig.open(file, 20'000), STATUS_SUCCESS); }
    // Lets every thread see it and end.
    void join(std::vector<nt::Thread>& threads) {
        stop = true;
        threads.clear();
        stop = false;
    }

    TestRig rig;
    nt::File file;
    std::atomic<bool> stop{false};
};

TEST_F(Stress, every_byte_beside_controls_and_waits) {
    for (unsigned round = 0; round < rounds && !HasFailure(); ++round) {
        open();
        drain(file);
        std::vector<nt::Thread> threads;
        threads.emplace_back("controls", [&] { controls(file, Dice(round + 10), stop); });
        threads.emplace_back("waits", [&] { waits(file, Dice(round + 20), stop); });
        checkedStream(file, round + 1);
        join(threads);
        file.close();
    }
}

TEST_F(Stress, removals_under_fire) {
    for (unsigned round = 0; round < rounds && !HasFailure(); ++round) {
        underFire(rig, file, round, [&](Dice& dice) {
            rig.unplug();
            pause(dice.roll(20));
        });
    }
}

// Who blocks with the device's work in hand must not wait for himself.
TEST_F(Stress, the_device_is_served_by_whoever_has_the_time) {
    open();
    drain(file);
    const std::string sent = test::noise(2000, 5);
    std::string back(sent.size(), '\0');
    nt::HandScope hand;
    for (const bool byHand : {true, false, true}) {
        EXPECT_EQ(file.write(sent.data(), static_cast<ULONG>(sent.size())).status, STATUS_SUCCESS);
        if (byHand) hand.work();
        EXPECT_EQ(file.read(back.data(), static_cast<ULONG>(back.size())).information, sent.size());
        EXPECT_EQ(back, sent);
    }
    EXPECT_EQ(file.write("x", 1).status, STATUS_SUCCESS);
    file.close();
}

// Opening and closing against the modem's coming and going; the last round must work.
TEST_F(Stress, opens_and_closes_while_the_modem_comes_and_goes) {
    const std::string name = "\\DosDevices\\" + rig.comName();
    std::vector<nt::Thread> threads;
    for (std::uint32_t i = 0; i < 2; ++i) {
        threads.emplace_back("opener", [&, dice = Dice(i + 80)]() mutable {
            while (!stop) {
                nt::File mine;
                if (NT_SUCCESS(mine.open(name))) {
                    mine.write("x", 1);
                    pause(dice.roll(10));
                }
                pause(dice.roll(3));
            }
        });
    }
    Dice dice(90);
    for (unsigned i = 0; i < 10; ++i) {
        pause(dice.roll(60));
        rig.unplug();
        pause(dice.roll(10));
        EXPECT_TRUE(rig.bus().replug(rig.first().port));
    }
    join(threads);
    rig.settle();
    open();
    drain(file);
    checkedStream(file, 200);
    file.close();
}

// A device behind a USB/IP client and server on real sockets. Either end gives up under fire; the next connection carries every byte.
TEST(StressUsbip, connections_come_and_go_under_fire) {
    RigOptions options = realTime();
    options.plug = false;
    TestRig rig(options);
    auto device = std::make_unique<ScriptedDevice>();
    device->echo = device->discard = true;
    usb::usbip::DeviceRecord record = usb::usbip::describe(device->deviceDescriptor(), device->configurationDescriptor(0));
    record.busId = "1-1";
    const std::vector exports{std::make_shared<usb::UsbipExport>(
        std::make_shared<usb::VirtualBackend>(std::move(device), "exported"), record)};
    comport::NetAddress address;
    auto server = std::make_unique<comport::UsbipServer>(exports, address);
    address.port = server->port();
    rig.first().port = rig.bus().plug(usb::makeUsbipBackend(address.host, address.port, "1-1"), "imported");
    ASSERT_NE(rig.first().port, 0u);
    rig.settle();
    nt::faults::setDelays(true, 7);
    nt::File file;
    for (unsigned round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
        underFire(rig, file, round + 200, [&](Dice& dice) {
            if (dice.roll(2) == 0) {
                server.reset();
                server = std::make_unique<comport::UsbipServer>(exports, address);
            } else {
                rig.unplug();
            }
        });
    }
    nt::faults::setDelays(false);
    rig.unplug();
    server.reset();
}

// --- Rest -------------------------------------------------------------------------------------------------------------

// How often each thread of the process but this one has gone to sleep by itself, and so been woken.
std::map<std::string, std::uint64_t> wakeUps() {
    std::map<std::string, std::uint64_t> counts;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string id = task.path().filename();
        std::ifstream file(task.path() / "status");
        for (std::string line; id != std::to_string(::gettid()) && std::getline(file, line);) {
            if (line.starts_with("voluntary_ctxt_switches:")) counts[id] = std::stoull(line.substr(line.find(':') + 1));
        }
    }
    return counts;
}

// A port that is closed, or whose device is suspended, wakes nothing up.
TEST(Rest, closed_and_suspended_ports_wake_nothing) {
    const std::pair<unsigned, bool> table[] = {{1, false}, {100, false}, {1, true}, {100, true}};
    for (const auto& [ports, suspended] : table) {
        SCOPED_TRACE(testing::Message() << ports << (suspended ? " suspended" : " closed"));
        const auto others = wakeUps();  // of a sanitizer, say
        RigOptions options = realTime();
        options.plug = false;
        TestRig rig(options);
        std::vector<test::Plugged> plugged;
        std::vector<nt::File> files(suspended ? ports : 0);
        for (unsigned i = 0; i < ports; ++i) {
            const std::string instance = std::to_string(1000 + i);
            rig.setDeviceValue("IdleInterval", suspended, instance);
            plugged.push_back(rig.plug(std::make_unique<ScriptedDevice>(), instance));
        }
        for (unsigned i = 0; i < files.size(); ++i) {
            const std::string name = "\\DosDevices\\COM" + std::to_string(3 + i);
            ASSERT_TRUE(rig.until([&] { return NT_SUCCESS(files[i].open(name)); }, 20'000));
        }
        const auto atRest = [&] {
            return std::all_of(plugged.begin(), plugged.end(), [&, sleeps = suspended](const test::Plugged& p) {
                const auto bus = rig.bus().statistics(p.port);
                return bus.pending == 0 && (bus.power == PowerDeviceD2) == sleeps;
            });
        };
        ASSERT_TRUE(rig.until(atRest, 20'000));
        rig.run(3000);  // what the last activity left behind is over
        const auto before = wakeUps();
        ::sleep(1);
        std::uint64_t woken = 0;
        for (const auto& [id, count] : wakeUps()) {
            const auto known = before.find(id);
            if (others.count(id) == 0) woken += count - (known == before.end() ? 0 : known->second);
        }
        std::printf("%3u %s ports: %llu wake-ups in a second\n", ports, suspended ? "suspended" : "closed",
                    static_cast<unsigned long long>(woken));
        EXPECT_LE(woken, 2u);
    }
}

}  // namespace
