// Power requests: sent to the top of a device's stack, passed on by PoCallDriver, and counted.
//
// A stack has one request for a system state and one for a device state at a time; the next of its kind is sent when that has ended.
// Wait-wakes stand beside them. Each driver that gets a power request says once that it is ready for the next one
// (PoStartNextPowerIrp) before the request ends.
// Devices whose power code may be paged out get their requests at PASSIVE_LEVEL, from a system thread where need be.
#include "kernel/io_internal.h"
#include "kernel/verifier.h"
#include "kernel/work.h"

namespace nt {

namespace {

bool mustDefer(PDEVICE_OBJECT device) { return (device->Flags & DO_POWER_PAGABLE) && KeGetCurrentIrql() != PASSIVE_LEVEL; }

// Sends the request from a system thread. `device` keeps a reference until it has been sent.
void sendLater(PDEVICE_OBJECT device, IrpRecord& record) {
    referenceDevice(device);
    record.device = device;
    record.work.context = &record;
    record.work.routine = [](void* context) {
        auto r = static_cast<IrpRecord*>(context);
        PDEVICE_OBJECT target = r->device;
        IoCallDriver(target, &r->irp);
        dereferenceDevice(target);
    };
    queueWork(record.work);
}

// Now, or from a system thread where it must be.
NTSTATUS sendPower(PDEVICE_OBJECT device, PIRP irp) {
    IrpRecord* record = recordOf(irp);
    if (!mustDefer(device) || !record) {
        return IoCallDriver(device, irp);
    }
    sendLater(device, *record);
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

// Guards powerActive, powerLast and powerNext.
TinyLock orderLock;

bool takesTurns(const IrpRecord& record) { return record.powerMinor != IRP_MN_WAIT_WAKE; }

// False: one is under way, this one is sent when its turn comes.
bool takeTurn(IrpRecord& record) {
    if (!takesTurns(record)) {
        return true;
    }
    TinyGuard guard(orderLock);
    auto& mine = *record.powerBottom->DeviceObjectExtension;
    IrpRecord*& last = mine.powerLast[record.powerType];
    if (mine.powerActive[record.powerType]) {
        last->powerNext = &record;
        last = &record;
        return false;
    }
    mine.powerActive[record.powerType] = last = &record;
    return true;
}

// The one that is to be sent now, or null.
IrpRecord* passTurn(IrpRecord& record) {
    if (!takesTurns(record)) {
        return nullptr;
    }
    TinyGuard guard(orderLock);
    return record.powerBottom->DeviceObjectExtension->powerActive[record.powerType] = record.powerNext;
}

void finishPower(IrpRecord& record) {
    if (verifying()) {
        checkStarts(record);
    }
    IO_STATUS_BLOCK status = record.irp.IoStatus;
    IrpRecord* next = passTurn(record);
    if (record.powerComplete) {
        record.powerComplete(record.powerDevice, record.powerMinor, record.powerState, record.powerContext, &status);
    }
    PDEVICE_OBJECT device = record.powerDevice;
    PDEVICE_OBJECT top = record.powerTop;
    PDEVICE_OBJECT bottom = record.powerBottom;
    const bool wake = record.powerMinor == IRP_MN_WAIT_WAKE;
    SYSTEM_POWER_STATE deepest = record.powerState.SystemState;
    record.allocated = false;
    unpinIrp(record);
    if (wake) {
        bottom->DeviceObjectExtension->waitWakes.fetch_sub(1);
        if (NT_SUCCESS(status.Status)) {
            deviceWoke(deepest);
        }
    }
    // Its drivers may wait for what this thread has yet to do.
    if (next) {
        sendLater(next->powerTop, *next);
    }
    dereferenceDevice(bottom);
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
    record->powerBottom = bottomOfStack(device);
    record->powerNext = nullptr;
    record->powerMinor = wanted.minor;
    record->powerType = wanted.type;
    record->powerState = wanted.state;
    record->powerComplete = wanted.complete;
    record->powerContext = wanted.context;
    record->irp.IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(&record->irp);
    location->MajorFunction = IRP_MJ_POWER;
    location->MinorFunction = wanted.minor;
    if (wanted.minor == IRP_MN_WAIT_WAKE) {
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
    if (takeTurn(*record)) {
        sendPower(top, &record->irp);
    }
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
