// What applications get from the port: reads, writes, flushes, waits and controls, open to close.
#include "tests/support/port.h"

#include "kernel/thread.h"

namespace {

using test::nowMs;
using test::OpenPort;
using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::seeded;
using test::spin;
using test::TestRig;
using test::traced;

// --- Reads and writes -------------------------------------------------------------------------------------------------

TEST(DriverRequests, cancel_second_of_two_reads) {
    OpenPort port;
    Pending first(10), second(10);
    EXPECT_EQ(port.read(first), STATUS_PENDING);
    EXPECT_EQ(port.read(second), STATUS_PENDING);
    port.send("abc");
    port.file.cancel(second.request);
    port.rig.run(1);
    ASSERT_TRUE(second.done());
    EXPECT_EQ(second.status(), STATUS_CANCELLED);
    EXPECT_EQ(second.information(), 0u);
    EXPECT_FALSE(first.done());
    port.send("defghij+");
    ASSERT_TRUE(first.done());
    EXPECT_EQ(first.status(), STATUS_SUCCESS);
    EXPECT_EQ(first.text(), "abcdefghij");
    Pending rest(1);
    port.read(rest);
    port.rig.run(1);
    EXPECT_EQ(rest.text(), "+");
}

TEST(DriverRequests, cancel_partly_filled_read) {
    OpenPort port;
    Pending read(10);
    port.read(read);
    port.send("abc");
    port.file.cancel(read.request);
    port.rig.run(1);
    EXPECT_EQ(read.status(), STATUS_CANCELLED);
    EXPECT_EQ(read.information(), 3u);
    EXPECT_EQ(port.get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS).ReceivedCount, 3u);
}

TEST(DriverRequests, cancel_write_behind_full_ring) {
    OpenPort port;
    Pending write(10);
    port.blockWrites(write);
    port.file.cancel(write.request);
    port.rig.run(1);
    EXPECT_EQ(write.status(), STATUS_CANCELLED);
    EXPECT_EQ(write.information(), 0u);
    port.hold(false);
    port.rig.run(50);
    EXPECT_EQ(port.received(), "packet" + std::string(100, 'r'));
}

TEST(DriverRequests, empty_requests_end_at_once) {
    OpenPort port;
    Pending read, write;
    EXPECT_EQ(port.read(read), STATUS_SUCCESS);
    EXPECT_EQ(port.write(write), STATUS_SUCCESS);
    EXPECT_EQ(read.information() + write.information(), 0u);
}

TEST(DriverRequests, immediate_reads) {
    OpenPort port;
    port.timeouts(MAXULONG, 0, 0);
    EXPECT_TRUE(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).WaitForImmediate);
    port.send("12345");
    Pending some(10), none(10);
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
    Pending later(10);
    EXPECT_EQ(port.read(later), STATUS_PENDING);
    port.rig.run(1);
    EXPECT_EQ(later.status(), STATUS_SUCCESS);
    EXPECT_EQ(later.text(), "6");
}

TEST(DriverRequests, fifty_sixth_request_is_refused) {
    OpenPort port;
    std::vector<std::unique_ptr<Pending>> reads;
    for (int i = 0; i < 55; ++i) {
        reads.push_back(std::make_unique<Pending>(1));
        EXPECT_EQ(port.read(*reads.back()), STATUS_PENDING);
    }
    Pending over(1);
    EXPECT_EQ(port.read(over), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(port.rig.traced("DispatchRead: request dpool to small\n"));
    port.send("a");
    EXPECT_EQ(reads[0]->text(), "a");
    Pending again(1);
    EXPECT_EQ(port.read(again), STATUS_PENDING);
    port.file.close();
    EXPECT_EQ(reads[54]->status(), STATUS_CANCELLED);
    EXPECT_EQ(again.status(), STATUS_CANCELLED);
}

// Whoever wins, the read ends once, and what it did not report is still there for the next one.
TEST(DriverRequests, cancel_races_with_data) {
    unsigned cancelled = 0;
    const auto all = test::seeds(60);
    for (const auto seed : all) {
        OpenPort port(seeded(seed));
        Pending read(4), next(4);
        port.read(read);
        nt::Thread canceller("canceller", [&] { port.file.cancel(read.request); });
        port.rig.device([](ScriptedDevice& d) { d.sendBulk("data"); });
        canceller.join();
        port.rig.run(10);
        ASSERT_EQ(read.completions, 1u);
        if (read.status() == STATUS_CANCELLED && read.information() == 0) {
            ++cancelled;
            port.read(next);
            port.rig.run(1);
            EXPECT_EQ(next.text(), "data");
        } else {
            EXPECT_EQ(read.text(), "data");
        }
    }
    EXPECT_TRUE(all.size() == 1 || cancelled > 0);
}

// --- Flush ------------------------------------------------------------------------------------------------------------

TEST(DriverRequests, flush_ends_with_the_last_transfer) {
    OpenPort port;
    EXPECT_EQ(port.file.flush().status, STATUS_SUCCESS);
    port.hold(true);
    port.write("held");
    Pending flush;
    EXPECT_EQ(port.file.flush(flush.on(port.file)), STATUS_PENDING);
    port.rig.run(500);
    EXPECT_FALSE(flush.done());
    port.hold(false);
    port.rig.run(5);
    EXPECT_EQ(flush.status(), STATUS_SUCCESS);
    EXPECT_EQ(port.received(), "held");
}

TEST(DriverRequests, flush_times_out_after_5_s) {
    OpenPort port;
    Pending first, second, cancelled;
    port.hold(true);
    port.write("held");
    const auto begin = nowMs();
    port.file.flush(first.on(port.file));
    port.file.flush(cancelled.on(port.file));
    port.rig.run(4000);
    port.file.flush(second.on(port.file));   // restarts the count for all
    port.file.cancel(cancelled.request);
    port.rig.run(1);
    EXPECT_EQ(cancelled.status(), STATUS_CANCELLED);
    port.rig.run(4990);
    EXPECT_FALSE(first.done() || second.done());
    port.rig.run(20);
    ASSERT_TRUE(first.done() && second.done());
    EXPECT_EQ(first.status(), STATUS_SUCCESS);
    EXPECT_EQ(first.atMs - begin, 9000);
    EXPECT_EQ(second.atMs - begin, 9000);
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
    Pending first(10), second(10), write(10), flush, wait;
    EXPECT_EQ(port.control(IOCTL_SERIAL_SET_DTR), STATUS_SUCCESS);
    port.blockWrites(write);
    port.read(first);
    port.read(second);
    port.file.flush(flush.on(port.file));
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_CTS);
    EXPECT_EQ(port.wait(wait), STATUS_PENDING);
    wait.value = 1;
    port.send("abc");
    port.file.close();
    for (const Pending* p : {&first, &second, &write, &flush, &wait}) EXPECT_EQ(p->completions, 1u);
    EXPECT_EQ(first.status(), STATUS_CANCELLED);
    EXPECT_EQ(first.information(), 3u);
    EXPECT_EQ(second.status(), STATUS_CANCELLED);
    EXPECT_EQ(write.status(), STATUS_CANCELLED);
    EXPECT_EQ(flush.status(), STATUS_SUCCESS);
    EXPECT_EQ(wait.status(), STATUS_SUCCESS);
    EXPECT_EQ(wait.value, 0u);
    EXPECT_EQ(port.rig.device([](ScriptedDevice& d) { return d.controlLines; }), 0);
}

// Requests on their way in while the handle is closed: none may slip past the cleanup and hold up the close,
// and with it the end of a removed modem. Many of them, so that the schedule leaves some behind.
TEST(DriverRequests, requests_arrive_during_cleanup) {
    for (const auto seed : test::seeds(100)) {
        OpenPort port(seeded(seed));
        Pending behind(10), flush, wait, reads[4]{Pending(9), Pending(9), Pending(9), Pending(9)},
            writes[4]{Pending(9), Pending(9), Pending(9), Pending(9)};
        port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_CTS);
        port.blockWrites(behind);
        port.rig.unplug();
        port.rig.settle();
        std::vector<nt::Thread> threads;
        for (auto& read : reads) threads.emplace_back("reader", [&] { port.read(read); });
        for (auto& write : writes) threads.emplace_back("writer", [&] { port.write(write); });
        threads.emplace_back("flusher", [&] { port.file.flush(flush.on(port.file)); });
        threads.emplace_back("waiter", [&] { port.wait(wait); });
        spin(seed % 16);
        port.file.close();
        threads.clear();
        port.rig.run(10);
        std::vector<const Pending*> all{&behind, &flush, &wait};
        for (auto& read : reads) all.push_back(&read);
        for (auto& write : writes) all.push_back(&write);
        for (const Pending* p : all) ASSERT_EQ(p->completions, 1u);
        ASSERT_TRUE(port.rig.until([&] { return port.rig.executive().lookUp("\\Device\\qvcdcacm0") == nullptr; }, 2000));
    }
}

// A slow device gets what fits into the wait; what it did not take is not sent to the next opening.
TEST(DriverRequests, close_waits_for_drain) {
    const struct {
        std::uint32_t releaseMs;  // 0: never
        std::int64_t closeMs, slackMs;
        const char* text;
        std::size_t bytes;
    } cases[] = {
        {0, 1020, 60, "TIMED OUT waiting until TX buf is empty\n", 0},
        {300, 300, 60, "TX buf is empty.\n", 110},
    };
    for (const auto& c : cases) {
        OpenPort port(traced(0x43));
        port.hold(true);
        port.write(std::string(10, 'p'));
        port.write(std::string(100, 'r'));
        const auto begin = nowMs();
        std::int64_t took = 0;
        nt::Thread closer("closer", [&] {
            port.file.close();
            took = nowMs() - begin;
        });
        if (c.releaseMs != 0) {
            port.rig.run(c.releaseMs);
            port.hold(false);
        }
        closer.join();
        EXPECT_GE(took, c.closeMs);
        EXPECT_LE(took, c.closeMs + c.slackMs);
        EXPECT_TRUE(port.rig.traced(c.text));
        EXPECT_EQ(port.received().size(), c.bytes);
        port.hold(false);
        ASSERT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
        port.rig.run(50);
        EXPECT_EQ(port.received().size(), c.bytes);
        EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInOutQueue, 0u);
    }
}

TEST(DriverRequests, requests_of_a_removed_modem) {
    OpenPort port;
    Pending read(3), wait;
    port.read(read);
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
    port.wait(wait);
    port.rig.unplug();
    port.rig.settle();
    EXPECT_EQ(wait.status(), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(wait.information(), 4u);
    EXPECT_EQ(port.control(IOCTL_SERIAL_SET_DTR), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(port.write("kept"), STATUS_SUCCESS);
    EXPECT_FALSE(read.done());
    port.rig.replug();
    ASSERT_TRUE(port.rig.until([&] { return port.received() == "kept"; }));
    port.send("abc");
    EXPECT_EQ(read.text(), "abc");
}

// Five attempts, half a second apart, the last three after a port reset; then nothing more, and no open.
TEST(DriverRequests, reinitialisation_gives_up) {
    RigOptions options;
    options.plug = false;
    TestRig rig(options);
    std::vector<std::int64_t> attempts;
    auto device = std::make_unique<ScriptedDevice>();
    device->onControl = [&](const usb::SetupPacket& setup, std::span<std::uint8_t>) -> std::optional<usb::ControlReply> {
        if (setup.request == 0x22) attempts.push_back(nowMs());
        return usb::ControlReply::stall();
    };
    const auto plugged = rig.plug(std::move(device), "0001");
    rig.run(10000);
    ASSERT_EQ(attempts.size(), 5u);
    for (std::size_t i = 1; i < attempts.size(); ++i) {
        EXPECT_GE(attempts[i] - attempts[i - 1], 500);
        EXPECT_LT(attempts[i] - attempts[i - 1], 650);
    }
    EXPECT_EQ(rig.bus().statistics(plugged.port).resets, 3u);
    nt::File file;
    EXPECT_EQ(file.open("\\DosDevices\\COM3"), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(rig.traced("Device not initialized, hardware problem, reject open\n"));
}

// --- Wait on mask -----------------------------------------------------------------------------------------------------

TEST(DriverRequests, wait_takes_pending_events) {
    OpenPort port;
    Pending wait;
    EXPECT_EQ(port.file.control(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, &wait.value, 4).status, STATUS_INVALID_PARAMETER);
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_CTS);
    port.send("x");   // outside the mask: never delivered
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
    port.wait(wait);
    port.rig.run(1);
    EXPECT_FALSE(wait.done());
    port.send("y");
    EXPECT_EQ(wait.value, ULONG{SERIAL_EV_RXCHAR});
    port.send("z");   // pending when the mask changes, and still there for the next wait
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_DSR);
    EXPECT_EQ(port.get(IOCTL_SERIAL_WAIT_ON_MASK), ULONG{SERIAL_EV_RXCHAR});
}

TEST(DriverRequests, wait_ends_with_nothing) {
    OpenPort port;
    Pending replaced, changed, cancelled, next;
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
    replaced.value = changed.value = cancelled.value = 1;
    port.wait(replaced);
    port.wait(changed);
    port.rig.run(1);
    EXPECT_TRUE(replaced.done());
    EXPECT_FALSE(changed.done());
    port.set<ULONG>(IOCTL_SERIAL_SET_WAIT_MASK, SERIAL_EV_RXCHAR);
    port.rig.run(1);
    EXPECT_TRUE(changed.done());
    port.wait(cancelled);
    const auto begin = nowMs();
    port.file.cancel(cancelled.request);
    port.rig.run(99);
    EXPECT_FALSE(cancelled.done());
    port.rig.run(10);
    ASSERT_TRUE(cancelled.done());
    EXPECT_EQ(cancelled.atMs - begin, 100);
    for (const Pending* p : {&replaced, &changed, &cancelled}) {
        EXPECT_EQ(p->status(), STATUS_SUCCESS);
        EXPECT_EQ(p->information(), 4u);
        EXPECT_EQ(p->value, 0u);
    }
}

// The delayed end of one wait must not strike the next one, which is there as soon as the first has ended:
// whether the event or the cancellation is first, and however far the cancellation has got.
TEST(DriverRequests, cancelled_wait_leaves_the_next_alone) {
    for (const auto seed : test::seeds(100)) {
        OpenPort port(seeded(seed));
        Pending second;
        struct First : Pending {
            OpenPort* port;
            Pending* next;
        } first;
        first.port = &port;
        first.next = &second;
        first.request.setCompletion([](nt::Request& request, void* context) {
            auto& self = *static_cast<First*>(context);
            Pending::ended(request, static_cast<Pending*>(&self));
            EXPECT_EQ(self.port->wait(*self.next), STATUS_PENDING);
        }, &first);
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

// --- Controls ---------------------------------------------------------------------------------------------------------

TEST(DriverRequests, refused_controls_are_traced_by_name) {
    OpenPort port;
    UCHAR in[64] = {}, out[64];
    const struct {
        ULONG code;
        const char* name;
    } refused[] = {{0x1B0070, "IOCTL_SERIAL_XOFF_COUNTER"},      {0x1B007C, "IOCTL_SERIAL_LSRMST_INSERT"},
                   {0x1B0084, "IOCTL_SERIAL_GET_COMMCONFIG"},    {0x1B0088, "IOCTL_SERIAL_SET_COMMCONFIG"},
                   {0x1B0094, "IOCTL_SERIAL_GET_MODEM_CONTROL"}, {0x370200, "IOCTL_SERENUM_EXPOSE_HARDWARE"},
                   {0x37020C, "IOCTL_SERENUM_GET_PORT_NAME"},    {0x1B0000, "Unknown IO Ctrl code"},
                   {0x1B00A0, "Unknown IO Ctrl code"}};
    for (const auto& r : refused) {
        port.rig.clearTrace();
        EXPECT_EQ(port.file.control(r.code, in, 64, out, 64).status, STATUS_INVALID_PARAMETER);
        EXPECT_TRUE(port.rig.traced(r.name)) << r.name;
    }
}

TEST(DriverRequests, line_controls_reach_the_wire) {
    OpenPort port;
    port.rig.device([](ScriptedDevice& d) { d.controls.clear(); });
    for (const ULONG code : {IOCTL_SERIAL_SET_DTR, IOCTL_SERIAL_SET_RTS, IOCTL_SERIAL_CLR_DTR, IOCTL_SERIAL_SET_BREAK_ON,
                             IOCTL_SERIAL_SET_BREAK_OFF})
        EXPECT_EQ(port.control(code), STATUS_SUCCESS);
    EXPECT_EQ(port.get(IOCTL_SERIAL_GET_DTRRTS), ULONG{SERIAL_RTS_STATE});
    EXPECT_EQ(port.set(IOCTL_SERIAL_SET_LINE_CONTROL, SERIAL_LINE_CONTROL{STOP_BITS_1_5, MARK_PARITY, 7}), STATUS_SUCCESS);
    EXPECT_EQ(port.set(IOCTL_SERIAL_SET_BAUD_RATE, ULONG{115200}), STATUS_SUCCESS);
    const auto seen = port.rig.device([](ScriptedDevice& d) { return d.controls; });
    const std::vector<std::pair<int, int>> expected{{0x22, 1}, {0x22, 3}, {0x22, 2}, {0x23, 0xFFFF}, {0x23, 0}, {0x20, 0}, {0x20, 0}};
    ASSERT_EQ(seen.size(), expected.size());
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].setup.requestType, 0x21);
        EXPECT_EQ(seen[i].setup.request, expected[i].first) << i;
        EXPECT_EQ(seen[i].setup.value, expected[i].second) << i;
    }
    EXPECT_EQ(seen.back().data, (test::Bytes{0x00, 0xC2, 0x01, 0x00, 1, 3, 7}));
}

TEST(DriverRequests, modem_status_tells_changes_since_the_last_report) {
    OpenPort port;
    port.rig.device([](ScriptedDevice& d) { d.notify(test::networkConnection(true)); });
    port.rig.device([](ScriptedDevice& d) { d.notify(test::serialState(0x02)); });
    port.rig.run(20);
    EXPECT_EQ(port.get(IOCTL_SERIAL_GET_MODEMSTATUS), 0x33u);
    EXPECT_EQ(port.get(IOCTL_SERIAL_GET_MODEMSTATUS), 0x30u);
    port.rig.device([](ScriptedDevice& d) { d.notify(test::serialState(0x01)); });
    port.rig.run(20);
    EXPECT_EQ(port.get(IOCTL_SERIAL_GET_MODEMSTATUS), 0x9Au);
}

TEST(DriverRequests, purge_aborts_and_clears) {
    OpenPort port;
    Pending write(10), read(10);
    port.blockWrites(write);
    port.read(read);
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInOutQueue, 101u);
    EXPECT_EQ(port.set<ULONG>(IOCTL_SERIAL_PURGE, 0x0F), STATUS_SUCCESS);
    EXPECT_EQ(write.status(), STATUS_CANCELLED);
    EXPECT_EQ(read.status(), STATUS_CANCELLED);
    port.hold(false);
    port.rig.run(20);
    EXPECT_EQ(port.received(), "packet");
    EXPECT_EQ(port.write("after"), STATUS_SUCCESS);
    port.rig.run(20);
    EXPECT_EQ(port.received(), "packetafter");
}

TEST(DriverRequests, queue_sizes_are_kept_as_asked_for) {
    OpenPort port(traced(0x40003));
    port.send("lost");
    EXPECT_EQ(port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{10, MAXULONG}), STATUS_SUCCESS);
    const auto sizes = port.get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES);
    EXPECT_EQ(sizes.CurrentRxQueue, 10u);
    EXPECT_EQ(sizes.CurrentTxQueue, ULONG{MAXULONG});
    EXPECT_TRUE(port.rig.traced("Could'nt allocate CircSendBuf!\n"));
    // Without a send ring writes wait; the next size that can be had lets them go.
    Pending write(3);
    write.buffer = "abc";
    EXPECT_EQ(port.write(write), STATUS_PENDING);
    port.outRing(200);
    EXPECT_EQ(port.write("def"), STATUS_SUCCESS);
    port.rig.run(20);
    EXPECT_EQ(port.received(), "abcdef");
    port.send(std::string(150, 'x'));
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue, 100u);
}

TEST(DriverRequests, immediate_char_is_a_write_of_one_byte) {
    OpenPort port;
    EXPECT_EQ(port.set(IOCTL_SERIAL_IMMEDIATE_CHAR, UCHAR{'!'}), STATUS_SUCCESS);
    EXPECT_EQ(port.control(IOCTL_SERIAL_IMMEDIATE_CHAR), STATUS_SUCCESS);
    port.rig.run(20);
    EXPECT_EQ(port.received(), "!");
    EXPECT_EQ(port.get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS).TransmittedCount, 1u);
}

}  // namespace
