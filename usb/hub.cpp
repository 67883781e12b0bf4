// The root hub: a function device on a stack that the executive enumerated by itself.
//
//   AddDevice --START--> reports its children whenever they change --REMOVE--> its children's PDOs deleted, thread ended
//
// Requests that the bus ends by itself are completed by the hub's thread.
#include "usb/hub.h"

#include <algorithm>

namespace usb {

namespace {

constexpr ULONG relationsTag = 0x52425355;  // "USBR"

NTSTATUS complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

}  // namespace

std::shared_ptr<Hub> Hub::adding;

Hub::Hub(const Bus::Options& options) : options_(options) {
    KeInitializeEvent(&work_, SynchronizationEvent, FALSE);
    KeInitializeSpinLock(&deferredLock_);
    KeInitializeMutex(&portsMutex_, 0);
    InitializeListHead(&deferred_);
}

NTSTATUS Hub::add(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    const NTSTATUS status =
        IoCreateDevice(driver, sizeof(HubExtension), nullptr, FILE_DEVICE_BUS_EXTENDER, 0, FALSE, &fdo_);
    if (!NT_SUCCESS(status)) return status;
    lower_ = IoAttachDeviceToDeviceStack(fdo_, pdo);
    if (lower_ == nullptr) {
        IoDeleteDevice(fdo_);
        return STATUS_NO_SUCH_DEVICE;
    }
    driver_ = driver;
    pdo_ = pdo;
    self_ = shared_from_this();
    static_cast<HubExtension*>(fdo_->DeviceExtension)->hub = this;
    thread_.start("usb hub", [this] { completer(); });
    fdo_->Flags |= DO_POWER_PAGABLE;
    fdo_->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

NTSTATUS Hub::passDown(PIRP irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(lower_, irp);
}

NTSTATUS Hub::pnp(PIRP irp) {
    const auto* const stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MinorFunction) {
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        if (stack->Parameters.QueryDeviceRelations.Type == BusRelations) return queryRelations(irp);
        return passDown(irp);
    case IRP_MN_REMOVE_DEVICE:
        return remove(irp);
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
        irp->IoStatus.Status = STATUS_SUCCESS;
        return passDown(irp);
    default:
        return passDown(irp);
    }
}

NTSTATUS Hub::power(PIRP irp) {
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(lower_, irp);
}

// Reports the devices that are there. A device that left keeps its PDO until the PnP manager has removed it.
NTSTATUS Hub::queryRelations(PIRP irp) {
    {
        MutexGuard guard(portsMutex_);
        const SIZE_T size = sizeof(DEVICE_RELATIONS) + functions_.size() * sizeof(PDEVICE_OBJECT);
        auto* const relations = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, size, relationsTag));
        if (relations == nullptr) return complete(irp, STATUS_INSUFFICIENT_RESOURCES);
        relations->Count = 0;
        for (const auto& function : functions_) {
            if (function->isGone()) {
                function->setReportedMissing();
                continue;
            }
            ObReferenceObject(function->pdo());
            relations->Objects[relations->Count++] = function->pdo();
        }
        irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    return passDown(irp);
}

NTSTATUS Hub::remove(PIRP irp) {
    const auto self = std::move(self_);
    std::vector<std::shared_ptr<Function>> functions;
    {
        MutexGuard guard(portsMutex_);
        removed_ = true;
        functions.swap(functions_);
        ports_.clear();
    }
    for (const auto& function : functions) function->destroy();
    {
        SpinGuard guard(deferredLock_);
        stopping_ = true;
    }
    KeSetEvent(&work_, 0, FALSE);
    thread_.join();
    irp->IoStatus.Status = STATUS_SUCCESS;
    const NTSTATUS status = passDown(irp);
    IoDetachDevice(lower_);
    IoDeleteDevice(fdo_);
    return status;
}

NTSTATUS Hub::deviceControl(PIRP irp) {
    const auto* const stack = IoGetCurrentIrpStackLocation(irp);
    irp->IoStatus.Information = 0;
    if (stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_USB_GET_NODE_INFORMATION) {
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (stack->Parameters.DeviceIoControl.OutputBufferLength < sizeof(USB_NODE_INFORMATION)) {
        return complete(irp, STATUS_BUFFER_TOO_SMALL);
    }
    auto& node = *static_cast<PUSB_NODE_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
    node = {};
    node.NodeType = UsbHub;
    auto& hub = node.u.HubInformation;
    hub.HubDescriptor.bDescriptorLength = 9;
    hub.HubDescriptor.bDescriptorType = 0x29;
    hub.HubIsBusPowered = options_.busPowered ? TRUE : FALSE;
    {
        MutexGuard guard(portsMutex_);
        hub.HubDescriptor.bNumberOfPorts = static_cast<UCHAR>(std::min<std::size_t>(std::max<std::size_t>(ports_.size(), 4), 255));
    }
    irp->IoStatus.Information = sizeof(USB_NODE_INFORMATION);
    return complete(irp, STATUS_SUCCESS);
}

void Hub::completeLater(PIRP irp, Function* function) {
    irp->Tail.Overlay.DriverContext[1] = function;
    bool first;
    {
        SpinGuard guard(deferredLock_);
        first = IsListEmpty(&deferred_);
        InsertTailList(&deferred_, &irp->Tail.Overlay.ListEntry);
    }
    if (first) KeSetEvent(&work_, 0, FALSE);
}

void Hub::completer() {
    for (;;) {
        KeWaitForSingleObject(&work_, Executive, KernelMode, FALSE, nullptr);
        for (;;) {
            PIRP irp;
            {
                SpinGuard guard(deferredLock_);
                if (IsListEmpty(&deferred_)) {
                    if (stopping_) return;
                    break;
                }
                irp = CONTAINING_RECORD(RemoveHeadList(&deferred_), IRP, Tail.Overlay.ListEntry);
            }
            auto* const function = static_cast<Function*>(irp->Tail.Overlay.DriverContext[1]);
            IoCompleteRequest(irp, IO_NO_INCREMENT);
            if (function != nullptr) function->leave();
        }
    }
}

void Hub::relationsChanged() {
    MutexGuard guard(portsMutex_);
    if (!removed_) IoInvalidateDeviceRelations(pdo_, BusRelations);
}

// The first that nothing was ever plugged into; 0 when the hub is going.
PortNumber Hub::takePort() {
    MutexGuard guard(portsMutex_);
    if (removed_) return 0;
    auto port = std::ranges::find(ports_, false, &Port::taken);
    if (port == ports_.end()) port = ports_.emplace(ports_.end());
    port->taken = true;
    return static_cast<PortNumber>(port - ports_.begin() + 1);
}

PortNumber Hub::attach(std::shared_ptr<Backend> backend, const std::string& instanceId, const PortOptions& options,
                       PortNumber port) {
    const bool fresh = port == 0;
    if (fresh) port = takePort();
    if (port == 0) return 0;
    auto function = std::make_shared<Function>(shared_from_this(), port, std::move(backend), instanceId, options);
    if (!function->create()) {
        MutexGuard guard(portsMutex_);
        if (fresh && !removed_) ports_[port - 1].taken = false;
        return 0;
    }
    bool late;
    {
        MutexGuard guard(portsMutex_);
        late = removed_;
        if (!late) {
            functions_.push_back(function);
            ports_[port - 1].latest = function;
        }
    }
    if (late) {
        function->destroy();
        return 0;
    }
    relationsChanged();
    return port;
}

std::shared_ptr<Function> Hub::find(PortNumber port) const {
    MutexGuard guard(portsMutex_);
    return port >= 1 && port <= ports_.size() ? ports_[port - 1].latest : nullptr;
}

void Hub::forget(Function& function) {
    MutexGuard guard(portsMutex_);
    std::erase_if(functions_, [&function](const auto& known) { return known.get() == &function; });
}

}  // namespace usb

// The driver's entry points. ------------------------------------------------------------------------------------------

namespace {

usb::HubExtension& extensionOf(PDEVICE_OBJECT device) { return *static_cast<usb::HubExtension*>(device->DeviceExtension); }

NTSTATUS refuse(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI dispatchPnp(PDEVICE_OBJECT device, PIRP irp) {
    auto& extension = extensionOf(device);
    if (extension.hub != nullptr) return extension.hub->pnp(irp);
    if (extension.function != nullptr) return extension.function->pnp(irp);
    return refuse(irp, STATUS_NO_SUCH_DEVICE);
}

NTSTATUS NTAPI dispatchPower(PDEVICE_OBJECT device, PIRP irp) {
    auto& extension = extensionOf(device);
    if (extension.hub != nullptr) return extension.hub->power(irp);
    if (extension.function != nullptr) return extension.function->power(irp);
    PoStartNextPowerIrp(irp);
    return refuse(irp, STATUS_NO_SUCH_DEVICE);
}

NTSTATUS NTAPI dispatchInternalControl(PDEVICE_OBJECT device, PIRP irp) {
    auto& extension = extensionOf(device);
    if (extension.function != nullptr) return extension.function->internalControl(irp);
    return refuse(irp, STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS NTAPI dispatchControl(PDEVICE_OBJECT device, PIRP irp) {
    auto& extension = extensionOf(device);
    if (extension.hub != nullptr) return extension.hub->deviceControl(irp);
    return refuse(irp, STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS NTAPI dispatchSystemControl(PDEVICE_OBJECT device, PIRP irp) {
    auto& extension = extensionOf(device);
    if (extension.hub != nullptr) return extension.hub->passDown(irp);
    const NTSTATUS status = irp->IoStatus.Status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI openOrClose(PDEVICE_OBJECT, PIRP irp) { return refuse(irp, STATUS_SUCCESS); }

NTSTATUS NTAPI addDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    const auto hub = std::move(usb::Hub::adding);
    return hub != nullptr ? hub->add(driver, pdo) : STATUS_NO_SUCH_DEVICE;
}

VOID NTAPI unload(PDRIVER_OBJECT) {}

}  // namespace

extern "C" NTSTATUS NTAPI UsbHubDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
    DriverObject->DriverExtension->AddDevice = addDevice;
    DriverObject->DriverUnload = unload;
    DriverObject->MajorFunction[IRP_MJ_CREATE] = openOrClose;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = openOrClose;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = openOrClose;
    DriverObject->MajorFunction[IRP_MJ_PNP] = dispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = dispatchPower;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatchControl;
    DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = dispatchInternalControl;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = dispatchSystemControl;
    return STATUS_SUCCESS;
}
