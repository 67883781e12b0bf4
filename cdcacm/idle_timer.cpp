// Idle detection and selective suspend.
//
//   off (Interval 0 or no wake from D2)
//   counting --interval passed, nothing to send--> idle --worker submits--> submitted
//   counting --interval passed, data to send--> counting
//   submitted --bus calls IdleCallback--> suspended (D2)
//   idle, submitted, suspended --activity or wake--> counting (in D0 again)
//
// The notification is cancelled by activity; its completion asks for D0. Whoever waits for power is
// also let go once the USB function is gone: the bus may never bring a removed device back to D0.
#include "idle_timer.h"

#include "pnpadd.h"
#include "wdmpwr.h"

static BOOLEAN NotificationDone(const IDLE_CTX* Idle) { return KeReadStateEvent((PKEVENT)&Idle->IrpDoneEvent) != 0; }

static BOOLEAN IdleDetectionOn(const IDLE_CTX* Idle)
{
    return LoadShared(&Idle->Interval) != 0 && LoadShared(&Idle->Dev->WakeSupported) == 1;
}

VOID IdleInit(IDLE_CTX* Idle, DEVICE* Dev, ULONG IntervalMs)
{
    KASSERT(IRQL_EQ_PASSIVE());
    RtlZeroMemory(Idle, sizeof(*Idle));
    Idle->Dev = Dev;
    Idle->Interval = IntervalMs;
    InitTimerObj(&Idle->IdleTimer, IdleTimerFnc, Idle, IntervalMs);
    Idle->IdleNotificationIrp = IoAllocateIrp(Dev->StackSize, FALSE);
    Idle->CallbackInfo.IdleCallback = (USB_IDLE_CALLBACK)IdleCallback;
    Idle->CallbackInfo.IdleContext = Idle;
    KeInitializeEvent(&Idle->IrpDoneEvent, NotificationEvent, TRUE);
    KeInitializeSpinLock(&Idle->IdleLock);
    KeInitializeEvent(&Idle->D2Event, NotificationEvent, FALSE);
    KeInitializeEvent(&Idle->D0Event, NotificationEvent, TRUE);
}

// Until the device is in D0, or gone.
static VOID WaitForPower(DEVICE* Dev)
{
    PVOID Objects[] = {&Dev->PowerOnEvent, &PrivateOf(Dev)->Gone};
    KeWaitForMultipleObjects(RTL_NUMBER_OF(Objects), Objects, WaitAny, Executive, KernelMode, FALSE, NULL, NULL);
}

VOID IdleActivity(IDLE_CTX* Idle)
{
    KIRQL Irql;
    if (!IdleDetectionOn(Idle))   // what is off stays off: every read and write comes by here
        return;
    KeAcquireSpinLock(&Idle->IdleLock, &Irql);
    if (!IdleDetectionOn(Idle)) {
        KeReleaseSpinLock(&Idle->IdleLock, Irql);
        return;
    }
    Idle->IsIdle = 0;
    ArmTimerObj(&Idle->IdleTimer);
    KeReleaseSpinLock(&Idle->IdleLock, Irql);
    CancelIdleNotification(Idle);
    // A client in the kernel may come from a completion: it cannot wait and must find the device awake.
    if (KeGetCurrentIrql() > APC_LEVEL) {
        KASSERT(NotificationDone(Idle) && KeReadStateEvent(&Idle->Dev->PowerOnEvent) != 0);
        return;
    }
    KeWaitForSingleObject(&Idle->IrpDoneEvent, Executive, KernelMode, FALSE, NULL);
    WaitForPower(Idle->Dev);
}

VOID IdleRestartTimer(IDLE_CTX* Idle)
{
    KIRQL Irql;
    if (!IdleDetectionOn(Idle))
        return;
    KeAcquireSpinLock(&Idle->IdleLock, &Irql);
    if (IdleDetectionOn(Idle)) {
        Idle->IsIdle = 0;
        ArmTimerObj(&Idle->IdleTimer);
    }
    KeReleaseSpinLock(&Idle->IdleLock, Irql);
}

VOID CancelIdleNotification(IDLE_CTX* Idle)
{
    if (Idle->IdleNotificationIrp != NULL && !NotificationDone(Idle)) {
        TRACE(TRC_COUNTS, "%P:CancelIdleNotification cancel idle notification\n");
        IoCancelIrp(Idle->IdleNotificationIrp);
    }
}

static BOOLEAN NothingToSend(DEVICE* Dev)
{
    KIRQL Irql;
    ACQUIRE(Dev, Irql);
    const BOOLEAN Empty = Dev->Port.SerPort->CircSendBuf.Empty && PoolIsFull(Dev->Snd.Pool);
    RELEASE(Dev, Irql);
    return Empty;
}

// Activity that came after the expiry and before this has armed the timer again: the interval has begun anew, and what that
// activity brings is perhaps not to be seen yet.
VOID IdleTimerFnc(TIMER_OBJ* Timer, VOID* Context)
{
    IDLE_CTX* Idle = (IDLE_CTX*)Context;
    KIRQL Irql;
    if (!NothingToSend(Idle->Dev)) {
        TRACE(TRC_PROGRESS, "%P:%S:IdleTimerFnc: TX HANGS, still TX data after idle period\n", PORT_NAME(Idle->Dev));
        IdleRestartTimer(Idle);
        return;
    }
    KeAcquireSpinLock(&Idle->IdleLock, &Irql);
    const BOOLEAN Expired = KeReadStateTimer(&Timer->Timer);
    if (Expired)
        Idle->IsIdle = 1;
    KeReleaseSpinLock(&Idle->IdleLock, Irql);
    if (Expired && !QueueWorkItem(Idle->Dev, IdleTimerWorker, Idle, NULL))
        IdleRestartTimer(Idle);
}

NTSTATUS IdleTimerWorker(VOID* Context)
{
    IDLE_CTX* Idle = (IDLE_CTX*)Context;
    TRACE(TRC_PROGRESS, "%P:%S:IdleTimerWorker\n", PORT_NAME(Idle->Dev));
    SubmitIdleNotification(Idle);
    return STATUS_SUCCESS;
}

// What stands against a submission now; STATUS_PENDING when nothing does.
static NTSTATUS CheckSubmission(IDLE_CTX* Idle)
{
    if (!Idle->IsIdle) {
        TRACE(TRC_COUNTS, "%P:SubmitIdleNotification  Device is not longer idle\n");
        return STATUS_SUCCESS;
    }
    if (!NotificationDone(Idle)) {
        TRACE(TRC_COUNTS, "%P:SubmitIdleNotification  IdleNotificationIrp is already submitted\n");
        return STATUS_SUCCESS;
    }
    if (Idle->IdleNotificationIrp == NULL) {
        TRACE(TRC_ERROR, "%P:SubmitIdleNotification  error: IdleNotificationIrp == NULL\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (LoadShared(&Idle->Dev->LowerDevObj) == NULL) {
        TRACE(TRC_ERROR, "%P:SubmitIdleNotification  error: LowerDevice removed == NULL\n");
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_PENDING;
}

NTSTATUS SubmitIdleNotification(IDLE_CTX* Idle)
{
    DEVICE* Dev = Idle->Dev;
    KIRQL Irql;
    KeAcquireSpinLock(&Idle->IdleLock, &Irql);
    const NTSTATUS Status = CheckSubmission(Idle);
    const PDEVICE_OBJECT Lower = LoadShared(&Dev->LowerDevObj);
    if (Status != STATUS_PENDING) {
        KeReleaseSpinLock(&Idle->IdleLock, Irql);
        return Status;
    }
    PIRP Irp = Idle->IdleNotificationIrp;
    IoReuseIrp(Irp, STATUS_UNSUCCESSFUL);
    PIO_STACK_LOCATION Next = IoGetNextIrpStackLocation(Irp);
    Next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    Next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION;
    Next->Parameters.DeviceIoControl.InputBufferLength = sizeof(Idle->CallbackInfo);
    Next->Parameters.DeviceIoControl.Type3InputBuffer = &Idle->CallbackInfo;
    IoSetCompletionRoutine(Irp, NotificationIrpComplete, Idle, TRUE, TRUE, TRUE);
    InterlockedExchange(&PrivateOf(Dev)->ResumeRequested, 0);
    RundownEnter(Dev);
    KeClearEvent(&Idle->IrpDoneEvent);
    KeReleaseSpinLock(&Idle->IdleLock, Irql);
    TRACE(TRC_COUNTS, "%P:SubmitIdleNotification submit the IRP\n");
    return IoCallDriver(Lower, Irp);
}

VOID CompletionFunctionD0(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState, PVOID Context, PIO_STATUS_BLOCK IoStatus)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    UNREFERENCED_PARAMETER(IoStatus);
    IDLE_CTX* Idle = (IDLE_CTX*)Context;
    DEVICE* Dev = Idle->Dev;
    KeSetEvent(&Idle->D0Event, IO_NO_INCREMENT, FALSE);
    RundownLeave(Dev);
}

VOID CompletionFunctionD2(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState, PVOID Context, PIO_STATUS_BLOCK IoStatus)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    UNREFERENCED_PARAMETER(IoStatus);
    IDLE_CTX* Idle = (IDLE_CTX*)Context;
    KeSetEvent(&Idle->D2Event, IO_NO_INCREMENT, FALSE);
}

// Ask for D0, once for each notification.
static VOID RequestResume(IDLE_CTX* Idle)
{
    DEVICE* Dev = Idle->Dev;
    const PDEVICE_OBJECT Lower = LoadShared(&Dev->LowerDevObj);
    POWER_STATE State;
    if (Lower == NULL || InterlockedExchange(&PrivateOf(Dev)->ResumeRequested, 1) != 0)
        return;
    KeClearEvent(&Idle->D0Event);
    State.DeviceState = PowerDeviceD0;
    RundownEnter(Dev);
    const NTSTATUS Status = PoRequestPowerIrp(Lower, IRP_MN_SET_POWER, State, CompletionFunctionD0, Idle, NULL);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:RequestResume: PoRequestPowerIrp failed (%D)\n", PORT_NAME(Dev), Status);
        KeSetEvent(&Idle->D0Event, IO_NO_INCREMENT, FALSE);
        RundownLeave(Dev);
    }
}

// Put the device into D2 and wait until it is there. FALSE when that could not even be asked for.
static BOOLEAN RequestSuspend(IDLE_CTX* Idle)
{
    const PDEVICE_OBJECT Lower = LoadShared(&Idle->Dev->LowerDevObj);
    POWER_STATE State;
    KeClearEvent(&Idle->D2Event);
    if (Lower == NULL)
        return TRUE;
    State.DeviceState = PowerDeviceD2;
    const NTSTATUS Status = PoRequestPowerIrp(Lower, IRP_MN_SET_POWER, State, CompletionFunctionD2, Idle, NULL);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:IdleCallback: PoRequestPowerIrp failed (%D)\n", PORT_NAME(Idle->Dev), Status);
        KeSetEvent(&Idle->D2Event, IO_NO_INCREMENT, FALSE);
    }
    KeWaitForSingleObject(&Idle->D2Event, Executive, KernelMode, FALSE, NULL);
    return NT_SUCCESS(Status);
}

VOID NTAPI IdleCallback(PVOID Context)
{
    IDLE_CTX* Idle = (IDLE_CTX*)Context;
    DEVICE* Dev = Idle->Dev;
    KIRQL Irql;
    RequestWakeupIrp(Dev);
    KeAcquireSpinLock(&Idle->IdleLock, &Irql);
    const BOOLEAN StillIdle = Idle->IsIdle && !NotificationDone(Idle);
    KeReleaseSpinLock(&Idle->IdleLock, Irql);
    if (!StillIdle)
        return;
    StopSnd(&Dev->Snd, 1);
    StopRcv(&Dev->Rcv, 1);
    StopRcv(&Dev->Int, 1);
    if (!RequestSuspend(Idle))
        StartDataPaths(Dev);
    // A notification that ended while the device was on its way down saw D0 and asked for nothing.
    if (NotificationDone(Idle) && LoadShared(&Dev->DevicePowerState) != PowerDeviceD0)
        RequestResume(Idle);
    TRACE(TRC_COUNTS, "%P:IdleCallback *** SUSPENDED ***\n");
}

NTSTATUS NotificationIrpComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    IDLE_CTX* Idle = (IDLE_CTX*)Context;
    DEVICE* Dev = Idle->Dev;
    TRACE(TRC_COUNTS, "%P:NotificationIrpComplete (%D)\n", Irp->IoStatus.Status);
    if (LoadShared(&Dev->DevicePowerState) != PowerDeviceD0)
        RequestResume(Idle);
    KeSetEvent(&Idle->IrpDoneEvent, IO_NO_INCREMENT, FALSE);
    TRACE(TRC_COUNTS, "%P:NotificationIrpComplete *** WORKING ***\n");
    RundownLeave(Dev);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

VOID IdleStop(IDLE_CTX* Idle)
{
    KIRQL Irql;
    KeAcquireSpinLock(&Idle->IdleLock, &Irql);
    StoreShared(&Idle->Interval, (ULONG)0);
    Idle->IsIdle = 0;
    CancelTimerObj(&Idle->IdleTimer);
    KeReleaseSpinLock(&Idle->IdleLock, Irql);
    // Not under the lock: the completion may run inside the cancellation.
    CancelIdleNotification(Idle);
    KeWaitForSingleObject(&Idle->IrpDoneEvent, Executive, KernelMode, FALSE, NULL);
    if (Idle->IdleNotificationIrp != NULL)
        IoFreeIrp(Idle->IdleNotificationIrp);
    Idle->IdleNotificationIrp = NULL;
    WaitForPower(Idle->Dev);
    KeWaitForSingleObject(&Idle->D0Event, Executive, KernelMode, FALSE, NULL);
}
