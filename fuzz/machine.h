// A simulated machine with one open port, for fuzzers of the driver: the executive, the bus, the driver and a scripted device.
//
// One machine serves all inputs of a process, as building it takes longer than most inputs. Each input begins with a port
// that is opened anew and has the settings below. An assertion the driver traces ends the run.
#pragma once

#include "fuzz/require.h"
#include "kernel/executive.h"
#include "kernel/file.h"
#include "tests/support/scripted_device.h"
#include "usb/host.h"
#include "usb/virtual_backend.h"

#include <ntddser.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace fuzz {

class Machine {
  public:
    explicit Machine(std::uint32_t traceMask) {
        nt::Options boot;
        boot.mode = nt::Mode::simulated;
        boot.seed = 1;
        boot.debugSink = [](void*, const char* text, std::size_t length) {
            // At the start of a text only: the dump of an input may spell it, too.
            if (!std::string_view(text, length).starts_with("\nACM:ASSERTION FAILED")) return;
            std::fwrite(text, 1, length, stderr);
            std::abort();
        };
        executive_ = std::make_unique<nt::Executive>(boot);
        bus_ = std::make_unique<usb::Bus>(*executive_);
        executive_->registry().setDword("HKLM\\SYSTEM\\CurrentControlSet\\Services\\qvcdcacm", "TraceMask", traceMask);
        require(executive_->loadDriver("qvcdcacm", DriverEntry) == STATUS_SUCCESS);
        executive_->bindDriver("USB\\Class_02&SubClass_02", "qvcdcacm", "Ports", "{4d36e978-e325-11ce-bfc1-08002be10318}");
        test::CdcShape shape;
        shape.interruptPacket = 16;
        auto device = std::make_unique<test::ScriptedDevice>(shape);
        device_ = device.get();
        backend_ = std::make_shared<usb::VirtualBackend>(std::move(device), "fuzzed");
        require(bus_->plug(backend_, "0001") != 0);
        executive_->settle();
        run(1000);
    }

    ~Machine() { executive_->stop(); }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // The device with nothing said yet, the port open with settings of its own making.
    void begin() {
        device([](test::ScriptedDevice& d) {
            d.controls.clear();
            d.standards.clear();
            d.outs.clear();
            d.onControl = nullptr;
        });
        require(file.open("\\Device\\qvcdcacm0") == STATUS_SUCCESS);
        const SERIAL_TIMEOUTS noTimeouts{};
        const SERIAL_CHARS noChars{};
        set(IOCTL_SERIAL_SET_TIMEOUTS, noTimeouts);
        set(IOCTL_SERIAL_SET_CHARS, noChars);
        for (const ULONG size : {4095, 4096})   // rings of just this size, even where the number alone had been restored
            set(IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{size, size});
        set(IOCTL_SERIAL_SET_WAIT_MASK, ULONG{0});
        require(file.control(IOCTL_SERIAL_CLEAR_STATS).status == STATUS_SUCCESS);
        notify({0xA1, 0x20, 0, 0, 0, 0, 2, 0, 0, 0});
        notify({0xA1, 0x00, 0, 0, 0, 0, 0, 0});
        // What these have raised, and what the input before has left.
        ULONG events;
        set(IOCTL_SERIAL_SET_WAIT_MASK, ULONG{MAXULONG});
        notify({0xA1, 0x20, 0, 0, 0, 0, 2, 0, 4, 0});
        require(file.control(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, &events, sizeof(events)).status == STATUS_SUCCESS);
        set(IOCTL_SERIAL_SET_WAIT_MASK, ULONG{0});
    }
    void end() {
        notify({0xA1, 0x20, 0, 0, 0, 0, 2, 0, 0, 0});   // what waits may go
        for (bool more = true; more;) {                 // and what nobody has read is not for the next input
            set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR});
            run(1);
            device([&](test::ScriptedDevice& d) { more = d.unsent(0x81) != 0; });
        }
        file.close();
        run(20);
    }

    template <class Input>
    void set(ULONG code, const Input& input) {
        require(file.control(code, &input, sizeof(input)).status == STATUS_SUCCESS);
    }
    template <class Body>
    void device(Body&& body) {
        backend_->withDevice([&](usb::Device&) { body(*device_); });
    }
    void notify(const test::Bytes& bytes) {
        device([&](test::ScriptedDevice& d) { d.notify(bytes); });
        run(2);
    }
    static void run(std::uint32_t ms) {
        LARGE_INTEGER time;
        time.QuadPart = -static_cast<LONGLONG>(ms) * 10000;
        KeDelayExecutionThread(KernelMode, FALSE, &time);
    }
    PDEVICE_OBJECT object() const { return executive_->lookUp("\\Device\\qvcdcacm0"); }

    nt::File file;

  private:
    std::unique_ptr<nt::Executive> executive_;
    test::ScriptedDevice* device_ = nullptr;
    std::shared_ptr<usb::VirtualBackend> backend_;
    std::unique_ptr<usb::Bus> bus_;
};

// Lives as long as the process.
inline Machine& machine(std::uint32_t traceMask) {
    static Machine one(traceMask);
    return one;
}

}  // namespace fuzz
