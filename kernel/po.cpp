// Power requests: sent to the top of a device's stack, passed on by PoCallDriver, and counted.
//
// Each driver that gets a power request says once that it is ready for the next one (PoStartNextPowerIrp) before the request ends.
// Devices whose power code may be paged out get their requests at PASSIVE_LEVEL, from a system thread where need be.
#include "kernel/io_internal.h"
#include "kernel/verifier.h"
#include "kernel/work.h"

namespace nt {

namespace {

bool mustDefer(PDEVICE_OBJECT device) { return (device->Flags & DO_POWER_PAGABLE) && KeGetCurrentIrql() != PASSIVE_LEVEL; }

// Sends the request now, or from a system thread. `device` keeps a reference until it has been sent.
NTSTATUS sendPower(PDEVICE_OBJECT device, PIRP irp) {
    IrpRecord* record = recordOf(irp);
    if (!mustDefer(device) || !record) {
        return IoCallDriver(device, irp);
    }
    referenceDevice(device);
    record->device = device;
    record->work.context = record;
    record->work.routine = [](void* context) {
        auto r = static_cast<IrpRecord*>(context);
        PDEVICE_OBJECT target = r->device;
        IoCallDriver(target, &r->irp);
        dereferenceDevice(target);
    };
    queueWork(record->work);
    return STATUS_PENDING;
}

void checkStarts(IrpRecord& record) {
    LONG visits = record.powerVisits.load(std::memory_order_relaxed);
    LONG starts = record.powerStarts.load(std::memory_order_relaxed);
    if (visits != starts) {
        verifier::stop("P6", "IoCompleteRequest", &record.irp,
                       "%d drivers got the power request, PoStartNextPowerIrp was called %d times", visits, starts);
    }
}

void finishPower(IrpRecord& record) {
    if (verifying()) {
        checkStarts(record);
    }
    IO_STATUS_BLOCK status = record.irp.IoStatus;
    if (record.powerComplete) {
        record.powerComplete(record.powerDevice, record.powerMinor, record.powerState, record.powerContext, &status);
    }
    PDEVICE_OBJECT device = record.powerDevice;
    PDEVICE_OBJECT top = record.powerTop;
    PDEVICE_OBJECT bottom = record.powerBottom;
    SYSTEM_POWER_STATE deepest = record.powerState.SystemState;
    record.allocated = false;
    unpinIrp(record);
    if (bottom) {
        bottom->DeviceObjectExtension->waitWakes.fetch_sub(1);
        dereferenceDevice(bottom);
        if (NT_SUCCESS(status.Status)) {
            deviceWoke(deepest);
        }
    }
    dereferenceDevice(top);
    dereferenceDevice(device);
}

}  // namespace

NTSTATUS requestPower(PDEVICE_OBJECT device, const PowerRequest& wanted, PIRP* irp) {
    PDEVICE_OBJECT top = topOfStack(device);
    IrpRecord* record = allocateIrp(top->StackSize, wanted.mayFail);
    if (!record) {
        dereferenceDevice(top);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    referenceDevice(device);
    record->finish = finishPower;
    record->powerDevice = device;
    record->powerTop = top;
    record->powerBottom = nullptr;
    record->powerMinor = wanted.minor;
    record->powerState = wanted.state;
    record->powerComplete = wanted.complete;
    record->powerContext = wanted.context;
    record->irp.IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(&record->irp);
    location->MajorFunction = IRP_MJ_POWER;
    location->MinorFunction = wanted.minor;
    if (wanted.minor == IRP_MN_WAIT_WAKE) {
        record->powerBottom = bottomOfStack(device);
        record->powerBottom->DeviceObjectExtension->waitWakes.fetch_add(1);
        location->Parameters.WaitWake.PowerState = wanted.state.SystemState;
    } else {
        location->Parameters.Power.Type = wanted.type;
        location->Parameters.Power.State = wanted.state;
        location->Parameters.Power.ShutdownType = wanted.action;
    }
    if (irp) {
        *irp = &record->irp;
    }
    sendPower(top, &record->irp);
    return STATUS_PENDING;
}

}  // namespace nt

using namespace nt;

extern "C" {

NTSTATUS NTAPI PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return sendPower(DeviceObject, Irp); }

VOID NTAPI PoStartNextPowerIrp(PIRP Irp) {
    IrpRecord* record = recordOf(Irp);
    if (!record) {
        return;
    }
    LONG starts = record->powerStarts.fetch_add(1, std::memory_order_relaxed) + 1;
    if (verifying() && (!record->allocated || starts > record->powerVisits.load(std::memory_order_relaxed))) {
        verifier::stop("P6", "PoStartNextPowerIrp", Irp, "called %d times for a request %d drivers got", starts,
                       record->powerVisits.load(std::memory_order_relaxed));
    }
}

POWER_STATE NTAPI PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State) {
    // The state known so far comes back; a device starts in D0.
    auto& known = DeviceObject->DeviceObjectExtension->powerState;
    POWER_STATE before = State;
    if (Type == DevicePowerState) {
        before.DeviceState = known.exchange(State.DeviceState);
    }
    return before;
}

NTSTATUS NTAPI PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                 PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP* Irp) {
    verifier::checkIrqlMax("PoRequestPowerIrp", DISPATCH_LEVEL);
    if (MinorFunction != IRP_MN_WAIT_WAKE && MinorFunction != IRP_MN_SET_POWER && MinorFunction != IRP_MN_QUERY_POWER) {
        return STATUS_INVALID_PARAMETER_2;
    }
    PowerRequest wanted;
    wanted.minor = MinorFunction;
    wanted.state = PowerState;
    wanted.complete = CompletionFunction;
    wanted.context = Context;
    return requestPower(DeviceObject, wanted, Irp);
}

}  // extern "C"
