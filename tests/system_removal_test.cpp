// The modem goes, and comes back, at any moment: each seed is another moment and another order of events.
#include "tests/system_port.h"

#include "kernel/thread.h"

#include <atomic>
#include <memory>

namespace {

using test::OpenPort;
using test::Pending;
using test::Reader;
using test::ScriptedDevice;

constexpr std::uint64_t stepBound = 5'000'000;
constexpr std::int64_t slackMs = 100;
constexpr std::int64_t requestTimeoutMs = 400;
constexpr std::int64_t flushMs = 5000;
constexpr const char* deviceMap = "HKLM\\HARDWARE\\DEVICEMAP\\SERIALCOMM";

struct Machine : OpenPort {
    explicit Machine(std::uint64_t seed) : OpenPort(test::seeded(seed)) { nt::sim::setMaxSteps(stepBound); }
    void pause(std::uint64_t maxSteps = 3000, std::uint32_t maxMs = 15) { test::waitAtRandom(rig, maxSteps, maxMs); }
    // Does not wait for the system to notice.
    void plugIn() { EXPECT_TRUE(rig.bus().replug(rig.first().port)); }
    // `port` carries bytes both ways.
    void expectAlive(nt::File& port) {
        rig.device([](ScriptedDevice& d) {
            d.holdOut = false;
            d.echo = true;
        });
        const std::string sent = test::noise(900, 5);
        EXPECT_TRUE(test::echoed(port, sent, 2000) == sent) << rig.trace();
    }
    void expectOpensAndLives() {
        nt::File port;
        ASSERT_EQ(rig.open(port), STATUS_SUCCESS) << rig.trace();
        expectAlive(port);
        EXPECT_EQ(rig.executive().registry().string(deviceMap, "\\Device\\qvcdcacm0"), rig.comName());
    }
};

// --- One handle over a removal ------------------------------------------------------------------------------------------

struct Flight : Machine {
    using Machine::Machine;

    void start() {
        rig.device([&](ScriptedDevice& d) {
            d.holdOut = nt::sim::random(3) == 0;
            d.send(0x81, test::bytesOf(in));
        });
        for (const std::size_t size : {3u, 500u, 4000u, 64u}) {
            writes.push_back(std::make_unique<Pending>(test::noise(size, static_cast<std::uint32_t>(size))));
            out += writes.back()->buffer;
            writes.back()->write(file);
        }
        EXPECT_EQ(set(IOCTL_SERIAL_SET_WAIT_MASK, ULONG{SERIAL_EV_BREAK}), STATUS_SUCCESS);
        EXPECT_EQ(wait(event), STATUS_PENDING);
        file.flush(flush.on(file));
        flushedAtMs = test::nowMs();
    }

    void goneWhilePending(Reader& reader) {
        const std::int64_t unplugged = test::nowMs();
        rig.unplug();
        EXPECT_TRUE(rig.until([&] { return event.done(); })) << "the wait hangs";
        EXPECT_LE(event.atMs, unplugged + slackMs);
        EXPECT_EQ(static_cast<ULONG>(event.status()), 0xC00002B6u);
        rig.run(static_cast<std::uint32_t>(nt::sim::random(300)));
        reader.poll();
        EXPECT_FALSE(reader.read.done()) << std::hex << reader.read.status();
        for (const auto& write : writes) EXPECT_TRUE(!write->done() || write->status() == STATUS_SUCCESS);
        EXPECT_EQ(rig.executive().lookUp("\\DosDevices\\" + name), nullptr);
    }

    void back(Reader& reader) {
        const std::string lastIn = test::noise(300, 77), lastOut = test::noise(200, 78);
        plugIn();
        rig.device([&](ScriptedDevice& d) {
            d.holdOut = false;
            d.send(0x81, test::bytesOf(lastIn));
        });
        Pending last(lastOut);
        last.write(file);
        in += lastIn;
        out += lastOut;
        EXPECT_TRUE(rig.until([&] {
            reader.poll();
            return last.done() && received().ends_with(lastOut) && reader.text.ends_with(lastIn);
        })) << "nothing flows after the return\n" << rig.trace();
        for (const auto& write : writes) EXPECT_TRUE(write->done() && write->status() == STATUS_SUCCESS);
        // What was on the wire when the plug was pulled is lost, nothing else, and nothing comes twice.
        EXPECT_TRUE(test::hasOneGapAtMost(received(), out));
        EXPECT_TRUE(test::hasOneGapAtMost(reader.text, in));
        EXPECT_TRUE(rig.until([&] { return flush.done(); }, flushMs + slackMs)) << "the flush hangs";
        EXPECT_LE(flush.atMs, flushedAtMs + flushMs + slackMs);
        EXPECT_EQ(flush.status(), STATUS_SUCCESS);
    }

    void run() {
        name = rig.comName();
        timeouts(20, 0, 0);
        Reader reader(file);
        start();
        // Controls that ask the device, again and again, each measured.
        std::atomic<bool> stop = false;
        std::int64_t longestMs = 0;
        nt::Thread controller("controller", [&] {
            constexpr ULONG codes[] = {IOCTL_SERIAL_SET_DTR, IOCTL_SERIAL_CLR_RTS, IOCTL_SERIAL_SET_RTS, IOCTL_SERIAL_CLR_DTR};
            for (unsigned i = 0; !stop; ++i) {
                const std::int64_t begin = test::nowMs();
                i % 5 == 4 ? set(IOCTL_SERIAL_SET_BAUD_RATE, ULONG{9600 + i}) : control(codes[i % 4]);
                longestMs = std::max(longestMs, test::nowMs() - begin);
                rig.run(2);
            }
        });
        pause();
        goneWhilePending(reader);
        back(reader);
        stop = true;
        controller.join();
        EXPECT_LE(longestMs, requestTimeoutMs + slackMs);
    }

    std::string name;
    std::string in = test::noise(5000, 3), out;
    std::vector<std::unique_ptr<Pending>> writes;
    Pending event, flush;
    std::int64_t flushedAtMs = 0;
};

// --- Removal against the other events of a port's life -------------------------------------------------------------------

template <class Subject = Machine, class Scenario>
void overSeeds(unsigned count, Scenario&& scenario) {
    for (const auto seed : test::seeds(count)) {
        Subject subject(seed);
        scenario(subject);
        ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed;
    }
}

TEST(Removal, requests_pending_on_one_handle) {
    overSeeds<Flight>(200, [](Flight& flight) { flight.run(); });
}

TEST(Removal, while_the_handle_closes) {
    overSeeds(20, [](Machine& m) {
        // Half of the runs: the close waits for bytes nobody takes.
        const bool stuck = nt::sim::random(2) == 0;
        m.hold(stuck);
        EXPECT_EQ(m.write(test::noise(1500)), STATUS_SUCCESS);
        std::int64_t tookMs = 0;
        nt::Thread closer("closer", [&] {
            const std::int64_t begin = test::nowMs();
            m.file.close();
            tookMs = test::nowMs() - begin;
        });
        m.pause(2000, stuck ? 1200 : 20);
        m.rig.unplug();
        closer.join();
        // 51 looks at the ring, 20 ms apart; the control lines; the notification.
        EXPECT_LE(tookMs, 51 * 20 + 2 * requestTimeoutMs + slackMs);
        m.rig.settle();
        m.rig.replug();
        m.rig.device([](ScriptedDevice& d) { d.outs.clear(); });
        m.expectOpensAndLives();
    });
}

// In half of the runs an application tries to open it all the time.
TEST(Removal, while_the_device_starts) {
    overSeeds(40, [](Machine& m) {
        const std::string name = m.rig.comName();
        m.file.close();
        bool stop = nt::sim::random(2) == 0;
        nt::Thread opener("opener", [&] {
            while (!stop) {
                nt::File file;
                file.open("\\DosDevices\\" + name);
                m.rig.run(1);
            }
        });
        for (int again = 0; again < 4; ++again) {
            m.pause();
            m.rig.unplug();
            m.pause();
            m.plugIn();
        }
        stop = true;
        opener.join();
        m.expectOpensAndLives();
    });
}

TEST(Removal, return_under_another_identifier) {
    overSeeds(10, [](Machine& m) {
        const std::string first = m.rig.comName();
        Pending read(10);
        read.read(m.file);
        m.rig.unplug();
        m.pause();
        m.rig.replug("0002");
        EXPECT_NE(m.rig.comName(), first);
        nt::File second;
        ASSERT_EQ(m.rig.open(second), STATUS_SUCCESS);
        EXPECT_NE(m.rig.executive().lookUp("\\Device\\qvcdcacm0"), nullptr);
        m.expectAlive(second);
        EXPECT_FALSE(read.done());
        EXPECT_FALSE(NT_SUCCESS(m.control(IOCTL_SERIAL_SET_DTR)));
        m.file.close();
        EXPECT_TRUE(m.rig.until([&] { return read.done(); }));
        EXPECT_EQ(read.status(), STATUS_CANCELLED);
        m.rig.settle();
        EXPECT_EQ(m.rig.executive().lookUp("\\Device\\qvcdcacm0"), nullptr);
        m.expectAlive(second);
    });
}

// A handle on the old stack keeps its REMOVE back until long after the modem's return.
TEST(Removal, late_removal_of_the_old_stack) {
    overSeeds(15, [](Machine& m) {
        nt::File& old = m.file;
        old.close();
        ASSERT_EQ(old.open(m.rig.executive().enabledInterfaces().at(0)), STATUS_SUCCESS);
        m.rig.unplug();
        m.pause();
        m.rig.replug();
        m.pause();
        nt::File refused;
        EXPECT_FALSE(NT_SUCCESS(refused.open("\\DosDevices\\" + m.rig.comName()))) << "the port is in use";
        if (nt::sim::random(2) == 0) m.expectAlive(old);
        old.close();
        m.rig.settle();
        m.expectOpensAndLives();
    });
}

}  // namespace
