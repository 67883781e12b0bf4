// Whatever may fail, fails: each allocation, request, registry access, object creation and transfer in the life of a port.
#include "tests/system_port.h"

#include "cdcacm/wdmkrnl.h"
#include "kernel/faults.h"
#include "kernel/thread.h"

namespace {

using nt::faults::Extent;
using nt::faults::Kind;
using test::Pending;
using test::RigOptions;
using test::ScriptedDevice;
using test::TestRig;

constexpr const char* portsClass = "{4d36e978-e325-11ce-bfc1-08002be10318}";
constexpr const char* compatibleId = "USB\\Class_02&SubClass_02";
constexpr const char* deviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Enum\\USB\\VID_1209&PID_0001\\0001\\Device Parameters";
constexpr const char* deviceMap = "HKLM\\HARDWARE\\DEVICEMAP\\SERIALCOMM";
// Far more than a life without a livelock takes, and longer than all waits of one together.
constexpr std::uint64_t stepBound = 3'000'000;
constexpr std::int64_t lifeBoundMs = 60'000;

const char* nameOf(Kind kind) {
    constexpr const char* names[] = {"allocation", "request", "registry_access", "object_creation", "USB_request"};
    static_assert(std::size(names) == std::size_t(Kind::count_));
    return names[std::size_t(kind)];
}

// Neither the driver nor a device yet.
RigOptions bare(std::uint64_t seed) { return {.seed = seed, .loadDriver = false, .plug = false}; }

// One life of a driver, from its loading to its unloading, with one kind of call failing. Each step may fail for that
// reason; once the fault is gone it has to succeed.
class Life {
public:
    Life(Kind kind, Extent extent, std::uint64_t n)
        : kind_(kind), extent_(extent), n_(n),
          rig_(bare(std::uint64_t(kind) * 1'000'000 + std::uint64_t(extent) * 100'000 + n)) {}

    // True when the fault struck.
    bool live() {
        SCOPED_TRACE(std::string(nameOf(kind_)) + " " + std::to_string(n_) +
                     (extent_ == Extent::once ? " fails" : " and all that follow fail"));
        nt::sim::setMaxSteps(stepBound);
        const std::int64_t begin = test::nowMs();
        if (n_ == 0) {
            nt::faults::countOnly();
        } else {
            nt::faults::failNth(kind_, n_, extent_);
        }
        load();
        plugIn();
        open();
        traffic();
        controls();
        removalWithPortOpen();
        close();
        removal();
        unload();
        const bool struck = this->struck();
        nt::faults::clear();
        EXPECT_LT(test::nowMs() - begin, lifeBoundMs);
        EXPECT_FALSE(rig_.traced("Memory Log")) << rig_.trace();
        return struck;
    }

private:
    bool struck() const { return nt::faults::failures(kind_) != 0; }
    // A step went wrong: only the fault may be the reason, and it is over now.
    void excuse(const char* step) {
        EXPECT_TRUE(struck()) << step << " failed without a fault\n" << rig_.trace();
        nt::faults::clear();
    }

    void load() {
        auto& executive = rig_.executive();
        if (!NT_SUCCESS(executive.loadDriver(rig_.service(), DriverEntry))) {
            excuse("load");
            EXPECT_EQ(executive.loadDriver(rig_.service(), DriverEntry), STATUS_SUCCESS);
        }
        executive.bindDriver(compatibleId, rig_.service(), "Ports", portsClass);
    }

    void plugIn() {
        auto device = std::make_unique<ScriptedDevice>();
        device->echo = true;
        backend_ = std::make_shared<usb::VirtualBackend>(std::move(device), "echo");
        rig_.first().port = rig_.bus().plug(backend_, "0001");
        if (port() == 0) {
            excuse("plug");
            rig_.first().port = rig_.bus().plug(backend_, "0001");
        }
        rig_.settle();
    }
    void replug() {
        if (!rig_.bus().replug(port())) {
            excuse("replug");
            EXPECT_TRUE(rig_.bus().replug(port()));
        }
        rig_.settle();
    }
    usb::PortNumber port() { return rig_.first().port; }
    bool started() {
        const auto nodes = rig_.executive().devices();
        return std::any_of(nodes.begin(), nodes.end(), [&](const nt::DeviceNode& node) {
            return node.instancePath == rig_.instancePath() && node.state == nt::DeviceState::started;
        });
    }

    void open() {
        if (NT_SUCCESS(rig_.open(file_))) return;
        excuse("open");
        replug();
        ASSERT_EQ(rig_.open(file_), STATUS_SUCCESS) << rig_.trace();
    }

    void exchange(const char* step) {
        const std::string text = test::noise(3000, ++exchanges_);
        if (test::echoed(file_, text) == text) return;
        excuse(step);
        if (extent_ == Extent::fromThenOn || !started()) replug();
        // What the failed attempt left on its way comes first.
        rig_.run(2500);
        test::control(file_, IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR | SERIAL_PURGE_TXCLEAR});
        rig_.run(100);
        test::control(file_, IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR});
        EXPECT_TRUE(test::echoed(file_, text) == text) << step << "\n" << rig_.trace();
    }
    void traffic() {
        exchange("first exchange");
        Pending flush;
        file_.flush(flush.on(file_));
        if (!rig_.until([&] { return flush.done(); }, 6000)) ADD_FAILURE() << "the flush never ended";
    }

    template <class... Input>
    void check(ULONG code, const Input&... input) {
        if (NT_SUCCESS(test::control(file_, code, input...))) return;
        excuse("control");
        EXPECT_EQ(test::control(file_, code, input...), STATUS_SUCCESS) << std::hex << code;
    }
    void controls() {
        check(IOCTL_SERIAL_SET_DTR);
        check(IOCTL_SERIAL_SET_RTS);
        check(IOCTL_SERIAL_SET_BAUD_RATE, SERIAL_BAUD_RATE{57600});
        check(IOCTL_SERIAL_SET_LINE_CONTROL, SERIAL_LINE_CONTROL{STOP_BIT_1, NO_PARITY, 8});
        check(IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{0, 0, 100, 0, 100});
        check(IOCTL_SERIAL_PURGE,
              ULONG{SERIAL_PURGE_TXABORT | SERIAL_PURGE_RXABORT | SERIAL_PURGE_TXCLEAR | SERIAL_PURGE_RXCLEAR});
        check(IOCTL_SERIAL_CLR_DTR);
        exchange("exchange after the controls");
    }

    void removalWithPortOpen() {
        rig_.bus().unplug(port());
        rig_.settle();
        replug();
        rig_.run(500);
        exchange("exchange after the return");
    }

    // A close waits for its transfers to be aborted, for which it asks every second until it gets the memory.
    void close() {
        bool closed = false;
        nt::Thread healer("healer", [&] {
            for (unsigned waited = 0; waited < 3000 && !closed; waited += 10) rig_.run(10);
            if (!closed) nt::faults::clear();
        });
        file_.close();
        closed = true;
    }

    void removal() {
        auto& executive = rig_.executive();
        if (started()) {
            EXPECT_EQ(executive.queryRemove(rig_.instancePath()), STATUS_SUCCESS);
            EXPECT_EQ(executive.removeDevice(rig_.instancePath()), STATUS_SUCCESS);
        }
        rig_.bus().unplug(port());
        rig_.settle();
    }

    void unload() {
        auto& executive = rig_.executive();
        if (!NT_SUCCESS(executive.unloadDriver(rig_.service()))) {
            // The bus could not say that its device has left.
            excuse("unload");
            replug();
            removal();
            EXPECT_EQ(executive.unloadDriver(rig_.service()), STATUS_SUCCESS);
        }
    }

    const Kind kind_;
    const Extent extent_;
    const std::uint64_t n_;
    TestRig rig_;
    std::shared_ptr<usb::VirtualBackend> backend_;
    nt::File file_;
    std::uint32_t exchanges_ = 0;
};

class Faults : public testing::TestWithParam<Kind> {};

TEST_P(Faults, each_call_once) {
    std::uint64_t n = 1;
    while (Life(GetParam(), Extent::once, n).live()) {
        ++n;
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(n, 1u);
    RecordProperty("places", static_cast<int>(n - 1));
}

TEST_P(Faults, from_some_call_on) {
    Life(GetParam(), Extent::once, 0).live();
    const std::uint64_t total = nt::faults::hits(GetParam());
    EXPECT_GT(total, 0u);
    for (std::uint64_t n = 1; n <= total; ++n) {
        // Another schedule may get by with a few calls less.
        const bool struck = Life(GetParam(), Extent::fromThenOn, n).live();
        EXPECT_TRUE(struck || n * 5 > total * 4) << n;
        ASSERT_FALSE(HasFailure());
    }
}

INSTANTIATE_TEST_SUITE_P(Whole, Faults,
                         testing::Values(Kind::allocation, Kind::request, Kind::registry, Kind::objectCreate, Kind::usbRequest),
                         [](const auto& info) { return nameOf(info.param); });

// --- The creation of a device, step by step -----------------------------------------------------------------------------

// A machine whose only device has not been given to the driver's AddDevice successfully yet.
class Creation {
public:
    explicit Creation(const char* className = "Ports") : rig(bare(1)) {
        EXPECT_EQ(rig.executive().loadDriver(rig.service(), DriverEntry), STATUS_SUCCESS);
        rig.executive().bindDriver(compatibleId, rig.service(), className, portsClass);
    }
    // What a failed creation must not leave, beside what the rig finds at the end.
    void expectNothing(bool mapWritable = true) {
        EXPECT_EQ(rig.executive().lookUp("\\Device\\qvcdcacm0"), nullptr);
        EXPECT_EQ(rig.executive().lookUp("\\DosDevices\\COM3"), nullptr);
        EXPECT_TRUE(!mapWritable || rig.executive().registry().valueNames(deviceMap).empty());
        EXPECT_TRUE(rig.executive().enabledInterfaces().empty());
    }
    NTSTATUS create() { return rig.executive().startDevice(rig.instancePath()); }
    void remove() {
        EXPECT_EQ(rig.executive().queryRemove(rig.instancePath()), STATUS_SUCCESS);
        EXPECT_EQ(rig.executive().removeDevice(rig.instancePath()), STATUS_SUCCESS);
        // The end of the wake request may be the last to let go.
        rig.settle();
    }
    TestRig rig;
};

const std::string linkText = "Cannot create symbolic link. Use Device Manager to select a free COM port for this driver.";

TEST(Creation, each_step_fails_with_its_status) {
    struct Step {
        Kind kind;
        const char* trace;
        NTSTATUS status;
        const char* logged = nullptr;
        bool seen = false;
    };
    Step steps[] = {
        {Kind::objectCreate, "PnPAddDevice IoCreateDevice failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::registry, "Pnpadd: LoadCfg failed", STATUS_UNSUCCESSFUL},
        {Kind::registry, "PnPAddDevice GetDeviceIdentifier failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::objectCreate, "Pnpadd: CreateNumberedDeviceObject failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::allocation, "CreatePort: DPoolInit failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::allocation, "CreatePort: AddPort failed", STATUS_UNSUCCESSFUL},
        {Kind::registry, "CreateSymbolikLink: Open PLUGPLAY_REGKEY_DEVICE failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::registry, "Get PortName failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::allocation, "Get PortName failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::objectCreate, "IoCreateSymbolicLink failed", STATUS_INSUFFICIENT_RESOURCES, linkText.c_str()},
        {Kind::objectCreate, "IoRegisterDeviceInterface failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::registry, "Get RtlWriteRegistryValue failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::objectCreate, "IoSetDeviceInterfaceState failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::allocation, "Pnpadd: alloc IRP failed", STATUS_UNSUCCESSFUL, "Unable to allocate memory."},
        {Kind::allocation, "Pnpadd: RcvInit failed", STATUS_INSUFFICIENT_RESOURCES},
        {Kind::allocation, "Pnpadd: SndInit failed", STATUS_INSUFFICIENT_RESOURCES},
    };
    Creation machine;
    TestRig& rig = machine.rig;
    rig.plug(std::make_unique<ScriptedDevice>(), "0001");
    machine.remove();
    for (const Kind kind : {Kind::allocation, Kind::registry, Kind::objectCreate}) {
        for (const Extent extent : {Extent::once, Extent::fromThenOn}) {
            for (std::uint64_t n = 1;; ++n) {
                SCOPED_TRACE(std::string(nameOf(kind)) + " " + std::to_string(n));
                const auto logged = rig.executive().errorLog().size();
                rig.clearTrace();
                nt::faults::failNth(kind, n, extent);
                const NTSTATUS status = machine.create();
                const bool struck = nt::faults::failures(kind) != 0;
                nt::faults::clear();
                if (NT_SUCCESS(status)) {
                    machine.remove();
                    if (!struck) break;
                    continue;
                }
                ASSERT_TRUE(struck) << std::hex << status;
                machine.expectNothing(extent == Extent::once);
                for (Step& step : steps) {
                    if (step.kind != kind || !rig.traced(step.trace)) continue;
                    step.seen = true;
                    EXPECT_EQ(status, step.status) << step.trace;
                    const auto log = rig.executive().errorLog();
                    EXPECT_TRUE(step.logged == nullptr || extent != Extent::once ||
                                (log.size() == logged + 1 && log.back().strings == std::vector<std::string>{step.logged}))
                        << step.trace;
                }
            }
        }
    }
    for (const Step& step : steps) EXPECT_TRUE(step.seen) << step.trace;
}

// Without a name of its own the device stays without a port, until it can have one.
TEST(Creation, names_that_cannot_be_had) {
    const struct {
        const char* what;
        const char* className;
        std::string name;
        NTSTATUS status;
        bool logged;
    } cases[] = {
        {"none", "Modem", "", STATUS_OBJECT_NAME_NOT_FOUND, false},  // nobody gives such a device a name
        {"as long as may be", "Ports", std::string(108, 'C'), STATUS_SUCCESS, false},
        {"longer", "Ports", std::string(109, 'C'), static_cast<NTSTATUS>(0xC0000033), true},
        {"taken", "Ports", "TAKEN", STATUS_OBJECT_NAME_COLLISION, true},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        Creation machine(item.className);
        auto& executive = machine.rig.executive();
        UNICODE_STRING taken, elsewhere;
        RtlInitUnicodeString(&taken, u"\\DosDevices\\TAKEN");
        RtlInitUnicodeString(&elsewhere, u"\\Device\\elsewhere");
        ASSERT_EQ(IoCreateSymbolicLink(&taken, &elsewhere), STATUS_SUCCESS);
        if (!item.name.empty()) executive.registry().setString(deviceKey, "PortName", item.name);
        machine.rig.plug(std::make_unique<ScriptedDevice>(), "0001");
        if (item.status != STATUS_SUCCESS) {
            machine.expectNothing();
            EXPECT_EQ(machine.create(), item.status);
            executive.registry().setString(deviceKey, "PortName", "COM3");
            EXPECT_EQ(machine.create(), STATUS_SUCCESS);
        }
        EXPECT_NE(executive.lookUp("\\DosDevices\\" + (item.status == STATUS_SUCCESS ? item.name : "COM3")), nullptr);
        const auto log = executive.errorLog();
        EXPECT_EQ(log.size(), item.logged ? 2u : 0u);
        for (const auto& entry : log) {
            EXPECT_EQ(entry.errorCode, item.status);
            EXPECT_EQ(entry.finalStatus, item.status);
            EXPECT_EQ(entry.uniqueErrorValue, 0xEBEBEBEBu);
            EXPECT_EQ(entry.strings, std::vector<std::string>{linkText});
        }
        IoDeleteSymbolicLink(&taken);
    }
}

}  // namespace
