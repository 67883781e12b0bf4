// The modem goes, and comes back, at any moment: each seed is another moment and another order of events.
#include "tests/system_port.h"

#include "kernel/thread.h"

#include <memory>

namespace {

using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::TestRig;

constexpr std::uint64_t stepBound = 5'000'000;
constexpr std::int64_t slackMs = 100;
constexpr std::int64_t requestTimeoutMs = 400;
constexpr std::int64_t flushMs = 5000;
constexpr const char* deviceMap = "HKLM\\HARDWARE\\DEVICEMAP\\SERIALCOMM";

RigOptions seeded(std::uint64_t seed) {
    RigOptions options;
    options.seed = seed;
    return options;
}

std::string received(TestRig& rig) {
    return rig.device([](ScriptedDevice& d) { return d.outText(); });
}

// A machine with its first device, perhaps open.
struct Machine {
    explicit Machine(std::uint64_t seed, bool opened = true) : rig(seeded(seed)) {
        nt::sim::setMaxSteps(stepBound);
        if (opened) {
            EXPECT_EQ(rig.open(file), STATUS_SUCCESS);
            EXPECT_EQ(test::setTimeouts(file, 0, 0, 0), STATUS_SUCCESS);
        }
    }
    void wait(std::uint64_t maxSteps = 3000, std::uint32_t maxMs = 15) { test::waitAtRandom(rig, maxSteps, maxMs); }
    // The port named `name` opens and carries bytes both ways.
    void expectAlive(nt::File& port) {
        const std::string out = test::noise(700, 5), in = test::noise(900, 6);
        const std::string before = received(rig);
        rig.device([&](ScriptedDevice& d) {
            d.holdOut = false;
            d.send(0x81, test::bytesOf(in));
        });
        EXPECT_EQ(test::setTimeouts(port, 0, 2000, 2000), STATUS_SUCCESS);
        EXPECT_EQ(port.write(out.data(), static_cast<ULONG>(out.size())).status, STATUS_SUCCESS);
        Pending read(in.size());
        read.read(port);
        EXPECT_TRUE(rig.until([&] { return read.done() && received(rig) == before + out; })) << rig.trace();
        EXPECT_TRUE(read.text() == in) << read.request.information();
    }
    void expectOpensAndLives() {
        nt::File port;
        ASSERT_EQ(rig.open(port), STATUS_SUCCESS) << rig.trace();
        expectAlive(port);
        EXPECT_EQ(rig.executive().registry().string(deviceMap, "\\Device\\qvcdcacm0"), rig.comName());
    }

    TestRig rig;
    nt::File file;
};

// Reads one after another into one string.
struct Reader {
    explicit Reader(nt::File& f) : file(f) { next(); }
    void next() {
        read.completions = 0;
        read.read(file);
    }
    // True when something came.
    void poll() {
        while (read.done() && NT_SUCCESS(read.status())) {
            text += read.text();
            next();
        }
    }
    nt::File& file;
    Pending read{std::size_t(61)};
    std::string text;
};

// --- One handle over a removal ------------------------------------------------------------------------------------------

// Controls that ask the device, again and again, each measured.
struct Controller {
    Controller(TestRig& rig, nt::File& file)
        : thread("controller", [this, &rig, &file] {
              constexpr ULONG codes[] = {IOCTL_SERIAL_SET_DTR, IOCTL_SERIAL_CLR_RTS, IOCTL_SERIAL_SET_RTS, IOCTL_SERIAL_CLR_DTR};
              for (unsigned i = 0; !stop; ++i) {
                  const std::int64_t begin = test::nowMs();
                  if (i % 5 == 4) {
                      test::control(file, IOCTL_SERIAL_SET_BAUD_RATE, SERIAL_BAUD_RATE{9600 + i});
                  } else {
                      test::control(file, codes[i % 4]);
                  }
                  longestMs = std::max(longestMs, test::nowMs() - begin);
                  rig.run(2);
              }
          }) {}

    bool stop = false;
    std::int64_t longestMs = 0;
    nt::Thread thread;
};

struct Flight {
    explicit Flight(std::uint64_t seed) : machine(seed), rig(machine.rig), file(machine.file) {}

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
        EXPECT_EQ(test::control(file, IOCTL_SERIAL_SET_WAIT_MASK, ULONG{SERIAL_EV_BREAK}), STATUS_SUCCESS);
        file.control(wait.on(file), IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, &wait.value, sizeof(wait.value));
        file.flush(flush.request);
        flushedAtMs = test::nowMs();
    }

    void goneWhilePending(Reader& reader) {
        const std::int64_t unplugged = test::nowMs();
        rig.unplug();
        EXPECT_TRUE(rig.until([&] { return wait.done(); })) << "the wait hangs";
        EXPECT_LE(wait.atMs, unplugged + slackMs);
        EXPECT_EQ(static_cast<ULONG>(wait.status()), 0xC00002B6u);
        rig.run(static_cast<std::uint32_t>(nt::sim::random(300)));
        reader.poll();
        EXPECT_FALSE(reader.read.done()) << std::hex << reader.read.status();
        for (const auto& write : writes) EXPECT_TRUE(!write->done() || write->status() == STATUS_SUCCESS);
        EXPECT_EQ(rig.executive().lookUp("\\DosDevices\\" + name), nullptr);
    }

    void back(Reader& reader) {
        const std::string lastIn = test::noise(300, 77), lastOut = test::noise(200, 78);
        EXPECT_TRUE(rig.bus().replug(rig.first().port));
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
            return last.done() && received(rig).ends_with(lastOut) && reader.text.ends_with(lastIn);
        })) << "nothing flows after the return\n" << rig.trace();
        for (const auto& write : writes) EXPECT_TRUE(write->done() && write->status() == STATUS_SUCCESS);
        // What was on the wire when the plug was pulled is lost, nothing else, and nothing comes twice.
        EXPECT_TRUE(test::hasOneGapAtMost(received(rig), out));
        EXPECT_TRUE(test::hasOneGapAtMost(reader.text, in));
        EXPECT_TRUE(rig.until([&] { return flush.done(); }, flushMs + slackMs)) << "the flush hangs";
        EXPECT_LE(flush.atMs, flushedAtMs + flushMs + slackMs);
        EXPECT_EQ(flush.status(), STATUS_SUCCESS);
    }

    void run() {
        name = rig.comName();
        EXPECT_EQ(test::setTimeouts(file, 20, 0, 0), STATUS_SUCCESS);
        Reader reader(file);
        start();
        Controller controller(rig, file);
        machine.wait();
        goneWhilePending(reader);
        back(reader);
        controller.stop = true;
        controller.thread.join();
        EXPECT_LE(controller.longestMs, requestTimeoutMs + slackMs);
        file.cancelAll();
        EXPECT_TRUE(rig.until([&] { return reader.read.done(); }));
    }

    Machine machine;
    TestRig& rig;
    nt::File& file;
    std::string name;
    std::string in = test::noise(5000, 3), out;
    std::vector<std::unique_ptr<Pending>> writes;
    Pending wait, flush;
    std::int64_t flushedAtMs = 0;
};

TEST(Removal, requests_pending_on_one_handle) {
    for (const auto seed : test::seeds(200)) {
        Flight(seed).run();
        ASSERT_FALSE(HasFailure()) << "seed " << seed;
    }
}

// --- Removal against the other events of a port's life -------------------------------------------------------------------

template <class Scenario>
void overSeeds(unsigned count, bool opened, Scenario&& scenario) {
    for (const auto seed : test::seeds(count)) {
        Machine machine(seed, opened);
        scenario(machine);
        ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed;
    }
}

TEST(Removal, while_the_handle_closes) {
    overSeeds(20, true, [](Machine& m) {
        // Half of the runs: the close waits for bytes nobody takes.
        const bool stuck = nt::sim::random(2) == 0;
        const std::string text = test::noise(1500);
        m.rig.device([&](ScriptedDevice& d) { d.holdOut = stuck; });
        EXPECT_EQ(m.file.write(text.data(), 1500).status, STATUS_SUCCESS);
        std::int64_t tookMs = 0;
        nt::Thread closer("closer", [&] {
            const std::int64_t begin = test::nowMs();
            m.file.close();
            tookMs = test::nowMs() - begin;
        });
        m.wait(2000, stuck ? 1200 : 20);
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

TEST(Removal, while_the_device_starts) {
    overSeeds(25, false, [](Machine& m) {
        for (int again = 0; again < 3; ++again) {
            m.rig.unplug();
            m.wait();
            EXPECT_TRUE(m.rig.bus().replug(m.rig.first().port));
            m.wait();
        }
        m.rig.replug();
        m.expectOpensAndLives();
    });
}

TEST(Removal, while_an_application_opens) {
    overSeeds(15, false, [](Machine& m) {
        const std::string name = m.rig.comName();
        bool stop = false;
        nt::Thread opener("opener", [&] {
            while (!stop) {
                nt::File file;
                file.open("\\DosDevices\\" + name);
                m.rig.run(1);
            }
        });
        for (int again = 0; again < 4; ++again) {
            m.wait();
            m.rig.unplug();
            m.wait();
            EXPECT_TRUE(m.rig.bus().replug(m.rig.first().port));
        }
        stop = true;
        opener.join();
        m.expectOpensAndLives();
    });
}

// The last reference goes while the modem comes back.
TEST(Removal, close_races_the_return) {
    overSeeds(25, true, [](Machine& m) {
        m.rig.unplug();
        m.rig.settle();
        nt::Thread closer("closer", [&] {
            test::spin(nt::sim::random(300));
            m.file.close();
        });
        test::spin(nt::sim::random(300));
        EXPECT_TRUE(m.rig.bus().replug(m.rig.first().port));
        closer.join();
        m.rig.settle();
        m.expectOpensAndLives();
    });
}

TEST(Removal, return_under_another_identifier) {
    overSeeds(10, true, [](Machine& m) {
        const std::string first = m.rig.comName();
        Pending read(10);
        read.read(m.file);
        m.rig.unplug();
        m.wait();
        m.rig.replug("0002");
        EXPECT_NE(m.rig.comName(), first);
        nt::File second;
        ASSERT_EQ(m.rig.open(second), STATUS_SUCCESS);
        EXPECT_NE(m.rig.executive().lookUp("\\Device\\qvcdcacm0"), nullptr);
        m.expectAlive(second);
        EXPECT_FALSE(read.done());
        EXPECT_FALSE(NT_SUCCESS(test::control(m.file, IOCTL_SERIAL_SET_DTR)));
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
    overSeeds(15, false, [](Machine& m) {
        nt::File old;
        const auto links = m.rig.executive().enabledInterfaces();
        ASSERT_EQ(links.size(), 1u);
        ASSERT_TRUE(m.rig.until([&] { return NT_SUCCESS(old.open(links[0])); }));
        m.rig.unplug();
        m.wait();
        m.rig.replug();
        m.wait();
        nt::File refused;
        EXPECT_FALSE(NT_SUCCESS(refused.open("\\DosDevices\\" + m.rig.comName()))) << "the port is in use";
        if (nt::sim::random(2) == 0) m.expectAlive(old);
        nt::Thread closer("closer", [&] { old.close(); });
        m.wait();
        closer.join();
        m.rig.settle();
        m.expectOpensAndLives();
    });
}

}  // namespace
