// One device and its COM port on a terminal and the network.
//
//   waiting --the device arrives and gets a COM name--> served, until the program ends
//   served: there <--lost, unplugged / it is back--> away; its front ends stand all the time
//
// A device of the program's own arrives at once. Any other may be away at the start and later: a thread of the port's own fetches
// it, so that one that cannot be reached, or takes its time, keeps no other port waiting.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "comport/control.h"
#include "comport/device_source.h"
#include "comport/front_end.h"
#include "comport/net_server.h"
#include "comport/usbip_client.h"
#include "kernel/executive.h"
#include "modem/acm_device.h"
#include "usb/host.h"
#include "usb/virtual_backend.h"

namespace comport {

class ServedPort {
public:
    // What the ports of a machine share.
    struct House {
        nt::Executive& executive;
        usb::Bus& bus;
        TerminalUsers& users;
        std::function<std::filesystem::path(const std::string& portName)> linkOf;
        std::function<void(const ServedPort&)> served;  // has begun; on any thread
        std::optional<gid_t> group;                      // may use the terminals
    };
    struct Places {
        std::optional<NetAddress> rfc2217;
        std::optional<NetAddress> tcp;
        bool kick = false;
    };

    // `number` is from 1, among the devices of its kind.
    ServedPort(const House& house, const DeviceName& device, unsigned number, const Places& places);
    ~ServedPort();
    ServedPort(const ServedPort&) = delete;
    ServedPort& operator=(const ServedPort&) = delete;

    // Plugs the device in, one of the program's own before it returns. Throws std::runtime_error with a sentence.
    void begin();
    // Until the first try is over, one way or the other. Throws what stands in the way of serving a device that is there.
    void awaitFirstTry(std::chrono::steady_clock::time_point until);
    // Two steps, so that many ports end together. Nothing arrives after the first; the port is closed after the second.
    void tellEnd();
    void end();

    bool isServed() const;
    // "" while it is not served.
    std::string name() const;
    DeviceKind kind() const { return kind_; }
    // As `--usb` names it.
    const std::string& device() const { return device_; }
    std::string link() const;
    // Where network clients find it.
    std::vector<std::string> urls() const;

    // The device leaves and comes back; one of the program's own is switched off in between. Back when the driver knows. Any thread.
    void unplug();
    void plugIn();
    // The system woke up: what came meanwhile has arrived.
    void woken();

    // served_port_control.cpp, for list, status and ctl.
    PortStatus status(const std::vector<nt::DeviceNode>& devices);
    void carryOut(const Order& order);

private:
    void watchDevice();
    bool tryOnce();
    bool connect();
    void report(const std::string& why);
    void noticeArrival();
    void serve(const std::string& name);
    std::optional<nt::DeviceNode> nodeOf(const std::vector<nt::DeviceNode>& devices) const;
    void tellFrontEnds();

    void describePower(PortStatus& status);
    void describeModem(PortStatus& status);
    void suspendWhenIdle(std::uint32_t seconds);
    PortCounters counters();
    template <class Body>
    void withModem(Body&& body) {
        if (!source_.own) {
            throw std::runtime_error("that is for the virtual modem; this one is elsewhere");
        }
        source_.own->withDevice([&](usb::Device& device) { body(static_cast<modem::AcmDevice&>(device)); });
    }

    const House& house_;
    const DeviceKind kind_;
    const Places places_;
    const DeviceSource source_;
    const std::string device_;
    std::unique_ptr<Reconnector> reconnector_;  // of a device that is elsewhere
    PortLease lease_;
    std::atomic<unsigned> losses_{0};
    std::optional<unsigned> lossesThen_;  // when it was plugged in; none: it is not. Guarded by plugLock_

    // Held while the device is plugged in or out, which may take seconds. Ahead of stateLock_.
    std::mutex plugLock_;

    mutable std::mutex stateLock_;  // guards what follows
    std::condition_variable triedChanged_;
    bool tried_ = false;
    bool awaited_ = false;           // who started it has stopped waiting for that
    std::string failure_;            // why a device that is there is not served
    std::string complaint_;          // what was said last of one that is not
    bool pluggedIn_ = true;          // as far as this program goes
    usb::PortNumber usbPort_ = 0;    // 0: was never there; written with plugLock_ held, too
    usb::PortStatistics earlier_;    // of the device's former connections, added up
    std::uint64_t reconnects_ = 0;
    std::string name_;               // this and the next two: set once
    std::unique_ptr<FrontEnd> frontEnd_;
    std::vector<std::unique_ptr<NetServer>> netServers_;
};

}  // namespace comport
