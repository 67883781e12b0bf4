// Every control of the port: at every buffer length, by every code around them, in every state of the port. A control that is
// refused changes nothing, one that is served changes what it is for.
#include "tests/explorer/controls.h"
#include "tests/support/kernel_request.h"

#include "kernel/faults.h"

#include <array>
#include <cstdio>
#include <map>
#include <set>

namespace {

using explorer::Control;
using explorer::Effect;
using test::Bytes;
using test::KernelRequest;
using test::OpenPort;
using test::Pending;
using test::ScriptedDevice;
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

// A value unlike the default of a control that stores one, and the controls that may show another then.
struct Change {
    std::string input;
    std::vector<ULONG> shownBy;
};
const std::map<ULONG, Change> changes = {
    {IOCTL_SERIAL_SET_BAUD_RATE, {packed(ULONG{0xFFFFFFFF}), {IOCTL_SERIAL_GET_BAUD_RATE}}},
    {IOCTL_SERIAL_SET_QUEUE_SIZE, {packed(SERIAL_QUEUE_SIZE{5000, 6000}), {IOCTL_SERIAL_GET_PROPERTIES}}},
    {IOCTL_SERIAL_SET_LINE_CONTROL, {packed(SERIAL_LINE_CONTROL{0xFF, 0x80, 0x77}), {IOCTL_SERIAL_GET_LINE_CONTROL}}},
    {IOCTL_SERIAL_SET_TIMEOUTS,
     {packed(SERIAL_TIMEOUTS{MAXULONG, 0, 0, 4, 5}), {IOCTL_SERIAL_GET_TIMEOUTS, IOCTL_SERIAL_GET_COMMSTATUS}}},
    {IOCTL_SERIAL_SET_DTR, {{}, {IOCTL_SERIAL_GET_DTRRTS}}},
    {IOCTL_SERIAL_CLR_DTR, {{}, {IOCTL_SERIAL_GET_DTRRTS}}},
    {IOCTL_SERIAL_SET_RTS, {{}, {IOCTL_SERIAL_GET_DTRRTS}}},
    {IOCTL_SERIAL_CLR_RTS, {{}, {IOCTL_SERIAL_GET_DTRRTS}}},
    {IOCTL_SERIAL_SET_WAIT_MASK, {packed(ULONG{0xFFFFFFFE}), {IOCTL_SERIAL_GET_WAIT_MASK}}},
    {IOCTL_SERIAL_PURGE, {packed(ULONG{0xFFFFFFFF}), {}}},
    {IOCTL_SERIAL_SET_CHARS, {"abcdef", {IOCTL_SERIAL_GET_CHARS}}},
    {IOCTL_SERIAL_SET_HANDFLOW, {packed(SERIAL_HANDFLOW{MAXULONG, 0x80000001, -1, 7}), {IOCTL_SERIAL_GET_HANDFLOW}}},
    {IOCTL_SERIAL_CLEAR_STATS, {{}, {IOCTL_SERIAL_GET_STATS}}},
};

// The controls of the port but the immediate character, which is a write. First the wait, as long as there is no mask to wait on.
std::vector<Control> portControls() {
    std::vector<Control> all;
    std::copy_if(explorer::controls, explorer::controls + explorer::controlCount, std::back_inserter(all), [](const Control& c) {
        return !c.internal && c.effect != Effect::invalid && c.code != IOCTL_SERIAL_IMMEDIATE_CHAR;
    });
    std::stable_partition(all.begin(), all.end(), [](const Control& c) { return c.code == IOCTL_SERIAL_WAIT_ON_MASK; });
    return all;
}
const std::vector<Control> controls = portControls();

// What each control shows that only asks.
// What each control shows that only asks.
using Snapshot = std::map<ULONG, std::string>;
using Result = std::pair<NTSTATUS, ULONG>;

// A port in one of its states, reached through a device object.
struct Target {
    explicit Target(State wanted) : state(wanted), scope(__FILE__, __LINE__, stateNames[int(state)]), port(test::traced(0x3)) {
        object = port.rig.executive().lookUp(dataDevice);
        ObReferenceObject(object);
        const auto path = port.rig.instancePath();
        if (state == State::closed) {
            port.file.close();
        } else if (state == State::stopped) {
            EXPECT_EQ(port.rig.executive().queryStop(path), STATUS_SUCCESS);
            EXPECT_EQ(port.rig.executive().stopDevice(path), STATUS_SUCCESS);
        } else if (state == State::removed) {
            port.rig.unplug();
            port.rig.settle();
        }
        request.emplace(object);
    }
    ~Target() {
        request.reset();
        ObDereferenceObject(object);
    }

    Snapshot snapshot() {
        Snapshot all;
        for (const Control& c : controls) {
            if (c.output == 0 || c.code == IOCTL_SERIAL_WAIT_ON_MASK) continue;
            EXPECT_EQ(request->run(external, c.code, {}, 0, c.output), (Result{STATUS_SUCCESS, c.output})) << c.name;
            all[c.code] = request->buffer();
        }
        return all;
    }
    // Whether it was traced, by this port.
    bool traced(const std::string& text) const {
        return port.rig.traced((state == State::removed ? "ACM:COM?S:" : "ACM:COM3S:") + text);
    }

    State state;
    testing::ScopedTrace scope;
    OpenPort port;
    PDEVICE_OBJECT object;
    std::optional<KernelRequest> request;
};

std::string sizeTrace(ULONG code, const char* side, ULONG length, ULONG expected) {
    return "Req " + std::to_string(code) + " " + side + "Buffer to small:" + std::to_string(length) + " expected:" +
           std::to_string(expected) + "\n";
}

std::string invalidTrace(ULONG code) {
    char text[40];
    std::snprintf(text, sizeof(text), "Invalid IO Control Code %08X: ", code);
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
    SCOPED_TRACE(testing::Message() << c.name << " in " << in << " out " << out);
    const Change change = changes.contains(c.code) ? changes.at(c.code) : Change{};
    target.port.rig.clearTrace();
    const auto [status, information] = target.request->run(external, c.code, change.input, in, out);
    const bool served = in >= c.input && out >= c.output && c.code != IOCTL_SERIAL_WAIT_ON_MASK;
    if (!served) {
        EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
    } else if (c.effect == Effect::device && target.state == State::removed) {
        EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
    } else {
        // A stopped device has no configuration: the bus refuses.
        EXPECT_EQ(NT_SUCCESS(status), c.effect != Effect::device || target.state != State::stopped);
    }
    EXPECT_EQ(information, served ? c.output : 0);
    EXPECT_EQ(target.port.rig.traced(sizeTrace(c.code, "In", in, c.input)), in < c.input);
    EXPECT_EQ(target.port.rig.traced(sizeTrace(c.code, "Out", out, c.output)), in >= c.input && out < c.output);
    // Input and the room behind the answer are as they were.
    std::string untouched = change.input.substr(0, in);
    untouched.resize(std::max(in, out), static_cast<char>(KernelRequest::fill));
    const ULONG answer = served ? c.output : 0;
    EXPECT_EQ(target.request->buffer().substr(answer), untouched.substr(answer));
    const Snapshot after = target.snapshot();
    expectOnlyChanged(before, after, served ? change.shownBy : std::vector<ULONG>{});
    if (served && !change.input.empty() && !change.shownBy.empty() && after.at(change.shownBy[0]).size() == c.input) {
        EXPECT_EQ(after.at(change.shownBy[0]), change.input);
    }
    before = after;
}

TEST(DriverControls, every_control_at_every_length) {
    for (const State state : states) {
        Target target(state);
        Snapshot now = target.snapshot();
        for (const auto& c : controls) {
            for (ULONG in = 0; in <= c.input + 1; ++in) {
                for (ULONG out = 0; out <= c.output + 1; ++out) tryControl(target, c, in, out, now);
            }
            if (testing::Test::HasFailure()) return;
        }
        // What they left, against the inputs.
        SERIAL_COMMPROP p;
        std::memcpy(&p, now.at(IOCTL_SERIAL_GET_PROPERTIES).data(), sizeof(p));
        EXPECT_EQ(p.CurrentRxQueue, 5000u);
        EXPECT_EQ(p.CurrentTxQueue, 6000u);
        EXPECT_EQ(now.at(IOCTL_SERIAL_GET_DTRRTS), packed(ULONG{0}));
        EXPECT_EQ(now.at(IOCTL_SERIAL_GET_COMMSTATUS)[17], 1);   // a read returns what is there
    }
}

TEST(DriverControls, every_code_around_them) {
    std::set<ULONG> known{IOCTL_SERIAL_IMMEDIATE_CHAR};
    for (const auto& c : controls) known.insert(c.code);
    const std::map<ULONG, std::string> names{
        {0x1B0070, "IOCTL_SERIAL_XOFF_COUNTER"},      {0x1B007C, "IOCTL_SERIAL_LSRMST_INSERT"},
        {0x1B0084, "IOCTL_SERIAL_GET_COMMCONFIG"},    {0x1B0088, "IOCTL_SERIAL_SET_COMMCONFIG"},
        {0x1B0094, "IOCTL_SERIAL_GET_MODEM_CONTROL"}, {0x1B0098, "IOCTL_SERIAL_SET_MODEM_CONTROL"},
        {0x1B009C, "IOCTL_SERIAL_SET_FIFO_CONTROL"},  {0x370200, "IOCTL_SERENUM_EXPOSE_HARDWARE"},
        {0x370204, "IOCTL_SERENUM_REMOVE_HARDWARE"},  {0x370208, "IOCTL_SERENUM_PORT_DESC"},
        {0x37020C, "IOCTL_SERENUM_GET_PORT_NAME"}};
    std::vector<ULONG> codes = {0, 4, 0x1AFFFC, 0x1AFFFF, 0x1B0101, 0x1B0104, 0x001B0004 | 0x80000000, MAXULONG};
    for (ULONG code = 0x1B0000; code <= 0x1B0100; ++code) codes.push_back(code);
    for (ULONG code = 0x3701FC; code <= 0x370210; ++code) codes.push_back(code);
    for (const State state : states) {
        Target target(state);
        const Snapshot before = target.snapshot();
        for (const ULONG code : codes) {
            if (known.contains(code)) continue;
            target.port.rig.clearTrace();
            const auto result = target.request->run(external, code, std::string(64, '\1'), 64, 64);
            EXPECT_EQ(result, (Result{STATUS_INVALID_PARAMETER, 0})) << std::hex << code;
            EXPECT_EQ(target.request->buffer(), std::string(64, '\1')) << std::hex << code;
            const std::string name = names.contains(code) ? names.at(code) : "Unknown IO Ctrl code";
            EXPECT_TRUE(target.traced(invalidTrace(code) + name + "\n")) << target.port.rig.trace();
        }
        EXPECT_EQ(target.snapshot(), before);
    }
}

// The port can also be reached through the top of the modem's stack, until nothing is left but the object.
TEST(DriverControls, both_device_objects_serve) {
    OpenPort port(traced(0x83));
    test::PortPower power(port.rig);
    const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(power.pdo());
    KernelRequest request(top);
    EXPECT_EQ(request.run(external, IOCTL_SERIAL_GET_BAUD_RATE, {}, 0, 4), (Result{STATUS_SUCCESS, 4}));
    EXPECT_EQ(request.value(), port.get(IOCTL_SERIAL_GET_BAUD_RATE));
    EXPECT_TRUE(port.rig.traced("ACM:COM3A: Code: 001b0050 IOCTL_SERIAL_GET_BAUD_RATE\n"));
    // By the first name with the code.
    request.run(internal, IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE, {}, 0, 0);
    EXPECT_TRUE(port.rig.traced("ACM:COM3A:Code: 001b0004 IOCTL_SERIAL_SET_BAUD_RATE\n"));
    port.file.close();
    power.release();
    port.rig.unplug();
    port.rig.settle();
    ASSERT_EQ(port.rig.executive().lookUp(dataDevice), nullptr);
    for (const UCHAR major : {external, internal}) {
        for (const ULONG code : {IOCTL_SERIAL_SET_BAUD_RATE, IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, IOCTL_SERIAL_IMMEDIATE_CHAR,
                                 IOCTL_SERIAL_WAIT_ON_MASK}) {
            EXPECT_EQ(request.run(major, code, std::string(64, '\1'), 64, 64), (Result{STATUS_UNSUCCESSFUL, 0}));
        }
    }
    ObDereferenceObject(top);
}

// --- Internal controls ------------------------------------------------------------------------------------------------

// What is restored waits for the control that evaluates it: reads stay in their way, rings keep their bytes and sizes.
TEST(DriverControls, internal_controls) {
    constexpr ULONG basic = IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, restore = IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS;
    for (const State state : states) {
        Target target(state);
        if (state == State::open) target.port.send("kept");
        const Snapshot before = target.snapshot();
        const std::string immediate = std::string(4, '\xFF') + std::string(8, '\0') + std::string(33, '\1');
        for (ULONG length = 0; length < 44; ++length) {
            for (const bool in : {false, true}) {
                const ULONG code = in ? restore : basic;
                EXPECT_EQ(target.request->run(internal, code, immediate, in ? length : 0, in ? 0 : length),
                          (Result{STATUS_INVALID_PARAMETER, 0}));
                EXPECT_TRUE(target.port.rig.traced(sizeTrace(code, in ? "In" : "Out", length, 44)));
            }
        }
        EXPECT_EQ(target.snapshot(), before);
        for (const ULONG room : {44, 45}) {
            EXPECT_EQ(target.request->run(internal, basic, {}, 0, room), (Result{STATUS_SUCCESS, 44}));
            const std::string defaults = target.request->buffer().substr(0, 44);
            EXPECT_EQ(defaults.substr(0, 36), before.at(IOCTL_SERIAL_GET_TIMEOUTS) + before.at(IOCTL_SERIAL_GET_HANDFLOW));
            EXPECT_EQ(target.request->run(internal, restore, defaults, 44, 0), (Result{STATUS_SUCCESS, 0}));
            EXPECT_EQ(target.snapshot(), before);
        }
        EXPECT_EQ(target.request->run(internal, restore, immediate, 45, 0), (Result{STATUS_SUCCESS, 0}));
        const Snapshot after = target.snapshot();
        expectOnlyChanged(before, after, {IOCTL_SERIAL_GET_TIMEOUTS, IOCTL_SERIAL_GET_HANDFLOW, IOCTL_SERIAL_GET_PROPERTIES});
        target.request->run(internal, basic, {}, 0, 44);
        EXPECT_EQ(target.request->buffer(), immediate.substr(0, 44));

        for (ULONG code = 0x1B0000; code <= 0x1B0100; ++code) {
            if (code == basic || code == restore) continue;
            target.port.rig.clearTrace();
            const bool wake = code == 0x1B0004 || code == 0x1B0008;
            EXPECT_EQ(target.request->run(internal, code, std::string(64, '\2'), 64, 64),
                      (Result{wake ? STATUS_NOT_SUPPORTED : STATUS_INVALID_PARAMETER, 0})) << std::hex << code;
            EXPECT_EQ(target.traced("Internal: " + invalidTrace(code)), !wake) << std::hex << code;
        }
        EXPECT_EQ(target.snapshot(), after);
        if (state == State::open) {
            Pending read(10);
            EXPECT_EQ(target.port.read(read), STATUS_PENDING);
            target.port.rig.run(500);
            EXPECT_FALSE(read.done());
        }
    }
}

// --- What the controls say and do -------------------------------------------------------------------------------------

TEST(DriverControls, properties_and_status_word_for_word) {
    OpenPort port;
    ULONG words[16];
    port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{5000, 6000});
    ASSERT_EQ(port.file.control(IOCTL_SERIAL_GET_PROPERTIES, nullptr, 0, words, 64).information, 64u);
    EXPECT_EQ(std::vector<ULONG>(words, words + 16), (std::vector<ULONG>{0x20040, 1, 0, 0, 0, 0x10000000, 1, 0xC7, 0x5F, 0x7FFFF,
                                                                         0x01010008, 6000, 5000, 0, 0, 0}));

    port.send("four");
    port.hold(true);
    port.write("on its way");
    port.rig.run(5);
    const auto status = port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS);
    EXPECT_EQ(status.Errors | status.HoldReasons | status.EofReceived, 0u);
    EXPECT_EQ(status.AmountInInQueue, 4u);
    EXPECT_EQ(status.AmountInOutQueue, 1u);   // the ring is empty, a transfer is not over
    port.hold(false);
    Pending read(4);
    port.read(read);
    port.rig.run(20);
    EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInOutQueue, 0u);
    const auto stats = port.get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS);
    EXPECT_EQ(stats.ReceivedCount, 4u);
    EXPECT_EQ(stats.TransmittedCount, 10u);
    port.control(IOCTL_SERIAL_CLEAR_STATS);
    const auto cleared = port.get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS);
    EXPECT_EQ(cleared.ReceivedCount + cleared.TransmittedCount, 0u);
}

// Each bit of a purge ends what it names and nothing else.
TEST(DriverControls, purge_bit_by_bit) {
    for (ULONG mask = 0; mask < 16; ++mask) {
        SCOPED_TRACE(mask);
        OpenPort port;
        Pending rest(8), read(10), write(std::string("end"));
        const bool cleared = mask & SERIAL_PURGE_RXCLEAR, aborted = mask & SERIAL_PURGE_TXABORT;
        port.send("received");   // a read that waits would take it
        port.blockWrites(write);
        EXPECT_EQ(port.set<ULONG>(IOCTL_SERIAL_PURGE, mask & ~ULONG{SERIAL_PURGE_RXABORT}), STATUS_SUCCESS);
        EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue, cleared ? 0u : 8u);
        if (!cleared) {
            port.read(rest);
            port.rig.run(1);
            EXPECT_EQ(rest.text(), "received");
        }
        port.read(read);
        EXPECT_EQ(port.set<ULONG>(IOCTL_SERIAL_PURGE, mask & SERIAL_PURGE_RXABORT), STATUS_SUCCESS);
        port.hold(false);
        port.rig.run(30);
        EXPECT_EQ(read.status(), mask & SERIAL_PURGE_RXABORT ? STATUS_CANCELLED : STATUS_PENDING);
        EXPECT_EQ(write.status(), aborted ? STATUS_CANCELLED : STATUS_SUCCESS);
        EXPECT_EQ(port.received(), "packet" + std::string(mask & SERIAL_PURGE_TXCLEAR ? 0 : 100, 'r') + (aborted ? "" : "end"));
    }
}

// A size that cannot be had, up to the last that wraps around with what is added to it, leaves no ring and no damage. One that is
// the same as before keeps the bytes, another loses them, and none is less than 100.
TEST(DriverControls, queue_sizes) {
    for (const ULONG size : {MAXULONG, MAXULONG - 1, MAXULONG - 7, MAXULONG - 8}) {
        SCOPED_TRACE(size);
        OpenPort port(traced(0x40003));
        EXPECT_EQ(port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{size, size}), STATUS_SUCCESS);
        EXPECT_TRUE(port.rig.traced("Could'nt allocate CircRcvBuf!\n"));
        EXPECT_TRUE(port.rig.traced("Could'nt allocate CircSendBuf!\n"));
        const auto sizes = port.get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES);
        EXPECT_EQ(sizes.CurrentRxQueue, size);
        EXPECT_EQ(sizes.CurrentTxQueue, size);
        Pending write(std::string("abc")), read(3);
        EXPECT_EQ(port.write(write), STATUS_PENDING);
        EXPECT_EQ(port.read(read), STATUS_PENDING);
        port.send("abc");
        EXPECT_EQ(port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{0, 0}), STATUS_SUCCESS);
        EXPECT_FALSE(read.done());
        port.write("def");   // takes the first one along
        port.send("def");
        EXPECT_EQ(read.text(), "def");
        EXPECT_EQ(port.received(), "abcdef");
        port.send(std::string(150, 'x'));
        for (const ULONG next : {0, 10}) {
            EXPECT_EQ(port.set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{next, 10}), STATUS_SUCCESS);
            EXPECT_EQ(port.get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue, next == 0 ? 100u : 0u);
        }
    }
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
        port.rig.device([&](ScriptedDevice& d) { d.stallControls = refuse; });
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
            if (c.request == 0x22 && !refuse) {
                EXPECT_EQ(port.get(IOCTL_SERIAL_GET_DTRRTS), c.value);
            }
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
    for (const State state : states) {
        Target target(state);
        for (const ULONG in : {0, 1, 9}) {
            for (const ULONG out : {0, 3, 64}) {
                SCOPED_TRACE(testing::Message() << "in " << in << " out " << out);
                target.port.rig.device([](ScriptedDevice& d) { d.outs.clear(); });
                const bool refused = state == State::closed && in != 0;
                EXPECT_EQ(target.request->run(external, IOCTL_SERIAL_IMMEDIATE_CHAR, "immediate", in, out),
                          (Result{refused ? STATUS_CANCELLED : STATUS_SUCCESS, 0}));
                target.port.rig.run(20);
                EXPECT_EQ(target.port.received(), state == State::open && in != 0 ? "i" : "");
            }
        }
    }
}

}  // namespace
