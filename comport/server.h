// The pieces put together: the executive in real mode, the bus, the driver, and a port for each device.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "comport/capture.h"
#include "comport/control.h"
#include "comport/control_socket.h"
#include "comport/options.h"
#include "comport/served_port.h"
#include "comport/terminal_users.h"
#include "kernel/executive.h"
#include "usb/host.h"

namespace comport {

class Server : private ControlTarget {
public:
    // Boots, loads the driver, plugs the devices in and serves their ports; those of devices that are not there when they come.
    // Throws std::runtime_error with a sentence.
    explicit Server(const Options& options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // The ports served so far, in the order of their devices. `later` is called for each to come, on any thread.
    std::vector<const ServedPort*> served(std::function<void(const ServedPort&)> later = {});

    // All devices leave and come back, those of the program's own switched off in between. Back when the driver knows. Any thread.
    void unplug();
    void plugIn();

    // Closes the ports, unloads everything. What was left allocated, one line each. Once only.
    std::vector<std::string> stop();

private:
    void boot(const Options& options);
    void plugAll(const Options& options);
    void openControl(const Options& options);
    void setTraceMask(std::uint32_t mask);
    void portServed(const ServedPort& port);

    // ControlTarget: server_control.cpp. From the control socket's thread.
    std::vector<PortStatus> ports() override;
    void carryOut(const std::string& port, const Order& order) override;
    void goToSleep(SYSTEM_POWER_STATE state);
    void wake();
    static void trace(void* context, const char* text, std::size_t length);
    static void logEvent(void* context, const nt::ErrorLogEntry& entry);

    std::unique_ptr<std::FILE, int (*)(std::FILE*)> traceFile_{nullptr, std::fclose};
    std::unique_ptr<Capture> capture_;
    std::unique_ptr<nt::Executive> executive_;
    std::unique_ptr<usb::Bus> bus_;
    std::unique_ptr<TerminalUsers> users_;
    std::unique_ptr<ServedPort::House> house_;
    std::mutex servedLock_;
    std::vector<const ServedPort*> served_;          // guarded by servedLock_, and so is the next
    std::function<void(const ServedPort&)> later_;
    std::vector<std::unique_ptr<ServedPort>> ports_;
    std::unique_ptr<ControlSocket> control_;
};

}  // namespace comport
