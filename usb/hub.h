// The hub and bus driver's own records. A hub is a function device on a root-enumerated stack; every device plugged
// into it is a Function with a PDO of its own.
//
// A function's life, seen by the hub:
//
//   plugged --reported by the bus relations--> known --START--> started
//   any --device gone or unplugged--> gone: all requests fail --missing from the relations, REMOVE--> deleted
//   known --REMOVE while still plugged--> known, to be started again
//
// A request is taken under the function's lock or refused under it; once the function is gone or removed none gets in, so the
// rundown that REMOVE waits for comes to an end.
#pragma once

#include "usb/backend.h"
#include "usb/host.h"
#include "usb/sync.h"
#include "usb/tap.h"

#include "kernel/thread.h"

#include <ntplatform.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace usb {

class Function;
class Hub;

// Extension of the hub's device object and of every PDO; exactly one is set.
struct HubExtension {
    Hub* hub;
    Function* function;
};

struct Pipe;

// One URB at the backend. Lives in the function's pool of such records.
struct UrbRequest {
    enum class Kind : std::uint8_t { data, control, selectConfiguration, clearStall };

    Transfer transfer;
    Function* function = nullptr;

    // Guarded by the function's lock.
    UrbRequest* next = nullptr;  // in the pipe's list of pending ones, or in the pool
    UrbRequest* previous = nullptr;
    Pipe* pipe = nullptr;
    PIRP irp = nullptr;
    PURB urb = nullptr;
    std::uint64_t sequence = 0;
    Kind kind = Kind::data;
    bool cancelSeen = false;  // the cancel routine has been here
    bool done = false;        // finished; the cancel routine, on its way, completes the IRP
};

// Guarded by the function's lock.
struct Pipe {
    std::uint8_t address = 0;
    TransferType type = TransferType::control;
    bool open = false;
    bool halted = false;  // after an error, until the stall is cleared
    std::uint16_t packetSize = 0;
    std::uint32_t maximumTransfer = 0;
    UrbRequest* first = nullptr;  // pending, in the order of submission
    UrbRequest* last = nullptr;
    LIST_ENTRY aborts{};  // IRPs that wait until everything submitted before them has ended
};

class Hub : public std::enable_shared_from_this<Hub> {
public:
    explicit Hub(const Bus::Options& options);

    // What AddDevice of the next root hub attaches to.
    static std::shared_ptr<Hub> adding;

    NTSTATUS add(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
    NTSTATUS pnp(PIRP irp);
    NTSTATUS power(PIRP irp);
    NTSTATUS deviceControl(PIRP irp);
    NTSTATUS passDown(PIRP irp);

    PDRIVER_OBJECT driver() const { return driver_; }
    PDEVICE_OBJECT pdo() const { return pdo_; }
    Tap* tap() const { return options_.tap; }
    // Completes a request on the hub's thread, with the status it carries. IRQL <= DISPATCH_LEVEL. The function's (if one is
    // named) rundown has been entered for it and is left afterwards.
    void completeLater(PIRP irp, Function* function);
    void relationsChanged();

    // A new device on the port (0: the next free one). PASSIVE_LEVEL.
    PortNumber attach(std::shared_ptr<Backend> backend, const std::string& instanceId, const PortOptions& options,
                      PortNumber port);
    // The latest function of a port, gone or not.
    std::shared_ptr<Function> find(PortNumber port) const;
    void forget(Function& function);

private:
    NTSTATUS queryRelations(PIRP irp);
    NTSTATUS remove(PIRP irp);
    void completer();
    PortNumber takePort();

    const Bus::Options options_;
    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT pdo_ = nullptr;
    PDEVICE_OBJECT fdo_ = nullptr;
    PDEVICE_OBJECT lower_ = nullptr;
    nt::Thread thread_;
    KEVENT work_;
    std::shared_ptr<Hub> self_;  // from AddDevice to REMOVE

    // Guarded by deferredLock_. Innermost.
    KSPIN_LOCK deferredLock_;
    LIST_ENTRY deferred_;
    bool stopping_ = false;

    // Guarded by portsMutex_.
    mutable KMUTEX portsMutex_;
    std::vector<std::shared_ptr<Function>> functions_;  // with a PDO that exists
    struct Port {
        bool taken = false;
        std::shared_ptr<Function> latest;
    };
    std::vector<Port> ports_;  // by number, from 1
    bool removed_ = false;
};

class Function final : public BackendEvents, public std::enable_shared_from_this<Function> {
public:
    Function(std::shared_ptr<Hub> hub, PortNumber port, std::shared_ptr<Backend> backend, std::string instanceId,
             const PortOptions& options);
    ~Function();

    // Starts the backend, reads the descriptors, creates the PDO. False: nothing is left of it. PASSIVE_LEVEL.
    bool create();
    // PASSIVE_LEVEL. The device is gone, and its backend stopped.
    void detach();
    // The hub goes, or the PDO is missing and removed: ends what is pending and deletes the PDO. PASSIVE_LEVEL, no request comes any more.
    void destroy();

    PDEVICE_OBJECT pdo() const { return pdo_; }
    PortNumber port() const { return port_; }
    const std::shared_ptr<Backend>& backend() const { return backend_; }
    const std::string& instanceId() const { return instanceId_; }
    std::string deviceId() const;
    PortOptions options() const;
    void setOptions(const PortOptions& options);
    PortStatistics statistics() const;
    bool isGone() const;
    void setReportedMissing() { reportedMissing_ = true; }

    // Dispatch of the PDO.
    NTSTATUS pnp(PIRP irp);
    NTSTATUS power(PIRP irp);
    NTSTATUS internalControl(PIRP irp);

    // BackendEvents.
    void gone() override;
    void remoteWake() override;

    void leave() { rundown_.leave(); }

private:
    friend class Hub;

    enum class Idle : std::uint8_t { none, queued, calling, waiting };

    // bus_pnp.cpp
    void readDescriptors();
    std::uint32_t readDescriptor(std::uint8_t type, std::uint8_t* data, std::uint16_t length);
    void stopBackend();
    NTSTATUS queryId(PIRP irp);
    NTSTATUS queryText(PIRP irp);
    NTSTATUS queryRelations(PIRP irp);
    NTSTATUS queryCapabilities(PIRP irp);
    NTSTATUS remove(PIRP irp);
    void markGone();
    void endEverything();

    // bus_power.cpp
    NTSTATUS setPower(PIRP irp);
    NTSTATUS waitWake(PIRP irp);
    NTSTATUS submitIdle(PIRP irp);
    void idleWorker();
    void finishIdle(NTSTATUS status);
    PIRP takeIdle(NTSTATUS status);
    void finishWake(NTSTATUS status);
    static DRIVER_CANCEL cancelWake;
    static DRIVER_CANCEL cancelIdle;

    // bus_control.cpp
    NTSTATUS refuse(PIRP irp, NTSTATUS status);
    NTSTATUS privateControl(PIRP irp, ULONG code);
    NTSTATUS resetPort(PIRP irp);
    NTSTATUS hold(PIRP irp);
    void resetWorker();
    void finishHeld(PIRP irp, NTSTATUS status);
    void endHeld(NTSTATUS status);
    static DRIVER_CANCEL cancelHeld;

    // Every transfer's way to the backend, and what is known when it has come back.
    void toBackend(Transfer& transfer) {
        if (tap_ != nullptr) tap_->submitted(port_, transfer);
        backend_->submit(&transfer);
    }
    void fromBackend(const Transfer& transfer) {
        if (tap_ != nullptr) tap_->completed(port_, transfer);
    }

    // urb.cpp
    NTSTATUS submitUrb(PIRP irp);
    NTSTATUS refuseUrb(PIRP irp, PURB urb, USBD_STATUS status);
    NTSTATUS bulkOrInterrupt(PIRP irp, PURB urb);
    NTSTATUS classOrVendor(PIRP irp, PURB urb);
    NTSTATUS getDescriptor(PIRP irp, PURB urb);
    NTSTATUS selectConfiguration(PIRP irp, PURB urb);
    NTSTATUS abortPipe(PIRP irp, PURB urb);
    NTSTATUS clearStall(PIRP irp, PURB urb);
    NTSTATUS controlTransfer(PIRP irp, PURB urb, const SetupPacket& setup, void* data, std::uint32_t length,
                             UrbRequest::Kind kind);
    // lock_ held.
    USBD_STATUS refusal() const;
    Pipe* pipeOf(USBD_PIPE_HANDLE handle);
    void submitLocked(UrbRequest* request);
    void cancelPipeLocked(Pipe& pipe);
    void cancelAllLocked();
    UrbRequest* takeRecord();
    void returnRecord(UrbRequest* request);
    void takeEndedAborts(Pipe& pipe, LIST_ENTRY& ended);
    void settleUrb(UrbRequest* request);
    void count(const UrbRequest& request, USBD_STATUS status);

    void finish(UrbRequest* request);
    void completeAborts(LIST_ENTRY& ended);
    static void transferDone(Transfer* transfer);
    static DRIVER_CANCEL cancelUrb;

    // configuration.cpp; lock_ held.
    void closePipes();
    USBD_STATUS openConfiguration(PURB urb);
    USBD_STATUS openInterface(const USB_CONFIGURATION_DESCRIPTOR& configuration, USBD_INTERFACE_INFORMATION& wanted);

    const std::shared_ptr<Hub> hub_;
    Tap* const tap_;  // null: nobody listens
    const PortNumber port_;
    const std::shared_ptr<Backend> backend_;
    const std::string instanceId_;
    PDEVICE_OBJECT pdo_ = nullptr;
    PIO_WORKITEM idleItem_ = nullptr;
    PIO_WORKITEM resetItem_ = nullptr;
    USB_DEVICE_DESCRIPTOR descriptor_{};
    std::uint8_t configurationAttributes_ = 0;
    std::uint8_t interfaceClass_[3] = {};
    bool hasInterface_ = false;
    Rundown rundown_;
    bool reportedMissing_ = false;  // by the PnP manager's thread only
    KMUTEX backendMutex_;           // serialises start and stop of the backend
    bool backendRunning_ = false;   // guarded by it
    KEVENT transfersOver_;          // while resetting: nothing is at the backend any more

    // Guarded by lock_. It is held when the backend's submit and cancel are called.
    mutable KSPIN_LOCK lock_;
    PortOptions options_;
    bool gone_ = false;
    bool started_ = false;
    bool resetting_ = false;
    DEVICE_POWER_STATE power_ = PowerDeviceD0;
    SYSTEM_POWER_STATE systemState_ = PowerSystemWorking;  // as last told
    std::array<Pipe, 32> pipes_;
    std::uint32_t generation_ = 0;  // of the pipe handles
    bool configured_ = false;
    UrbRequest* pool_ = nullptr;
    std::uint64_t sequence_ = 0;
    PortStatistics statistics_;
    unsigned pipesReset_ = 0;  // one after the other, with nothing else on the default pipe in between
    Idle idleState_ = Idle::none;
    PIRP idleIrp_ = nullptr;
    bool idleOver_ = false;  // the notification ends as soon as its callback has returned
    NTSTATUS idleStatus_ = 0;
    USB_IDLE_CALLBACK_INFO idleInfo_{};
    bool idleQueued_ = false;  // the work item is, which may be queued only once
    std::shared_ptr<Function> idleWorkHolder_;  // for the worker that is queued
    std::shared_ptr<Function> idleIrpHolder_;   // while the notification is pending
    PIRP wakeIrp_ = nullptr;
    PIRP resetIrp_ = nullptr;
    LIST_ENTRY held_{};  // requests that nobody answers
    std::vector<std::unique_ptr<UrbRequest[]>> blocks_;
};

// The function's own lock order: lock_, then the backend's lock, then the hub's deferredLock_.

}  // namespace usb
