// Framing mode through driver and bus: the switch in any order of requests, and what becomes of bytes that are under way when
// the mode, the device or the handle goes.
#include "tests/support/port.h"
#include "tests/support/ppp_oracle.h"

#include "kernel/sim.h"
#include "kernel/thread.h"

#include <pnpadd.h>

#include <algorithm>
#include <numeric>
#include <random>

namespace {

using test::Bytes;
using test::OpenPort;
using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::seeded;
using test::spin;
using usb::ControlReply;
using usb::SetupPacket;
namespace ppp = test::ppp;

constexpr std::uint8_t kIn = 0x81;
constexpr std::uint8_t kStart = 0x10, kStop = 0x11;                                       // notifications
constexpr std::uint8_t kSpecialChars = 0x60, kStartFraming = 0x61, kStopFraming = 0x62;   // vendor requests

std::string textOf(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

// A port whose device keeps book of what it was told, and refuses or leaves unanswered what it shall.
struct Framed : OpenPort {
    explicit Framed(const RigOptions& options = {}) : OpenPort(options) { takeOrders(); }

    void takeOrders() {
        rig.device([this](ScriptedDevice& d) {
            d.onControl = [this](const SetupPacket& setup, std::span<std::uint8_t>) -> std::optional<ControlReply> {
                if (setup.request < kSpecialChars || setup.request > kStopFraming) return std::nullopt;
                // Whatever becomes of a request to stop, the driver stops; who refuses to start has stopped.
                if (setup.request == kStopFraming) deviceFrames = false;
                if (setup.request == unanswered) return ControlReply::never();
                if (setup.request == refused || (refuseSome && (refuseSome = refuseSome * 5 + 1) % 4 == 0)) {
                    deviceFrames = false;
                    return ControlReply::stall();
                }
                if (setup.request == kStartFraming) deviceFrames = true;
                return ControlReply::ack();
            };
        });
    }
    DEVICE& record() {
        DEVICE* dev;
        GetDevice(file.object()->DeviceObject, &dev, nullptr);
        return *dev;
    }
    void notify(std::uint8_t code) {
        rig.device([&](ScriptedDevice& d) { d.notify(test::vendorNotification(code)); });
    }
    void ask(std::uint8_t code) {
        notify(code);
        rig.run(5);
    }
    // Behind a flag that the device has got; the record of what it gets begins anew.
    void writeFlag() {
        EXPECT_EQ(write("~"), STATUS_SUCCESS);
        rig.run(5);
        forget();
    }
    // Leaves the switch waiting for the device, and bytes waiting for the switch.
    void askInVain(std::uint8_t code, std::uint8_t request) {
        unanswered = request;
        ask(code);
        write("held back");
    }
    void startFraming() {
        writeFlag();
        notify(kStart);
        EXPECT_TRUE(rig.until([&] { return deviceFrames && record().PppMode == FRAMING; }, 100)) << rig.trace();
        forget();
    }
    // Switches wait for `body`, which may open and close.
    template <class Body>
    void withoutSwitches(Body&& body) {
        KMUTEX& switches = record().Mutex;
        KeWaitForSingleObject(&switches, Executive, KernelMode, FALSE, nullptr);
        body();
        KeReleaseMutex(&switches, FALSE);
    }
    void forget() {
        rig.device([](ScriptedDevice& d) { d.outs.clear(); });
    }
    void sendBytes(const Bytes& bytes) {
        rig.device([&](ScriptedDevice& d) { d.send(kIn, bytes); });
    }
    void sendFrame(unsigned sequence, const Bytes& body) { sendBytes(ppp::deviceFrame(sequence, body)); }
    std::string take(std::size_t most) {
        Pending read(most);
        timeouts(MAXULONG, 0, 0);
        this->read(read);
        rig.run(1);
        return read.text();
    }
    std::string drain() {
        std::string all;
        for (std::string piece = take(100000); !piece.empty(); piece = take(100000)) all += piece;
        return all;
    }
    // Bytes go through unchanged, both ways.
    void expectByteMode() {
        forget();
        EXPECT_EQ(write("hello"), STATUS_SUCCESS);
        EXPECT_TRUE(rig.until([&] { return received().ends_with("hello"); }, 1000)) << received() << rig.trace();
        drain();
        send("there");
        EXPECT_EQ(take(100), "there");
    }
    // Frames go through, both ways; `sequence` is the device's next.
    void expectFraming(unsigned sequence) {
        forget();
        EXPECT_EQ(write("hello~"), STATUS_SUCCESS);
        EXPECT_TRUE(rig.until([&] { return received().ends_with("\x09hello"); }, 1000)) << received() << rig.trace();
        drain();
        sendFrame(sequence, test::bytesOf("there"));
        rig.run(5);
        EXPECT_EQ(take(100), textOf(ppp::hostFrame(test::bytesOf("there"), {})));
    }

    bool deviceFrames = false;
    std::uint8_t refused = 0, unanswered = 0;
    unsigned refuseSome = 0;
};

// ---- The switch

// What waits during a switch goes out behind it, once, in the form that the device then expects.
TEST(DriverFramingSwitch, held_bytes_go_out_in_the_mode_that_follows) {
    const struct {
        const char* what;
        std::uint8_t code, refused;
        bool framed;   // before
        std::string sent;
    } cases[] = {
        {"started", kStart, 0, false, std::string("\xAA\xBB\0\x05" "A", 5)},
        {"start refused", kStart, kStartFraming, false, "A~"},
        {"characters refused", kStart, kSpecialChars, false, "A~"},
        {"stopped", kStop, 0, true, "A~B"},
        {"stop refused", kStop, kStopFraming, true, "A~B"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        for (const auto seed : test::seeds(20)) {
            Framed port(seeded(seed, {{"RequestTimeout", 500}}));
            c.framed ? port.startFraming() : port.writeFlag();
            port.refused = c.refused;
            port.withoutSwitches([&] {
                port.ask(c.code);
                EXPECT_EQ(port.record().PppMode, c.framed ? ULONG{FRAMING_STOP_REQUESTED} : ULONG{FRAMING_REQUESTED});
                EXPECT_EQ(port.write("A~"), STATUS_SUCCESS);
                port.rig.run(5);
                EXPECT_EQ(port.received(), "");
            });
            port.rig.run(1000);
            if (c.framed) {   // a stop does not send what it held
                EXPECT_EQ(port.received(), "");
                EXPECT_EQ(port.write("B"), STATUS_SUCCESS);
                port.rig.run(5);
            }
            EXPECT_EQ(port.received(), c.sent);
        }
    }
}

// The request comes while a long write is on its way in many transfers: the bytes go out as they are up to one of the flags, and
// behind it as frames. Where transfers end at flags, too: the writer may be the last to hear that the mode has changed.
TEST(DriverFramingSwitch, begins_behind_a_flag_in_the_middle_of_a_write) {
    std::string mixed, aligned;
    for (unsigned i = 0; i < 12; ++i) mixed += std::string(60 + i * 9, static_cast<char>('a' + i)) + "~";
    for (unsigned i = 0; i < 8; ++i) aligned += std::string(63, static_cast<char>('a' + i)) + "~" + std::string(40, 'z') + "~" + std::string(23, 'y');
    unsigned framed = 0;
    const auto all = test::seeds(400);
    for (const auto seed : all) {
        const std::string& stream = seed % 2 ? mixed : aligned;
        Framed port(seeded(seed, {{"WriteBufferSize", 64}}));
        std::vector<std::string> right{stream};
        for (std::size_t flag = stream.find('~'); flag != std::string::npos; flag = stream.find('~', flag + 1)) {
            const auto rest = ppp::toDevice(test::bytesOf(stream.substr(flag + 1)));
            right.push_back(stream.substr(0, flag + 1) + textOf(ppp::joined(rest.frames)));
        }
        nt::Thread writer("writer", [&] { EXPECT_EQ(port.write(stream), STATUS_SUCCESS); });
        spin(nt::sim::random(120));
        port.notify(kStart);
        writer.join();
        port.rig.run(400);
        const std::string got = port.received();
        ASSERT_TRUE(std::ranges::find(right, got) != right.end()) << got;
        framed += got != stream;
    }
    EXPECT_TRUE(all.size() == 1 || framed > 0);
}

// The device hears of framing exactly when the driver frames: requests one over the other, too early, refused, forgotten.
TEST(DriverFramingSwitch, device_and_driver_agree_in_the_end) {
    unsigned framed = 0, raw = 0;
    const auto all = test::seeds(150);
    for (const auto seed : all) {
        SCOPED_TRACE(seed);
        Framed port(seeded(seed));
        std::mt19937_64 random(seed);
        port.refuseSome = seed % 3 == 0 ? static_cast<unsigned>(seed) : 0;
        for (unsigned i = 0; i < 25; ++i) {
            switch (random() % 8) {
            case 0: port.write("part"); break;
            case 1: port.write("frame~"); break;
            case 2: port.rig.run(static_cast<std::uint32_t>(random() % 450)); break;
            case 3: case 4: port.notify(kStop); break;
            default: port.notify(kStart);
            }
            if (random() % 2) port.rig.run(static_cast<std::uint32_t>(random() % 4));
        }
        port.rig.run(3000);
        const ULONG mode = port.record().PppMode;
        ASSERT_EQ(mode, port.deviceFrames ? ULONG{FRAMING} : ULONG{BYTE_MODE}) << port.rig.trace();
        ++(port.deviceFrames ? framed : raw);
        // And it works: a frame of one byte and its flag.
        port.writeFlag();
        port.write("A~");
        port.rig.run(20);
        const std::string got = port.received();
        ASSERT_EQ(got.starts_with("\xAA\xBB") && got.ends_with("\x05" "A"), port.deviceFrames) << got;
        ASSERT_TRUE(port.deviceFrames || got == "A~") << got;
    }
    EXPECT_TRUE(all.size() == 1 || (framed > 0 && raw > 0));
}

// The first request gives up waiting for a flag while the second is queued: the flag then comes for the second.
TEST(DriverFramingSwitch, asked_again_while_the_first_request_waits) {
    for (const auto seed : test::seeds(10)) {
        Framed port(seeded(seed));
        port.notify(kStart);
        port.rig.run(100);
        port.notify(kStart);
        port.rig.run(250);
        EXPECT_TRUE(port.rig.traced("SwitchToPppMode failed with timeout!!!"));
        EXPECT_EQ(port.write("frame~next~"), STATUS_SUCCESS);
        port.rig.run(20);
        EXPECT_TRUE(port.deviceFrames);
        EXPECT_EQ(port.record().PppMode, ULONG{FRAMING});
        EXPECT_EQ(port.received(), std::string("frame~\xAA\xBB\0\x08next", 14));
    }
}

// Stopped and started again while the first start is under way: nothing of the host's goes out between.
TEST(DriverFramingSwitch, stopped_and_started_while_starting) {
    for (const auto seed : test::seeds(10)) {
        Framed port(seeded(seed, {{"RequestTimeout", 400}}));
        port.writeFlag();
        port.unanswered = kSpecialChars;   // the first start fails in its own time
        port.notify(kStart);
        port.rig.run(50);
        port.ask(kStop);
        port.notify(kStart);
        EXPECT_EQ(port.write("A~"), STATUS_SUCCESS);
        port.rig.run(5);
        port.unanswered = 0;
        port.rig.run(2000);
        EXPECT_TRUE(port.deviceFrames);
        EXPECT_EQ(port.record().PppMode, ULONG{FRAMING});
        EXPECT_EQ(port.received(), std::string("\xAA\xBB\0\x05" "A", 5));
    }
}

// The handle is closed and opened while the request waits its turn: the new handle begins in byte mode, and the device with it.
TEST(DriverFramingSwitch, a_request_of_the_last_opening_is_not_carried_out) {
    for (const auto seed : test::seeds(10)) {
        Framed port(seeded(seed));
        port.writeFlag();
        port.withoutSwitches([&] {
            port.ask(kStart);
            EXPECT_EQ(port.record().PppMode, ULONG{FRAMING_REQUESTED});
            port.file.close();
            EXPECT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
        });
        port.rig.run(500);
        EXPECT_FALSE(port.deviceFrames);
        port.expectByteMode();
    }
}

// ---- In every state, the device or the handle goes and comes back

// A state, and how a port gets there: in framing already where the mode is not that of a start.
struct Moment {
    const char* what;
    ULONG mode;
    void (*reach)(Framed&);
};

const Moment moments[] = {
    {"waiting for a flag", FRAMING_REQUESTED, [](Framed& p) {
         p.write("half a frame");
         p.rig.run(5);
         p.ask(kStart);
         p.write(" and more");
     }},
    {"asking for the characters", FRAMING_REQUESTED, [](Framed& p) {
         p.writeFlag();
         p.askInVain(kStart, kSpecialChars);
     }},
    {"telling the device", FRAMING_REQUESTED, [](Framed& p) {
         p.writeFlag();
         p.askInVain(kStart, kStartFraming);
     }},
    {"framing, nothing under way", FRAMING, [](Framed&) {}},
    {"half a frame each way", FRAMING, [](Framed& p) {
         p.write("half\x7D");
         p.sendBytes({0xAA, 0xBB, 0x00, 0x40, 1, 2, 3});
     }},
    {"half a header", FRAMING, [](Framed& p) { p.sendBytes({0xAA, 0xBB, 0x00}); }},
    {"out of step, both", FRAMING, [](Framed& p) {
         p.write(std::string(3000, 'x'));
         p.write(std::string(3000, 'x'));
         p.sendBytes({1, 2, 3});
         p.rig.run(20);
     }},
    {"no transfer for a frame", FRAMING, [](Framed& p) {
         p.hold(true);
         p.write("one~two~three~");
     }},
    {"no room for a frame", FRAMING, [](Framed& p) {
         p.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{100, 100});
         for (unsigned i = 0; i < 3; ++i) p.sendFrame(i, Bytes(300, 'd'));
     }},
    {"telling the device to stop", FRAMING_STOP_REQUESTED, [](Framed& p) { p.askInVain(kStop, kStopFraming); }},
};

// Over seeds, what `event` does to a port in each state of the switch.
template <class Event>
void inEveryState(Event&& event) {
    for (const auto& moment : moments) {
        SCOPED_TRACE(moment.what);
        for (const auto seed : test::seeds(12)) {
            Framed port(seeded(seed, {{"RequestTimeout", 400}}));
            port.rig.allowAssertions();   // a frame that was too long notes its bytes
            if (moment.mode != FRAMING_REQUESTED) port.startFraming();
            moment.reach(port);
            if (moment.mode == FRAMING) port.rig.run(5);
            ASSERT_EQ(port.record().PppMode, moment.mode);
            spin(seed % 40);
            event(port);
            ASSERT_FALSE(testing::Test::HasFatalFailure());
        }
    }
}

// It answers and takes everything again, after a while.
void behave(Framed& port) {
    port.unanswered = 0;
    port.hold(false);
    port.rig.run(700);
}

void startOver(Framed& port) {
    port.expectByteMode();
    port.deviceFrames = false;
    port.startFraming();
    port.expectFraming(0);
}

TEST(DriverFramingSwitch, unplugged_in_every_state) {
    inEveryState([](Framed& port) {
        port.rig.unplug();
        port.rig.settle();
        port.rig.run(700);
        port.deviceFrames = false;   // it comes back as it was made
        behave(port);
        port.forget();
        port.rig.replug();
        port.rig.run(1500);
        port.drain();
        startOver(port);
    });
}

TEST(DriverFramingSwitch, closed_and_opened_in_every_state) {
    inEveryState([](Framed& port) {
        port.file.close();
        behave(port);
        ASSERT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
        port.rig.run(700);
        startOver(port);
    });
}

// Stopped and started on the spot, the same device goes on in the mode that it was told; a transfer under way is lost.
TEST(DriverFramingSwitch, restarted_in_every_state) {
    inEveryState([](Framed& port) {
        const std::string path = port.rig.instancePath();
        EXPECT_EQ(port.rig.executive().queryStop(path), STATUS_SUCCESS);
        EXPECT_EQ(port.rig.executive().stopDevice(path), STATUS_SUCCESS);
        behave(port);
        EXPECT_EQ(port.rig.executive().startDevice(path), STATUS_SUCCESS);
        port.rig.run(1500);
        port.drain();
        ASSERT_EQ(port.record().PppMode, port.deviceFrames ? ULONG{FRAMING} : ULONG{BYTE_MODE});
        if (!port.deviceFrames) return port.expectByteMode();
        EXPECT_EQ(port.write("~~"), STATUS_SUCCESS);   // ends what was begun
        port.rig.run(5);
        port.sendBytes(Bytes(100, 0));
        port.sendFrame(31, {1});   // a number that is not the next tells the driver which is
        port.sendFrame(31, {1});
        port.rig.run(5);
        port.expectFraming(0);
    });
}

// ---- Bytes under way

// A host that writes faster than the wire takes, in pieces of any size: every frame, in order, each once. Where the driver may not
// send for a while, at most the transfer under way is missing.
TEST(DriverFramingSwitch, frames_wait_for_the_wire) {
    for (const auto seed : test::seeds(90)) {
        std::mt19937_64 random(seed);
        const bool sleep = seed % 3 == 1, stop = seed % 3 == 2;
        Framed port(seeded(seed, {{"WriteBufferSize", seed % 6 == 0 ? 64u : 4096u}}));
        port.outRing(100 + static_cast<ULONG>(random() % 900));
        port.startFraming();
        std::string stream;
        std::vector<std::string> frames;
        for (unsigned i = 0; i < 25; ++i) {
            Bytes body(1 + random() % 300), host;
            for (auto& byte : body) byte = static_cast<std::uint8_t>(random() % 8 ? random() : 0x7E);
            for (const std::uint8_t byte : body) ppp::appendEscaped(host, byte, {});
            frames.push_back(textOf(ppp::deviceFrame(i, body)));
            stream += textOf(host) + "~";
        }
        std::vector<std::unique_ptr<Pending>> writes;
        for (std::size_t at = 0; at < stream.size();) {
            const std::size_t length = std::min<std::size_t>(1 + random() % 500, stream.size() - at);
            port.write(*writes.emplace_back(std::make_unique<Pending>(stream.substr(at, length))));
            at += length;
            if (random() % 3 == 0) port.hold(random() % 2);
            spin(random() % 30);
        }
        if (sleep || stop) {
            const std::string path = port.rig.instancePath();
            const bool release = random() % 2;
            nt::Thread releaser("releaser", [&port, release, steps = random() % 32] {
                spin(steps);
                if (release) port.hold(false);
            });
            sleep ? test::PortPower(port.rig).set(PowerDeviceD2) : port.rig.executive().queryStop(path);
            releaser.join();
            port.rig.run(5);
            sleep ? test::PortPower(port.rig).set(PowerDeviceD0) : port.rig.executive().cancelStop(path);
        }
        port.hold(false);
        ASSERT_TRUE(port.rig.until([&] { return std::ranges::all_of(writes, [](auto& w) { return w->done(); }); }, 2000));
        port.rig.run(100);
        if (!sleep && !stop) {
            EXPECT_EQ(port.received(), std::accumulate(frames.begin(), frames.end(), std::string()));
            continue;
        }
        const auto got = port.rig.device([](ScriptedDevice& d) { return d.outMessages(); });
        EXPECT_GE(got.size(), frames.size() - 1);
        EXPECT_TRUE(std::ranges::is_sorted(got) && std::ranges::includes(frames, got)) << "numbers keep frames sorted";
    }
}

// A byte that waited in one framing session does not begin the first frame of the next.
TEST(DriverFramingSwitch, no_byte_comes_over_from_the_last_session) {
    for (const auto seed : test::seeds(10)) {
        Framed port(seeded(seed));
        port.startFraming();
        port.hold(true);
        EXPECT_EQ(port.write("one~two~X"), STATUS_SUCCESS);   // a frame on the wire, one behind it, a byte behind that
        port.rig.run(5);
        port.ask(kStop);
        EXPECT_FALSE(port.deviceFrames);
        EXPECT_EQ(port.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_TXCLEAR}), STATUS_SUCCESS);
        port.ask(kStart);
        EXPECT_EQ(port.record().PppMode, ULONG{FRAMING});
        port.hold(false);
        port.rig.run(5);
        port.forget();
        EXPECT_EQ(port.write("new~"), STATUS_SUCCESS);
        port.rig.run(5);
        EXPECT_EQ(port.received(), std::string("\xAA\xBB\0\x07new", 7));
    }
}

// Nothing more comes from the device: what did not fit into the ring is there as soon as there is room, for a read that
// comes later and for one that waits.
TEST(DriverFramingSwitch, the_end_of_a_frame_needs_no_further_packet) {
    for (const auto seed : test::seeds(20)) {
        for (const bool waiting : {false, true}) {
            SCOPED_TRACE(waiting);
            Framed port(seeded(seed));
            port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{100, 1000});
            port.startFraming();
            std::string expected;
            Pending all(880);
            if (waiting) port.read(all);
            for (unsigned i = 0; i < 2; ++i) {
                const Bytes body(440, static_cast<std::uint8_t>('A' + i));
                expected += textOf(ppp::hostFrame(body, {}));
                port.sendFrame(i, body);
            }
            port.rig.run(10);
            std::string got;
            for (int i = 0; i < 40 && !waiting; ++i) got += port.take(1 + seed * 7 % 100);
            if (waiting) got = all.text();
            EXPECT_EQ(got, expected.substr(0, waiting ? 880 : std::min<std::size_t>(expected.size(), 40 * (1 + seed * 7 % 100))));
        }
    }
}

// Frames in what the host got that check out; each must be one of those sent.
unsigned expectFramesOf(const std::vector<Bytes>& sent, const std::string& got) {
    unsigned whole = 0;
    for (const Bytes& frame : ppp::toDevice(test::bytesOf(got)).frames) {
        if (frame.size() < 7) continue;
        const Bytes body(frame.begin() + 4, frame.end() - 2);
        const auto check = static_cast<std::uint16_t>(frame[frame.size() - 1] << 8 | frame[frame.size() - 2]);
        if (static_cast<std::uint16_t>(~check) != ppp::fcs(body)) continue;
        ++whole;
        EXPECT_TRUE(std::ranges::find(sent, body) != sent.end()) << "a frame of " << body.size() << " bytes nobody sent";
    }
    return whole;
}

// Bytes are lost at any moment: to purges, or in transfers that end while the receiver is stopped, and a frame may have been half
// in them. But no frame reaches the host that checks out and was never sent.
TEST(DriverFramingSwitch, lost_bytes_make_no_frame) {
    for (const bool purges : {true, false}) {
        unsigned whole = 0;
        for (const auto seed : test::seeds(60)) {
            std::mt19937_64 random(seed);
            Framed port(seeded(seed, {{"ReadBufferSize", 64}, {"ReadBufferCount", 5}}));
            if (purges) port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{100 + static_cast<ULONG>(random() % 100), 1000});
            port.startFraming();
            const std::string path = port.rig.instancePath();
            std::vector<Bytes> sent;
            std::string got;
            for (unsigned round = 0, i = 0; round < 12; ++round) {
                Bytes stream;
                for (unsigned end = i + 6; i < end; ++i) {
                    sent.emplace_back(100 + random() % 300);
                    for (auto& byte : sent.back()) byte = static_cast<std::uint8_t>(random());
                    ppp::append(stream, ppp::deviceFrame(i, sent.back()));
                }
                // Without an end anywhere: frames lie across the transfers.
                nt::Thread pourer("pourer", [&] {
                    port.rig.device([&](ScriptedDevice& d) { d.send(kIn, stream, false); });
                });
                spin(random() % 60);
                for (int n = 0; purges && n < 12; ++n) {
                    got += port.take(1 + random() % 150);
                    if (random() % 8 != 0) continue;
                    EXPECT_EQ(port.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR}), STATUS_SUCCESS);
                    got += "~";   // the host starts anew
                }
                if (!purges) {
                    port.rig.executive().queryStop(path);
                    spin(random() % 20);
                    port.rig.executive().cancelStop(path);
                }
                pourer.join();
                port.rig.run(5);
                got += port.drain();
            }
            whole += expectFramesOf(sent, got);
        }
        EXPECT_GT(whole, 0u);
    }
}

}  // namespace
