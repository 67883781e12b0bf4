// Transfer contexts and the bulk paths.
//
//            StartRcv/StartSnd                first error in a row: RestartRead resets and starts again
//   stopped ------------------> started ----> error ---> stopped (receive) / started, packet kept (send)
//      ^                          |           further errors: ScheduleReinit
//      +-- StopRcv/StopSnd, DEVICE_GONE
//
// A packet is in its pool, with the bus driver, on PacketList or, for the time of a hand-over, with one
// caller. A stop with Wait ends when all are home and no completion routine is at work; meanwhile nothing
// is submitted. Started, Pipe and the lists change under Lock. A transfer holds its USB_PIPE record.
#include "sndrcv.h"

#include "pnpadd.h"
#include "transfer.h"

enum : ULONG {
    URB_STATUS_NONE = 0xFFFFFFFF,
    ZLP_PACKET_SIZE = 64,         // multiples of it need an empty packet behind them
    STOP_STEP_MS = 1000,
};

// ---- Creation and deletion

static NTSTATUS InitContext(SNDRCV_PIPE* Pipe, DEVICE* Dev, USB_PIPE* UsbPipe, PKDEFERRED_ROUTINE Routine, ULONG BufferSize, ULONG Count)
{
    Pipe->Dev = Dev;
    Pipe->ErrorCount = 0;
    Pipe->RestartNeeded = 0;
    Pipe->Pipe = UsbPipe;
    InitializeListHead(&Pipe->PacketList);
    InitializeListHead(&Pipe->Private.Deferred);
    KeInitializeEvent(&Pipe->PoolEvent, NotificationEvent, FALSE);
    KeInitializeDpc(&Pipe->Dpc, Routine, Dev);
    Pipe->Pool = CreatePacketPool(Count, BufferSize, Dev->StackSize);
    return Pipe->Pool != NULL ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS InitRcvPipe(SNDRCV_PIPE* Pipe, DEVICE* Dev, RCV_HANDLER* Handler, USB_PIPE* UsbPipe, ULONG BufferSize, ULONG Count, ULONG RawHandler)
{
    Pipe->Handler.Receive = Handler;
    Pipe->RawHandler = RawHandler;
    return InitContext(Pipe, Dev, UsbPipe, RcvDpcRoutine, BufferSize, Count);
}

NTSTATUS InitSndPipe(SNDRCV_PIPE* Pipe, DEVICE* Dev, SND_HANDLER* Callback, USB_PIPE* UsbPipe, ULONG BufferSize, ULONG Count)
{
    Pipe->Handler.SendMore = Callback;
    return InitContext(Pipe, Dev, UsbPipe, SndDpcRoutine, BufferSize, Count);
}

VOID SignalIfHome(SNDRCV_PIPE* Pipe)
{
    if (PoolIsFull(Pipe->Pool))
        KeSetEvent(&Pipe->PoolEvent, IO_NO_INCREMENT, FALSE);
}

USB_PACKET* TakeListed(SNDRCV_PIPE* Pipe)
{
    if (IsListEmpty(&Pipe->PacketList))
        return NULL;
    USB_PACKET* Packet = CONTAINING_RECORD(RemoveHeadList(&Pipe->PacketList), USB_PACKET, Link);
    InitializeListHead(&Packet->Link);
    return Packet;
}

ULONG PurgeList(SNDRCV_PIPE* Pipe)
{
    ULONG Purged = 0;

    while (USB_PACKET* Packet = TakeListed(Pipe)) {
        ReturnPacket(Packet);
        Purged++;
    }
    if (Purged > 0)
        SignalIfHome(Pipe);
    return Purged;
}

static VOID DeleteContext(SNDRCV_PIPE* Pipe)
{
    KIRQL OldIrql;

    if (Pipe->Dev == NULL)
        return;
    ACQUIRE(Pipe->Dev, OldIrql);
    if (Pipe->Pool != NULL) {
        PurgeList(Pipe);
        DeletePacketPool(Pipe->Pool);
        Pipe->Pool = NULL;
    }
    RELEASE(Pipe->Dev, OldIrql);
}

VOID DeleteRcvPipe(SNDRCV_PIPE* Pipe)
{
    DeleteContext(Pipe);
}

VOID DeleteSndPipe(SNDRCV_PIPE* Pipe)
{
    DeleteContext(Pipe);
}

// ---- Submission, common part

BOOLEAN ContextReady(SNDRCV_PIPE* Pipe)
{
    return Pipe->Started == 1 && Pipe->Private.Stopping == 0 && LoadShared(&Pipe->Dev->UsbDeviceEnabled) != 0 &&
           Pipe->Dev->LowerDevObj != NULL;
}

PDEVICE_OBJECT PrepareTransfer(SNDRCV_PIPE* Pipe, USB_PACKET* Packet, ULONG Flags, ULONG Length, PMDL Mdl,
                                      PIO_COMPLETION_ROUTINE Routine)
{
    Packet->Owner = Pipe;
    Packet->UsbPipe = Pipe->Pipe;
    HoldPipe(Packet->UsbPipe);

    _URB_BULK_OR_INTERRUPT_TRANSFER* Urb = &Packet->Urb;
    RtlZeroMemory((VOID*)Urb, sizeof(*Urb));
    Urb->Hdr.Length = sizeof(*Urb);
    Urb->Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    Urb->Hdr.Status = (USBD_STATUS)URB_STATUS_NONE;
    Urb->PipeHandle = Packet->UsbPipe->PipeHandle;
    Urb->TransferFlags = Flags;
    Urb->TransferBuffer = Packet->Buffer;
    Urb->TransferBufferLength = Length;
    Urb->TransferBufferMDL = Mdl;

    PIO_STACK_LOCATION Stack = IoGetNextIrpStackLocation(Packet->Irp);
    RtlZeroMemory((VOID*)Stack, sizeof(*Stack));
    Stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    Stack->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    Stack->Parameters.Others.Argument1 = Urb;
    IoSetCompletionRoutine(Packet->Irp, Routine, Packet, TRUE, TRUE, TRUE);
    InterlockedIncrement(&Packet->UsbPipe->PendingCount);
    return Pipe->Dev->LowerDevObj;
}

NTSTATUS CallUnderLock(SNDRCV_PIPE* Pipe, PDEVICE_OBJECT Lower, PIRP Irp)
{
    DEVICE* Dev = Pipe->Dev;
    SNDRCV_PIPE* Contexts[] = {&Dev->Rcv, &Dev->Int, &Dev->Snd};

    StoreShared(&Pipe->Private.Submitter, (VOID*)KeGetCurrentThread());
    NTSTATUS Status = IoCallDriver(Lower, Irp);
    StoreShared(&Pipe->Private.Submitter, (VOID*)NULL);
    for (SNDRCV_PIPE* Context : Contexts) {
        if (!IsListEmpty(&Context->Private.Deferred))
            KeInsertQueueDpc(&Context->Dpc, Context, NULL);
    }
    return Status;
}

// Where it parks, this very thread holds Lock.
BOOLEAN DeferCompletion(USB_PACKET* Packet)
{
    DEVICE* Dev = Packet->Owner->Dev;
    const VOID* Self = (VOID*)KeGetCurrentThread();

    if (LoadShared(&Dev->Rcv.Private.Submitter) != Self && LoadShared(&Dev->Int.Private.Submitter) != Self &&
        LoadShared(&Dev->Snd.Private.Submitter) != Self)
        return FALSE;
    InsertTailList(&Packet->Owner->Private.Deferred, &Packet->Link);
    return TRUE;
}

USB_PACKET* TakeDeferred(SNDRCV_PIPE* Pipe)
{
    if (IsListEmpty(&Pipe->Private.Deferred))
        return NULL;
    USB_PACKET* Packet = CONTAINING_RECORD(RemoveHeadList(&Pipe->Private.Deferred), USB_PACKET, Link);
    InitializeListHead(&Packet->Link);
    return Packet;
}

ULONG TransferStatus(USB_PACKET* Packet)
{
    if (!NT_SUCCESS(Packet->Irp->IoStatus.Status) && Packet->Urb.Hdr.Status == 0)
        Packet->Urb.Hdr.Status = (USBD_STATUS)URB_STATUS_NONE;
    return (ULONG)Packet->Urb.Hdr.Status;
}

BOOLEAN QueueRestart(SNDRCV_PIPE* Pipe, WORK_ROUTINE* Routine)
{
    if (InterlockedCompareExchange(&Pipe->Private.RestartQueued, 1, 0) != 0)
        return TRUE;
    if (QueueWorkItem(Pipe->Dev, Routine, Pipe, NULL))
        return TRUE;
    InterlockedExchange(&Pipe->Private.RestartQueued, 0);
    return FALSE;
}

// ---- Stopping, common part

static BOOLEAN IsSend(const SNDRCV_PIPE* Pipe)
{
    return Pipe == &Pipe->Dev->Snd;
}

static VOID TraceStopWait(SNDRCV_PIPE* Pipe, USB_PIPE* UsbPipe)
{
    if (IsSend(Pipe))
        TRACE(TRC_ERROR, "%P:%S: StopSnd wait for PacketPool: PoolCount:%d MaxPoolCount:%d\n", PORT_NAME(Pipe->Dev),
              LoadShared(&Pipe->Pool->Count), Pipe->Pool->PacketCount);
    else
        TRACE(TRC_ERROR, "%P:%S: StopRcv wait for PacketPool: PoolCount:%d Elements:%d Addr:0x%02x\n", PORT_NAME(Pipe->Dev),
              LoadShared(&Pipe->Pool->Count), Pipe->Pool->PacketCount, UsbPipe != NULL ? UsbPipe->EndpointAddress : 0);
}

// Ends when every packet is home. The event may be a late one of an earlier emptying.
static VOID WaitForPool(SNDRCV_PIPE* Pipe, USB_PIPE* UsbPipe) _IRQL_requires_max_(PASSIVE_LEVEL)
{
    LARGE_INTEGER Step = RelativeMs(STOP_STEP_MS);

    for (;;) {
        NTSTATUS Status = KeWaitForSingleObject(&Pipe->PoolEvent, Executive, KernelMode, FALSE, &Step);

        if (Status == STATUS_TIMEOUT)
            TraceStopWait(Pipe, UsbPipe);
        else
            KeResetEvent(&Pipe->PoolEvent);
        if (PoolIsFull(Pipe->Pool))
            return;
        if (Status == STATUS_TIMEOUT && UsbPipe != NULL)
            AbortPipe(&Pipe->Dev->Usb, UsbPipe);
    }
}

// The routines that brought the last packets home have yet to leave: a matter of microseconds.
static VOID WaitForCompletions(SNDRCV_PIPE* Pipe) _IRQL_requires_max_(PASSIVE_LEVEL)
{
    LARGE_INTEGER Moment = RelativeMs(1);

    while (LoadShared(&Pipe->Private.Completing) != 0)
        KeDelayExecutionThread(KernelMode, FALSE, &Moment);
}

VOID StopContext(SNDRCV_PIPE* Pipe, UCHAR Wait, BOOLEAN Restarting)
{
    DEVICE* Dev = Pipe->Dev;
    BOOLEAN TimerStopped = FALSE;
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    StoreShared(&Pipe->Started, (UCHAR)0);
    if (!Restarting)
        Pipe->Private.StopGeneration++;
    if (Wait)
        Pipe->Private.Stopping++;
    if (IsSend(Pipe)) {
        SndPurge(Pipe);
    } else {
        TimerStopped = CancelTimerObj(&Dev->FlowTestTimer);
        RcvPurge(Pipe);
    }
    USB_PIPE* UsbPipe = Pipe->Pipe;
    if (UsbPipe != NULL)
        HoldPipe(UsbPipe);
    RELEASE(Dev, OldIrql);

    KeResetEvent(&Pipe->PoolEvent);
    if (!PoolIsFull(Pipe->Pool)) {
        if (UsbPipe != NULL)
            AbortPipe(&Dev->Usb, UsbPipe);
        if (Wait) {
            KASSERT(IRQL_EQ_PASSIVE());
            WaitForPool(Pipe, UsbPipe);
        }
    }
    if (Wait)
        WaitForCompletions(Pipe);
    if (UsbPipe != NULL)
        ReleasePipe(UsbPipe);

    ACQUIRE(Dev, OldIrql);
    if (Wait)
        Pipe->Private.Stopping--;
    const BOOLEAN StartedMeanwhile = Pipe->Started == 1 && Pipe->Private.Stopping == 0;
    RELEASE(Dev, OldIrql);
    if (StartedMeanwhile && IsSend(Pipe))
        QueueSndDpc(Dev);
    else if (StartedMeanwhile)
        ScheduleRcv(Pipe);
    // The timer is the bulk IN context's; another context's stop must not take it away.
    if (TimerStopped && Pipe != &Dev->Rcv)
        ScheduleRcv(&Dev->Rcv);
}

// ---- The data paths as one unit

VOID StartRcvLocked(SNDRCV_PIPE* Pipe)
{
    InterlockedExchange(&Pipe->ErrorCount, 0);
    StoreShared(&Pipe->Started, (UCHAR)1);
    SubmitReadBuffer(Pipe);
}

static VOID StartSndLocked(SNDRCV_PIPE* Snd) _Requires_lock_held_(DeviceLock)
{
    InterlockedExchange(&Snd->ErrorCount, 0);
    StoreShared(&Snd->Started, (UCHAR)1);
}

VOID StartDataPaths(DEVICE* Dev)
{
    BOOLEAN Running = FALSE;
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    Dev->TxEnabled = 1;
    if (Dev->OpenCount > 0) {
        Running = TRUE;
        if (Dev->DataPathRef == 0) {
            IncRef(Dev);
            Dev->DataPathRef = 1;
        }
        StartRcvLocked(&Dev->Rcv);
        StartRcvLocked(&Dev->Int);
        StartSndLocked(&Dev->Snd);
    }
    RELEASE(Dev, OldIrql);
    if (Running)
        Dev->Snd.Handler.SendMore(Dev);
}

VOID StopDataPaths(DEVICE* Dev, UCHAR Wait)
{
    BOOLEAN Drop = FALSE;
    KIRQL OldIrql;

    StopRcv(&Dev->Rcv, Wait);
    StopRcv(&Dev->Int, Wait);
    StopSnd(&Dev->Snd, Wait);
    if (!Wait)
        return;
    // Paths that were started again meanwhile keep the reference.
    ACQUIRE(Dev, OldIrql);
    if (Dev->DataPathRef == 1 && !Dev->Rcv.Started && !Dev->Int.Started && !Dev->Snd.Started) {
        Dev->DataPathRef = 0;
        Drop = TRUE;
    }
    RELEASE(Dev, OldIrql);
    if (Drop)
        DecRef(Dev);
}

// ---- Bulk OUT

VOID StartSnd(SNDRCV_PIPE* Snd)
{
    KIRQL OldIrql;

    ACQUIRE(Snd->Dev, OldIrql);
    StartSndLocked(Snd);
    RELEASE(Snd->Dev, OldIrql);
    Snd->Handler.SendMore(Snd->Dev);
}

VOID StopSnd(SNDRCV_PIPE* Snd, UCHAR Wait)
{
    TRACE(TRC_PROGRESS, "%P:%S:StopSnd\n", PORT_NAME(Snd->Dev));
    StopContext(Snd, Wait, FALSE);
}

VOID SndPurge(SNDRCV_PIPE* Snd)
{
    PurgeList(Snd);
}

VOID SndOutComplete(DEVICE* Dev)
{
    CompleteFlushIrps(Dev);
    SerPortSend(Dev->Port.SerPort, FALSE);
}

VOID QueueSndDpc(DEVICE* Dev)
{
    KeInsertQueueDpc(&Dev->Snd.Dpc, &Dev->Snd, NULL);
}

BOOLEAN SndReady(DEVICE* Dev)
{
    if (!ContextReady(&Dev->Snd)) {
        TRACE(TRC_USBREQ, "%P:%S:]SubmitWriteUrb Port disabled\n", PORT_NAME(Dev));
        return FALSE;
    }
    if (Dev->Snd.Pipe == NULL) {
        TRACE(TRC_USBREQ, "%P:%S:]SubmitWriteUrb Pipe == NULL\n", PORT_NAME(Dev));
        return FALSE;
    }
    return TRUE;
}

static VOID TraceTransfer(DEVICE* Dev, USB_PACKET* Packet)
{
    if (TRACE_ON(TRC_COUNTS)) {
        TracePrint("%P:%S:SND: %d\n", PORT_NAME(Dev), Packet->Length);
        TraceDumpLimited(Packet->Buffer, Packet->Length);
    }
}

// The device to call, or null: refused and home again.
static PDEVICE_OBJECT PrepareWrite(SNDRCV_PIPE* Snd, USB_PACKET* Packet) _Requires_lock_held_(DeviceLock)
{
    if (!SndReady(Snd->Dev)) {
        ReturnPacket(Packet);
        SignalIfHome(Snd);
        return NULL;
    }
    if (Packet->Length != 0 && Packet->Length % ZLP_PACKET_SIZE == 0)
        Snd->ZlpPending = 1;
    return PrepareTransfer(Snd, Packet, 0, Packet->Length, Packet->Length != 0 ? Packet->Mdl : NULL, WriteCompletionRoutine);
}

NTSTATUS SendPacketLocked(SNDRCV_PIPE* Snd, USB_PACKET* Packet, BOOLEAN* Refused)
{
    TraceTransfer(Snd->Dev, Packet);
    PDEVICE_OBJECT Lower = PrepareWrite(Snd, Packet);
    *Refused = Lower == NULL;
    return Lower != NULL ? CallUnderLock(Snd, Lower, Packet->Irp) : STATUS_UNSUCCESSFUL;
}

NTSTATUS SendPacket(SNDRCV_PIPE* Snd, USB_PACKET* Packet, BOOLEAN* Refused)
{
    KIRQL OldIrql;

    TraceTransfer(Snd->Dev, Packet);
    ACQUIRE(Snd->Dev, OldIrql);
    PDEVICE_OBJECT Lower = PrepareWrite(Snd, Packet);
    RELEASE(Snd->Dev, OldIrql);
    *Refused = Lower == NULL;
    return Lower != NULL ? IoCallDriver(Lower, Packet->Irp) : STATUS_UNSUCCESSFUL;
}

NTSTATUS SubmitWriteUrb(SNDRCV_PIPE* Snd, USB_PACKET* Packet)
{
    BOOLEAN Refused;

    return SendPacket(Snd, Packet, &Refused);
}

// The packet waits for the pipe's reset, or its bytes are dropped.
static VOID WriteFailed(SNDRCV_PIPE* Snd, USB_PACKET* Packet) _Requires_lock_held_(DeviceLock)
{
    DEVICE* Dev = Snd->Dev;

    TRACE(TRC_ERROR, "%P:%S:WriteCompletionRoutine: UrbStatus %D\n", PORT_NAME(Dev), Packet->Urb.Hdr.Status);
    TRACE(TRC_ERROR, "%P:%S:WriteCompletionRoutine: IrpStatus %D\n", PORT_NAME(Dev), Packet->Irp->IoStatus.Status);
    const LONG Errors = InterlockedIncrement(&Snd->ErrorCount);
    if (Snd->Started == 1 && Errors <= 1 && LoadShared(&Dev->DevicePowerState) == DEVICE_POWER_D0) {
        InsertTailList(&Snd->PacketList, &Packet->Link);
        if (QueueRestart(Snd, RestartWrite))
            return;
        RemoveEntryList(&Packet->Link);
        InitializeListHead(&Packet->Link);
        ScheduleReinit(Dev);
    }
    ReturnPacket(Packet);
}

static VOID WriteDone(SNDRCV_PIPE* Snd, USB_PACKET* Packet) _Requires_lock_held_(DeviceLock)
{
    InterlockedExchange(&Snd->ErrorCount, 0);
    StoreShared(&Snd->RestartNeeded, (UCHAR)0);
    ReturnPacket(Packet);
    if (Snd->ZlpPending)
        Snd->Private.ZlpDue = 1;
    QueueSndDpc(Snd->Dev);
}

static VOID FinishWrite(USB_PACKET* Packet)
{
    SNDRCV_PIPE* Snd = Packet->Owner;
    DEVICE* Dev = Snd->Dev;
    USB_PIPE* UsbPipe = Packet->UsbPipe;
    KIRQL OldIrql;

    InterlockedIncrement(&Snd->Private.Completing);
    ACQUIRE(Dev, OldIrql);
    switch (TransferStatus(Packet) & URB_STATUS_BITS) {
    case URB_CANCELED:
        TRACE(TRC_USBREQ, "%P:%S:WriteCompletionRoutine USBD_STATUS_CANCELED\n", PORT_NAME(Dev));
        [[fallthrough]];
    case 0:
        WriteDone(Snd, Packet);
        break;
    case URB_DEVICE_GONE:
        TRACE(TRC_USBREQ, "%P:%S:WriteCompletionRoutine USBD_STATUS_DEVICE_GONE\n", PORT_NAME(Dev));
        InterlockedExchange(&Snd->ErrorCount, 0);
        StoreShared(&Snd->RestartNeeded, (UCHAR)0);
        StoreShared(&Snd->Started, (UCHAR)0);
        ReturnPacket(Packet);
        break;
    default:
        WriteFailed(Snd, Packet);
    }
    if (LoadShared(&Snd->ErrorCount) > 1)
        StoreShared(&Snd->RestartNeeded, (UCHAR)1);
    if (PoolIsFull(Snd->Pool)) {
        TRACE(TRC_USBREQ, "%P:%S:WriteCompletionRoutine: All write buffers returned\n", PORT_NAME(Dev));
        KeSetEvent(&Snd->PoolEvent, IO_NO_INCREMENT, FALSE);
        if (Snd->Started == 1 && Snd->RestartNeeded == 1) {
            TRACE(TRC_PROGRESS, "%P:%S:WriteCompletionRoutine: Schedule restart USB read\n", PORT_NAME(Dev));
            ScheduleReinit(Dev);
            StoreShared(&Snd->RestartNeeded, (UCHAR)0);
        }
    }
    InterlockedDecrement(&UsbPipe->PendingCount);
    RELEASE(Dev, OldIrql);
    ReleasePipe(UsbPipe);
    InterlockedDecrement(&Snd->Private.Completing);
}

NTSTATUS WriteCompletionRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    USB_PACKET* Packet = (USB_PACKET*)Context;

    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    if (!DeferCompletion(Packet))
        FinishWrite(Packet);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS RestartWrite(VOID* Context)
{
    SNDRCV_PIPE* Snd = (SNDRCV_PIPE*)Context;
    DEVICE* Dev = Snd->Dev;
    BOOLEAN Sent = FALSE;
    KIRQL OldIrql;

    InterlockedExchange(&Snd->Private.RestartQueued, 0);
    NTSTATUS Status = ResetPipe(&Dev->Usb, LoadShared(&Snd->Pipe));
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:ResetPipe write failed (%D)\n", PORT_NAME(Dev), Status);
        ReinitNow(Dev);
        return Status;
    }
    for (;;) {
        ACQUIRE(Dev, OldIrql);
        USB_PACKET* Packet = TakeListed(Snd);
        RELEASE(Dev, OldIrql);
        if (Packet == NULL)
            break;
        // The IRP is used again without its pool having seen the packet.
        IoInitializeIrp(Packet->Irp, Snd->Pool->IrpSize, Snd->Pool->StackSize);
        SubmitWriteUrb(Snd, Packet);
        Sent = TRUE;
    }
    // A purge took the packet: no completion will ask for the next chunk.
    if (!Sent)
        SndOutComplete(Dev);
    return Status;
}

// The packet of the zero-length transfer that is due, or null.
static USB_PACKET* TakeZlpPacket(SNDRCV_PIPE* Snd) _Requires_lock_held_(DeviceLock)
{
    Snd->Private.ZlpDue = 0;
    if (Snd->ZlpPending == 0 || Snd->Pool == NULL)
        return NULL;
    USB_PACKET* Packet = GetPacket(Snd->Pool);
    if (Packet == NULL) {
        TRACE(TRC_USBREQ, "%P:%S:SndDpcRoutine: No Packet\n", PORT_NAME(Snd->Dev));
        return NULL;
    }
    Snd->ZlpPending = 0;
    Packet->Length = 0;
    return Packet;
}

VOID SndDpcRoutine(PKDPC Dpc, PVOID Context, PVOID Argument1, PVOID Argument2)
{
    DEVICE* Dev = (DEVICE*)Context;
    SNDRCV_PIPE* Snd = (SNDRCV_PIPE*)Argument1;
    KIRQL OldIrql;

    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(Argument2);
    KASSERT(PTRVALID(Dev,DEVICE));
    ACQUIRE(Dev, OldIrql);
    while (USB_PACKET* Parked = TakeDeferred(Snd)) {
        RELEASE(Dev, OldIrql);
        FinishWrite(Parked);
        ACQUIRE(Dev, OldIrql);
    }
    USB_PACKET* Packet = TakeZlpPacket(Snd);
    RELEASE(Dev, OldIrql);
    if (Packet != NULL) {
        NTSTATUS Status = SubmitWriteUrb(Snd, Packet);

        if (Status != STATUS_SUCCESS && Status != STATUS_PENDING)
            TRACE(TRC_ERROR, "%P:%S:SubmitWriteBuffer IoCallDriver failed %D\n", PORT_NAME(Dev), Status);
    }
    Snd->Handler.SendMore(Dev);
}
