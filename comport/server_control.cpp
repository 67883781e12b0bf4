// What a running server tells of its ports and does with them, and with the machine, when list, status and ctl ask.
#include "comport/server.h"

#include <stdexcept>

#include "kernel/power.h"

namespace comport {

std::vector<PortStatus> Server::ports() {
    const std::vector<nt::DeviceNode> devices = executive_->devices();
    std::vector<PortStatus> all;
    for (const auto& port : ports_) {
        all.push_back(port->status(devices));
    }
    return all;
}

void Server::carryOut(const std::string& name, const Order& order) {
    using Action = Order::Action;
    switch (order.action) {
    case Action::trace:
        setTraceMask(order.value);
        executive_->registry().save();
        return;
    case Action::sleep:
        goToSleep(static_cast<SYSTEM_POWER_STATE>(PowerSystemWorking + order.value));
        return;
    case Action::wake:
        wake();
        return;
    default:
        break;
    }
    for (const auto& port : ports_) {
        if (port->name() == name) {
            port->carryOut(order);
        }
    }
}

void Server::goToSleep(SYSTEM_POWER_STATE state) {
    const NTSTATUS status = nt::sleepSystem(state);
    if (status == STATUS_INVALID_DEVICE_STATE) {
        throw std::runtime_error("the system sleeps already");
    }
    if (nt::systemState() == PowerSystemWorking && !NT_SUCCESS(status)) {
        throw std::runtime_error("a device does not let the system sleep");
    }
}

// A modem that came while the system slept arrives now.
void Server::wake() {
    nt::wakeSystem();
    executive_->settle();
    for (const auto& port : ports_) {
        port->woken();
    }
}

}  // namespace comport
