// Every control of the port: at every buffer length, by every code around them, in every state of the port. A control that is
// refused changes nothing, one that is served changes what it is for.
#include "tests/support/kernel_request.h"

#include "kernel/faults.h"

#include <array>
#include <cstdio>
#include <map>

namespace {

using test::Bytes;
using test::KernelRequest;
using test::OpenPort;
using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::TestRig;
using test::traced;

constexpr const char* dataDevice = "\\Device\\qvcdcacm0";
constexpr UCHAR external = IRP_MJ_DEVICE_CONTROL, internal = IRP_MJ_INTERNAL_DEVICE_CONTROL;

template <class T>
std::string packed(const T& value) {
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

enum class State { open, closed, stopped, removed };
constexpr State states[] = {State::open, State::closed, State::stopped, State::removed};
constexpr const char* stateNames[] = {"open", "closed", "stopped", "removed"};

// The controls that show the settings.
constexpr struct {
    ULONG code, size;
} shown[] = {
    {IOCTL_SERIAL_GET_TIMEOUTS, 20},    {IOCTL_SERIAL_GET_WAIT_MASK, 4}, {IOCTL_SERIAL_GET_BAUD_RATE, 4},
    {IOCTL_SERIAL_GET_LINE_CONTROL, 3}, {IOCTL_SERIAL_GET_CHARS, 6},     {IOCTL_SERIAL_GET_HANDFLOW, 16},
    {IOCTL_SERIAL_GET_COMMSTATUS, 20},  {IOCTL_SERIAL_GET_PROPERTIES, 64}, {IOCTL_SERIAL_GET_DTRRTS, 4},
    {IOCTL_SERIAL_GET_STATS, 24},
};
using Snapshot = std::map<ULONG, std::string>;

// A port in one of its states, reached through a device object.
struct Target {
    explicit Target(State wanted) : state(wanted), port(traced(0x3)) {
        object = port.rig.executive().lookUp(dataDevice);
        ObReferenceObject(object);
        const auto path = port.rig.instancePath();
        switch (state) {
        case State::open:
            break;
        case State::closed:
            port.file.close();
            break;
        case State::stopped:
            EXPECT_EQ(port.rig.executive().queryStop(path), STATUS_SUCCESS);
            EXPECT_EQ(port.rig.executive().stopDevice(path), STATUS_SUCCESS);
            break;
        case State::removed:
            port.rig.unplug();
            port.rig.settle();
            break;
        }
        request.emplace(object);
    }
    ~Target() {
        request.reset();
        ObDereferenceObject(object);
    }

    std::string get(ULONG code, ULONG size) {
        const auto [status, information] = request->run(external, code, {}, 0, size);
        EXPECT_EQ(status, STATUS_SUCCESS) << std::hex << code;
        EXPECT_EQ(information, size) << std::hex << code;
        return request->buffer();
    }
    Snapshot snapshot() {
        Snapshot all;
        for (const auto& s : shown) all[s.code] = get(s.code, s.size);
        return all;
    }
    bool away() const { return state == State::stopped || state == State::removed; }
    // The port's part of a trace line.
    std::string letters() const { return state == State::removed ? "ACM:COM?S:" : "ACM:COM3S:"; }

    State state;
    OpenPort port;
    PDEVICE_OBJECT object;
    std::optional<KernelRequest> request;
};

enum Kind { onTheSpot, workItem, invalid };

struct Control {
    ULONG code, in, out;
    Kind kind;
    std::string input;           // different from the defaults
    std::vector<ULONG> changes;  // which of the shown ones may
};

const std::vector<Control>& controls() {
    static const std::vector<Control> all = {
        {IOCTL_SERIAL_WAIT_ON_MASK, 0, 4, invalid, {}, {}},   // there is no mask yet
        {IOCTL_SERIAL_SET_BAUD_RATE, 4, 0, workItem, packed(ULONG{0xFFFFFFFF}), {IOCTL_SERIAL_GET_BAUD_RATE}},
        {IOCTL_SERIAL_SET_QUEUE_SIZE, 8, 0, onTheSpot, packed(SERIAL_QUEUE_SIZE{5000, 6000}), {IOCTL_SERIAL_GET_PROPERTIES}},
        {IOCTL_SERIAL_SET_LINE_CONTROL, 3, 0, workItem, packed(SERIAL_LINE_CONTROL{0xFF, 0x80, 0x77}), {IOCTL_SERIAL_GET_LINE_CONTROL}},
        {IOCTL_SERIAL_SET_BREAK_ON, 0, 0, workItem, {}, {}},
        {IOCTL_SERIAL_SET_BREAK_OFF, 0, 0, workItem, {}, {}},
        {IOCTL_SERIAL_SET_TIMEOUTS, 20, 0, onTheSpot, packed(SERIAL_TIMEOUTS{MAXULONG, 0, 0, 4, 5}),
         {IOCTL_SERIAL_GET_TIMEOUTS, IOCTL_SERIAL_GET_COMMSTATUS}},
        {IOCTL_SERIAL_GET_TIMEOUTS, 0, 20, onTheSpot, {}, {}},
        {IOCTL_SERIAL_SET_DTR, 0, 0, workItem, {}, {IOCTL_SERIAL_GET_DTRRTS}},
        {IOCTL_SERIAL_CLR_DTR, 0, 0, workItem, {}, {IOCTL_SERIAL_GET_DTRRTS}},
        {IOCTL_SERIAL_RESET_DEVICE, 0, 0, onTheSpot, {}, {}},
        {IOCTL_SERIAL_SET_RTS, 0, 0, workItem, {}, {IOCTL_SERIAL_GET_DTRRTS}},
        {IOCTL_SERIAL_CLR_RTS, 0, 0, workItem, {}, {IOCTL_SERIAL_GET_DTRRTS}},
        {IOCTL_SERIAL_SET_XOFF, 0, 0, onTheSpot, {}, {}},
        {IOCTL_SERIAL_SET_XON, 0, 0, onTheSpot, {}, {}},
        {IOCTL_SERIAL_GET_WAIT_MASK, 0, 4, onTheSpot, {}, {}},
        {IOCTL_SERIAL_SET_WAIT_MASK, 4, 0, onTheSpot, packed(ULONG{0xFFFFFFFE}), {IOCTL_SERIAL_GET_WAIT_MASK}},
        {IOCTL_SERIAL_PURGE, 4, 0, onTheSpot, packed(ULONG{0xFFFFFFFF}), {}},
        {IOCTL_SERIAL_GET_BAUD_RATE, 0, 4, onTheSpot, {}, {}},
        {IOCTL_SERIAL_GET_LINE_CONTROL, 0, 3, onTheSpot, {}, {}},
        {IOCTL_SERIAL_GET_CHARS, 0, 6, onTheSpot, {}, {}},
        {IOCTL_SERIAL_SET_CHARS, 6, 0, onTheSpot, "abcdef", {IOCTL_SERIAL_GET_CHARS}},
        {IOCTL_SERIAL_GET_HANDFLOW, 0, 16, onTheSpot, {}, {}},
        {IOCTL_SERIAL_SET_HANDFLOW, 16, 0, onTheSpot, packed(SERIAL_HANDFLOW{MAXULONG, 0x80000001, -1, 7}), {IOCTL_SERIAL_GET_HANDFLOW}},
        {IOCTL_SERIAL_GET_MODEMSTATUS, 0, 4, onTheSpot, {}, {}},
        {IOCTL_SERIAL_GET_COMMSTATUS, 0, 20, onTheSpot, {}, {}},
        {IOCTL_SERIAL_XOFF_COUNTER, 0, 0, invalid, {}, {}},
        {IOCTL_SERIAL_GET_PROPERTIES, 0, 64, onTheSpot, {}, {}},
        {IOCTL_SERIAL_GET_DTRRTS, 0, 4, onTheSpot, {}, {}},
        {IOCTL_SERIAL_LSRMST_INSERT, 0, 0, invalid, {}, {}},
        {IOCTL_SERIAL_CONFIG_SIZE, 0, 4, onTheSpot, {}, {}},
        {0x1B0084, 0, 0, invalid, {}, {}},
        {0x1B0088, 0, 0, invalid, {}, {}},
        {IOCTL_SERIAL_GET_STATS, 0, 24, onTheSpot, {}, {}},
        {IOCTL_SERIAL_CLEAR_STATS, 0, 0, onTheSpot, {}, {IOCTL_SERIAL_GET_STATS}},
    };
    return all;
}

std::string sizeTrace(ULONG code, const char* side, ULONG length, ULONG expected) {
    char text[100];
    std::snprintf(text, sizeof(text), "Req %u %sBuffer to small:%u expected:%u\n", code, side, length, expected);
    return text;
}

void expectOnlyChanged(const Snapshot& before, const Snapshot& after, const std::vector<ULONG>& allowed) {
    for (const auto& [code, value] : before) {
        if (std::find(allowed.begin(), allowed.end(), code) == allowed.end()) {
            EXPECT_EQ(after.at(code), value) << "what " << std::hex << code << " shows has changed";
        }
    }
}

// One control with these lengths; `before` is what the port showed, and gets what it shows now.
void tryControl(Target& target, const Control& c, ULONG in, ULONG out, Snapshot& before) {
    SCOPED_TRACE(testing::Message() << std::hex << c.code << std::dec << " in " << in << " out " << out);
    target.port.rig.clearTrace();
    const auto [status, information] = target.request->run(external, c.code, c.input, in, out);
    const std::string left = target.request->buffer();
    const bool fits = in >= c.in && out >= c.out;
    const bool served = fits && c.kind != invalid;
    if (!served) {
        EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
    } else if (c.kind == workItem && target.away()) {
        // Refused by the driver, or by the bus as the device has no configuration.
        EXPECT_TRUE(target.state == State::removed ? status == STATUS_UNSUCCESSFUL : !NT_SUCCESS(status));
    } else {
        EXPECT_EQ(status, STATUS_SUCCESS);
    }
    EXPECT_EQ(information, served ? c.out : 0);
    if (in < c.in) {
        EXPECT_TRUE(target.port.rig.traced(sizeTrace(c.code, "In", in, c.in)));
    } else if (out < c.out) {
        EXPECT_TRUE(target.port.rig.traced(sizeTrace(c.code, "Out", out, c.out)));
    }
    // Input and the room behind the answer are as they were.
    for (std::size_t i = served ? c.out : 0; i < left.size(); ++i) {
        EXPECT_EQ(static_cast<std::uint8_t>(left[i]),
                  i < in && i < c.input.size() ? static_cast<std::uint8_t>(c.input[i]) : KernelRequest::fill) << i;
    }
    const Snapshot after = target.snapshot();
    expectOnlyChanged(before, after, served ? c.changes : std::vector<ULONG>{});
    if (served && c.in != 0 && !c.changes.empty() && after.at(c.changes[0]).size() == c.in) {
        EXPECT_EQ(after.at(c.changes[0]), c.input);
    }
    before = after;
}

TEST(DriverControls, every_control_at_every_length) {
    for (const State state : states) {
        SCOPED_TRACE(stateNames[static_cast<int>(state)]);
        Target target(state);
        Snapshot now = target.snapshot();
        for (const auto& c : controls()) {
            for (ULONG in = 0; in <= c.in + 1; ++in) {
                for (ULONG out = 0; out <= c.out + 1; ++out) tryControl(target, c, in, out, now);
            }
            if (testing::Test::HasFailure()) return;
        }
        // What they left, against the inputs.
        const std::string properties = now.at(IOCTL_SERIAL_GET_PROPERTIES);
        SERIAL_COMMPROP p;
        std::memcpy(&p, properties.data(), sizeof(p));
        EXPECT_EQ(p.CurrentRxQueue, 5000u);
        EXPECT_EQ(p.CurrentTxQueue, 6000u);
        EXPECT_EQ(now.at(IOCTL_SERIAL_GET_DTRRTS), packed(ULONG{0}));
        EXPECT_EQ(now.at(IOCTL_SERIAL_GET_COMMSTATUS)[17], 1);   // a read returns what is there
    }
}

TEST(DriverControls, every_code_around_them) {
    std::map<ULONG, bool> known;
    for (const auto& c : controls()) known[c.code] = c.kind != invalid || c.code == IOCTL_SERIAL_WAIT_ON_MASK;
    known[IOCTL_SERIAL_IMMEDIATE_CHAR] = true;
    std::vector<ULONG> codes = {0, 4, 0x1AFFFC, 0x1AFFFF, 0x1B0101, 0x1B0104, 0x001B0004 | 0x80000000, MAXULONG};
    for (ULONG code = 0x1B0000; code <= 0x1B0100; ++code) codes.push_back(code);
    for (ULONG code = 0x3701FC; code <= 0x370210; ++code) codes.push_back(code);
    for (const State state : states) {
        SCOPED_TRACE(stateNames[static_cast<int>(state)]);
        Target target(state);
        const Snapshot before = target.snapshot();
        for (const ULONG code : codes) {
            if (known[code]) continue;
            target.port.rig.clearTrace();
            const auto [status, information] = target.request->run(external, code, std::string(64, '\1'), 64, 64);
            EXPECT_EQ(status, STATUS_INVALID_PARAMETER) << std::hex << code;
            EXPECT_EQ(information, 0u) << std::hex << code;
            EXPECT_EQ(target.request->buffer(), std::string(64, '\1')) << std::hex << code;
            char text[60];
            std::snprintf(text, sizeof(text), "Invalid IO Control Code %08X: ", code);
            EXPECT_TRUE(target.port.rig.traced(target.letters() + text)) << text << target.port.rig.trace();
        }
        EXPECT_EQ(target.snapshot(), before);
    }
}

// A request that comes when nothing of the port is left but the object it was sent to.
TEST(DriverControls, device_is_gone) {
    OpenPort port;
    test::PortPower power(port.rig);
    const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(power.pdo());
    port.file.close();
    power.release();
    port.rig.unplug();
    port.rig.settle();
    ASSERT_EQ(port.rig.executive().lookUp(dataDevice), nullptr);
    {
        KernelRequest request(top);
        for (const UCHAR major : {external, internal}) {
            for (const ULONG code : {IOCTL_SERIAL_SET_BAUD_RATE, IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, IOCTL_SERIAL_IMMEDIATE_CHAR,
                                     IOCTL_SERIAL_WAIT_ON_MASK}) {
                EXPECT_EQ(request.run(major, code, std::string(64, '\1'), 64, 64),
                          (std::pair<NTSTATUS, ULONG>(STATUS_UNSUCCESSFUL, 0)));
            }
        }
    }
    ObDereferenceObject(top);
}

// --- Internal controls ------------------------------------------------------------------------------------------------

TEST(DriverControls, internal_controls) {
    for (const State state : states) {
        SCOPED_TRACE(stateNames[static_cast<int>(state)]);
        Target target(state);
        const Snapshot before = target.snapshot();
        const auto expectAll = [&](ULONG code, bool in, NTSTATUS fitting) {
            for (ULONG length = 0; length <= 45; ++length) {
                target.port.rig.clearTrace();
                const auto [status, information] =
                    target.request->run(internal, code, std::string(45, '\1'), in ? length : 0, in ? 0 : length);
                EXPECT_EQ(status, length < 44 ? STATUS_INVALID_PARAMETER : fitting) << length;
                EXPECT_EQ(information, length < 44 || in ? 0u : 44u) << length;
                if (length < 44) {
                    EXPECT_TRUE(target.port.rig.traced(sizeTrace(code, in ? "In" : "Out", length, 44)));
                    EXPECT_EQ(target.snapshot(), before);
                }
            }
        };
        expectAll(IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, false, STATUS_SUCCESS);
        target.request->run(internal, IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, {}, 0, 44);
        const std::string defaults = target.request->buffer();
        EXPECT_EQ(defaults.substr(0, 20), before.at(IOCTL_SERIAL_GET_TIMEOUTS));
        EXPECT_EQ(defaults.substr(20, 16), before.at(IOCTL_SERIAL_GET_HANDFLOW));
        target.request->run(internal, IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, defaults, 44, 0);
        EXPECT_EQ(target.snapshot(), before);

        expectAll(IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, true, STATUS_SUCCESS);
        const Snapshot after = target.snapshot();
        expectOnlyChanged(before, after, {IOCTL_SERIAL_GET_TIMEOUTS, IOCTL_SERIAL_GET_HANDFLOW, IOCTL_SERIAL_GET_PROPERTIES});
        target.request->run(internal, IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, {}, 0, 44);
        EXPECT_EQ(target.request->buffer(), std::string(44, '\1'));

        for (ULONG code = 0x1B0000; code <= 0x1B0100; ++code) {
            if (code == IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS || code == IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS) continue;
            target.port.rig.clearTrace();
            const bool wake = code == 0x1B0004 || code == 0x1B0008;
            const auto [status, information] = target.request->run(internal, code, std::string(64, '\2'), 64, 64);
            EXPECT_EQ(status, wake ? STATUS_NOT_SUPPORTED : STATUS_INVALID_PARAMETER) << std::hex << code;
            EXPECT_EQ(information, 0u);
            char text[60];
            std::snprintf(text, sizeof(text), "Internal: Invalid IO Control Code %08X: ", code);
            EXPECT_EQ(target.port.rig.traced(target.letters() + text), !wake) << text;
        }
        EXPECT_EQ(target.snapshot(), after);
    }
}

// What is restored waits for the control that evaluates it: reads stay in their way, rings keep their bytes and sizes.
TEST(DriverControls, restored_settings_take_effect_with_their_control) {
    Target target(State::open);
    OpenPort& port = target.port;
    port.send("kept");
    SERIAL_BASIC_SETTINGS immediate{};
    immediate.Timeouts.ReadIntervalTimeout = MAXULONG;
    immediate.RxFifo = immediate.TxFifo = 100;
    target.request->run(internal, IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, packed(immediate), sizeof(immediate), 0);
    const auto status = port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS);
    EXPECT_EQ(status.WaitForImmediate, 0);
    EXPECT_EQ(status.AmountInInQueue, 4u);
    Pending read(10);
    EXPECT_EQ(port.read(read), STATUS_PENDING);
    port.rig.run(500);
    EXPECT_FALSE(read.done());
    port.set(IOCTL_SERIAL_SET_TIMEOUTS, immediate.Timeouts);
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).WaitForImmediate, 1);
}

// The port can also be reached through the top of the modem's stack.
TEST(DriverControls, both_device_objects_serve) {
    OpenPort port(traced(0x83));
    test::PortPower power(port.rig);
    const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(power.pdo());
    {
        KernelRequest request(top);
        EXPECT_EQ(request.run(external, IOCTL_SERIAL_GET_BAUD_RATE, {}, 0, 4), (std::pair<NTSTATUS, ULONG>(STATUS_SUCCESS, 4)));
        EXPECT_EQ(request.value(), port.get(IOCTL_SERIAL_GET_BAUD_RATE));
        EXPECT_TRUE(port.rig.traced("ACM:COM3A: Code: 001b0050 IOCTL_SERIAL_GET_BAUD_RATE\n"));
        // By the first name with the code.
        request.run(internal, IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE, {}, 0, 0);
        EXPECT_TRUE(port.rig.traced("ACM:COM3A:Code: 001b0004 IOCTL_SERIAL_SET_BAUD_RATE\n"));
    }
    ObDereferenceObject(top);
}

// --- What the controls say and do -------------------------------------------------------------------------------------

TEST(DriverControls, properties_and_status_word_for_word) {
    OpenPort port;
    ULONG words[16];
    port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{5000, 6000});
    ASSERT_EQ(port.file.control(IOCTL_SERIAL_GET_PROPERTIES, nullptr, 0, words, 64).information, 64u);
    const ULONG expected[16] = {0x20040, 1, 0, 0, 0, 0x10000000, 1, 0xC7, 0x5F, 0x7FFFF, 0x01010008, 6000, 5000, 0, 0, 0};
    for (int i = 0; i < 16; ++i) EXPECT_EQ(words[i], expected[i]) << i;

    port.send("four");
    port.hold(true);
    port.write("on its way");
    port.rig.run(5);
    const auto status = port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS);
    EXPECT_EQ(status.Errors | status.HoldReasons | status.EofReceived, 0u);
    EXPECT_EQ(status.AmountInInQueue, 4u);
    EXPECT_EQ(status.AmountInOutQueue, 1u);   // the ring is empty, a transfer is not over
    port.hold(false);
    port.rig.run(20);
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInOutQueue, 0u);
    Pending read(4);
    port.read(read);
    port.rig.run(1);
    auto stats = port.get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS);
    EXPECT_EQ(stats.ReceivedCount, 4u);
    EXPECT_EQ(stats.TransmittedCount, 10u);
    EXPECT_EQ(port.control(IOCTL_SERIAL_CLEAR_STATS), STATUS_SUCCESS);
    stats = port.get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS);
    EXPECT_EQ(stats.ReceivedCount + stats.TransmittedCount, 0u);
}

// Each bit of a purge ends what it names and nothing else.
TEST(DriverControls, purge_bit_by_bit) {
    for (ULONG mask = 0; mask < 16; ++mask) {
        SCOPED_TRACE(mask);
        OpenPort port;
        Pending read(10), write(3);
        write.buffer = "end";
        port.send("received");   // a read of another length would take it
        const ULONG received = port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue;
        EXPECT_EQ(received, 8u);
        port.blockWrites(write);
        EXPECT_EQ(port.set<ULONG>(IOCTL_SERIAL_PURGE, mask & ~2u), STATUS_SUCCESS);
        EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue, mask & 8 ? 0u : 8u);
        Pending rest(8);
        if (!(mask & 8)) {
            port.read(rest);
            port.rig.run(1);
            EXPECT_EQ(rest.text(), "received");
        }
        port.read(read);
        EXPECT_EQ(port.set<ULONG>(IOCTL_SERIAL_PURGE, mask & 2), STATUS_SUCCESS);
        port.rig.run(1);
        EXPECT_EQ(read.done(), (mask & 2) != 0);
        if (read.done()) {
            EXPECT_EQ(read.status(), STATUS_CANCELLED);
        }
        EXPECT_EQ(write.done() && write.status() == STATUS_CANCELLED, (mask & 1) != 0);
        port.hold(false);
        port.rig.run(30);
        const std::string ring = mask & 4 ? "" : std::string(100, 'r');
        const std::string last = mask & 1 ? "" : "end";
        EXPECT_EQ(port.received(), "packet" + ring + last);
    }
}

// A size that cannot be had, up to the last that wraps around with what is added to it, leaves no ring and no damage.
TEST(DriverControls, impossible_queue_sizes) {
    for (const ULONG size : {MAXULONG, MAXULONG - 1, MAXULONG - 7, MAXULONG - 8}) {
        SCOPED_TRACE(size);
        OpenPort port(traced(0x40003));
        EXPECT_EQ(port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{size, size}), STATUS_SUCCESS);
        EXPECT_TRUE(port.rig.traced("Could'nt allocate CircRcvBuf!\n"));
        EXPECT_TRUE(port.rig.traced("Could'nt allocate CircSendBuf!\n"));
        const auto sizes = port.get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES);
        EXPECT_EQ(sizes.CurrentRxQueue, size);
        EXPECT_EQ(sizes.CurrentTxQueue, size);
        Pending write(3), read(3);
        EXPECT_EQ(port.write(write), STATUS_PENDING);
        EXPECT_EQ(port.read(read), STATUS_PENDING);
        port.send("abc");
        EXPECT_FALSE(read.done());
        EXPECT_EQ(port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{0, 0}), STATUS_SUCCESS);
        EXPECT_FALSE(read.done());   // a new size loses what had been received
        port.send("def");
        EXPECT_EQ(read.text(), "def");
    }
}

TEST(DriverControls, same_queue_sizes_keep_the_bytes) {
    OpenPort port;
    port.send("kept");
    const auto sizes = port.get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES);
    port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{sizes.CurrentRxQueue, 10});
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue, 4u);
    port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{10, 10});
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue, 0u);
}

TEST(DriverControls, line_requests_on_the_wire) {
    OpenPort port;
    const struct {
        ULONG code;
        std::string input;
        UCHAR request;
        USHORT value;
        Bytes data;
    } cases[] = {
        {IOCTL_SERIAL_SET_LINE_CONTROL, packed(SERIAL_LINE_CONTROL{0, 0, 8}), 0x20, 0, {0x00, 0xC2, 0x01, 0x00, 0, 0, 8}},
        {IOCTL_SERIAL_SET_BAUD_RATE, packed(ULONG{115200}), 0x20, 0, {0x00, 0xC2, 0x01, 0x00, 0, 0, 8}},
        {IOCTL_SERIAL_SET_LINE_CONTROL, packed(SERIAL_LINE_CONTROL{1, 4, 5}), 0x20, 0, {0x00, 0xC2, 0x01, 0x00, 1, 4, 5}},
        {IOCTL_SERIAL_SET_BAUD_RATE, packed(ULONG{0xFEDCBA98}), 0x20, 0, {0x98, 0xBA, 0xDC, 0xFE, 1, 4, 5}},
        {IOCTL_SERIAL_SET_BREAK_ON, {}, 0x23, 0xFFFF, {}},
        {IOCTL_SERIAL_SET_BREAK_OFF, {}, 0x23, 0, {}},
        {IOCTL_SERIAL_SET_RTS, {}, 0x22, 2, {}},
        {IOCTL_SERIAL_SET_DTR, {}, 0x22, 3, {}},
        {IOCTL_SERIAL_CLR_RTS, {}, 0x22, 1, {}},
        {IOCTL_SERIAL_CLR_DTR, {}, 0x22, 0, {}},
    };
    for (const bool refuse : {false, true}) {
        port.set(IOCTL_SERIAL_SET_BAUD_RATE, ULONG{115200});
        port.rig.device([&](ScriptedDevice& d) {
            d.onControl = [refuse](const usb::SetupPacket&, std::span<std::uint8_t>) -> std::optional<usb::ControlReply> {
                if (refuse) return usb::ControlReply::stall();
                return std::nullopt;
            };
        });
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << std::hex << c.code << (refuse ? " refused" : ""));
            port.rig.device([](ScriptedDevice& d) { d.controls.clear(); });
            const auto result = port.file.control(c.code, c.input.data(), static_cast<ULONG>(c.input.size()));
            EXPECT_EQ(NT_SUCCESS(result.status), !refuse);
            EXPECT_EQ(result.information, 0u);
            const auto seen = port.rig.device([](ScriptedDevice& d) { return d.controls; });
            ASSERT_EQ(seen.size(), 1u);
            EXPECT_EQ(seen[0].setup.requestType, 0x21);
            EXPECT_EQ(seen[0].setup.request, c.request);
            EXPECT_EQ(seen[0].setup.value, c.value);
            EXPECT_EQ(seen[0].data, c.data);
        }
    }
}

// Without memory for its work item a control ends well, keeps its setting and sends nothing.
TEST(DriverControls, work_item_without_memory) {
    OpenPort port;
    port.rig.device([](ScriptedDevice& d) { d.controls.clear(); });
    nt::faults::failNth(nt::faults::Kind::allocation, 1, nt::faults::Extent::fromThenOn);
    EXPECT_EQ(port.set(IOCTL_SERIAL_SET_BAUD_RATE, ULONG{1200}), STATUS_SUCCESS);
    nt::faults::clear();
    EXPECT_EQ(port.get(IOCTL_SERIAL_GET_BAUD_RATE), 1200u);
    EXPECT_TRUE(port.rig.device([](ScriptedDevice& d) { return d.controls.empty(); }));
    EXPECT_EQ(port.set(IOCTL_SERIAL_SET_LINE_CONTROL, SERIAL_LINE_CONTROL{0, 0, 8}), STATUS_SUCCESS);
    EXPECT_EQ(port.rig.device([](ScriptedDevice& d) { return d.lineCoding[0] | d.lineCoding[1] << 8; }), 1200);
}

// Overlapped changes of one line reach the device in the order they were asked for.
TEST(DriverControls, overlapped_line_controls_keep_their_order) {
    for (const auto seed : test::seeds(40)) {
        OpenPort port(test::seeded(seed));
        port.rig.device([](ScriptedDevice& d) { d.controls.clear(); });
        std::array<Pending, 12> all;
        for (std::size_t i = 0; i < all.size(); ++i) {
            EXPECT_EQ(port.control(all[i], i % 2 == 0 ? IOCTL_SERIAL_SET_BREAK_ON : IOCTL_SERIAL_SET_BREAK_OFF), STATUS_PENDING);
        }
        ASSERT_TRUE(port.rig.until([&] { return all.back().done(); }));
        const auto seen = port.rig.device([](ScriptedDevice& d) { return d.controls; });
        ASSERT_EQ(seen.size(), all.size());
        for (std::size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i].setup.value, i % 2 == 0 ? 0xFFFF : 0) << i;
    }
}

// One byte of input is sent, whatever the lengths say; nothing of the buffer comes back.
TEST(DriverControls, immediate_char_at_odd_lengths) {
    const struct {
        ULONG in, out;
        const char* sent;
    } cases[] = {{0, 0, ""}, {0, 64, ""}, {1, 0, "i"}, {1, 64, "i"}, {9, 3, "i"}};
    for (const State state : states) {
        SCOPED_TRACE(stateNames[static_cast<int>(state)]);
        Target target(state);
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << "in " << c.in << " out " << c.out);
            target.port.rig.device([](ScriptedDevice& d) { d.outs.clear(); });
            const auto [status, information] = target.request->run(external, IOCTL_SERIAL_IMMEDIATE_CHAR, "immediate", c.in, c.out);
            const bool refused = state == State::closed && c.sent[0] != 0;
            EXPECT_EQ(status, refused ? STATUS_CANCELLED : STATUS_SUCCESS);
            EXPECT_EQ(information, 0u);
            target.port.rig.run(20);
            if (state == State::open) {
                EXPECT_EQ(target.port.received(), c.sent);
            }
        }
    }
}

}  // namespace
