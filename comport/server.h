// The pieces put together: the executive in real mode, the bus, the driver, a virtual modem, and its port on a terminal.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "comport/control.h"
#include "comport/control_socket.h"
#include "comport/device_source.h"
#include "comport/front_end.h"
#include "comport/net_server.h"
#include "comport/options.h"
#include "comport/usbip_client.h"
#include "kernel/executive.h"
#include "modem/acm_device.h"
#include "usb/host.h"
#include "usb/virtual_backend.h"

namespace comport {

class Server : private ControlTarget {
public:
    // Boots, loads the driver, plugs the modem in and serves its port. Throws std::runtime_error with a sentence.
    explicit Server(const Options& options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const std::string& portName() const { return portName_; }
    std::string link() const { return frontEnd_->link().string(); }
    // Where network clients find the port.
    std::vector<std::string> urls() const;

    // The modem leaves and comes back, switched off in between. Back when the driver knows. Any thread.
    void unplug();
    void plugIn();

    // Closes the port, unloads everything. What was left allocated, one line each. Once only.
    std::vector<std::string> stop();

private:
    void boot(const Options& options);
    void plugFirst(const DeviceName& name);
    bool reconnect();
    void openControl(const Options& options);
    void setTraceMask(std::uint32_t mask);

    // ControlTarget: server_control.cpp. From the control socket's thread.
    std::vector<PortStatus> ports() override;
    void carryOut(const std::string& port, const Order& order) override;
    void describeModem(PortStatus& status);
    void describePower(PortStatus& status);
    void goToSleep(SYSTEM_POWER_STATE state);
    void wake();
    void suspendWhenIdle(std::uint32_t seconds);
    void tellFrontEnds();
    PortCounters counters();
    template <class Body>
    void withModem(Body&& body) {
        if (!source_.own) {
            throw std::runtime_error("that is for the virtual modem; this one is imported");
        }
        source_.own->withDevice([&](usb::Device& device) { body(static_cast<modem::AcmDevice&>(device)); });
    }
    static void trace(void* context, const char* text, std::size_t length);
    static void logEvent(void* context, const nt::ErrorLogEntry& entry);

    std::unique_ptr<std::FILE, int (*)(std::FILE*)> traceFile_{nullptr, std::fclose};
    std::unique_ptr<nt::Executive> executive_;
    std::unique_ptr<usb::Bus> bus_;
    DeviceSource source_;
    std::unique_ptr<Reconnector> reconnector_;
    usb::PortNumber usbPort_ = 0;
    DeviceKind kind_ = DeviceKind::modem;
    std::mutex plugLock_;
    bool pluggedIn_ = false;          // guarded by plugLock_, and so are the next
    usb::PortStatistics earlier_;     // of the modem's former connections, added up
    std::uint64_t reconnects_ = 0;
    std::string portName_;
    PortLease lease_;
    std::unique_ptr<FrontEnd> frontEnd_;
    std::vector<std::unique_ptr<NetServer>> netServers_;
    std::unique_ptr<ControlSocket> control_;
};

}  // namespace comport
