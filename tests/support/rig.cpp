#include "tests/support/rig.h"

#include <cstdlib>

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace test {

namespace {

const std::string serviceName = "qvcdcacm";
constexpr const char* portsClass = "{4d36e978-e325-11ce-bfc1-08002be10318}";
constexpr std::uint32_t stepMs = 5;

}  // namespace

TestRig::TestRig(const RigOptions& options)
    : seedTrace_(__FILE__, __LINE__, "seed " + std::to_string(options.seed)), options_(options) {
    nt::Options boot;
    boot.mode = options.mode;
    boot.seed = options.seed;
    boot.verifier = options.verifier;
    boot.registryFile = options.registryFile;
    boot.debugSink = sink;
    boot.debugContext = this;
    executive_ = std::make_unique<nt::Executive>(boot);
    bus_ = std::make_unique<usb::Bus>(*executive_, options.bus);
    if (options.loadDriver) {
        if (options.traceMask) {
            executive_->registry().setDword("HKLM\\SYSTEM\\CurrentControlSet\\Services\\" + serviceName, "TraceMask",
                                            *options.traceMask);
        }
        const NTSTATUS status = executive_->loadDriver(serviceName, DriverEntry);
        EXPECT_EQ(status, STATUS_SUCCESS);
        for (const char* id : {"USB\\Class_02&SubClass_02", "USB\\Class_02", "USB\\UNKNOWN"}) {
            executive_->bindDriver(id, serviceName, "Ports", portsClass);
        }
    }
    for (const auto& [name, value] : options.deviceValues) setDeviceValue(name, value, options.instanceId);
    if (options.plug) {
        first_ = plug(std::make_unique<ScriptedDevice>(options.shape), options.instanceId, options.faulty);
    }
}

TestRig::~TestRig() {
    if (!stopped_) {
        const nt::LeakReport report = stop();
        for (const auto& line : report.lines) ADD_FAILURE() << "left behind: " << line;
    }
}

const std::string& TestRig::service() const { return serviceName; }

nt::LeakReport TestRig::stop() {
    stopped_ = true;
    const nt::LeakReport report = executive_->stop();
    bus_.reset();
    plugged_.clear();
    first_ = {};
    executive_.reset();
    checkAssertions();
    return report;
}

void TestRig::checkAssertions() {
    if (assertionsAllowed_) return;
    const std::string text = trace();
    for (auto at = text.find("ASSERTION FAILED"); at != std::string::npos; at = text.find("ASSERTION FAILED", at + 1)) {
        ADD_FAILURE() << text.substr(at, 200);
    }
}

Plugged TestRig::plug(std::unique_ptr<ScriptedDevice> device, const std::string& instanceId, bool faulty) {
    ScriptedDevice* const scripted = device.get();
    Plugged plugged = plugOther(std::move(device), instanceId, faulty);
    plugged.device = scripted;
    if (first_.port == plugged.port) first_.device = scripted;
    return plugged;
}

Plugged TestRig::plugOther(std::unique_ptr<usb::Device> device, const std::string& instanceId, bool faulty) {
    Plugged plugged;
    plugged.backend = std::make_shared<usb::VirtualBackend>(std::move(device), "scripted " + instanceId);
    std::shared_ptr<usb::Backend> backend = plugged.backend;
    if (faulty) backend = plugged.faults = std::make_shared<usb::FaultyBackend>(plugged.backend);
    plugged.port = bus_->plug(std::move(backend), instanceId, options_.port);
    EXPECT_NE(plugged.port, 0u);
    plugged_.push_back(plugged);
    if (first_.port == 0) first_ = plugged;
    settle();
    return plugged;
}

void TestRig::replug(const std::string& instanceId) {
    EXPECT_TRUE(bus_->replug(first_.port, instanceId));
    settle();
}

void TestRig::setDeviceValue(const std::string& name, std::uint32_t value, const std::string& instanceId) {
    executive_->registry().setDword("HKLM\\SYSTEM\\CurrentControlSet\\Enum\\USB\\VID_1209&PID_0001\\" + instanceId +
                                        "\\Device Parameters",
                                    name, value);
}

std::string TestRig::comName() {
    const std::string path = instancePath();
    for (const auto& node : executive_->devices()) {
        if (node.instancePath == path) return node.portName;
    }
    return {};
}

NTSTATUS TestRig::open(nt::File& file, std::uint32_t waitMs) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    until([&] {
        status = file.open("\\DosDevices\\" + comName());
        return NT_SUCCESS(status);
    }, waitMs);
    return status;
}

void TestRig::run(std::uint32_t ms) {
    LARGE_INTEGER time;
    time.QuadPart = -static_cast<LONGLONG>(ms) * 10000;
    KeDelayExecutionThread(KernelMode, FALSE, &time);
}

void TestRig::settle() {
    executive_->settle();
    run(1);
    executive_->settle();
}

bool TestRig::until(const std::function<bool()>& condition, std::uint32_t ms) {
    for (std::uint32_t waited = 0;; waited += stepMs) {
        if (condition()) return true;
        if (waited >= ms) return false;
        run(stepMs);
    }
}

std::string TestRig::trace() const {
    std::lock_guard guard(traceMutex_);
    return trace_;
}

void TestRig::clearTrace() {
    std::lock_guard guard(traceMutex_);
    trace_.clear();
}

void TestRig::sink(void* context, const char* text, std::size_t length) {
    auto& rig = *static_cast<TestRig*>(context);
    std::lock_guard guard(rig.traceMutex_);
    rig.trace_.append(text, length);
}

std::vector<std::uint64_t> seeds(unsigned count) {
    if (const char* one = std::getenv("TEST_SEED")) return {std::strtoull(one, nullptr, 10)};
    std::vector<std::uint64_t> all;
    for (unsigned i = 1; i <= count; ++i) all.push_back(i);
    return all;
}

}  // namespace test
