// Power of a PDO: device states, wait-wake, and the idle notification that leads to selective suspend.
//
// Idle notification:
//
//   none --submitted--> queued --worker--> calling --callback returned--> waiting --cancel, D0, wake, gone--> none
//   queued --cancel, D0, gone--> none (the callback is not called)
//   calling --cancel, D0, gone--> calling, over --callback returned--> none
//
// The callback runs on a worker of its own, since it waits for the D2 request it makes; the notification never completes under
// it. Nothing in Plug and Play or power dispatch waits for a callback: the driver's callback may wait for them.
#include "usb/hub.h"

namespace usb {

namespace {

constexpr ULONG idleInfoMinimum = 8;

NTSTATUS completePower(PIRP irp, NTSTATUS status) {
    PoStartNextPowerIrp(irp);
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

}  // namespace

NTSTATUS Function::power(PIRP irp) {
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
    case IRP_MN_SET_POWER:
        return setPower(irp);
    case IRP_MN_WAIT_WAKE:
        return waitWake(irp);
    case IRP_MN_QUERY_POWER:
        return completePower(irp, STATUS_SUCCESS);
    default:
        return completePower(irp, irp->IoStatus.Status);
    }
}

NTSTATUS Function::setPower(PIRP irp) {
    const auto* const stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->Parameters.Power.Type != DevicePowerState) {
        {
            SpinGuard guard(lock_);
            systemState_ = stack->Parameters.Power.State.SystemState;
        }
        return completePower(irp, STATUS_SUCCESS);
    }
    const DEVICE_POWER_STATE state = stack->Parameters.Power.State.DeviceState;
    bool gone;
    bool reject;
    bool wake;
    bool change;
    {
        SpinGuard guard(lock_);
        gone = gone_;
        reject = state == PowerDeviceD0 && (options_.rejectD0 || (gone_ && options_.rejectD0WhenGone));
        wake = wakeIrp_ != nullptr;
        change = (state == PowerDeviceD0) != (power_ == PowerDeviceD0);
    }
    if (reject) return completePower(irp, gone ? STATUS_DEVICE_NOT_CONNECTED : STATUS_DEVICE_POWER_FAILURE);

    bool moved = true;
    if (change && !gone) moved = state == PowerDeviceD0 ? backend_->resume() : backend_->suspend(wake);
    // Going down cannot fail: what does not suspend is left as it is.
    if (state == PowerDeviceD0 && !moved && !isGone()) return completePower(irp, STATUS_DEVICE_POWER_FAILURE);
    {
        SpinGuard guard(lock_);
        power_ = state;
    }
    POWER_STATE report;
    report.DeviceState = state;
    PoSetPowerState(pdo_, DevicePowerState, report);
    const auto self = shared_from_this();
    const NTSTATUS status = completePower(irp, STATUS_SUCCESS);
    // The notification of a device that is awake again is over. The driver hears of D0 first, so that it does not ask for it again.
    if (state == PowerDeviceD0) finishIdle(STATUS_SUCCESS);
    return status;
}

NTSTATUS Function::waitWake(PIRP irp) {
    NTSTATUS status = STATUS_SUCCESS;
    bool over = false;
    {
        SpinGuard guard(lock_);
        if (gone_) {
            status = STATUS_DEVICE_NOT_CONNECTED;
        } else if (wakeIrp_ != nullptr) {
            status = STATUS_DEVICE_BUSY;
        } else {
            rundown_.enter();
            IoMarkIrpPending(irp);
            irp->Tail.Overlay.DriverContext[0] = this;
            wakeIrp_ = irp;
            IoSetCancelRoutine(irp, cancelWake);
            over = irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr;
            if (over) wakeIrp_ = nullptr;
        }
    }
    if (status != STATUS_SUCCESS) return completePower(irp, status);
    if (over) {
        completePower(irp, STATUS_CANCELLED);
        leave();
    }
    return STATUS_PENDING;
}

VOID NTAPI Function::cancelWake(PDEVICE_OBJECT, PIRP irp) {
    auto& function = *static_cast<Function*>(irp->Tail.Overlay.DriverContext[0]);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    {
        SpinGuard guard(function.lock_);
        function.wakeIrp_ = nullptr;
    }
    completePower(irp, STATUS_CANCELLED);
    function.leave();
}

void Function::finishWake(NTSTATUS status) {
    PIRP irp;
    {
        SpinGuard guard(lock_);
        irp = wakeIrp_;
        if (irp == nullptr || IoSetCancelRoutine(irp, nullptr) == nullptr) return;
        wakeIrp_ = nullptr;
    }
    completePower(irp, status);
    leave();
}

void Function::remoteWake() {
    bool armed;
    {
        SpinGuard guard(lock_);
        // A machine that sleeps deeper has no power left to notice it.
        if (systemState_ != PowerSystemWorking && systemState_ > options_.systemWake) return;
        armed = wakeIrp_ != nullptr;
    }
    // With wait-wake armed the driver asks for D0, which ends the notification; without, the notification makes it ask.
    if (armed) {
        finishWake(STATUS_SUCCESS);
    } else {
        finishIdle(STATUS_SUCCESS);
    }
}

NTSTATUS Function::submitIdle(PIRP irp) {
    const auto* const stack = IoGetCurrentIrpStackLocation(irp);
    const auto* const info =
        static_cast<PUSB_IDLE_CALLBACK_INFO>(stack->Parameters.DeviceIoControl.Type3InputBuffer);
    if (info == nullptr || info->IdleCallback == nullptr ||
        stack->Parameters.DeviceIoControl.InputBufferLength < idleInfoMinimum) {
        return refuse(irp, STATUS_INVALID_PARAMETER);
    }
    NTSTATUS status = STATUS_SUCCESS;
    bool over = false;
    bool queue = false;
    {
        SpinGuard guard(lock_);
        if (gone_) {
            status = STATUS_DEVICE_NOT_CONNECTED;
        } else if (!started_) {
            status = STATUS_DEVICE_NOT_READY;
        } else if (power_ != PowerDeviceD0) {
            status = STATUS_POWER_STATE_INVALID;
        } else if (idleIrp_ != nullptr) {
            status = STATUS_DEVICE_BUSY;
        } else {
            IoMarkIrpPending(irp);
            irp->IoStatus.Status = STATUS_CANCELLED;
            irp->IoStatus.Information = 0;
            irp->Tail.Overlay.DriverContext[0] = this;
            idleIrp_ = irp;
            idleState_ = Idle::queued;
            idleOver_ = false;
            idleInfo_ = *info;
            IoSetCancelRoutine(irp, cancelIdle);
            over = irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr;
            if (over) {
                idleIrp_ = nullptr;
                idleState_ = Idle::none;
            } else {
                idleIrpHolder_ = shared_from_this();
            }
            queue = !over && !idleQueued_;
            if (queue) {
                idleQueued_ = true;
                idleWorkHolder_ = shared_from_this();
            }
        }
    }
    if (status != STATUS_SUCCESS) return refuse(irp, status);
    if (over) hub_->completeLater(irp, nullptr);
    if (queue) {
        const auto routine = [](PDEVICE_OBJECT, PVOID context) { static_cast<Function*>(context)->idleWorker(); };
        IoQueueWorkItem(idleItem_, routine, DelayedWorkQueue, this);
    }
    return STATUS_PENDING;
}

// Neither the notification nor its worker is counted in the rundown: removal goes on while a callback waits for it. Their holders
// keep the record.
void Function::idleWorker() {
    std::shared_ptr<Function> holder;
    bool call;
    USB_IDLE_CALLBACK_INFO info;
    {
        SpinGuard guard(lock_);
        holder = std::move(idleWorkHolder_);
        idleQueued_ = false;
        call = idleState_ == Idle::queued;
        if (call) idleState_ = Idle::calling;
        info = idleInfo_;
    }
    if (!call) return;
    info.IdleCallback(info.IdleContext);
    PIRP irp = nullptr;
    {
        SpinGuard guard(lock_);
        if (idleOver_) {
            irp = idleIrp_;
            irp->IoStatus.Status = idleStatus_;
            idleIrp_ = nullptr;
            idleIrpHolder_.reset();
            idleState_ = Idle::none;
        } else {
            idleState_ = Idle::waiting;
        }
    }
    if (irp != nullptr) IoCompleteRequest(irp, IO_NO_INCREMENT);
}

VOID NTAPI Function::cancelIdle(PDEVICE_OBJECT, PIRP irp) {
    auto& function = *static_cast<Function*>(irp->Tail.Overlay.DriverContext[0]);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    std::shared_ptr<Function> holder;
    {
        SpinGuard guard(function.lock_);
        if (function.idleState_ != Idle::calling) {
            holder = std::move(function.idleIrpHolder_);
            function.idleIrp_ = nullptr;
            function.idleState_ = Idle::none;
        } else {
            function.idleOver_ = true;
            function.idleStatus_ = STATUS_CANCELLED;
        }
    }
    if (holder == nullptr) return;
    irp->IoStatus.Status = STATUS_CANCELLED;
    // Whoever cancels may hold a lock that the completion routine, or what it starts, wants.
    holder->hub_->completeLater(irp, nullptr);
}

// The notification if it may complete now; otherwise it does after its callback, or its cancel routine is on its way.
PIRP Function::takeIdle(NTSTATUS status) {
    std::shared_ptr<Function> holder;  // outlives the guard
    SpinGuard guard(lock_);
    const PIRP irp = idleIrp_;
    if (irp == nullptr || IoSetCancelRoutine(irp, nullptr) == nullptr) return nullptr;
    if (idleState_ == Idle::calling) {
        idleOver_ = true;
        idleStatus_ = status;
        return nullptr;
    }
    holder = std::move(idleIrpHolder_);
    idleIrp_ = nullptr;
    idleState_ = Idle::none;
    irp->IoStatus.Status = status;
    return irp;
}

void Function::finishIdle(NTSTATUS status) {
    if (const PIRP irp = takeIdle(status)) hub_->completeLater(irp, nullptr);
}

}  // namespace usb
