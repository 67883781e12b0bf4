// An open port and its asynchronous requests, for tests that talk to the driver as an application does.
#pragma once

#include "tests/support/rig.h"

#include <ntddser.h>

#include <cstdint>
#include <string>

namespace test {

inline std::int64_t nowMs() { return static_cast<std::int64_t>(KeQueryInterruptTime() / 10000); }

// Lets others go first, without a moment of virtual time.
inline void spin(std::uint64_t steps) {
    KSPIN_LOCK lock;
    KIRQL irql;
    KeInitializeSpinLock(&lock);
    while (steps-- != 0) {
        KeAcquireSpinLock(&lock, &irql);
        KeReleaseSpinLock(&lock, irql);
    }
}

// A machine with this seed; `values` are of the device's key.
inline RigOptions seeded(std::uint64_t seed, std::map<std::string, std::uint32_t> values = {}) {
    return {.seed = seed, .deviceValues = std::move(values)};
}

inline RigOptions traced(std::uint32_t mask, std::map<std::string, std::uint32_t> values = {}) {
    return {.traceMask = mask, .deviceValues = std::move(values)};
}

// One asynchronous request, its buffer, and when it ended. One that is left outstanding is cancelled before its memory goes.
struct Pending {
    explicit Pending(std::size_t size = 0) : buffer(size, '\0') {}
    explicit Pending(std::string data) : buffer(std::move(data)) {}
    ~Pending() {
        if (file_ != nullptr) file_->cancel(request);
        LARGE_INTEGER tick;
        tick.QuadPart = -10'000;
        while (file_ != nullptr) KeDelayExecutionThread(KernelMode, FALSE, &tick);
    }
    static void ended(nt::Request&, void* context) {
        auto& self = *static_cast<Pending*>(context);
        self.file_ = nullptr;
        ++self.completions;
        self.atMs = nowMs();
    }
    // For an operation of `file` that is about to be issued.
    nt::Request& on(nt::File& file) {
        file_ = &file;
        return request;
    }
    NTSTATUS read(nt::File& file) { return file.read(on(file), buffer.data(), static_cast<ULONG>(buffer.size())); }
    NTSTATUS write(nt::File& file) { return file.write(on(file), buffer.data(), static_cast<ULONG>(buffer.size())); }
    bool done() const { return completions != 0; }
    NTSTATUS status() const { return done() ? request.status() : STATUS_PENDING; }
    ULONG information() const { return static_cast<ULONG>(request.information()); }
    std::string text() const { return buffer.substr(0, information()); }

    std::string buffer;
    ULONG value = 0;  // output of a wait
    unsigned completions = 0;
    std::int64_t atMs = 0;
    nt::Request request{ended, this};

private:
    nt::File* file_ = nullptr;  // while outstanding
};

// A machine with its port open and reads that wait for ever.
struct OpenPort {
    explicit OpenPort(const RigOptions& options = {}) : rig(options) {
        EXPECT_EQ(rig.open(file), STATUS_SUCCESS);
        timeouts(0, 0, 0);
    }

    NTSTATUS control(ULONG code) { return file.control(code).status; }
    NTSTATUS control(Pending& p, ULONG code) { return file.control(p.on(file), code, nullptr, 0, nullptr, 0); }
    template <class Input>
    NTSTATUS set(ULONG code, const Input& input) {
        return file.control(code, &input, sizeof(input)).status;
    }
    template <class Output = ULONG>
    Output get(ULONG code) {
        Output output{};
        const auto result = file.control(code, nullptr, 0, &output, sizeof(output));
        EXPECT_EQ(result.status, STATUS_SUCCESS) << std::hex << code;
        EXPECT_EQ(result.information, sizeof(output)) << std::hex << code;
        return output;
    }
    void timeouts(ULONG interval, ULONG multiplier, ULONG constant, ULONG writeMultiplier = 0, ULONG writeConstant = 0) {
        const SERIAL_TIMEOUTS values{interval, multiplier, constant, writeMultiplier, writeConstant};
        EXPECT_EQ(set(IOCTL_SERIAL_SET_TIMEOUTS, values), STATUS_SUCCESS);
    }
    void outRing(ULONG size) {
        const auto now = get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES);
        EXPECT_EQ(set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{now.CurrentRxQueue, size}), STATUS_SUCCESS);
    }
    NTSTATUS read(Pending& p) { return p.read(file); }
    NTSTATUS write(Pending& p) { return p.write(file); }
    NTSTATUS write(const std::string& text) { return file.write(text.data(), static_cast<ULONG>(text.size())).status; }
    NTSTATUS wait(Pending& p) {
        return file.control(p.on(file), IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, &p.value, sizeof(p.value));
    }
    void send(const std::string& text) {
        rig.device([&](ScriptedDevice& d) { d.sendBulk(text); });
        rig.run(5);
    }
    void hold(bool on) {
        rig.device([&](ScriptedDevice& d) { d.holdOut = on; });
    }
    std::string received() {
        return rig.device([](ScriptedDevice& d) { return d.outText(); });
    }
    // The device holds one packet, the ring is full, `next` waits behind it.
    void blockWrites(Pending& next) {
        outRing(100);
        hold(true);
        EXPECT_EQ(write("packet"), STATUS_SUCCESS);
        EXPECT_EQ(write(std::string(100, 'r')), STATUS_SUCCESS);
        EXPECT_EQ(write(next), STATUS_PENDING);
        rig.run(5);
        EXPECT_FALSE(next.done());
    }

    TestRig rig;
    nt::File file;
};

// Device power requests to the first device's stack, as its power policy owner would make them.
class PortPower {
public:
    explicit PortPower(TestRig& rig) {
        for (const auto& node : rig.executive().devices()) {
            if (node.instancePath == rig.instancePath()) pdo_ = node.pdo;
        }
        ObReferenceObject(pdo_);
    }
    ~PortPower() { release(); }
    PortPower(const PortPower&) = delete;
    PortPower& operator=(const PortPower&) = delete;

    // Must be called before the device may go for good.
    void release() {
        if (pdo_ != nullptr) ObDereferenceObject(pdo_);
        pdo_ = nullptr;
    }
    PDEVICE_OBJECT pdo() const { return pdo_; }
    // Each waits for the request's end; its status.
    NTSTATUS set(DEVICE_POWER_STATE deviceState) {
        return run(IRP_MN_SET_POWER, {.DeviceState = deviceState});
    }
    NTSTATUS waitForWake() {
        return run(IRP_MN_WAIT_WAKE, {.SystemState = PowerSystemWorking});
    }

private:
    struct Call {
        KEVENT done;
        NTSTATUS status = STATUS_PENDING;
    };
    NTSTATUS run(UCHAR minor, POWER_STATE state) {
        Call call;
        KeInitializeEvent(&call.done, NotificationEvent, FALSE);
        EXPECT_EQ(PoRequestPowerIrp(pdo_, minor, state, ended, &call, nullptr), STATUS_PENDING);
        KeWaitForSingleObject(&call.done, Executive, KernelMode, FALSE, nullptr);
        return call.status;
    }
    static VOID NTAPI ended(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK result) {
        auto& call = *static_cast<Call*>(context);
        call.status = result->Status;
        KeSetEvent(&call.done, IO_NO_INCREMENT, FALSE);
    }

    PDEVICE_OBJECT pdo_ = nullptr;
};

}  // namespace test
