// What applications get from the port: reads, writes, flushes and waits, open to close.
#include "tests/support/port.h"

#include "kernel/thread.h"

#include <deque>

namespace {

using test::nowMs;
using test::OpenPort;
using test::Pending;
using test::ScriptedDevice;
using test::seeded;
using test::spin;
using test::TestRig;
using test::traced;

// --- Reads, writes, flushes ------------------------------------------------------------------------------------------

// Cancelled half filled, in the queue and behind a full ring: what they do not report stays for others.
TEST(DriverRequests, cancelled_requests) {
    OpenPort port;
    Pending partly(10), queued(10), write(10), rest(1);
    port.blockWrites(write);
    EXPECT_EQ(port.read(partly), STATUS_PENDING);
    EXPECT_EQ(port.read(queued), STATUS_PENDING);
    port.send("abc");
    port.file.cancel(queued.request);
    port.file.cancel(write.request);
    port.send("def");   // still for the first one
    EXPECT_FALSE(partly.done());
    port.file.cancel(partly.request);
    port.send("+");
    port.read(rest);
    port.hold(false);
    port.rig.run(50);
    for (const Pending* p : {&partly, &queued, &write}) {
        EXPECT_EQ(p->status(), STATUS_CANCELLED);
        EXPECT_EQ(p->information(), p == &partly ? 6u : 0u);
    }
    EXPECT_EQ(rest.text(), "+");
    EXPECT_EQ(port.get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS).ReceivedCount, 7u);
    EXPECT_EQ(port.received(), "packet" + std::string(100, 'r'));
}

TEST(DriverRequests, immediate_reads) {
    OpenPort port;
    Pending nothing, some(10), none(10), later(10);
    EXPECT_EQ(port.read(nothing), STATUS_SUCCESS);
    port.timeouts(MAXULONG, 0, 0);
    port.send("12345");
    EXPECT_EQ(port.read(some), STATUS_SUCCESS);
    EXPECT_EQ(some.text(), "12345");
    EXPECT_EQ(port.read(none), STATUS_SUCCESS);
    EXPECT_EQ(none.information(), 0u);
    EXPECT_EQ(port.get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS).ReceivedCount, 5u);
    // The next opening keeps the time mode and takes the queued way.
    port.file.close();
    ASSERT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
    EXPECT_FALSE(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).WaitForImmediate);
    port.send("6");
    EXPECT_EQ(port.read(later), STATUS_PENDING);
    port.rig.run(1);
    EXPECT_EQ(later.text(), "6");
}

TEST(DriverRequests, fifty_sixth_request_is_refused) {
    OpenPort port;
    std::deque<Pending> reads;
    for (int i = 0; i < 57; ++i) {
        if (i == 56) port.send("a");   // for the first one: there is room for another
        EXPECT_EQ(port.read(reads.emplace_back(1)), i == 55 ? STATUS_INSUFFICIENT_RESOURCES : STATUS_PENDING);
    }
    EXPECT_TRUE(port.rig.traced("DispatchRead: request dpool to small\n"));
    EXPECT_EQ(reads[0].text(), "a");
    port.file.close();
    EXPECT_EQ(reads[54].status(), STATUS_CANCELLED);
    EXPECT_EQ(reads[56].status(), STATUS_CANCELLED);
}

TEST(DriverRequests, flush_ends_with_the_last_transfer_or_after_5_s) {
    OpenPort port;
    Pending sent, first, second, cancelled;
    EXPECT_EQ(port.file.flush().status, STATUS_SUCCESS);
    port.hold(true);
    port.write("held");
    EXPECT_EQ(port.file.flush(sent.on(port.file)), STATUS_PENDING);
    port.rig.run(500);
    EXPECT_FALSE(sent.done());
    port.hold(false);
    port.rig.run(5);
    EXPECT_EQ(sent.status(), STATUS_SUCCESS);
    port.hold(true);
    port.write(" for ever");
    const auto begin = nowMs();
    port.file.flush(first.on(port.file));
    port.file.flush(cancelled.on(port.file));
    port.rig.run(4000);
    port.file.flush(second.on(port.file));   // restarts the count for all
    port.file.cancel(cancelled.request);
    port.rig.run(1);
    EXPECT_EQ(cancelled.status(), STATUS_CANCELLED);
    port.rig.run(5010);
    for (const Pending* p : {&first, &second}) {
        EXPECT_EQ(p->status(), STATUS_SUCCESS);
        EXPECT_EQ(p->atMs - begin, 9000);
    }
}

// --- Open, cleanup, close ---------------------------------------------------------------------------------------------

TEST(DriverRequests, second_open_refused) {
    OpenPort port(traced(0x43));
    nt::File second;
    EXPECT_TRUE(port.rig.traced("Driver Version 4.45 Obj:0\n"));
    EXPECT_EQ(second.open("\\DosDevices\\" + port.rig.comName()), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(port.rig.traced("Open data port rejected, in use\n"));
    EXPECT_EQ(port.write("still mine"), STATUS_SUCCESS);
    port.file.close();
    EXPECT_EQ(second.open("\\DosDevices\\" + port.rig.comName()), STATUS_SUCCESS);
    EXPECT_EQ(port.rig.statistics().openNotifications, 2u);
    EXPECT_EQ(port.rig.statistics().closeNotifications, 1u);
}

TEST(DriverRequests, cleanup_ends_everything) {
    OpenPort port;
    Pending partly(10), read(10), write(10), flush, wait;
    EXPECT_EQ(port.control(IOCTL_SERIAL_SET_DTR), STATUS_SUCCESS);
    port.blockWrites(write);
    port.read(partly);
    port.read(read);
    port.file.flush(flush.on(port.file));
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_CTS);
    EXPECT_EQ(port.wait(wait), STATUS_PENDING);
    wait.value = 1;
    port.send("abc");
    port.file.close();
    for (const Pending* p : {&partly, &read, &write}) EXPECT_EQ(p->status(), STATUS_CANCELLED);
    for (const Pending* p : {&flush, &wait}) EXPECT_EQ(p->status(), STATUS_SUCCESS);
    for (const Pending* p : {&partly, &read, &write, &flush, &wait}) EXPECT_EQ(p->completions, 1u);
    EXPECT_EQ(partly.information(), 3u);
    EXPECT_EQ(wait.value, 0u);
    EXPECT_EQ(port.rig.device([](ScriptedDevice& d) { return d.controlLines; }), 0);
}

// Requests on their way in while the handle is closed: none may slip past the cleanup and hold up the close,
// and with it the end of a removed modem. Many of them, so that the schedule leaves some behind.
TEST(DriverRequests, requests_arrive_during_cleanup) {
    for (const auto seed : test::seeds(100)) {
        OpenPort port(seeded(seed));
        Pending behind(10), flush, wait;
        std::deque<Pending> transfers;
        port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_CTS);
        port.blockWrites(behind);
        port.rig.unplug();
        port.rig.settle();
        std::vector<nt::Thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back("transfer", [&, &p = transfers.emplace_back(9), i] { i < 4 ? port.read(p) : port.write(p); });
        }
        threads.emplace_back("flusher", [&] { port.file.flush(flush.on(port.file)); });
        threads.emplace_back("waiter", [&] { port.wait(wait); });
        spin(seed % 16);
        port.file.close();
        threads.clear();
        port.rig.run(10);
        for (const Pending& p : transfers) ASSERT_EQ(p.completions, 1u);
        for (const Pending* p : {&behind, &flush, &wait}) ASSERT_EQ(p->completions, 1u);
        ASSERT_TRUE(port.rig.until([&] { return port.rig.executive().lookUp("\\Device\\qvcdcacm0") == nullptr; }, 2000));
    }
}

// A slow device gets what fits into the wait; what it did not take is not sent to the next opening.
TEST(DriverRequests, close_waits_for_drain) {
    const struct {
        std::uint32_t releaseMs;
        std::int64_t closeMs;
        const char* text;
        std::size_t bytes;
    } cases[] = {
        {2000, 1020, "TIMED OUT waiting until TX buf is empty\n", 0},
        {300, 300, "TX buf is empty.\n", 110},
    };
    for (const auto& c : cases) {
        OpenPort port(traced(0x43));
        port.hold(true);
        port.write(std::string(10, 'p'));
        port.write(std::string(100, 'r'));
        nt::Thread releaser("releaser", [&] {
            port.rig.run(c.releaseMs);
            port.hold(false);
        });
        const auto begin = nowMs();
        port.file.close();
        EXPECT_GE(nowMs() - begin, c.closeMs);
        EXPECT_LE(nowMs() - begin, c.closeMs + 60);
        EXPECT_TRUE(port.rig.traced(c.text));
        releaser.join();
        ASSERT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
        port.rig.run(50);
        EXPECT_EQ(port.received().size(), c.bytes);
        EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInOutQueue, 0u);
    }
}

// Five attempts, half a second apart, the last three after a port reset; then nothing more, and no open.
TEST(DriverRequests, reinitialisation_gives_up) {
    TestRig rig({.plug = false});
    std::vector<std::int64_t> attempts;
    auto device = std::make_unique<ScriptedDevice>();
    device->onControl = [&](const usb::SetupPacket& setup, std::span<std::uint8_t>) -> std::optional<usb::ControlReply> {
        if (setup.request == 0x22) attempts.push_back(nowMs());
        return usb::ControlReply::stall();
    };
    rig.plug(std::move(device), "0001");
    rig.run(10000);
    ASSERT_EQ(attempts.size(), 5u);
    for (std::size_t i = 1; i < attempts.size(); ++i) {
        EXPECT_GE(attempts[i] - attempts[i - 1], 500);
        EXPECT_LT(attempts[i] - attempts[i - 1], 650);
    }
    EXPECT_EQ(rig.statistics().resets, 3u);
    nt::File file;
    EXPECT_EQ(file.open("\\DosDevices\\COM3"), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(rig.traced("Device not initialized, hardware problem, reject open\n"));
}

// --- Wait on mask -----------------------------------------------------------------------------------------------------

// The delayed end of one wait must not strike the next one, which is there as soon as the first has ended:
// whether the event or the cancellation is first, and however far the cancellation has got.
TEST(DriverRequests, cancelled_wait_leaves_the_next_alone) {
    for (const auto seed : test::seeds(100)) {
        OpenPort port(seeded(seed));
        std::function<void(nt::Request&)> next;
        Pending second, first;
        next = [&](nt::Request& request) {
            Pending::ended(request, &first);
            EXPECT_EQ(port.wait(second), STATUS_PENDING);
        };
        first.request.setCompletion([](nt::Request& r, void* f) { (*static_cast<decltype(next)*>(f))(r); }, &next);
        port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
        port.wait(first);
        std::vector<nt::Thread> threads;   // the others make it likely that the canceller is left behind
        for (int i = 0; i < 6; ++i) threads.emplace_back("other", [] { spin(60); });
        threads.emplace_back("canceller", [&] {
            spin(seed % 24);
            port.file.cancel(first.request);
        });
        port.rig.device([](ScriptedDevice& d) { d.sendBulk("x"); });
        threads.clear();
        ASSERT_TRUE(port.rig.until([&] { return first.done(); }, 50));
        EXPECT_EQ(first.value, ULONG{SERIAL_EV_RXCHAR});
        port.rig.run(300);
        EXPECT_EQ(first.completions, 1u);
        ASSERT_FALSE(second.done());
    }
}

// Lines that are up raise their own events when the port is initialised anew.
TEST(DriverRequests, restart_reports_the_lines) {
    OpenPort port;
    Pending wait;
    const auto path = port.rig.instancePath();
    port.rig.device([](ScriptedDevice& d) { d.notify(test::serialState(0x03)); });   // DCD and DSR
    port.rig.run(20);
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, 0xFFF);
    port.wait(wait);
    EXPECT_EQ(port.rig.executive().queryStop(path), STATUS_SUCCESS);
    EXPECT_EQ(port.rig.executive().stopDevice(path), STATUS_SUCCESS);
    EXPECT_EQ(port.rig.executive().startDevice(path), STATUS_SUCCESS);
    port.rig.run(100);
    EXPECT_EQ(wait.value, ULONG{SERIAL_EV_DSR | SERIAL_EV_RLSD});
}

}  // namespace
