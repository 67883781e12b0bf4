// Power requests and wake.
//
//   D0 --set D1..D3 passes down--> low (paths and timers stopped, PowerOnEvent clear)
//   low --set D0 completed below--> D0 (paths and tick started, PowerOnEvent set, PowerOnWorker queued)
//   system set-power: completed below -> device request issued -> its callback completes the system request
//   wait-wake: WakeIrp set while it is outstanding; its completion clears it, a canceller takes it out
//
// Completions may run at DISPATCH_LEVEL and hold no reference: each is counted by the rundown from the
// moment it is set up.
#include "wdmpwr.h"

#include "pnpadd.h"
#include "wrsupport.h"

static const CHAR Unknown[] = "unknown";

static const CHAR* const SystemStateNames[] = {
    "PowerSystemUnspecified", "PowerSystemWorking",   "PowerSystemSleeping1", "PowerSystemSleeping2",
    "PowerSystemSleeping3",   "PowerSystemHibernate", "PowerSystemShutdown",  "PowerSystemMaximum",
};
static_assert(RTL_NUMBER_OF(SystemStateNames) == PowerSystemMaximum + 1);

static const CHAR* const DeviceStateNames[] = {
    "PowerDeviceUnspecified", "PowerDeviceD0", "PowerDeviceD1", "PowerDeviceD2", "PowerDeviceD3", "PowerDeviceMaximum",
};
static_assert(RTL_NUMBER_OF(DeviceStateNames) == PowerDeviceMaximum + 1);

static const CHAR* const ActionNames[] = {
    "PowerActionNone",     "PowerActionReserved",      "PowerActionSleep",       "PowerActionHibernate",
    "PowerActionShutdown", "PowerActionShutdownReset", "PowerActionShutdownOff",
};
static_assert(RTL_NUMBER_OF(ActionNames) == PowerActionShutdownOff + 1);

static const CHAR* const TypeNames[] = {"System", "Device"};

template <ULONG N> static const CHAR* NameOf(const CHAR* const (&Names)[N], ULONG Value)
{
    return Value < N ? Names[Value] : Unknown;
}

static const CHAR* StateName(POWER_STATE_TYPE Type, POWER_STATE State)
{
    return Type == SystemPowerState ? NameOf(SystemStateNames, (ULONG)State.SystemState)
                                    : NameOf(DeviceStateNames, (ULONG)State.DeviceState);
}

static VOID TracePowerIrp(DEVICE* Dev, const WCHAR* Letter, PIO_STACK_LOCATION Stack)
{
    const POWER_STATE_TYPE Type = Stack->Parameters.Power.Type;
    const CHAR* State = StateName(Type, Stack->Parameters.Power.State);
    const CHAR* Action = NameOf(ActionNames, (ULONG)Stack->Parameters.Power.ShutdownType);
    const CHAR* TypeName = NameOf(TypeNames, (ULONG)Type);
    switch (Stack->MinorFunction) {
    case IRP_MN_WAIT_WAKE:
        TRACE(TRC_PNP, "%P:%S%S:POWER IRP: IRP_MN_WAIT_WAKE  PowerState:%s\n", PORT_NAME(Dev), Letter,
              NameOf(SystemStateNames, (ULONG)Stack->Parameters.WaitWake.PowerState));
        break;
    case IRP_MN_SET_POWER:
        TRACE(TRC_PNP, "%P:%S%S,POWER IRP: IRP_MN_SET_POWER(%s) State:%s Action:%s\n", PORT_NAME(Dev), Letter, TypeName, State, Action);
        break;
    case IRP_MN_QUERY_POWER:
        TRACE(TRC_PNP, "%P:%S%S:POWER IRP: IRP_MN_QUERY_POWER(%s) State:%s Action:%s\n", PORT_NAME(Dev), Letter, TypeName, State, Action);
        break;
    default:
        TRACE(TRC_PNP, "%P:%S%S:POWER IRP: MN:%B  Type:%s State:%s Action:%s\n", PORT_NAME(Dev), Letter, (ULONG)Stack->MinorFunction,
              TypeName, State, Action);
        break;
    }
}

NTSTATUS PassDownPowerIrp(PDEVICE_OBJECT Lower, PIRP Irp, PIO_COMPLETION_ROUTINE Routine, VOID* Context)
{
    if (Routine != NULL) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        IoSetCompletionRoutine(Irp, Routine, Context, TRUE, TRUE, TRUE);
    } else {
        PoStartNextPowerIrp(Irp);
        IoSkipCurrentIrpStackLocation(Irp);
    }
    return PoCallDriver(Lower, Irp);
}

static NTSTATUS FailPowerIrp(PIRP Irp, NTSTATUS Status)
{
    PoStartNextPowerIrp(Irp);
    Irp->IoStatus.Status = Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

// --- System power -------------------------------------------------------------------------------

static DEVICE_POWER_STATE DeviceStateFor(const DEVICE* Dev, SYSTEM_POWER_STATE State)
{
    if (State == PowerSystemWorking)
        return PowerDeviceD0;
    if ((ULONG)State < PowerSystemMaximum)
        return Dev->Capabilities.DeviceState[State];
    KASSERT(0);
    return PowerDeviceD3;
}

static NTSTATUS RequestDevicePower(DEVICE* Dev, DEVICE_POWER_STATE DeviceState, PREQUEST_POWER_COMPLETE Callback, VOID* Context)
{
    const PDEVICE_OBJECT Lower = LoadShared(&Dev->LowerDevObj);
    POWER_STATE State;
    State.DeviceState = DeviceState;
    return Lower != NULL ? PoRequestPowerIrp(Lower, IRP_MN_SET_POWER, State, Callback, Context, NULL) : STATUS_DEVICE_REMOVED;
}

VOID PwrSetDevicePowerCallback(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState, PVOID Context, PIO_STATUS_BLOCK IoStatus)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    DEVICE* dev = (DEVICE*)Context;
    PIRP Irp = dev->systemPowerIrp;
    dev->systemPowerIrp = NULL;
    TRACE(TRC_PNP, "%P:%S:PwrSetDevicePowerCallback (%D)\n", PORT_NAME(dev), IoStatus->Status);
    PoStartNextPowerIrp(Irp);
    Irp->IoStatus.Status = IoStatus->Status;
    Irp->IoStatus.Information = IoStatus->Information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    RundownLeave(dev);
}

NTSTATUS PwrIrpCompletionSetSystem(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    DEVICE* dev = (DEVICE*)Context;
    if (!NT_SUCCESS(Irp->IoStatus.Status)) {
        TRACE(TRC_ERROR, "%P:%S:PwrIrpCompletionSetSystem: irp:%p failed (%D)\n", PORT_NAME(dev), Irp, Irp->IoStatus.Status);
        PoStartNextPowerIrp(Irp);
        RundownLeave(dev);
        return STATUS_SUCCESS;
    }
    const DEVICE_POWER_STATE State = DeviceStateFor(dev, IoGetCurrentIrpStackLocation(Irp)->Parameters.Power.State.SystemState);
    KASSERT(dev->systemPowerIrp == NULL);
    dev->systemPowerIrp = Irp;
    const NTSTATUS Status = RequestDevicePower(dev, State, PwrSetDevicePowerCallback, dev);
    if (NT_SUCCESS(Status))
        return STATUS_MORE_PROCESSING_REQUIRED;
    TRACE(TRC_ASSERT, "%P:%S:PwrIrpCompletionSetSystem: PoRequestPowerIrp failed (%D)\n", PORT_NAME(dev), Status);
    dev->systemPowerIrp = NULL;
    Irp->IoStatus.Status = Status;
    PoStartNextPowerIrp(Irp);
    RundownLeave(dev);
    return STATUS_SUCCESS;
}

static NTSTATUS SetSystemPower(DEVICE* Dev, PDEVICE_OBJECT Lower, PIRP Irp)
{
    RundownEnter(Dev);
    IoMarkIrpPending(Irp);
    PassDownPowerIrp(Lower, Irp, PwrIrpCompletionSetSystem, Dev);
    return STATUS_PENDING;
}

// --- Device power -------------------------------------------------------------------------------

// A wait request whose cancellation waits for the timer would wait for ever once the timer is gone.
static VOID CancelDelayedWait(DEVICE* Dev)
{
    KIRQL Irql;
    if (!CancelTimerObj(&Dev->DelayWaitTimer))
        return;
    ACQUIRE(Dev, Irql);
    CompleteWaitIrp(&Dev->Port, 0);
    RELEASE(Dev, Irql);
}

static NTSTATUS SetLowDevicePower(DEVICE* Dev, PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT Lower, PIRP Irp, POWER_STATE State)
{
    KeWaitForSingleObject(&Dev->Mutex, Executive, KernelMode, FALSE, NULL);
    StoreShared(&Dev->DevicePowerState, (ULONG)State.DeviceState);
    KeClearEvent(&Dev->PowerOnEvent);
    if (Dev->PnpState == PNP_STARTED)
        StopDataPaths(Dev, 1);
    KeReleaseMutex(&Dev->Mutex, FALSE);
    CancelDelayedWait(Dev);
    CancelTimerObj(&Dev->ReinitTimer);
    PwrSetDevicePowerState(Dev);
    PoSetPowerState(DeviceObject, DevicePowerState, State);
    return PassDownPowerIrp(Lower, Irp, NULL, NULL);
}

static BOOLEAN DeviceLeft(NTSTATUS Status)
{
    return Status == STATUS_DEVICE_NOT_CONNECTED || Status == STATUS_NO_SUCH_DEVICE || Status == STATUS_DEVICE_DOES_NOT_EXIST ||
           Status == STATUS_DEVICE_REMOVED;
}

// The bus has lost the device. Its removal may stand behind a request that waits for power: nobody waits for it any more.
// Under Lock: a return of the device takes Lower over first and clears the event then.
static VOID ReleaseWaiters(DEVICE* Dev, PDEVICE_OBJECT DeviceObject)
{
    KIRQL Irql;
    ACQUIRE(Dev, Irql);
    if (LoadShared(&Dev->LowerDevObj) == LowerOf(DeviceObject))
        KeSetEvent(&PrivateOf(Dev)->Gone, IO_NO_INCREMENT, FALSE);
    RELEASE(Dev, Irql);
}

NTSTATUS PwrCompRoutDevOn(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    if (Irp->PendingReturned)
        IoMarkIrpPending(Irp);
    if (DeviceLeft(Irp->IoStatus.Status))
        ReleaseWaiters(Dev, DeviceObject);
    if (NT_SUCCESS(Irp->IoStatus.Status) && !AttachmentSuperseded(Dev, DeviceObject)) {
        POWER_STATE State;
        State.DeviceState = PowerDeviceD0;
        // First the state: a transfer that fails at once is only restarted in D0.
        StoreShared(&Dev->DevicePowerState, (ULONG)PowerDeviceD0);
        StartDataPaths(Dev);
        StartWrTimer(Dev);
        KeSetEvent(&Dev->PowerOnEvent, IO_NO_INCREMENT, FALSE);
        QueueWorkItem(Dev, PowerOnWorker, Dev, NULL);
        PoSetPowerState(DeviceObject, DevicePowerState, State);
    }
    PoStartNextPowerIrp(Irp);
    RundownLeave(Dev);
    return STATUS_SUCCESS;
}

static NTSTATUS SetDevicePower(DEVICE* Dev, PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT Lower, PIRP Irp)
{
    const POWER_STATE State = IoGetCurrentIrpStackLocation(Irp)->Parameters.Power.State;
    if (State.DeviceState != PowerDeviceD0)
        return SetLowDevicePower(Dev, DeviceObject, Lower, Irp, State);
    RundownEnter(Dev);
    return PassDownPowerIrp(Lower, Irp, PwrCompRoutDevOn, Dev);
}

NTSTATUS PowerOnWorker(VOID* Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    IdleRestartTimer(&Dev->Idle);
    InitPort(Dev, 0);
    RequestWakeupIrp(Dev);
    // A reinitialisation that met the device asleep, or was cut short by the sleep, is made up for.
    if (!LoadShared(&Dev->Initialized) && LoadShared(&Dev->UsbDeviceEnabled))
        ScheduleReinit(Dev);
    return STATUS_SUCCESS;
}

// --- Wait-wake ----------------------------------------------------------------------------------

static IO_COMPLETION_ROUTINE WakeIrpDone;

// Completion of a wait-wake below. It clears only its own entry, and leaves a request that is just
// being cancelled to the canceller, who still needs it.
static NTSTATUS WakeIrpDone(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    DEVICE* Dev = (DEVICE*)Context;
    DEVICE_PRIVATE* Private = PrivateOf(Dev);
    NTSTATUS Status = STATUS_SUCCESS;
    KIRQL Irql;
    if (Irp->PendingReturned)
        IoMarkIrpPending(Irp);
    ACQUIRE(Dev, Irql);
    if (Dev->WakeIrp == Irp) {
        Dev->WakeIrp = NULL;
    } else if (Private->WakeCancelling == Irp) {
        Private->WakeCancelDone = 1;
        Status = STATUS_MORE_PROCESSING_REQUIRED;
    }
    RELEASE(Dev, Irql);
    RundownLeave(Dev);
    return Status;
}

static NTSTATUS PassDownWaitWake(DEVICE* Dev, PDEVICE_OBJECT Lower, PIRP Irp)
{
    KIRQL Irql;
    ACQUIRE(Dev, Irql);
    const BOOLEAN Taken = Dev->WakeIrp == NULL;
    if (Taken)
        Dev->WakeIrp = Irp;
    RELEASE(Dev, Irql);
    if (!Taken)
        return FailPowerIrp(Irp, STATUS_UNSUCCESSFUL);
    RundownEnter(Dev);
    PoStartNextPowerIrp(Irp);
    return PassDownPowerIrp(Lower, Irp, WakeIrpDone, Dev);
}

VOID CancelWakeIrp(DEVICE* Dev)
{
    DEVICE_PRIVATE* Private = PrivateOf(Dev);
    KIRQL Irql;
    ACQUIRE(Dev, Irql);
    const PIRP Irp = Dev->WakeIrp;
    Dev->WakeIrp = NULL;
    Private->WakeCancelling = Irp;
    Private->WakeCancelDone = 0;
    RELEASE(Dev, Irql);
    if (Irp == NULL)
        return;
    // The rundown outlives the completion that may run inside the cancellation.
    RundownEnter(Dev);
    IoCancelIrp(Irp);
    ACQUIRE(Dev, Irql);
    const BOOLEAN Done = Private->WakeCancelDone;
    Private->WakeCancelling = NULL;
    RELEASE(Dev, Irql);
    if (Done)
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    RundownLeave(Dev);
}

VOID WakeCompletionRoutine(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState, PVOID Context, PIO_STATUS_BLOCK IoStatus)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    DEVICE* Dev = (DEVICE*)Context;
    TRACE(TRC_PNP, "%P:%S:[WakeCompletionRoutine st:%08x\n", PORT_NAME(Dev), IoStatus->Status);
    if (NT_SUCCESS(IoStatus->Status) && LoadShared(&Dev->DevicePowerState) != PowerDeviceD0) {
        const NTSTATUS Status = RequestDevicePower(Dev, PowerDeviceD0, NULL, NULL);
        TRACE(TRC_PNP, "%P:%S:WakeCompletionRoutine: PoRequestPowerIrp returns %D\n", PORT_NAME(Dev), Status);
    }
    DecRef(Dev);
}

static VOID IssueWaitWake(DEVICE* Dev, PDEVICE_OBJECT Lower)
{
    POWER_STATE State;
    State.SystemState = Dev->Capabilities.SystemWake;
    IncRef(Dev);
    const NTSTATUS Status = PoRequestPowerIrp(Lower, IRP_MN_WAIT_WAKE, State, WakeCompletionRoutine, Dev, NULL);
    TRACE(TRC_PNP, "%P:%S:RequestWakeupIrp: PoRequestPowerIrp returns %x\n", PORT_NAME(Dev), Status);
    if (!NT_SUCCESS(Status))
        DecRef(Dev);   // its completion never comes
}

VOID RequestWakeupIrp(DEVICE* Dev)
{
    KeWaitForSingleObject(&Dev->Mutex, Executive, KernelMode, FALSE, NULL);
    const PDEVICE_OBJECT Lower = LoadShared(&Dev->LowerDevObj);
    if (Lower != NULL) {
        const PIRP WakeIrp = LoadShared(&Dev->WakeIrp);
        if (!Dev->WakeSupported) {
            if (WakeIrp != NULL)
                CancelWakeIrp(Dev);
        } else if (WakeIrp != NULL) {
            TRACE(TRC_PNP, "%P:%S:RequestWakeupIrp: Dev->WakeIrp = %x\n", PORT_NAME(Dev), (ULONG)(ULONG_PTR)WakeIrp);
        } else if (Dev->Capabilities.WakeFromD2) {
            IssueWaitWake(Dev, Lower);
        } else {
            TRACE(TRC_PNP, "%P:%S:RequestWakeupIrp: PC does not support wake up on this USB port\n", PORT_NAME(Dev));
            if (TRACE_ON(TRC_PNP))
                TraceDump(&Dev->Capabilities, sizeof(Dev->Capabilities));
        }
    }
    KeReleaseMutex(&Dev->Mutex, FALSE);
}

// --- Dispatch -----------------------------------------------------------------------------------

static NTSTATUS HandlePower(DEVICE* Dev, PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT Lower, PIRP Irp)
{
    const PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    const POWER_STATE_TYPE Type = Stack->Parameters.Power.Type;
    switch (Stack->MinorFunction) {
    case IRP_MN_WAIT_WAKE:
        return PassDownWaitWake(Dev, Lower, Irp);
    case IRP_MN_SET_POWER:
        if (Type == SystemPowerState)
            return SetSystemPower(Dev, Lower, Irp);
        if (Type == DevicePowerState)
            return SetDevicePower(Dev, DeviceObject, Lower, Irp);
        TRACE(TRC_ERROR, "%P:%S%S:DispatchPower: unknown Power.Type %D\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), (ULONG)Type);
        break;
    case IRP_MN_QUERY_POWER:
        if (Type != SystemPowerState && Type != DevicePowerState)
            TRACE(TRC_ERROR, "%P:%S%S:DispatchPower: unknown Power.Type %i\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), (ULONG)Type);
        break;
    default:
        break;
    }
    return PassDownPowerIrp(Lower, Irp, NULL, NULL);
}

NTSTATUS DispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE* Dev = ReferenceDevice(DeviceObject);
    NTSTATUS Status;
    const PDEVICE_OBJECT Lower = LowerOf(DeviceObject);
    if (Dev == NULL)
        return Lower != NULL ? PassDownPowerIrp(Lower, Irp, NULL, NULL) : FailPowerIrp(Irp, STATUS_DEVICE_REMOVED);
    TraceIncRef(Dev, LoadShared(&Dev->Ref), __FILE_NAME__, __LINE__);
    if (TRACE_ON(TRC_PNP))
        TracePowerIrp(Dev, OBJECT_LETTER(DeviceObject), IoGetCurrentIrpStackLocation(Irp));
    if (Lower == NULL)
        Status = FailPowerIrp(Irp, STATUS_DEVICE_REMOVED);
    else if (AttachmentSuperseded(Dev, DeviceObject))
        Status = PassDownPowerIrp(Lower, Irp, NULL, NULL);
    else
        Status = HandlePower(Dev, DeviceObject, Lower, Irp);
    DecRef(Dev);
    return Status;
}
