// The internal controls of a PDO beside URBs: port reset, parent hub, idle notification, and the two private ones with which
// the function driver tells of its port's first open and last close.
#include "usb/hub.h"

namespace usb {

namespace {

constexpr ULONG controlPortOpened = 0x89312007;
constexpr ULONG controlPortClosed = 0x8931200B;

}  // namespace

NTSTATUS Function::internalControl(PIRP irp) {
    const auto* const stack = IoGetCurrentIrpStackLocation(irp);
    const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    switch (code) {
    case IOCTL_INTERNAL_USB_SUBMIT_URB:
        return submitUrb(irp);
    case IOCTL_INTERNAL_USB_RESET_PORT:
        return resetPort(irp);
    case IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION:
        return submitIdle(irp);
    case controlPortOpened:
    case controlPortClosed:
        return privateControl(irp, code);
    case IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO:
        if (stack->Parameters.Others.Argument1 == nullptr) return refuse(irp, STATUS_INVALID_PARAMETER);
        *static_cast<PDEVICE_OBJECT*>(stack->Parameters.Others.Argument1) = hub_->pdo();
        return refuse(irp, STATUS_SUCCESS);
    case IOCTL_INTERNAL_USB_GET_PORT_STATUS:
        if (stack->Parameters.Others.Argument1 == nullptr) return refuse(irp, STATUS_INVALID_PARAMETER);
        *static_cast<PULONG>(stack->Parameters.Others.Argument1) = isGone() ? 0 : USBD_PORT_ENABLED | USBD_PORT_CONNECTED;
        return refuse(irp, STATUS_SUCCESS);
    default:
        return refuse(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

// Ends a request at once, but not inside this call.
NTSTATUS Function::refuse(PIRP irp, NTSTATUS status) {
    IoMarkIrpPending(irp);
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    rundown_.enter();
    hub_->completeLater(irp, this);
    return STATUS_PENDING;
}

// Answered in any state, also before the device was started.
NTSTATUS Function::privateControl(PIRP irp, ULONG code) {
    bool ignore;
    {
        SpinGuard guard(lock_);
        ++(code == controlPortOpened ? statistics_.openNotifications : statistics_.closeNotifications);
        ignore = options_.ignorePrivateControls && !gone_;
    }
    return ignore ? hold(irp) : refuse(irp, STATUS_SUCCESS);
}

// Keeps a request until it is cancelled or the device is gone.
NTSTATUS Function::hold(PIRP irp) {
    bool over;
    {
        SpinGuard guard(lock_);
        rundown_.enter();
        IoMarkIrpPending(irp);
        irp->IoStatus.Status = gone_ ? STATUS_DEVICE_NOT_CONNECTED : STATUS_CANCELLED;
        irp->IoStatus.Information = 0;
        irp->Tail.Overlay.DriverContext[0] = this;
        InsertTailList(&held_, &irp->Tail.Overlay.ListEntry);
        IoSetCancelRoutine(irp, cancelHeld);
        over = (gone_ || irp->Cancel) && IoSetCancelRoutine(irp, nullptr) != nullptr;
        if (over) {
            RemoveEntryList(&irp->Tail.Overlay.ListEntry);
            if (resetIrp_ == irp) resetIrp_ = nullptr;
        }
    }
    if (over) hub_->completeLater(irp, this);
    return STATUS_PENDING;
}

VOID NTAPI Function::cancelHeld(PDEVICE_OBJECT, PIRP irp) {
    auto& function = *static_cast<Function*>(irp->Tail.Overlay.DriverContext[0]);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    {
        SpinGuard guard(function.lock_);
        RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        if (function.resetIrp_ == irp) function.resetIrp_ = nullptr;
    }
    function.finishHeld(irp, STATUS_CANCELLED);
}

void Function::finishHeld(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    leave();
}

// All held requests whose cancel routine is not on its way already.
void Function::endHeld(NTSTATUS status) {
    LIST_ENTRY ending;
    InitializeListHead(&ending);
    {
        SpinGuard guard(lock_);
        for (LIST_ENTRY *entry = held_.Flink, *next; entry != &held_; entry = next) {
            next = entry->Flink;
            const PIRP irp = CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
            if (IoSetCancelRoutine(irp, nullptr) == nullptr) continue;
            if (resetIrp_ == irp) resetIrp_ = nullptr;
            RemoveEntryList(entry);
            InsertTailList(&ending, entry);
        }
    }
    while (!IsListEmpty(&ending)) {
        finishHeld(CONTAINING_RECORD(RemoveHeadList(&ending), IRP, Tail.Overlay.ListEntry), status);
    }
}

// A reset may block, so a worker does it; the request can be cancelled meanwhile. One at a time, and
// no transfer while it lasts.
NTSTATUS Function::resetPort(PIRP irp) {
    NTSTATUS status = STATUS_SUCCESS;
    bool hang = false;
    {
        SpinGuard guard(lock_);
        if (gone_) {
            status = STATUS_DEVICE_NOT_CONNECTED;
        } else if (!started_) {
            status = STATUS_DEVICE_NOT_READY;
        } else if (resetting_) {
            status = STATUS_DEVICE_BUSY;
        } else {
            ++statistics_.resets;
            hang = options_.hangReset;
            if (!hang) {
                resetting_ = true;
                resetIrp_ = irp;
                rundown_.enter();  // for the worker
                KeClearEvent(&transfersOver_);
                cancelAllLocked();
                if (statistics_.pending == 0) KeSetEvent(&transfersOver_, 0, FALSE);
            }
        }
    }
    if (status != STATUS_SUCCESS) return refuse(irp, status);
    hold(irp);
    if (!hang) {
        const auto routine = [](PDEVICE_OBJECT, PVOID context) { static_cast<Function*>(context)->resetWorker(); };
        IoQueueWorkItem(resetItem_, routine, DelayedWorkQueue, this);
    }
    return STATUS_PENDING;
}

void Function::resetWorker() {
    KeWaitForSingleObject(&transfersOver_, Executive, KernelMode, FALSE, nullptr);
    const bool back = backend_->resetPort();
    PIRP irp;
    {
        SpinGuard guard(lock_);
        resetting_ = false;
        for (Pipe& pipe : pipes_) pipe.halted = false;
        irp = resetIrp_;
        if (irp != nullptr && IoSetCancelRoutine(irp, nullptr) == nullptr) irp = nullptr;
        if (irp != nullptr) {
            resetIrp_ = nullptr;
            RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        }
    }
    if (irp != nullptr) finishHeld(irp, back ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
    leave();
}

}  // namespace usb
