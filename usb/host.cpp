#include "usb/host.h"

#include "kernel/executive.h"
#include "usb/hub.h"

#include <stdexcept>

namespace usb {

namespace {

constexpr const char* service = "usbhub";
// Names the root hubs of one executive apart.
unsigned nextHubNumber = 0;

}  // namespace

PortStatistics& PortStatistics::operator+=(const PortStatistics& other) {
    submitted += other.submitted;
    completed += other.completed;
    failed += other.failed;
    bytesIn += other.bytesIn;
    bytesOut += other.bytesOut;
    bulkIn += other.bulkIn;
    bulkOut += other.bulkOut;
    zeroLengthPackets += other.zeroLengthPackets;
    stalls += other.stalls;
    reinitialisations += other.reinitialisations;
    openNotifications += other.openNotifications;
    closeNotifications += other.closeNotifications;
    resets += other.resets;
    return *this;
}

Bus::Bus(nt::Executive& executive) : Bus(executive, Options{}) {}

Bus::Bus(nt::Executive& executive, const Options& options) : executive_(executive), hub_(std::make_shared<Hub>(options)) {
    NTSTATUS status = executive.loadDriver(service, UsbHubDriverEntry);
    if (NT_SUCCESS(status) || status == STATUS_OBJECT_NAME_COLLISION) {
        if (status != STATUS_OBJECT_NAME_COLLISION) nextHubNumber = 0;
        Hub::adding = hub_;
        char instance[8];
        std::snprintf(instance, sizeof instance, "%04u", nextHubNumber++);
        status = executive.addRootDevice(service, instance);
        Hub::adding.reset();
    }
    if (!NT_SUCCESS(status)) {
        char text[80];
        std::snprintf(text, sizeof text, "the USB hub driver did not start (status %08X)", static_cast<unsigned>(status));
        throw std::runtime_error(text);
    }
}

Bus::~Bus() = default;

PortNumber Bus::plug(std::shared_ptr<Backend> backend, std::string instanceId, const PortOptions& options) {
    return hub_->attach(std::move(backend), instanceId, options, 0);
}

void Bus::unplug(PortNumber port) {
    if (const auto function = hub_->find(port)) function->detach();
}

bool Bus::replug(PortNumber port, const std::string& instanceId) {
    const auto old = hub_->find(port);
    if (old == nullptr) return false;
    old->detach();
    return hub_->attach(old->backend(), instanceId.empty() ? old->instanceId() : instanceId, old->options(), port) != 0;
}

std::string Bus::instancePath(PortNumber port) const {
    const auto function = hub_->find(port);
    return function != nullptr ? function->deviceId() + "\\" + function->instanceId() : std::string();
}

PortStatistics Bus::statistics(PortNumber port) const {
    const auto function = hub_->find(port);
    return function != nullptr ? function->statistics() : PortStatistics{};
}

void Bus::setOptions(PortNumber port, const PortOptions& options) {
    if (const auto function = hub_->find(port)) function->setOptions(options);
}

Backend& Bus::backend(PortNumber port) const { return *hub_->find(port)->backend(); }

}  // namespace usb
