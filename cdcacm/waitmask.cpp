// Wait-on-mask: at most one stored wait request, and the events gathered for it.
//
//   no request --WAIT_ON_MASK--> stored --event, mask change, next wait, cleanup, removal--> completed
//                                  |                                                            ^
//                                  +--cancel--> stored, DelayWaitTimer runs --100 ms------------+
//
// A stored request counts in the rundown until its cancel routine can no longer run: the side that takes
// the routine out of the request leaves, and that is the routine itself once it has been called. Each
// store gets a generation, which the routine brings along: a request that comes back with the same
// address is not taken for the cancelled one.
#include "pnpadd.h"

// What a stored request carries in its driver-context words for the cancel routine.
enum : ULONG { WAIT_CONTEXT_DEVICE = 0, WAIT_CONTEXT_GENERATION = 1 };

VOID IndicateWaitEvent(PORT_OBJ* Port, ULONG Events)
{
    TRACE(TRC_WAIT, "%P:IndicateWaitEvent Mask: %x\n", Events);
    Port->PendingEvents |= Events & Port->SerPort->Settings.WaitMask;
    if (Port->WaitIrp == NULL || Port->PendingEvents == 0)
        return;
    const ULONG Pending = Port->PendingEvents;
    Port->PendingEvents = 0;
    CompleteWaitIrp(Port, Pending);
}

VOID CompleteWaitIrp(PORT_OBJ* Port, ULONG Events)
{
    DEVICE* Dev = Port->Device;
    CancelTimerObj(&Dev->DelayWaitTimer);
    const PIRP Irp = Port->WaitIrp;
    if (Irp == NULL)
        return;
    TRACE(TRC_WAIT, "%P:Complete Wait IRP: %x Mask: %x\n", (ULONG)(ULONG_PTR)Irp, Events);
    Port->WaitIrp = NULL;
    if (IoSetCancelRoutine(Irp, NULL) != NULL)
        RundownLeave(Dev);
    Irp->IoStatus.Status = LoadShared(&Dev->UsbDeviceEnabled) == 1 ? STATUS_SUCCESS : STATUS_DEVICE_REMOVED;
    Irp->IoStatus.Information = sizeof(ULONG);
    *(ULONG*)Irp->AssociatedIrp.SystemBuffer = Events;
    CompleteQueue_Add(&Dev->CompleteQueue, Irp);
}

// Arms the cancel routine. FALSE: the request was cancelled before and the routine will not run.
static BOOLEAN ArmWaitCancel(DEVICE* Dev, PIRP Irp) _Requires_lock_held_(DeviceLock)
{
    const ULONG Generation = ++PrivateOf(Dev)->WaitGeneration;
    Irp->Tail.Overlay.DriverContext[WAIT_CONTEXT_DEVICE] = Dev;
    Irp->Tail.Overlay.DriverContext[WAIT_CONTEXT_GENERATION] = (VOID*)(ULONG_PTR)Generation;
    RundownEnter(Dev);
    if (IoSetCancelRoutine(Irp, WaitIrp_IrpCancelRoutine) != NULL)
        RundownLeave(Dev);   // the same request again: counted when it was stored first
    if (!Irp->Cancel || IoSetCancelRoutine(Irp, NULL) == NULL)
        return TRUE;
    RundownLeave(Dev);
    return FALSE;
}

NTSTATUS WaitOnMask(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    if (Port->SerPort->Settings.WaitMask == 0) {
        TRACE(TRC_ERROR, "%P:%S%S:IOCTL_SERIAL_WAIT_ON_MASK: failing request, WaitMask==zero\n", PORT_NAME(Dev),
              OBJECT_LETTER(DeviceObject));
        return STATUS_INVALID_PARAMETER;
    }
    if (PrivateOf(Dev)->CleanedUp)
        return STATUS_CANCELLED;
    if (Port->WaitIrp != Irp)
        CompleteWaitIrp(Port, 0);
    else
        TRACE(TRC_ASSERT, "%P:%S%S:Upper driver sends the same WaitIrp again\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    TRACE(TRC_WAIT, "%P:%S%S:Store new wait IRP: %D\n",
          PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), (ULONG)(ULONG_PTR)Irp);
    if (!ArmWaitCancel(Dev, Irp)) {
        if (Port->WaitIrp == Irp) {
            Port->WaitIrp = NULL;
            CancelTimerObj(&Dev->DelayWaitTimer);
        }
        return STATUS_CANCELLED;
    }
    Port->WaitIrp = Irp;
    IoMarkIrpPending(Irp);
    IndicateWaitEvent(Port, 0);
    return STATUS_PENDING;
}

// The request may be completed as soon as the cancel lock is free: nothing of it is read after that.
VOID WaitIrp_IrpCancelRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KIRQL Irql;
    UNREFERENCED_PARAMETER(DeviceObject);
    DEVICE* Dev = (DEVICE*)Irp->Tail.Overlay.DriverContext[WAIT_CONTEXT_DEVICE];
    const ULONG Generation = (ULONG)(ULONG_PTR)Irp->Tail.Overlay.DriverContext[WAIT_CONTEXT_GENERATION];
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    TRACE(TRC_WAIT, "%P:WaitIrp_IrpCancelRoutine\n");
    ACQUIRE(Dev, Irql);
    if (Dev->Port.WaitIrp != NULL && PrivateOf(Dev)->WaitGeneration == Generation) {
        PrivateOf(Dev)->CancelledGeneration = Generation;
        ArmTimerObj(&Dev->DelayWaitTimer);
    }
    RELEASE(Dev, Irql);
    RundownLeave(Dev);
}

VOID DelayWaitCancelFnc(TIMER_OBJ* Timer, VOID* Context)
{
    KIRQL Irql;
    DEVICE* Dev = (DEVICE*)Context;
    UNREFERENCED_PARAMETER(Timer);
    TRACE(TRC_PROGRESS, "%P:%S:DelayWaitCancelFnc\n", PORT_NAME(Dev));
    ACQUIRE(Dev, Irql);
    if (PrivateOf(Dev)->CancelledGeneration == PrivateOf(Dev)->WaitGeneration)
        CompleteWaitIrp(&Dev->Port, 0);
    RELEASE(Dev, Irql);
}
