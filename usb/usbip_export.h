// Devices that USB/IP clients may import, and the connections that do. A device is a Backend; while a client has it the backend
// is started, and when that client goes it is stopped: the next one finds it reset and unconfigured.
//
//   free --lend--> lent to one connection --giveBack--> free
//   lent --the device leaves--> its connection is closed, the device is not listed any more until it is free and starts again
//
// A connection is run by one thread, which is told through a hook when one of its transfers has ended.
#pragma once

#include "usb/backend.h"
#include "usb/sync.h"
#include "usb/usbip_server.h"

#include <functional>
#include <memory>
#include <mutex>

namespace usb {

class UsbipExport final {
public:
    UsbipExport(std::shared_ptr<Backend> backend, usbip::DeviceRecord device)
        : backend_(std::move(backend)), device_(std::move(device)) {}

    const usbip::DeviceRecord& device() const { return device_; }
    bool isFree() const { return !lent_; }

private:
    friend class UsbipConnection;
    const std::shared_ptr<Backend> backend_;
    const usbip::DeviceRecord device_;
    bool lent_ = false;  // guarded by nothing: all connections of an export are run by one thread
};

// One client. PASSIVE_LEVEL and one thread, all of it.
class UsbipConnection final : private usbip::Lender, private BackendEvents {
public:
    // Output beyond which nothing more is taken in.
    static constexpr std::size_t outputLimit = 1 << 20;

    // `wake` is called, on any thread at up to DISPATCH_LEVEL, when step() is due.
    UsbipConnection(std::vector<std::shared_ptr<UsbipExport>> exports, std::function<void()> wake);
    // Gives the device back.
    ~UsbipConnection();
    UsbipConnection(const UsbipConnection&) = delete;
    UsbipConnection& operator=(const UsbipConnection&) = delete;

    void received(std::span<const std::uint8_t> bytes) { server_.received(bytes); }
    // Puts the replies for what has ended into output().
    void step();
    // The client has gone.
    void disconnected(const char* why = "") { server_.disconnected(why); }

    usbip::Bytes& output() { return server_.output(); }
    bool wantsBytes() const { return !server_.over() && const_cast<usbip::Server&>(server_).output().size() < outputLimit; }
    // To be destroyed once its output has been sent.
    bool over() const { return server_.over(); }
    const std::string& error() const { return server_.error(); }
    // Bus id of the device it has, empty: none.
    std::string lent() const { return lent_ ? lent_->device().busId : std::string(); }

private:
    std::vector<usbip::DeviceRecord> list() override;
    usbip::OperationStatus lend(const std::string& busId, usbip::DeviceRecord& device) override;
    void submit(Transfer* transfer) override { lent_->backend_->submit(transfer); }
    void cancel(Transfer* transfer) override { lent_->backend_->cancel(transfer); }
    void gone() override;
    void remoteWake() override {}
    static void completed(Transfer* transfer);

    const std::vector<std::shared_ptr<UsbipExport>> exports_;
    const std::function<void()> wake_;
    usbip::Server server_;
    std::shared_ptr<UsbipExport> lent_;

    // Guarded by lock_.
    KSPIN_LOCK lock_;
    Transfer* endedHead_ = nullptr;
    Transfer* endedTail_ = nullptr;
    bool gone_ = false;
};

}  // namespace usb
