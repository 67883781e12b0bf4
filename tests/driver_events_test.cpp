// What the device tells on its interrupt endpoint, what becomes of it, and how applications wait for it.
#include "tests/support/kernel_request.h"

#include "kernel/thread.h"

#include <array>

namespace {

using test::Bytes;
using test::KernelRequest;
using test::nowMs;
using test::OpenPort;
using test::Pending;
using test::ScriptedDevice;
using test::seeded;
using test::traced;

constexpr const char* dataDevice = "\\Device\\qvcdcacm0";

void notify(OpenPort& port, const Bytes& bytes) {
    port.rig.device([&](ScriptedDevice& d) { d.notify(bytes); });
    port.rig.run(40);
}

void state(OpenPort& port, std::uint16_t bits) { notify(port, test::serialState(bits)); }

// --- Notifications ----------------------------------------------------------------------------------------------------

Bytes notification(std::uint8_t type, std::uint8_t code, std::uint16_t value, std::initializer_list<int> data = {}) {
    Bytes bytes{type, code, static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8), 0xEE, 0xEE, 0xEE, 0xEE};
    for (const int byte : data) bytes.push_back(static_cast<std::uint8_t>(byte));
    return bytes;
}

TEST(DriverEvents, every_notification) {
    const Bytes tail(3, 0xFF);
    const struct {
        const char* what;
        Bytes bytes;
        ULONG status, events;   // afterwards, and raised by it
        const char* text;
    } cases[] = {
        {"DSR and DCD rise", notification(0xA1, 0x20, 0, {3, 0}), 0xA0, 0x30, "received new Serial State 3\n"},
        {"they stay", notification(0xA1, 0x20, 0, {3, 0}), 0xA0, 0, "DSR_on, RI_off, DCD_on\n"},
        {"all change at once", notification(0x21, 0x20, 0, {8, 0}), 0x40, 0x130, "DSR_off, RI_on, DCD_off\n"},
        {"RI falls with an error", notification(0xA1, 0x20, 0, {0x10, 0}), 0, 0x180, "Frame error\n"},
        {"an error counts each time", notification(0xA1, 0x20, 0, {0x10, 0}), 0, 0x80, "Frame error\n"},
        {"parity", notification(0xA1, 0x20, 0, {0x20, 0}), 0, 0x80, "Parity error\n"},
        {"overrun", notification(0xA1, 0x20, 0, {0x40, 0}), 0, 0x80, "Overrun error\n"},
        {"break", notification(0xA1, 0x20, 0, {0x04, 0}), 0, 0x40, "Break\n"},
        {"all of them", notification(0xA1, 0x20, 0, {0x7F, 0}), 0xE0, 0x1F0, "Overrun error\n"},
        {"unknown bits", notification(0xA1, 0x20, 0, {0x8B, 0xFE}), 0xE0, 0, "received new Serial State fe8b\n"},
        {"flow off raises nothing", notification(0xA1, 0x20, 0, {0x0B, 1}), 0xE0, 0, nullptr},
        {"flow on", notification(0xA1, 0x20, 0xFFFF, {0x0B, 0}), 0xE0, 0, nullptr},
        {"CTS rises", notification(0xA1, 0x00, 1), 0xF0, 0x08, "received new Network Connection 1\n"},
        {"CTS stays", notification(0x21, 0x00, 0xFFFF), 0xF0, 0, "received new Network Connection ffff\n"},
        {"a serial state leaves CTS", notification(0xA1, 0x20, 0, {0, 0}), 0x10, 0x130, nullptr},
        {"CTS falls by one bit alone", notification(0xA1, 0x00, 0xFFFE), 0, 0x08, nullptr},
        {"longer than it need be", notification(0xE1 & ~0x40, 0x20, 0, {1, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), 0x80, 0x20, nullptr},
        {"7 bytes", Bytes{0xA1, 0x00, 1, 0, 0, 0, 0}, 0x80, 0, "RcvIntIn: Data packet to small\n"},
        {"no byte", Bytes{}, 0x80, 0, nullptr},
        {"no state", notification(0xA1, 0x20, 0), 0x80, 0, "RcvIntIn: Data packet to small for RESPONDS_SERIAL_STATE\n"},
        {"half a state", notification(0xA1, 0x20, 0, {0x7E}), 0x80, 0, "RcvIntIn: Data packet to small for RESPONDS_SERIAL_STATE\n"},
        {"a response", notification(0xA1, 0x01, 1), 0x80, 0, "RcvIntIn: RESPONDS_AVAILABLE not supported\n"},
        {"unknown class code", notification(0xA1, 0x2A, 1, {0, 0}), 0x80, 0, "RcvIntIn: Unexpected class responds:\n"},
        {"framing by class", notification(0xA1, 0x10, 0), 0x80, 0, "RcvIntIn: Unexpected class responds:\n"},
        {"unknown vendor code", notification(0xC1, 0x12, 1), 0x80, 0, "RcvIntIn: Unexpected vendor responds:\n"},
        {"state by vendor", notification(0xC1, 0x20, 0, {0x7E, 1}), 0x80, 0, "RcvIntIn: Unexpected vendor responds:\n"},
        {"standard kind", notification(0x81, 0x20, 0, {0x7E, 1}), 0x80, 0, "RcvIntIn: Unexpected responds:\n"},
        {"reserved kind", notification(0xE1, 0x00, 1), 0x80, 0, "RcvIntIn: Unexpected responds:\n"},
        {"still served", notification(0xA1, 0x20, 0, {2, 0}), 0x20, 0x30, nullptr},
    };
    OpenPort port({.shape = {.interruptPacket = 16}, .traceMask = 0xA0003});
    ULONG before = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Pending wait;
        port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, MAXULONG);
        EXPECT_EQ(port.wait(wait), STATUS_PENDING);
        port.rig.clearTrace();
        notify(port, c.bytes);
        EXPECT_EQ(wait.done(), c.events != 0);
        EXPECT_EQ(wait.value, c.events);
        EXPECT_EQ(port.get(IOCTL_SERIAL_GET_MODEMSTATUS), c.status | (c.status ^ before) >> 4);   // and which have changed
        before = c.status;
        EXPECT_TRUE(c.text == nullptr || port.rig.traced(c.text)) << port.rig.trace();
    }
    EXPECT_EQ(port.write("in byte mode"), STATUS_SUCCESS);
    port.rig.run(20);
    EXPECT_EQ(port.received(), "in byte mode");
}

// The device's own flow control: off keeps bytes in the ring, on sends them, a new open starts with on.
TEST(DriverEvents, flow_off_holds_the_bytes) {
    OpenPort port;
    state(port, 0x100);
    EXPECT_EQ(port.write("held"), STATUS_SUCCESS);
    port.rig.run(3000);
    state(port, 0x100);
    EXPECT_EQ(port.received(), "");
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInOutQueue, 4u);
    state(port, 0);
    EXPECT_EQ(port.received(), "held");
    state(port, 0x100);
    port.write("dropped by the close");
    port.file.close();
    ASSERT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
    port.write(", new");
    port.rig.run(20);
    EXPECT_EQ(port.received(), "held, new");
}

TEST(DriverEvents, cts_holds_the_bytes_if_configured) {
    OpenPort port(traced(0x100003, {{"useCtsFlowControl", 1}}));
    std::size_t written = 0, sent = 0;
    for (const bool cts : {false, true, true, false, true}) {
        notify(port, test::networkConnection(cts));
        port.write("x");
        ++written;
        if (cts) sent = written;
        port.rig.run(500);
        state(port, 0x02);   // no other line lets them go
        EXPECT_EQ(port.received().size(), sent);
    }
    EXPECT_TRUE(port.rig.traced("CTS active restart write\n"));
}

// --- Events of the data -----------------------------------------------------------------------------------------------

TEST(DriverEvents, special_characters) {
    const struct {
        SERIAL_CHARS chars;   // end of file, error, break, event, XON, XOFF
        std::string data;
        bool special;
    } cases[] = {
        {{0, 0, 0, 0, 0, 0}, std::string("a\0b", 3), false},
        {{0, 0, 0, '~', 0, 0}, "a~b~", true},
        {{0, 0, 0, '~', 0, 0}, std::string("a\0", 2), false},
        {{4, 0, 0, 0, 0, 0}, "a\4", true},
        {{0, 0xFE, 0, 0, 0, 0}, "\xFE", true},
        {{0, 0, 'b', 0, 'x', 'y'}, "bxy", false},
    };
    OpenPort port;
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR | SERIAL_EV_RXFLAG);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.data);
        Pending wait;
        EXPECT_EQ(port.set(IOCTL_SERIAL_SET_CHARS, c.chars), STATUS_SUCCESS);
        port.wait(wait);
        port.send(c.data);
        EXPECT_EQ(wait.value, SERIAL_EV_RXCHAR | (c.special ? ULONG{SERIAL_EV_RXFLAG} : 0));
    }
}

// More than 80 % of the size asked for, by what stays in the ring: a read that takes the bytes keeps the event away.
TEST(DriverEvents, ring_nearly_full) {
    for (const bool reading : {false, true}) {
        for (const std::size_t over : {0, 1}) {
            OpenPort port;
            Pending wait, read(1);
            port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{1000, 1000});
            port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RX80FULL);
            port.wait(wait);
            if (reading) port.read(read);
            port.send(std::string(800 + over, 'x'));
            EXPECT_EQ(wait.value, over == 1 && !reading ? ULONG{SERIAL_EV_RX80FULL} : 0);
            port.send("y");
            EXPECT_EQ(wait.value, over == 1 || !reading ? ULONG{SERIAL_EV_RX80FULL} : 0);
        }
    }
}

TEST(DriverEvents, send_ring_drained_before_the_wait) {
    OpenPort port;
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_TXEMPTY);
    port.write("out");
    port.rig.run(20);
    EXPECT_EQ(port.get(IOCTL_SERIAL_WAIT_ON_MASK), ULONG{SERIAL_EV_TXEMPTY});
    // Not while bytes are held back, and not for nothing.
    Pending wait;
    state(port, 0x100);
    EXPECT_EQ(port.wait(wait), STATUS_PENDING);
    port.write("held");
    port.rig.run(100);
    EXPECT_FALSE(wait.done());
    state(port, 0);
    EXPECT_EQ(wait.value, ULONG{SERIAL_EV_TXEMPTY});
}

// --- Waiting ----------------------------------------------------------------------------------------------------------

// Events that nobody fetched gather and reach the next wait, under whatever mask, and of the next opening, too. What no mask wanted
// does not.
TEST(DriverEvents, events_gather_until_somebody_asks) {
    OpenPort port;
    Pending wait;
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_CTS);
    port.send("x");
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR | SERIAL_EV_DSR | SERIAL_EV_RLSD | SERIAL_EV_RING);
    port.wait(wait);
    port.rig.run(1);
    EXPECT_FALSE(wait.done());
    port.send("y");
    EXPECT_EQ(wait.value, ULONG{SERIAL_EV_RXCHAR});
    for (const std::uint16_t bits : {1, 0, 8, 0, 2}) port.rig.device([&](ScriptedDevice& d) { d.notify(test::serialState(bits)); });
    port.rig.run(200);
    port.send("z");
    EXPECT_EQ(port.get(IOCTL_SERIAL_GET_MODEMSTATUS), 0x22u);   // the net change
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_CTS);
    port.file.close();
    ASSERT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue, 0u);
    port.wait(wait);
    port.rig.run(1);
    EXPECT_EQ(wait.value, ULONG{SERIAL_EV_RXCHAR | SERIAL_EV_DSR | SERIAL_EV_RLSD | SERIAL_EV_RING});
}

// What ends a wait, and what may come between its cancellation and the end that has, 100 ms later.
TEST(DriverEvents, ends_of_a_wait) {
    constexpr ULONG untouched = 0xFFFF;
    constexpr std::int64_t never = -1;
    const auto changeMask = [](ULONG mask) {
        return [mask](OpenPort& port, Pending&, Pending&) { port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, mask); };
    };
    const struct {
        const char* what;
        std::function<void(OpenPort&, Pending& wait, Pending& next)> act;   // 50 ms after the beginning
        ULONG value;
        std::int64_t endMs[2];   // by itself, and if it was cancelled at the beginning
    } cases[] = {
        {"nothing", [](auto&, auto&, auto&) {}, 0, {never, 100}},
        {"a cancellation", [](auto& port, auto& wait, auto&) { port.file.cancel(wait.request); }, 0, {150, 100}},
        {"an event", [](auto& port, auto&, auto&) { port.send("x"); }, SERIAL_EV_RXCHAR, {50, 50}},
        {"the same mask", changeMask(SERIAL_EV_RXCHAR), 0, {50, 50}},
        {"another mask", changeMask(SERIAL_EV_CTS), 0, {50, 50}},
        {"no mask", changeMask(0), 0, {50, 50}},
        {"the next wait", [](auto& port, auto&, auto& next) { port.wait(next); }, 0, {50, 50}},
        {"removal", [](auto& port, auto&, auto&) { port.rig.unplug(); }, untouched, {50, 50}},
    };
    for (const bool cancelled : {false, true}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << c.what << (cancelled ? ", cancelled" : ""));
            OpenPort port;
            Pending wait, next;
            wait.value = untouched;
            port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
            port.wait(wait);
            const auto begin = nowMs(), endMs = c.endMs[cancelled];
            if (cancelled) port.file.cancel(wait.request);
            port.rig.run(50);
            EXPECT_FALSE(wait.done());
            c.act(port, wait, next);
            port.rig.run(300);
            EXPECT_FALSE(next.done());
            ASSERT_EQ(wait.completions, endMs == never ? 0u : 1u);
            if (endMs == never) continue;
            EXPECT_EQ(wait.status(), c.value == untouched ? STATUS_DEVICE_REMOVED : STATUS_SUCCESS);
            EXPECT_EQ(wait.information(), 4u);
            EXPECT_EQ(wait.value, c.value);
            EXPECT_GE(wait.atMs - begin, endMs);
            EXPECT_LE(wait.atMs - begin, endMs + 5);
        }
    }
}

// The same request again stays stored and ends once; cancelled on its way in, it is no longer the port's. Four bytes are written,
// however many there are.
TEST(DriverEvents, same_request_again) {
    for (const bool cancelled : {false, true}) {
        OpenPort port({.verifier = false, .traceMask = 0x3});   // which lets no request be sent that is under way
        port.rig.allowAssertions();
        KernelRequest wait(port.rig.executive().lookUp(dataDevice));
        port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
        EXPECT_EQ(wait.submit(IRP_MJ_DEVICE_CONTROL, IOCTL_SERIAL_WAIT_ON_MASK, {}, 0, 64), STATUS_PENDING);
        if (cancelled) IoCancelIrp(wait.irp());
        EXPECT_EQ(wait.callAgain(), STATUS_PENDING);
        EXPECT_TRUE(port.rig.traced("Upper driver sends the same WaitIrp again\n"));
        port.rig.run(500);
        EXPECT_EQ(wait.done(), cancelled);
        port.send("x");
        ASSERT_TRUE(wait.done());
        EXPECT_EQ(wait.status(), cancelled ? STATUS_CANCELLED : STATUS_SUCCESS);
        EXPECT_EQ(wait.information(), cancelled ? 0u : 4u);
        EXPECT_EQ(cancelled ? port.get(IOCTL_SERIAL_WAIT_ON_MASK) : wait.value(), ULONG{SERIAL_EV_RXCHAR});
        EXPECT_EQ(wait.buffer().substr(4), std::string(60, static_cast<char>(KernelRequest::fill)));
    }
}

// Waits, cancels, masks and events at once: each wait ends once, with an event of its mask or with nothing.
TEST(DriverEvents, waits_in_any_order) {
    for (const auto seed : test::seeds(60)) {
        OpenPort port(seeded(seed));
        std::array<Pending, 12> waits;
        port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
        std::vector<nt::Thread> threads;
        for (const bool cancels : {false, true}) {
            threads.emplace_back("waiter", [&, cancels] {
                for (std::size_t i = cancels; i < waits.size(); i += 2) {
                    port.wait(waits[i]);
                    if (!cancels) continue;
                    test::spin(seed % 7);
                    port.file.cancel(waits[i].request);
                }
            });
        }
        threads.emplace_back("masks", [&] {
            for (int i = 0; i < 4; ++i) {
                test::spin(seed % 11);
                port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR | SERIAL_EV_DSR);
            }
        });
        port.rig.device([](ScriptedDevice& d) {
            d.sendBulk("x");
            d.notify(test::serialState(2));
        });
        port.rig.run(seed % 3);
        port.file.close();
        threads.clear();
        port.rig.run(300);
        for (const auto& wait : waits) {
            ASSERT_EQ(wait.completions, 1u);
            const bool late = !NT_SUCCESS(wait.status());   // after the close had begun
            EXPECT_TRUE(seed % 3 == 0 || !late);
            EXPECT_EQ(wait.information(), late ? 0u : 4u);
            EXPECT_EQ(wait.value & ~ULONG{SERIAL_EV_RXCHAR | SERIAL_EV_DSR}, 0u);
        }
    }
}

}  // namespace
