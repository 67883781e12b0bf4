// A whole machine for one test: the executive, the bus, the driver, and a scripted device plugged in.
//
// Simulated by default, so a run is a function of its seed, which every failure names. At the end the rig fails the test for
// anything left allocated and for every assertion the driver traced.
#pragma once

#include "kernel/executive.h"
#include "kernel/file.h"
#include "tests/support/scripted_device.h"
#include "usb/faulty.h"
#include "usb/host.h"
#include "usb/virtual_backend.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace test {

struct RigOptions {
    std::uint64_t seed = 1;
    nt::Mode mode = nt::Mode::simulated;
    bool verifier = true;
    bool loadDriver = true;  // the driver under test
    bool plug = true;        // a device, once everything is loaded
    bool faulty = false;     // with a FaultyBackend around it
    usb::Bus::Options bus{};
    usb::PortOptions port{};
    CdcShape shape{};
    std::string instanceId = "0001";
    std::string registryFile{};
    std::optional<std::uint32_t> traceMask{};
    // Values of the device's key, there before it is plugged in.
    std::map<std::string, std::uint32_t> deviceValues{};
};

// A device in a port of the rig's bus.
struct Plugged {
    usb::PortNumber port = 0;
    std::shared_ptr<usb::VirtualBackend> backend;
    std::shared_ptr<usb::FaultyBackend> faults;  // null unless asked for
    ScriptedDevice* device = nullptr;            // reach it through TestRig::device
};

class TestRig {
public:
    explicit TestRig(const RigOptions& options = {});
    ~TestRig();
    TestRig(const TestRig&) = delete;
    TestRig& operator=(const TestRig&) = delete;

    nt::Executive& executive() { return *executive_; }
    usb::Bus& bus() { return *bus_; }
    const std::string& service() const;

    // Plugs another device in and waits for the PnP manager.
    Plugged plug(std::unique_ptr<ScriptedDevice> device, const std::string& instanceId, bool faulty = false);
    // The same with a device of any kind; reach it through its backend.
    Plugged plugOther(std::unique_ptr<usb::Device> device, const std::string& instanceId, bool faulty = false);
    void unplug() { bus_->unplug(first_.port); }
    void replug(const std::string& instanceId = {});
    // The first device.
    Plugged& first() { return first_; }
    usb::FaultyBackend& faults() { return *first_.faults; }
    usb::PortStatistics statistics() { return bus_->statistics(first_.port); }
    std::string instancePath() { return bus_->instancePath(first_.port); }
    // Runs `body` with the first device, then lets the device serve what changed.
    template <class Body>
    auto device(Body&& body) {
        ScriptedDevice* const device = first_.device;
        return first_.backend->withDevice([&](usb::Device&) { return body(*device); });
    }
    // The device alone and its key, for a run that plugs in by hand.
    void setDeviceValue(const std::string& name, std::uint32_t value, const std::string& instanceId = "0001");

    // "COM3", "" while the device has no port.
    std::string comName();
    // Opens the port, waiting for it to be ready for up to `waitMs`.
    NTSTATUS open(nt::File& file, std::uint32_t waitMs = 5000);

    // Lets `ms` pass. In the simulated mode everything that can run has run then.
    void run(std::uint32_t ms);
    // Lets the PnP manager and everything it started come to rest.
    void settle();
    // Waits until `condition` holds; false after `ms`.
    bool until(const std::function<bool()>& condition, std::uint32_t ms = 5000);

    std::string trace() const;
    bool traced(const std::string& text) const { return trace().find(text) != std::string::npos; }
    void clearTrace();
    // For the few tests that provoke them.
    void allowAssertions() { assertionsAllowed_ = true; }

    // Ends the machine now and says what was left; the destructor does it otherwise. Files must be closed.
    nt::LeakReport stop();

private:
    static void sink(void* context, const char* text, std::size_t length);
    void checkAssertions();

    testing::ScopedTrace seedTrace_;
    RigOptions options_;
    mutable std::mutex traceMutex_;
    std::string trace_;
    bool assertionsAllowed_ = false;
    bool stopped_ = false;
    std::unique_ptr<nt::Executive> executive_;
    std::unique_ptr<usb::Bus> bus_;
    Plugged first_;
    std::vector<Plugged> plugged_;  // all of them, the first too
};

// The seeds of a sweep: 1...count, or the one in the environment variable TEST_SEED.
std::vector<std::uint64_t> seeds(unsigned count);

}  // namespace test
