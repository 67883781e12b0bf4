// The pieces put together: the executive in real mode, the bus, the driver, a virtual modem, and its port on a terminal.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "comport/front_end.h"
#include "comport/net_server.h"
#include "comport/options.h"
#include "kernel/executive.h"
#include "modem/modem.h"
#include "usb/host.h"
#include "usb/virtual_backend.h"

namespace comport {

class Server {
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

    // The modem leaves and comes back, switched off in between. Back when the driver knows. Any thread, one at a time.
    void unplug();
    void plugIn();

    // Closes the port, unloads everything. What was left allocated, one line each. Once only.
    std::vector<std::string> stop();

private:
    void boot(const Options& options);
    static void trace(void* context, const char* text, std::size_t length);
    static void logEvent(void* context, const nt::ErrorLogEntry& entry);

    std::unique_ptr<std::FILE, int (*)(std::FILE*)> traceFile_{nullptr, std::fclose};
    std::unique_ptr<nt::Executive> executive_;
    std::unique_ptr<usb::Bus> bus_;
    std::shared_ptr<usb::VirtualBackend> backend_;
    usb::PortNumber usbPort_ = 0;
    bool pluggedIn_ = false;
    std::string portName_;
    PortLease lease_;
    std::unique_ptr<FrontEnd> frontEnd_;
    std::vector<std::unique_ptr<NetServer>> netServers_;
};

}  // namespace comport
