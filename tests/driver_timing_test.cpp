// When reads and writes time out: to the tick, in virtual time, with a tick of 10 ms.
#include "tests/support/port.h"

namespace {

using test::nowMs;
using test::OpenPort;
using test::Pending;
using test::ScriptedDevice;

constexpr ULONG kMax = MAXULONG;
constexpr ULONG kOverTheTop = 0x80000000;  // negative where times are signed
constexpr std::int64_t kNever = -1;
constexpr std::uint32_t kTraces = 0x8003, kCtsTraces = 0x100003;

class DriverTiming : public testing::Test {
protected:
    // Just behind a tick, which becomes the moment 0.
    void startAtTick(OpenPort& port) {
        Pending toNextTick(1);
        port.timeouts(kMax, 0, 500);
        port.read(toNextTick);
        ASSERT_TRUE(port.rig.until([&] { return toNextTick.done(); }, 20));
        origin_ = toNextTick.atMs;
        while ((nowMs() - origin_) % 10 != 1) port.rig.run(1);
        origin_ = nowMs() - 1;
    }
    std::int64_t now() const { return nowMs() - origin_; }
    void runTo(OpenPort& port, std::int64_t ms) {
        ASSERT_LT(now(), ms);
        port.rig.run(static_cast<std::uint32_t>(ms - now()));
    }
    void arrive(OpenPort& port, std::int64_t ms, const std::string& text) {
        runTo(port, ms);
        port.rig.device([&](ScriptedDevice& d) { d.sendBulk(text); });
    }
    // The end of a request, now or still to come; kNever: not in 20 s.
    void expectEnd(OpenPort& port, const Pending& p, NTSTATUS status, ULONG bytes, std::int64_t endMs) {
        if (!p.done()) runTo(port, endMs == kNever ? 20000 : endMs + 5);
        EXPECT_EQ(p.completions, endMs == kNever ? 0u : 1u);
        EXPECT_EQ(p.status(), status);
        EXPECT_EQ(p.information(), bytes);
        EXPECT_EQ(p.done() ? p.atMs - origin_ : kNever, endMs);
    }

    std::int64_t origin_ = 0;
};

TEST_F(DriverTiming, reads_end_at_their_tick) {
    const struct {
        const char* what;
        ULONG interval, multiplier, constant;
        ULONG length;
        struct {
            std::int64_t atMs;
            const char* text;
        } arrivals[2];
        NTSTATUS status;
        ULONG bytes;
        std::int64_t endMs;  // after the tick before the request
    } cases[] = {
        {"off: until it is full", 0, 0, 0, 5, {{7, "abc"}, {5003, "de"}}, STATUS_SUCCESS, 5, 5003},
        {"off: not full", 0, 0, 0, 5, {{7, "abc"}}, STATUS_PENDING, 0, kNever},
        {"first bytes: none", kMax, kMax, 500, 10, {}, STATUS_TIMEOUT, 0, 510},
        {"first bytes: at once, not at the tick", kMax, kMax, 500, 10, {{333, "a"}}, STATUS_SUCCESS, 1, 333},
        {"first bytes: in the last moment", kMax, kMax, 500, 10, {{509, "ab"}}, STATUS_SUCCESS, 2, 509},
        {"interval below 0: the next tick", kMax, 0, 500, 10, {}, STATUS_TIMEOUT, 0, 10},
        {"interval below 0: with what is there", kOverTheTop, 0, 0, 10, {{7, "abc"}}, STATUS_TIMEOUT, 3, 10},
        {"interval as long as there is: runs", 0x7FFFFFFF, 0, 100, 10, {{7, "abc"}}, STATUS_TIMEOUT, 3, 110},
        {"total: a tick behind its end", 0, 0, 100, 10, {}, STATUS_TIMEOUT, 0, 110},
        {"total: shorter than a tick", 0, 0, 9, 10, {}, STATUS_TIMEOUT, 0, 10},
        {"total: bytes do not prolong it", 0, 0, 100, 10, {{7, "abc"}, {107, "d"}}, STATUS_TIMEOUT, 4, 110},
        {"total: full before", 0, 0, 100, 4, {{7, "abc"}, {109, "d"}}, STATUS_SUCCESS, 4, 109},
        {"total: for each byte", 0, 10, 2000, 100, {}, STATUS_TIMEOUT, 0, 3010},
        {"total: for bytes alone", 0, 10, 0, 5, {}, STATUS_TIMEOUT, 0, 60},
        {"total: a multiplier below 0 counts nothing", 0, kOverTheTop, 100, 10, {}, STATUS_TIMEOUT, 0, 110},
        {"total: a product that wraps", 0, 0x40000000, 100, 4, {}, STATUS_TIMEOUT, 0, 110},
        {"total: a sum below 0 is for ever", 0, 1, 0x7FFFFFF0, 100, {}, STATUS_PENDING, 0, kNever},
        {"interval: from the last byte", 50, 0, 0, 10, {{33, "abc"}}, STATUS_TIMEOUT, 3, 90},
        {"interval: each byte starts it anew", 50, 0, 0, 10, {{33, "abc"}, {79, "d"}}, STATUS_TIMEOUT, 4, 130},
        {"interval: not before the first byte", 50, 0, 0, 10, {}, STATUS_PENDING, 0, kNever},
        {"both: the interval is first", 30, 0, 100, 10, {{7, "a"}}, STATUS_TIMEOUT, 1, 40},
        {"both: the total is first", 50, 0, 100, 10, {{63, "a"}}, STATUS_TIMEOUT, 1, 110},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        OpenPort port(test::traced(kTraces));
        startAtTick(port);
        port.timeouts(c.interval, c.multiplier, c.constant);
        Pending read(c.length);
        EXPECT_EQ(port.read(read), STATUS_PENDING);
        for (const auto& arrival : c.arrivals) {
            if (arrival.text != nullptr) arrive(port, arrival.atMs, arrival.text);
        }
        expectEnd(port, read, c.status, c.bytes, c.endMs);
        EXPECT_EQ(port.rig.traced("SqueueAddRequest:Overflow in TotalTime! Set time to MAXLONG!\n"), c.constant > kOverTheTop / 2);
    }
}

// Only the head holds bytes; while it does, the interval runs for all of them.
TEST_F(DriverTiming, reads_in_a_row) {
    OpenPort port;
    startAtTick(port);
    Pending first(10), second(10), head(10), next(10), last(4);
    port.timeouts(0, 0, 100);
    port.read(first);
    port.read(second);
    arrive(port, 7, "abc");
    expectEnd(port, first, STATUS_TIMEOUT, 3, 110);
    expectEnd(port, second, STATUS_TIMEOUT, 0, 110);

    startAtTick(port);
    port.timeouts(50, 0, 0);
    port.read(head);
    port.read(next);
    port.read(last);
    arrive(port, 7, "abc");
    expectEnd(port, head, STATUS_TIMEOUT, 3, 60);
    EXPECT_FALSE(next.done());
    arrive(port, 93, "0123456789xyzw");
    expectEnd(port, next, STATUS_SUCCESS, 10, 93);
    expectEnd(port, last, STATUS_SUCCESS, 4, 93);
    EXPECT_EQ(last.text(), "xyzw");
}

// New timeouts count for reads that wait already; their countdowns go on where they stood.
TEST_F(DriverTiming, mode_changes_under_waiting_reads) {
    OpenPort port(test::traced(kTraces));
    startAtTick(port);
    port.timeouts(0, 0, 100);
    Pending total(10);
    port.read(total);
    runTo(port, 51);
    port.timeouts(0, 0, 0);
    EXPECT_TRUE(port.rig.traced("SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_OFF\n"));
    runTo(port, 501);
    EXPECT_FALSE(total.done());
    port.timeouts(0, 0, 100);
    expectEnd(port, total, STATUS_TIMEOUT, 0, 560);

    port.timeouts(0, 0, 0);
    Pending reads[3]{Pending(10), Pending(10), Pending(10)}, off(10);
    for (auto& read : reads) port.read(read);
    runTo(port, 571);
    port.timeouts(kMax, 0, 0);
    EXPECT_TRUE(port.rig.traced("SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_NOWAIT\n"));
    runTo(port, 1001);
    EXPECT_FALSE(reads[0].done());
    arrive(port, 1003, "ab");
    for (auto& read : reads) expectEnd(port, read, STATUS_SUCCESS, &read == reads ? 2 : 0, 1003);

    port.timeouts(0, 0, 0);
    port.read(off);
    runTo(port, 1011);
    port.timeouts(kMax, kMax, 500);
    EXPECT_TRUE(port.rig.traced("SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_WAITFIRST\n"));
    expectEnd(port, off, STATUS_TIMEOUT, 0, 1020);
}

// --- Writes -----------------------------------------------------------------------------------------------------------

// A write ends when its last byte is in the ring of 100, so only a longer one can time out.
TEST_F(DriverTiming, writes_time_out_with_cts_flow_control_only) {
    const struct {
        const char* what;
        ULONG flowControl, multiplier, constant;
        std::size_t length;
        std::int64_t ctsMs;  // when the device raises CTS; kNever: it does not
        bool held;           // the device takes nothing
        NTSTATUS status;
        ULONG bytes;
        std::int64_t endMs;
        std::size_t received;
        const char* text;
    } cases[] = {
        {"no flow control", 0, 0, 100, 250, kNever, true, STATUS_PENDING, 0, kNever, 0, nullptr},
        {"no timeout", 1, 0, 0, 250, kNever, false, STATUS_PENDING, 0, kNever, 0, nullptr},
        {"grace, then the end", 1, 0, 100, 250, kNever, false, STATUS_TIMEOUT, 200, 1120, 100,
         "IRP with seconds timout, complete it with timeout\n"},
        {"grace for each byte asked for", 1, 1, 0, 250, kNever, false, STATUS_TIMEOUT, 200, 1270, 100,
         "IRP with timout send 100 bytes\n"},
        {"the grace is enough", 1, 0, 100, 150, kNever, false, STATUS_SUCCESS, 150, 110, 100, "Send 100 waiting data of 100\n"},
        {"CTS during the grace", 1, 0, 100, 250, 703, false, STATUS_SUCCESS, 250, 703, 250, "CTS active restart write\n"},
        {"CTS, and the device takes nothing", 1, 0, 100, 250, 3, true, STATUS_TIMEOUT, 200, 110, 0,
         "CTS active and timeout, complete IRP with timeout\n"},
        {"a sum below 0 is for ever", 1, kOverTheTop / 2, 100, 250, kNever, false, STATUS_PENDING, 0, kNever, 0, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        OpenPort port(test::traced(kCtsTraces, {{"useCtsFlowControl", c.flowControl}}));
        port.outRing(100);
        port.hold(c.held);
        startAtTick(port);
        port.timeouts(0, 0, 0, c.multiplier, c.constant);
        Pending write(std::string(c.length, 'w'));
        EXPECT_EQ(port.write(write), STATUS_PENDING);
        if (c.ctsMs != kNever) {
            runTo(port, c.ctsMs);
            port.rig.device([](ScriptedDevice& d) { d.notify(test::networkConnection(true)); });
        }
        expectEnd(port, write, c.status, c.bytes, c.endMs);
        EXPECT_EQ(port.received().size(), c.received);
        EXPECT_TRUE(c.text == nullptr || port.rig.traced(c.text)) << port.rig.trace();
    }
}

// One grace for each write, for what it has in the ring: none for the second one.
TEST_F(DriverTiming, each_write_has_its_grace) {
    OpenPort port(test::traced(kCtsTraces, {{"useCtsFlowControl", 1}}));
    port.outRing(100);
    startAtTick(port);
    port.timeouts(0, 0, 0, 0, 100);
    Pending first(std::string(300, '1')), second(std::string(30, '2'));
    port.write(first);
    runTo(port, 21);
    port.write(second);
    expectEnd(port, first, STATUS_TIMEOUT, 200, 1120);
    expectEnd(port, second, STATUS_TIMEOUT, 0, 1140);
    EXPECT_TRUE(port.rig.traced("IRP with timout send 100 bytes\n"));
    EXPECT_TRUE(port.rig.traced("IRP with timout send 0 bytes\n"));
    EXPECT_EQ(port.received(), std::string(100, '1'));
}

}  // namespace
