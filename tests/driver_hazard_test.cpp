// Requests and bytes under the worst of timing: each scenario stands for one way to lose, double, reorder or wedge them.
#include "tests/system_port.h"

#include "kernel/faults.h"
#include "kernel/thread.h"

#include <functional>

namespace {

using test::OpenPort;
using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::seeded;
using test::spin;
using test::traced;

constexpr std::uint8_t kSetLines = 0x22;

// Others get ahead wherever the driver traces, inside a cancel routine, too.
RigOptions tracing(std::uint64_t seed) {
    RigOptions options = seeded(seed);
    options.traceMask = 0x103;
    return options;
}

// --- Rings that cannot be had -----------------------------------------------------------------------------------------

// One size past what can be counted, and no memory for an ordinary one: requests wait, nothing spins, a purge and the
// next size work.
TEST(DriverHazard, ring_without_storage) {
    const struct {
        ULONG in, out;
        bool noMemory;
    } cases[] = {{300, MAXULONG, false}, {MAXULONG, 300, false}, {5000, 5000, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.in << " " << c.out);
        OpenPort port;
        // So that the next one finds its own memory in a cache.
        port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{1000, 1000});
        if (c.noMemory) nt::faults::failNth(nt::faults::Kind::allocation, 1, nt::faults::Extent::fromThenOn);
        EXPECT_EQ(port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{c.in, c.out}), STATUS_SUCCESS);
        nt::faults::clear();
        const bool inLost = c.in > 5000 || c.noMemory, outLost = c.out > 5000 || c.noMemory;
        Pending write(std::string("abc")), read(4);
        port.write(write);
        port.read(read);
        port.send("1234");
        port.rig.run(50);
        EXPECT_EQ(write.done(), !outLost);
        EXPECT_EQ(read.done(), !inLost);
        EXPECT_EQ(port.set(IOCTL_SERIAL_PURGE, ULONG{0x0F}), STATUS_SUCCESS);
        port.rig.run(1);
        EXPECT_EQ(write.status(), outLost ? STATUS_CANCELLED : STATUS_SUCCESS);
        EXPECT_EQ(read.status(), inLost ? STATUS_CANCELLED : STATUS_SUCCESS);
        Pending waiting(std::string("def")), later(4);
        port.write(waiting);
        port.read(later);
        EXPECT_EQ(port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{400, 400}), STATUS_SUCCESS);
        EXPECT_EQ(port.write("ghi"), STATUS_SUCCESS);
        port.send("5678");
        port.rig.run(50);
        EXPECT_EQ(port.received(), outLost ? "defghi" : "abcdefghi");
        EXPECT_EQ(later.text(), "5678");
    }
}

// --- Sending held, stopped, taken up again ----------------------------------------------------------------------------

void queryStop(OpenPort& port) { port.rig.executive().queryStop(port.rig.instancePath()); }

template <DEVICE_POWER_STATE state>
void power(OpenPort& port) {
    test::PortPower(port.rig).set(state);
}

// Whatever interrupts the send path, it takes at most the transfer under way with it; the ring and the writes
// behind it go out once and in order.
TEST(DriverHazard, interrupted_sending_keeps_the_ring) {
    const struct {
        const char* what;
        void (*interrupt)(OpenPort&);
        void (*goOn)(OpenPort&);
    } cases[] = {
        {"query stop", queryStop, [](OpenPort& p) { p.rig.executive().cancelStop(p.rig.instancePath()); }},
        {"stop",
         [](OpenPort& p) {
             queryStop(p);
             p.rig.executive().stopDevice(p.rig.instancePath());
         },
         [](OpenPort& p) { p.rig.executive().startDevice(p.rig.instancePath()); }},
        {"low power", power<PowerDeviceD2>, power<PowerDeviceD0>},
    };
    constexpr ULONG chunk = 256, ring = 2000;
    for (const auto seed : test::seeds(25)) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what);
            OpenPort port(seeded(seed, {{"WriteBufferSize", chunk}}));
            const std::string all = test::noise(chunk + ring + 1400, static_cast<std::uint32_t>(seed));
            port.outRing(ring);
            port.hold(true);
            EXPECT_EQ(port.write(all.substr(0, chunk)), STATUS_SUCCESS);
            EXPECT_EQ(port.write(all.substr(chunk, ring)), STATUS_SUCCESS);
            Pending queued[]{Pending(all.substr(chunk + ring, 700)), Pending(all.substr(chunk + ring + 700))};
            for (auto& write : queued) EXPECT_EQ(port.write(write), STATUS_PENDING);
            const bool flowing = seed % 2 == 0;
            nt::Thread releaser("releaser", [&] {
                spin(seed % 32);
                if (flowing) port.hold(false);
            });
            c.interrupt(port);
            port.rig.run(5);
            EXPECT_TRUE(flowing || !queued[0].done());
            releaser.join();
            c.goOn(port);
            port.hold(false);
            ASSERT_TRUE(port.rig.until([&] { return queued[1].done(); }, 3000));
            port.rig.run(50);
            for (auto& write : queued) EXPECT_EQ(write.status(), STATUS_SUCCESS);
            const std::string got = port.received();
            EXPECT_TRUE(test::hasOneGapAtMost(got, all) && got.size() + chunk >= all.size()) << got.size();
        }
    }
}

// A write that finds the packet in the hand of somebody who finds no bytes still leaves, with nothing else happening.
TEST(DriverHazard, small_write_needs_no_other_event) {
    for (const auto seed : test::seeds(40)) {
        OpenPort port(seeded(seed));
        std::string sent;
        for (int round = 0; round < 20; ++round) {
            port.hold(true);
            EXPECT_EQ(port.write("a"), STATUS_SUCCESS);
            nt::Thread writer("writer", [&] {
                spin(nt::sim::random(30));
                EXPECT_EQ(port.write("b"), STATUS_SUCCESS);
            });
            spin(nt::sim::random(30));
            port.hold(false);
            writer.join();
            port.rig.run(5);
            sent += "ab";
            ASSERT_EQ(port.received(), sent);
        }
    }
}

// The failed packet is gone when its restart comes: the writes behind it must not wait for another event.
TEST(DriverHazard, purge_while_a_failed_packet_waits) {
    OpenPort port(seeded(1, {{"RequestTimeout", 500}}));
    port.outRing(100);
    port.rig.device([](ScriptedDevice& d) {
        d.stallOut = 1;
        d.onControl = [](const usb::SetupPacket& setup, std::span<std::uint8_t>) -> std::optional<usb::ControlReply> {
            if (setup.request == kSetLines) return usb::ControlReply::never();
            return std::nullopt;
        };
    });
    Pending lines, behind(std::string(250, 'b'));
    EXPECT_EQ(port.control(lines, IOCTL_SERIAL_SET_DTR), STATUS_PENDING);   // keeps the restart waiting
    port.rig.run(5);
    EXPECT_EQ(port.write("fails"), STATUS_SUCCESS);
    port.rig.run(5);
    EXPECT_EQ(port.write(behind), STATUS_PENDING);
    EXPECT_EQ(port.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_TXCLEAR}), STATUS_SUCCESS);
    ASSERT_TRUE(port.rig.until([&] { return lines.done(); }));
    ASSERT_TRUE(port.rig.until([&] { return behind.done(); }, 100));
    port.rig.run(20);
    EXPECT_EQ(port.received(), std::string(150, 'b'));   // the purge took a ringful of it
}

// The same at any moment of the restart: the packet is in one place only, and sending goes on.
TEST(DriverHazard, purge_at_any_moment_of_a_restart) {
    for (const auto seed : test::seeds(150)) {
        OpenPort port(seeded(seed));
        port.rig.device([](ScriptedDevice& d) { d.stallOut = 1; });
        nt::Thread purger("purger", [&] {
            for (int i = 0; i < 6; ++i) {
                spin(nt::sim::random(12));
                EXPECT_EQ(port.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_TXCLEAR}), STATUS_SUCCESS);
            }
        });
        EXPECT_EQ(port.write("one"), STATUS_SUCCESS);
        EXPECT_EQ(port.write("two"), STATUS_SUCCESS);
        purger.join();
        port.rig.run(50);
        EXPECT_EQ(port.write("three"), STATUS_SUCCESS);
        port.rig.run(50);
        const auto got = port.received();
        ASSERT_TRUE(got == "three" || got == "onethree" || got == "twothree" || got == "onetwothree") << got;
    }
}

// A flush that arrives while the last one's end is being told, and a write right behind it.
TEST(DriverHazard, flush_ends_in_time_whatever_passes_it) {
    for (const auto seed : test::seeds(40)) {
        OpenPort port(tracing(seed));
        for (int round = 0; round < 20; ++round) {
            Pending flush;
            port.hold(true);
            EXPECT_EQ(port.write("x"), STATUS_SUCCESS);
            port.rig.run(5);
            const auto delay = 8 + nt::sim::random(28);
            nt::Thread flusher("flusher", [&] {
                spin(delay);
                port.file.flush(flush.on(port.file));
            });
            nt::Thread writer("writer", [&] {
                spin(delay + nt::sim::random(8));
                EXPECT_EQ(port.write("held by the device"), STATUS_SUCCESS);
            });
            port.rig.device([](ScriptedDevice& d) {
                d.holdOut = false;
                d.outAllowance = 1;
            });
            flusher.join();
            writer.join();
            ASSERT_TRUE(port.rig.until([&] { return flush.done(); }, 5100)) << "a flush lost its timer";
            EXPECT_EQ(flush.status(), STATUS_SUCCESS);
            port.rig.device([](ScriptedDevice& d) { d.outAllowance = ~0ull; });
            port.rig.run(5);
        }
    }
}

// --- Requests that end while somebody still looks at them -------------------------------------------------------------

// A write cancelled before it is in its queue goes on as if nothing had happened; if there is no room for it, an
// abort still ends it.
TEST(DriverHazard, write_cancelled_on_its_way_in) {
    for (const bool room : {true, false}) {
        unsigned missed = 0;
        const auto all = test::seeds(150);
        for (const auto seed : all) {
            OpenPort port(tracing(seed));
            Pending front(10), write(std::string("on its way"));
            if (!room) port.blockWrites(front);
            nt::Thread canceller("canceller", [&] {
                spin(nt::sim::random(12));
                port.file.cancel(write.request);
            });
            port.write(write);
            canceller.join();
            port.rig.run(20);
            const bool notFound = port.rig.traced("The IRP was not found");
            missed += notFound;
            if (room && notFound) {
                ASSERT_TRUE(write.done());
                EXPECT_EQ(write.status(), STATUS_SUCCESS);
                EXPECT_EQ(write.information(), write.buffer.size());
                EXPECT_EQ(port.received(), write.buffer);
            }
            if (!room) {
                EXPECT_FALSE(front.done());
                port.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_TXABORT});
                port.rig.run(1);
                EXPECT_EQ(write.status(), STATUS_CANCELLED);
                EXPECT_EQ(write.information(), 0u);
            }
            ASSERT_EQ(write.completions, 1u);
        }
        EXPECT_TRUE(all.size() == 1 || missed > 0);
    }
}

// A driver above the port: one IRP of its own, used again from its completion routine.
class UpperDriver {
public:
    explicit UpperDriver(OpenPort& port) : device_(port.file.object()->DeviceObject), file_(port.file.object()) {
        irp = IoAllocateIrp(device_->StackSize, FALSE);
    }
    ~UpperDriver() { IoFreeIrp(irp); }
    UpperDriver(const UpperDriver&) = delete;
    UpperDriver& operator=(const UpperDriver&) = delete;

    NTSTATUS send(UCHAR major, ULONG length, bool cancelled = false) {
        IoReuseIrp(irp, STATUS_UNSUCCESSFUL);
        irp->AssociatedIrp.SystemBuffer = buffer;
        const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = major;
        next->FileObject = file_;
        next->Parameters.Read.Length = length;
        IoSetCompletionRoutine(irp, completed, this, TRUE, TRUE, TRUE);
        irp->Cancel = cancelled;
        return IoCallDriver(device_, irp);
    }

    PIRP irp;
    char buffer[64] = {};
    struct End {
        NTSTATUS status;
        ULONG_PTR information;
        bool pending;
        bool cancelled;   // the cancellation came in time to see this end
    };
    std::vector<End> ends;
    std::function<void()> again;   // called once, from the first completion

private:
    static NTSTATUS NTAPI completed(PDEVICE_OBJECT, PIRP irp, PVOID context) {
        auto& self = *static_cast<UpperDriver*>(context);
        self.ends.push_back({irp->IoStatus.Status, irp->IoStatus.Information, irp->PendingReturned != 0, irp->Cancel != 0});
        if (const auto again = std::exchange(self.again, nullptr)) again();
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    PDEVICE_OBJECT device_;
    PFILE_OBJECT file_;
};

// Ended at once, unmarked, and with no lock held: the completion may come right back.
TEST(DriverHazard, request_cancelled_before_it_arrives) {
    for (const UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_FLUSH_BUFFERS}) {
        SCOPED_TRACE(int(major));
        OpenPort port;
        UpperDriver upper(port);
        port.hold(true);
        EXPECT_EQ(port.write("busy"), STATUS_SUCCESS);
        upper.again = [&] { upper.send(IRP_MJ_READ, 5); };
        EXPECT_EQ(upper.send(major, 5, true), STATUS_CANCELLED);
        ASSERT_EQ(upper.ends.size(), 1u);
        EXPECT_EQ(upper.ends[0].status, STATUS_CANCELLED);
        EXPECT_EQ(upper.ends[0].information, 0u);
        EXPECT_FALSE(upper.ends[0].pending);
        port.send("hello");
        ASSERT_EQ(upper.ends.size(), 2u);
        EXPECT_EQ(upper.ends[1].status, STATUS_SUCCESS);
        EXPECT_TRUE(upper.ends[1].pending);
        EXPECT_EQ(std::string(upper.buffer, 5), "hello");
    }
}

// The cancellation of a request that just ended does not strike the next one at the same address.
TEST(DriverHazard, cancel_misses_the_next_use_of_a_request) {
    unsigned late = 0;
    const auto all = test::seeds(120);
    for (const auto seed : all) {
        OpenPort port(seed % 4 < 2 ? tracing(seed) : seeded(seed));
        UpperDriver upper(port);
        for (int round = 0; round < 40; ++round) {
            upper.ends.clear();
            upper.again = [&] { upper.send(IRP_MJ_READ, 3); };
            EXPECT_EQ(upper.send(IRP_MJ_READ, 3), STATUS_PENDING);
            nt::Thread canceller("canceller", [&] {
                spin(seed % 2 ? nt::sim::random(40) : nt::sim::random(4));
                if (!upper.ends.empty()) return;
                // A level that the next use of the request does not know.
                KIRQL irql;
                KeRaiseIrql(DISPATCH_LEVEL, &irql);
                IoCancelIrp(upper.irp);
                KeLowerIrql(irql);
            });
            port.rig.device([](ScriptedDevice& d) { d.sendBulk("abc"); });
            canceller.join();
            port.rig.run(5);
            ASSERT_GE(upper.ends.size(), 1u);
            // One that came after the end is meant for the next use.
            if (upper.ends.size() == 1) port.send("def");
            ASSERT_EQ(upper.ends.size(), 2u);
            if (upper.ends[0].cancelled) {
                late += upper.ends[0].status == STATUS_SUCCESS;
                ASSERT_EQ(upper.ends[1].status, STATUS_SUCCESS) << "the next use was cancelled";
                EXPECT_EQ(upper.ends[1].information, 3u);
            }
            EXPECT_EQ(port.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR}), STATUS_SUCCESS);
        }
    }
    EXPECT_TRUE(all.size() == 1 || late > 0);
}

// A record that one request has given back is another's at once.
TEST(DriverHazard, immediate_reads_beside_writes) {
    for (const auto seed : test::seeds(150)) {
        OpenPort port(seeded(seed));
        port.timeouts(MAXULONG, 0, 0);
        std::string got;
        nt::Thread writer("writer", [&] {
            for (int i = 0; i < 12; ++i) EXPECT_EQ(port.write("w"), STATUS_SUCCESS);
        });
        port.rig.device([](ScriptedDevice& d) { d.sendBulk("0123456789"); });
        for (int i = 0; i < 12; ++i) {
            char buffer[2];
            const auto result = port.file.read(buffer, sizeof(buffer));
            ASSERT_EQ(result.status, STATUS_SUCCESS);
            ASSERT_LE(result.information, sizeof(buffer));
            got.append(buffer, result.information);
        }
        writer.join();
        port.rig.run(5);
        Pending rest(20);
        port.read(rest);
        EXPECT_EQ(got + rest.text(), "0123456789");
    }
}

}  // namespace
