#include "usb/usbip_export.h"

namespace usb {

using usbip::OperationStatus;

UsbipConnection::UsbipConnection(std::vector<std::shared_ptr<UsbipExport>> exports, std::function<void()> wake)
    : exports_(std::move(exports)), wake_(std::move(wake)), server_(*this, completed, this) {
    KeInitializeSpinLock(&lock_);
}

UsbipConnection::~UsbipConnection() {
    server_.disconnected();
    if (!lent_) return;
    // Whatever is still pending ends in here.
    lent_->backend_->stop();
    step();
    lent_->lent_ = false;
}

std::vector<usbip::DeviceRecord> UsbipConnection::list() {
    std::vector<usbip::DeviceRecord> devices;
    for (const auto& exported : exports_) {
        if (!exported->lent_) devices.push_back(exported->device_);
    }
    return devices;
}

OperationStatus UsbipConnection::lend(const std::string& busId, usbip::DeviceRecord& device) {
    for (const auto& exported : exports_) {
        if (exported->device_.busId != busId) continue;
        if (exported->lent_) return OperationStatus::busy;
        if (!exported->backend_->start(*this)) return OperationStatus::noDevice;
        exported->lent_ = true;
        lent_ = exported;
        device = exported->device_;
        return OperationStatus::ok;
    }
    return OperationStatus::noDevice;
}

void UsbipConnection::completed(Transfer* transfer) {
    auto& self = *static_cast<UsbipConnection*>(transfer->context);
    transfer->next = nullptr;
    bool first;
    {
        SpinGuard guard(self.lock_);
        first = self.endedHead_ == nullptr;
        (first ? self.endedHead_ : self.endedTail_->next) = transfer;
        self.endedTail_ = transfer;
    }
    if (first) self.wake_();
}

void UsbipConnection::step() {
    Transfer* transfer;
    bool gone;
    {
        SpinGuard guard(lock_);
        transfer = endedHead_;
        endedHead_ = endedTail_ = nullptr;
        gone = gone_;
    }
    if (gone) server_.disconnected("the device has left");
    while (transfer != nullptr) {
        Transfer* const next = transfer->next;
        server_.ended(transfer);
        transfer = next;
    }
}

void UsbipConnection::gone() {
    {
        SpinGuard guard(lock_);
        gone_ = true;
    }
    wake_();
}

}  // namespace usb
