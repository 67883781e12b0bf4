// The hub as the PnP and power managers see it: arrival, removal, power, idle notification, hostile descriptors.
#include "tests/support/usb_client.h"

#include <cstring>
#include <random>

using namespace test;

namespace {

struct Wire {
    explicit Wire(const RigOptions& options = busOnly()) : rig(options), client(rig.executive()) {
        rig.plug(std::make_unique<ScriptedDevice>(options.shape), "0001");
        EXPECT_NE(UsbClient::lower(), nullptr);
    }
    TestRig rig;
    UsbClient client;
};

// Requests a power IRP of the device's stack and waits for its end.
struct PowerRequest {
    PowerRequest() { KeInitializeEvent(&done, NotificationEvent, FALSE); }
    static VOID NTAPI completed(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK ioStatus) {
        auto& request = *static_cast<PowerRequest*>(context);
        request.status = ioStatus->Status;
        KeSetEvent(&request.done, 0, FALSE);
    }
    void start(UCHAR minor, POWER_STATE state) {
        EXPECT_EQ(PoRequestPowerIrp(UsbClient::lower(), minor, state, completed, this, &irp), STATUS_PENDING);
    }
    void waitForWake() {
        POWER_STATE state;
        state.SystemState = PowerSystemSleeping3;
        start(IRP_MN_WAIT_WAKE, state);
    }
    NTSTATUS wait() {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        return status;
    }
    static NTSTATUS set(DEVICE_POWER_STATE state) {
        PowerRequest request;
        POWER_STATE wanted;
        wanted.DeviceState = state;
        request.start(IRP_MN_SET_POWER, wanted);
        return request.wait();
    }
    bool ended() { return KeReadStateEvent(&done) != 0; }
    KEVENT done;
    PIRP irp = nullptr;
    NTSTATUS status = STATUS_PENDING;
};

// An idle callback that a test can hold.
struct IdleProbe {
    IdleProbe() {
        KeInitializeEvent(&entered, NotificationEvent, FALSE);
        KeInitializeEvent(&release, NotificationEvent, FALSE);
        info.IdleCallback = callback;
        info.IdleContext = this;
    }
    static VOID callback(PVOID context) {
        auto& probe = *static_cast<IdleProbe*>(context);
        ++probe.calls;
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        KeSetEvent(&probe.entered, 0, FALSE);
        if (probe.hold) KeWaitForSingleObject(&probe.release, Executive, KernelMode, FALSE, nullptr);
        ++probe.returns;
    }
    void waitEntered() { KeWaitForSingleObject(&entered, Executive, KernelMode, FALSE, nullptr); }
    USB_IDLE_CALLBACK_INFO info{};
    KEVENT entered, release;
    bool hold = false;
    unsigned calls = 0, returns = 0;
};

constexpr ULONG idleCode = IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION;

}  // namespace

TEST(UsbHub, ARemovedDeviceThatStaysPluggedInCanBeStartedAgain) {
    Wire w;
    auto& executive = w.rig.executive();
    const std::string path = w.rig.instancePath();
    EXPECT_EQ(executive.restart(path), STATUS_SUCCESS);
    w.rig.settle();
    ClientPipes pipes = UsbClient::configured();
    // While it is stopped no request reaches the device.
    EXPECT_EQ(executive.queryStop(path), STATUS_SUCCESS);
    EXPECT_EQ(executive.stopDevice(path), STATUS_SUCCESS);
    char buffer[10] = {};
    ClientRequest write;
    EXPECT_FALSE(NT_SUCCESS(write.data(pipes.out, false, buffer, sizeof buffer).run()));
    EXPECT_EQ(executive.startDevice(path), STATUS_SUCCESS);
    pipes = UsbClient::configured();
    EXPECT_EQ(write.data(pipes.out, false, buffer, sizeof buffer).run(), STATUS_SUCCESS);
}

TEST(UsbHub, APortResetKeepsTheConfigurationAndCanBeCancelled) {
    Wire w;
    const ClientPipes pipes = UsbClient::configured();
    ClientRead read(pipes.in, 64);
    ClientRequest reset;
    EXPECT_EQ(reset.run(IOCTL_INTERNAL_USB_RESET_PORT), STATUS_SUCCESS);
    EXPECT_EQ(read.wait(), STATUS_CANCELLED);
    w.rig.device([](ScriptedDevice& d) {
        EXPECT_EQ(d.configuration, 1);
        EXPECT_EQ(d.busResets, 2u);
        d.sendBulk("back");
    });
    EXPECT_EQ(readText(pipes.in), "back");
    usb::PortOptions options;
    options.hangReset = true;
    w.rig.bus().setOptions(w.rig.first().port, options);
    reset.submit(IOCTL_INTERNAL_USB_RESET_PORT);
    EXPECT_EQ(reset.wait(400), STATUS_TIMEOUT);
    reset.cancel();
    EXPECT_EQ(reset.wait(100), STATUS_CANCELLED);
}

// However the end comes, the notification never completes before its callback has returned.
TEST(UsbIdle, NoEndOvertakesTheCallback) {
    const std::vector<std::function<void(Wire&, ClientRequest&)>> ends = {
        [](Wire&, ClientRequest& idle) { idle.cancel(); },
        [](Wire&, ClientRequest&) { PowerRequest::set(PowerDeviceD0); },
        [](Wire& w, ClientRequest&) {
            w.rig.unplug();
            w.rig.executive().settle();  // removal does not wait for the callback
        },
        [](Wire& w, ClientRequest& idle) {
            w.rig.unplug();
            idle.cancel();
        },
    };
    for (std::size_t i = 0; i < ends.size(); ++i) {
        for (const std::uint64_t seed : seeds(20)) {
            Wire w(busOnly(seed));
            IdleProbe probe;
            probe.hold = true;
            ClientRequest idle;
            idle.submit(idleCode, &probe.info);
            probe.waitEntered();
            ends[i](w, idle);
            w.rig.run(10);
            EXPECT_FALSE(idle.done()) << "end " << i;
            KeSetEvent(&probe.release, 0, FALSE);
            EXPECT_NE(idle.wait(100), STATUS_TIMEOUT) << "end " << i;
            EXPECT_EQ(probe.returns, 1u);
            EXPECT_EQ(idle.completions, 1u);
        }
    }
}

TEST(UsbIdle, ACancelThatRacesTheSubmissionEndsItOnce) {
    for (const std::uint64_t seed : seeds(100)) {
        Wire w(busOnly(seed));
        IdleProbe probe;
        ClientRequest idle;
        nt::Thread canceller("canceller", [&] { idle.cancel(); });
        idle.submit(idleCode, &probe.info);
        canceller.join();
        idle.cancel();
        EXPECT_EQ(idle.wait(100), STATUS_CANCELLED);
        w.rig.run(1);
        EXPECT_EQ(idle.completions, 1u);
        EXPECT_EQ(probe.calls, probe.returns);
        // The next one is served whatever became of this one, alone, until the device is back in D0.
        IdleProbe next;
        ClientRequest second;
        idle.submit(idleCode, &next.info);
        EXPECT_EQ(second.run(idleCode, &next.info), STATUS_DEVICE_BUSY);
        next.waitEntered();
        EXPECT_EQ(PowerRequest::set(PowerDeviceD2), STATUS_SUCCESS);
        EXPECT_FALSE(idle.done());
        EXPECT_EQ(PowerRequest::set(PowerDeviceD0), STATUS_SUCCESS);
        EXPECT_EQ(idle.wait(100), STATUS_SUCCESS);
        EXPECT_EQ(next.calls, 1u);
    }
}

// The host's requests around a suspension, what a device does that may not or shall not wake, and every end of a wait-wake.
TEST(UsbPower, RemoteWakeIsAskedForAndTakenBack) {
    const struct {
        const char* name;
        std::uint8_t attributes;
        bool armed, wakes;
        std::vector<std::uint8_t> asleep, awake;
    } table[] = {
        {"armed", 0xA0, true, true, {usb::requestSetFeature}, {usb::requestClearFeature}},
        {"not armed", 0xA0, false, false, {}, {}},
        {"not declared", 0x80, true, false, {usb::requestSetFeature}, {}},
    };
    for (const auto& item : table) {
        SCOPED_TRACE(item.name);
        RigOptions options = busOnly();
        options.shape.attributes = item.attributes;
        Wire w(options);
        const auto standards = [&] {
            return w.rig.device([](ScriptedDevice& d) {
                std::vector<std::uint8_t> requests;
                for (const auto& setup : std::exchange(d.standards, {})) requests.push_back(setup.request);
                return requests;
            });
        };
        PowerRequest wake, twice, last;
        if (item.armed) {
            wake.waitForWake();
            w.rig.run(1);
            twice.waitForWake();
            EXPECT_EQ(twice.wait(), STATUS_DEVICE_BUSY);
        }
        standards();
        EXPECT_EQ(PowerRequest::set(PowerDeviceD2), STATUS_SUCCESS);
        EXPECT_EQ(standards(), item.asleep);
        ClientPipes pipes;
        EXPECT_FALSE(NT_SUCCESS(UsbClient::configure(pipes))) << "the device is powered down";
        w.rig.run(10);
        EXPECT_FALSE(item.armed && wake.ended());
        w.rig.device([](ScriptedDevice& d) { d.wakesHost = true; });
        w.rig.run(10);
        EXPECT_EQ(item.armed && wake.ended(), item.wakes);
        EXPECT_EQ(PowerRequest::set(PowerDeviceD0), STATUS_SUCCESS);
        EXPECT_EQ(standards(), item.awake);
        if (item.armed && !item.wakes) IoCancelIrp(wake.irp);
        EXPECT_TRUE(!item.armed || wake.wait() == (item.wakes ? STATUS_SUCCESS : STATUS_CANCELLED));
        last.waitForWake();
        w.rig.run(1);
        w.rig.unplug();
        EXPECT_EQ(last.wait(), STATUS_DEVICE_NOT_CONNECTED);
    }
}

// Whatever a device says about itself, the bus stays inside it and the next device works.
TEST(UsbHostile, DescriptorsAreNotBelieved) {
    const Bytes good = cdcConfiguration();
    const auto with = [&](std::size_t at, std::uint8_t value) {
        Bytes bytes = good;
        bytes[at] = value;
        return bytes;
    };
    const std::size_t interruptAt = 9 + 9 + 5 + 5 + 4 + 5;
    ASSERT_EQ(good[interruptAt + 1], 5);
    const std::vector<std::pair<const char*, Bytes>> cases = {
        {"nothing", {}},
        {"two bytes", {9, 2}},
        {"header only", Bytes(good.begin(), good.begin() + 9)},
        {"total length 0", with(2, 0)},
        {"total length 4", with(2, 4)},
        {"total length beyond the end", with(3, 0x40)},
        {"a length of 0", with(9, 0)},
        {"a length of 1", with(9, 1)},
        {"a length beyond the end", with(9 + 9, 255)},
        {"an interface of 5 bytes", with(9, 5)},
        {"more endpoints than there are", with(9 + 4, 30)},
        {"255 endpoints", with(9 + 4, 255)},
        {"an endpoint of 3 bytes", with(interruptAt, 3)},
        {"a packet size of 0", with(interruptAt + 4, 0)},
        {"endpoint 0", with(interruptAt + 2, 0x80)},
        {"an isochronous endpoint", with(interruptAt + 3, 1)},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        TestRig rig(busOnly());
        UsbClient client(rig.executive());
        auto device = std::make_unique<ScriptedDevice>();
        device->configurations = {bytes};
        rig.plug(std::move(device), "0001");
        ClientPipes pipes;
        if (UsbClient::lower() != nullptr) UsbClient::configure(pipes);
        if (pipes.interrupt != nullptr) {
            ClientRead read(pipes.interrupt, 64);
            ClientRequest abort;
            abort.pipeRequest(URB_FUNCTION_ABORT_PIPE, pipes.interrupt).run();
            EXPECT_NE(read.wait(100), STATUS_TIMEOUT);
        }
        rig.plug(std::make_unique<ScriptedDevice>(), "0002");
        EXPECT_EQ(UsbClient::configure(pipes), STATUS_SUCCESS);
    }
}

TEST(UsbHostile, WalksStayInsideTheDescriptor) {
    const Bytes good = cdcConfiguration();
    for (const std::uint64_t seed : seeds(2000)) {
        std::mt19937_64 random(seed);
        Bytes bytes = good;
        for (unsigned i = 0; i < 1 + random() % 6; ++i) {
            bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
        }
        // Exactly as much memory as the descriptor claims, so that a sanitizer sees the first byte beyond.
        const std::size_t total = bytes[2] | bytes[3] << 8;
        auto exact = std::make_unique<std::uint8_t[]>(std::max<std::size_t>(total, 4));
        std::memcpy(exact.get(), bytes.data(), std::min(bytes.size(), std::max<std::size_t>(total, 4)));
        auto* const configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(exact.get());
        PVOID at = exact.get();
        unsigned found = 0;
        while (auto* descriptor = USBD_ParseConfigurationDescriptorEx(configuration, at, -1, -1, -1, -1, -1)) {
            at = reinterpret_cast<std::uint8_t*>(descriptor) + descriptor->bLength;
            ASSERT_LE(static_cast<std::uint8_t*>(at), exact.get() + total);
            ASSERT_LT(++found, 100u);
        }
    }
}

TEST(UsbHostile, ASilentDeviceIsUnknownAfterAWhile) {
    TestRig rig(busOnly());
    UsbClient client(rig.executive());
    auto device = std::make_unique<ScriptedDevice>();
    device->onStandard = [](const usb::SetupPacket&, std::span<std::uint8_t>) { return usb::ControlReply::never(); };
    rig.plug(std::move(device), "0001");
    EXPECT_EQ(rig.instancePath(), "USB\\UNKNOWN\\0001");
    ASSERT_NE(UsbClient::lower(), nullptr);
    ClientRequest request;
    std::uint8_t buffer[18];
    UsbBuildGetDescriptorRequest(&request.urb, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, buffer, nullptr, sizeof buffer, nullptr);
    request.submit();
    EXPECT_EQ(request.wait(400), STATUS_TIMEOUT);
    request.cancel();
    EXPECT_EQ(request.wait(100), STATUS_CANCELLED);
}
