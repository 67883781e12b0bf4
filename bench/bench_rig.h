// What the benchmarks run on: the executive in real mode, the driver, and devices that answer at once
// from a thread of their own.
#pragma once

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <semaphore>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "comport/capture.h"
#include "comport/usbip_modem.h"
#include "kernel/executive.h"
#include "kernel/file.h"
#include "tests/support/scripted_device.h"
#include "usb/host.h"
#include "usb/usbip_backend.h"
#include "usb/virtual_backend.h"

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace bench {

inline constexpr const char* portsClass = "{4D36E978-E325-11CE-BFC1-08002BE10318}";

enum class Answers {
    takes,   // what the host sends, at once
    pours,   // that, and fills whatever the host asks for
    holds,   // nothing: the first transfer waits for ever
};

// A device that costs nothing beside the wake-up of its thread.
class InstantDevice final : public usb::Device {
public:
    explicit InstantDevice(Answers answers) : answers_(answers) {}

    std::span<const std::uint8_t> deviceDescriptor() const override { return device_; }
    std::span<const std::uint8_t> configurationDescriptor(std::uint8_t index) const override {
        return index == 0 ? std::span<const std::uint8_t>(configuration_) : std::span<const std::uint8_t>();
    }
    std::optional<std::u16string> stringDescriptor(std::uint8_t) const override { return std::nullopt; }
    usb::ControlReply control(const usb::SetupPacket&, std::span<std::uint8_t>) override { return usb::ControlReply::ack(); }
    std::int32_t dataOut(std::uint8_t, std::span<const std::uint8_t> data, bool) override {
        return answers_ == Answers::holds ? usb::dataNak : static_cast<std::int32_t>(data.size());
    }
    std::int32_t dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) override {
        if (endpoint != 0x81 || answers_ != Answers::pours) {
            return usb::dataNak;
        }
        std::memset(space.data(), 0x55, space.size());
        return static_cast<std::int32_t>(space.size());
    }

private:
    Answers answers_;
    test::Bytes device_ = test::cdcDevice();
    test::Bytes configuration_ = test::cdcConfiguration();
};

// What lies between the driver and its device.
enum class Wire { none, usbip };

class Rig {
public:
    // With `capture` everything on the bus is captured there.
    explicit Rig(bool verifier, unsigned ports = 1, Answers answers = Answers::takes, Wire wire = Wire::none,
                 const std::string& capture = {}) {
        if (!capture.empty()) {
            const auto tell = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };
            capture_ = std::make_unique<comport::Capture>(comport::Capture::Options{.path = capture, .tell = tell});
        }
        nt::Options options;
        options.mode = nt::Mode::real;
        options.verifier = verifier;
        executive_ = std::make_unique<nt::Executive>(options);
        // Assertions and errors would be printed; the benchmarks are about the quiet driver.
        bus_ = std::make_unique<usb::Bus>(*executive_, usb::Bus::Options{.tap = capture_.get()});
        if (!NT_SUCCESS(executive_->loadDriver("qvcdcacm", DriverEntry))) {
            throw std::runtime_error("the driver does not load");
        }
        executive_->bindDriver("USB\\Class_02&SubClass_02", "qvcdcacm", "Ports", portsClass);
        for (unsigned i = 0; i < ports; ++i) {
            const std::string instance = std::to_string(1000 + i);
            std::shared_ptr<usb::Backend> device =
                std::make_shared<usb::VirtualBackend>(std::make_unique<InstantDevice>(answers), instance);
            bus_->plug(wire == Wire::none ? device : throughUsbip(device), instance);
        }
        executive_->settle();
    }
    ~Rig() {
        files_.clear();
        servers_.clear();
        executive_->stop();
    }

    // Every port, opened once its modem is initialised.
    std::vector<nt::File>& open() {
        for (const nt::DeviceNode& node : executive_->devices()) {
            if (node.portName.empty()) {
                continue;
            }
            nt::File file;
            while (!NT_SUCCESS(file.open("\\DosDevices\\" + node.portName))) {
                std::this_thread::yield();
            }
            files_.push_back(std::move(file));
        }
        return files_;
    }
    nt::File& port() { return files_.empty() ? open().front() : files_.front(); }

private:
    // A server of this process, on the loopback address.
    std::shared_ptr<usb::Backend> throughUsbip(const std::shared_ptr<usb::Backend>& device) {
        usb::usbip::DeviceRecord record = usb::usbip::describe(test::cdcDevice(), test::cdcConfiguration());
        record.busId = "1-1";
        const std::vector exports{std::make_shared<usb::UsbipExport>(device, record)};
        servers_.push_back(std::make_unique<comport::UsbipServer>(exports, comport::NetAddress{}));
        return usb::makeUsbipBackend(servers_.back()->host(), servers_.back()->port(), record.busId);
    }

    std::unique_ptr<comport::Capture> capture_;
    std::unique_ptr<nt::Executive> executive_;
    std::unique_ptr<usb::Bus> bus_;
    std::vector<std::unique_ptr<comport::UsbipServer>> servers_;
    std::vector<nt::File> files_;
};

// A few requests kept going; the caller waits for the oldest.
class Pipeline {
public:
    explicit Pipeline(std::size_t size) {
        for (Slot& slot : slots_) {
            slot.buffer.resize(size, 0x55);
            slot.request.setCompletion(ended, &slot);
        }
    }
    template <class Issue> void run(benchmark::State& state, Issue issue) {
        std::size_t next = 0;
        for (Slot& slot : slots_) {
            issue(slot.request, slot.buffer);
        }
        std::uint64_t bytes = 0;
        for (auto _ : state) {
            Slot& slot = slots_[next];
            next = (next + 1) % slots_.size();
            slot.done.acquire();
            bytes += slot.request.information();
            issue(slot.request, slot.buffer);
        }
        state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    }
    void drain() {
        for (Slot& slot : slots_) {
            slot.done.acquire();
        }
    }

private:
    struct Slot {
        nt::Request request;
        std::vector<std::uint8_t> buffer;
        std::binary_semaphore done{0};
    };
    static void ended(nt::Request&, void* context) { static_cast<Slot*>(context)->done.release(); }
    std::array<Slot, 4> slots_;
};

// The yardsticks' other side: a thread that answers each wake-up with one.
class PingPong {
public:
    PingPong() : thread_([this] { serve(); }) {}
    ~PingPong() {
        done_ = true;
        there_.release();
        thread_.join();
    }
    // Two wake-ups: the thread's and the caller's.
    void roundTrip() {
        there_.release();
        back_.acquire();
    }

private:
    void serve() {
        for (;;) {
            there_.acquire();
            if (done_) {
                return;
            }
            back_.release();
        }
    }
    std::binary_semaphore there_{0};
    std::binary_semaphore back_{0};
    bool done_ = false;
    std::thread thread_;
};

}  // namespace bench
