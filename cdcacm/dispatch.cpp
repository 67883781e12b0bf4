// Read, write and flush; request completion; open, cleanup, close and system control.
//
// A read or write:  entry point --> IRP queue and SQUEUE --CompleteRequest--> completion queue --> done
// An immediate read: entry point --> SQUEUE --CompleteRequest--> done by the entry point
// A flush:          FlushIrpQueue --send side idle, 5 s, cleanup or cancel--> done
//
// The port:  closed --create--> open --cleanup--> ended --close--> closed
// Between cleanup and the next open (CleanedUp) nothing is queued any more: what still arrives ends
// with STATUS_CANCELLED, so that no request can keep the close away.
#include "pnpadd.h"

#include "wrsupport.h"

enum : ULONG {
    WRITE_DUMP_LIMIT = 32,       // bytes
    CLOSE_DRAIN_CHECKS = 51,
    CLOSE_DRAIN_STEP_MS = 20,
};

// Completes a request that is in no queue. No spin lock held.
static NTSTATUS FinishIrp(PIRP Irp, NTSTATUS Status)
{
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

static PIO_STACK_LOCATION StackLocation(PIRP Irp)
{
    KASSERT(Irp->CurrentLocation <= Irp->StackCount + 1);
    return IoGetCurrentIrpStackLocation(Irp);
}

NTSTATUS WithDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp, ENTRY_ROUTINE* Entry)
{
    DEVICE* Dev = EnterDevice(DeviceObject);
    if (Dev == NULL)
        return FinishIrp(Irp, STATUS_UNSUCCESSFUL);
    PORT_OBJ* Port = &Dev->Port;
    KASSERT(PTRVALID(Dev,DEVICE));
    KASSERT(PTRVALID(Port,PORT_OBJ));
    const NTSTATUS Status = Entry(Dev, Port, DeviceObject, Irp);
    RundownLeave(Dev);
    return Status;
}

static VOID FillRequest(SER_REQUEST* Request, PORT_OBJ* Port, PIRP Irp, ULONG Length, ULONG Flags)
{
    Request->Buffer = (UCHAR*)Irp->AssociatedIrp.SystemBuffer;
    Request->Length = Length;
    Request->Status = DEFAULT_STATUS;
    Request->Irp = Irp;
    Request->Flags = Flags;
    Request->Port = Port;
}

// --- Read ---------------------------------------------------------------------------------------

// STATUS_PENDING: queued. Else the IRP is the caller's; *Inline is the record of an immediate read,
// which carries its own result. A time mode that does not fit ReadImmediate leaves the read queued.
static NTSTATUS AddRead(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG Length, SER_REQUEST** Inline)
    _Requires_lock_held_(DeviceLock)
{
    if (PrivateOf(Dev)->CleanedUp)
        return STATUS_CANCELLED;
    SER_REQUEST* Request = (SER_REQUEST*)DPoolGet(&Port->DPool);
    if (Request == NULL) {
        TRACE(TRC_ERROR, "%P:%S%S:DispatchRead: request dpool to small\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    BOOLEAN Immediate = FALSE;
    if (Port->ReadImmediate) {
        KASSERT(Port->SerPort->RcvQueue.TimeMode == INTERVALTIME_NOWAIT);
        Immediate = Port->SerPort->RcvQueue.TimeMode == INTERVALTIME_NOWAIT;
    }
    if (!Immediate && IrpQueue_TryInsert(&Port->ReadIrpQueue, Irp) == STATUS_CANCELLED) {
        DPoolPut(Request);
        return STATUS_CANCELLED;
    }
    FillRequest(Request, Port, Irp, Length, Immediate ? REQ_READ | REQ_INLINE : REQ_READ);
    SqueueAddRequest(&Port->SerPort->RcvQueue, Request, &Port->SerPort->CircRcvBuf);
    SndRcvCheckRcvQueue(&Dev->Rcv);
    if (!Immediate)
        return STATUS_PENDING;
    *Inline = Request;
    return Request->Status;
}

static NTSTATUS ReadEntry(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KIRQL Irql;
    SER_REQUEST* Inline = NULL;
    const ULONG Length = StackLocation(Irp)->Parameters.Read.Length;
    TRACE(TRC_RW, "%P:%S%S:[DispatchRead len:%d, irp:%p\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Length, Irp);
    if (Length == 0)
        return FinishIrp(Irp, STATUS_SUCCESS);
    IdleActivity(&Dev->Idle);
    ACQUIRE(Dev, Irql);
    const NTSTATUS Status = AddRead(Dev, Port, DeviceObject, Irp, Length, &Inline);
    RELEASE(Dev, Irql);
    if (Inline != NULL) {
        Irp->IoStatus.Status = Status;
        Irp->IoStatus.Information = Inline->Length;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        DPoolPut(Inline);
    } else if (Status != STATUS_PENDING) {
        return FinishIrp(Irp, Status);
    }
    TRACE(TRC_RW, "%P:%S%S:]DispatchRead (%D)\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Status);
    return Status;
}

NTSTATUS DispatchRead(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return WithDevice(DeviceObject, Irp, ReadEntry);
}

// --- Write --------------------------------------------------------------------------------------

// A serial control that sends its input byte comes here as it is: one byte, or none.
static ULONG WriteLength(PIRP Irp)
{
    const PIO_STACK_LOCATION Stack = StackLocation(Irp);
    if (Stack->MajorFunction == IRP_MJ_DEVICE_CONTROL)
        return Stack->Parameters.DeviceIoControl.InputBufferLength != 0 ? 1 : 0;
    return Stack->Parameters.Write.Length;
}

static VOID TraceWrite(DEVICE* Dev, PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG Length)
{
    TRACE(TRC_RW, "%P:%S%S:[DispatchWrite len:%d\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Length);
    if (!TRACE_ON(TRC_PPP))
        return;
    TracePrint("%P:%S%S:[DispatchWrite len:%d\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Length);
    TraceDump(Irp->AssociatedIrp.SystemBuffer, Length > WRITE_DUMP_LIMIT ? (ULONG)WRITE_DUMP_LIMIT : Length);
    if (Length > WRITE_DUMP_LIMIT)
        TracePrint("...\n");
}

// STATUS_PENDING: *Request is ready to be sent. Else the IRP is the caller's.
static NTSTATUS PrepareWrite(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG Length, SER_REQUEST** Request)
    _Requires_lock_held_(DeviceLock)
{
    if (PrivateOf(Dev)->CleanedUp)
        return STATUS_CANCELLED;
    *Request = (SER_REQUEST*)DPoolGet(&Port->DPool);
    if (*Request == NULL) {
        TRACE(TRC_ERROR, "%P:%S%S:DispatchWrite: request dpool to small\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (IrpQueue_TryInsert(&Port->WriteIrpQueue, Irp) == STATUS_CANCELLED) {
        DPoolPut(*Request);
        return STATUS_CANCELLED;
    }
    FillRequest(*Request, Port, Irp, Length, 0);
    return STATUS_PENDING;
}

static NTSTATUS WriteEntry(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KIRQL Irql;
    SER_REQUEST* Request = NULL;
    const ULONG Length = WriteLength(Irp);
    TraceWrite(Dev, DeviceObject, Irp, Length);
    if (Length == 0)
        return FinishIrp(Irp, STATUS_SUCCESS);
    IdleActivity(&Dev->Idle);
    ACQUIRE(Dev, Irql);
    const NTSTATUS Status = PrepareWrite(Dev, Port, DeviceObject, Irp, Length, &Request);
    RELEASE(Dev, Irql);
    if (Status != STATUS_PENDING)
        return FinishIrp(Irp, Status);
    if (SendRequest(Port->SerPort, Request) == STATUS_PENDING) {
        // A cleanup between the two holds of the lock has not seen this request.
        ACQUIRE(Dev, Irql);
        if (PrivateOf(Dev)->CleanedUp)
            SqueueCancelAll(&Port->SerPort->SndQueue);
        RELEASE(Dev, Irql);
    }
    TRACE(TRC_RW, "%P:%S%S:]DispatchWrite (%D)\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Status);
    return Status;
}

NTSTATUS DispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return WithDevice(DeviceObject, Irp, WriteEntry);
}

// --- Completion of reads and writes -------------------------------------------------------------

static NTSTATUS FinalStatus(NTSTATUS Status)
{
    switch (Status) {
    case STATUS_SUCCESS:
    case STATUS_TIMEOUT:
    case STATUS_PENDING:
    case STATUS_CANCELLED:
    case STATUS_UNSUCCESSFUL:
    case STATUS_INSUFFICIENT_RESOURCES:
        return Status;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

static BOOLEAN IsControl(PIRP Irp)
{
    return IoGetCurrentIrpStackLocation(Irp)->MajorFunction == IRP_MJ_DEVICE_CONTROL;
}

// What the request moved, on its way out: checks, trace and statistics.
static VOID AccountRequest(DEVICE* Dev, PORT_OBJ* Port, SER_REQUEST* Request) _Requires_lock_held_(DeviceLock)
{
    const PIRP Irp2 = Request->Irp;
    const BOOLEAN IsRead = (Request->Flags & REQ_READ) != 0;
    if (IsRead)
        KASSERT(Request->Length <= IoGetCurrentIrpStackLocation(Irp2)->Parameters.Read.Length);
    else if (!IsControl(Irp2))
        KASSERT(Request->Length <= IoGetCurrentIrpStackLocation(Irp2)->Parameters.Write.Length);
    TRACE(TRC_RW, "%P:%S:[CompleteRequest %s Size(%d) Status(%x)\n", PORT_NAME(Dev), IsRead ? "read" : "write", Request->Length,
          Request->Status);
    if (IsRead && Request->Length > 0 && TRACE_ON(TRC_QUEUE))
        TraceDumpLimited(Request->Buffer, Request->Length);
    SERIAL_SETTINGS* Settings = &Port->SerPort->Settings;
    if (IsRead)
        Settings->ReceivedCount += Request->Length;
    else
        Settings->TransmittedCount += Request->Length;
}

VOID CompleteRequest(DEVICE* Dev, SER_REQUEST* Request)
{
    PORT_OBJ* Port = Request->Port;
    const PIRP Irp2 = Request->Irp;
    KASSERT(PTRVALID(Port,PORT_OBJ));
    AccountRequest(Dev, Port, Request);
    if (Request->Flags & REQ_INLINE)
        return;
    const PIRP Irp = IrpQueue_Remove(Request->Flags & REQ_READ ? &Port->ReadIrpQueue : &Port->WriteIrpQueue, Irp2);
    KASSERT(Irp != NULL);
    KASSERT(Irp == Irp2);
    if (Irp == NULL) {
        TRACE(TRC_ASSERT, "%P:%S:[CompleteRequest The serport object has completet a request two times, fatal!\n", PORT_NAME(Dev));
        return;
    }
    KASSERT(Request->Status != DEFAULT_STATUS);
    const NTSTATUS Status = FinalStatus(Request->Status);
    if (Status == STATUS_CANCELLED) {
        const PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
        TRACE(TRC_RW, "%P:%S:]CompleteRequest MJ:0x%02x, MN:0x%02x, Control:0x%08x\n", PORT_NAME(Dev), Stack->MajorFunction,
              Stack->MinorFunction, Stack->Parameters.DeviceIoControl.IoControlCode);
    }
    Irp->IoStatus.Status = Status;
    // A control has no room for a count: its buffer was the byte that went out.
    Irp->IoStatus.Information = IsControl(Irp) ? 0 : Request->Length;
    DPoolPut(Request);
    TRACE(NT_SUCCESS(Status) ? TRC_RW : TRC_ERROR, "%P:%S:]CompleteRequest (%D), irp:%p\n", PORT_NAME(Dev), Status, Irp);
    CompleteQueue_Add(&Dev->CompleteQueue, Irp);
    IdleRestartTimer(&Dev->Idle);
}

// --- Flush --------------------------------------------------------------------------------------

static NTSTATUS FlushEntry(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KIRQL Irql;
    UNREFERENCED_PARAMETER(Port);
    TRACE(TRC_RW, "%P:%S%S:DispatchFlush Irp:%p\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Irp);
    ACQUIRE(Dev, Irql);
    const NTSTATUS Status = PrivateOf(Dev)->CleanedUp ? STATUS_CANCELLED : IrpQueue_TryInsert(&Dev->FlushIrpQueue, Irp);
    RELEASE(Dev, Irql);
    if (Status == STATUS_CANCELLED)
        FinishIrp(Irp, STATUS_CANCELLED);
    ArmTimerObj(&Dev->FlushTimer);
    CompleteFlushIrps(Dev);
    return Status;
}

NTSTATUS DispatchFlush(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return WithDevice(DeviceObject, Irp, FlushEntry);
}

// Nothing in the ring and nothing on the wire. The ring is looked at first: bytes leave it only with a
// packet in hand, which the pool then lacks.
static BOOLEAN SendSideIdle(DEVICE* Dev)
{
    KIRQL Irql;
    ACQUIRE(Dev, Irql);
    const SER_PORT* SerPort = Dev->Port.SerPort;
    const BOOLEAN Idle = (SerPort == NULL || SerPort->CircSendBuf.Count == 0) && (Dev->Snd.Pool == NULL || PoolIsFull(Dev->Snd.Pool));
    RELEASE(Dev, Irql);
    return Idle;
}

VOID CompleteFlushIrps(DEVICE* Dev)
{
    TRACE(TRC_RW, "%P:%S:CompleteFlushIrps\n", PORT_NAME(Dev));
    if (!SendSideIdle(Dev))
        return;
    // Before the queue is emptied: a flush that comes now sets the timer for itself.
    CancelTimerObj(&Dev->FlushTimer);
    for (PIRP Irp = IrpQueue_RemoveHead(&Dev->FlushIrpQueue); Irp != NULL; Irp = IrpQueue_RemoveHead(&Dev->FlushIrpQueue)) {
        TRACE(TRC_RW, "%P:%S:CompleteFlushIrps complete IRP %p\n", PORT_NAME(Dev), Irp);
        CompleteDequeuedIrp(Irp, STATUS_SUCCESS, 0);
    }
}

VOID FlushTimerFnc(TIMER_OBJ* Timer, VOID* Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    UNREFERENCED_PARAMETER(Timer);
    for (PIRP Irp = IrpQueue_RemoveHead(&Dev->FlushIrpQueue); Irp != NULL; Irp = IrpQueue_RemoveHead(&Dev->FlushIrpQueue)) {
        TRACE(TRC_RW, "%P:%S:FlushTimerFnc complete IRP %p\n", PORT_NAME(Dev), Irp);
        CompleteDequeuedIrp(Irp, STATUS_SUCCESS, 0);
    }
}

// --- Open ---------------------------------------------------------------------------------------

static ATT_OBJ* AttachmentOf(PDEVICE_OBJECT DeviceObject)
{
    ATT_OBJ* Att = (ATT_OBJ*)DeviceObject->DeviceExtension;
    return Att->Type == ATT_OBJ_TYPE ? Att : NULL;
}

static VOID LockMutex(DEVICE* Dev)
{
    KASSERT(IRQL_EQ_PASSIVE());
    KeWaitForSingleObject(&Dev->Mutex, Executive, KernelMode, FALSE, NULL);
}

static VOID UnlockMutex(DEVICE* Dev)
{
    KASSERT(IRQL_EQ_PASSIVE());
    KeReleaseMutex(&Dev->Mutex, FALSE);
}

// FALSE: a removal has already dropped the last reference of one of the two, nothing is held.
static BOOLEAN ReferenceForOpen(DEVICE* Dev, ATT_OBJ* Att)
{
    if (Att != NULL && !TryRef(&Att->RefAtt))
        return FALSE;
    if (TryRef(&Dev->Ref))
        return TRUE;
    if (Att != NULL)
        DecRefAtt(Att);
    return FALSE;
}

static VOID ReloadTraceMask(DEVICE* Dev, PDEVICE_OBJECT DeviceObject)
{
    HANDLE Key;
    if (!NT_SUCCESS(OpenKey(&Key, RegistryPath))) {
        TRACE(TRC_ERROR, "%P:%S%S:Open of Software key failed\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
        return;
    }
    TraceSetMask(ReadCfgParam(Key, CFG_TRACE_MASK));
    ZwClose(Key);
}

// The references of the open are held. Mutex held.
static VOID OpenPort(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject)
{
    KIRQL Irql;
    const ATT_OBJ* Att = AttachmentOf(DeviceObject);
    ReloadTraceMask(Dev, DeviceObject);
    ACQUIRE(Dev, Irql);
    Port->ReadImmediate = 0;
    PrivateOf(Dev)->CleanedUp = 0;
    RELEASE(Dev, Irql);
    if (Att != NULL)
        TRACE(TRC_REF, "%P:%S:IncRefAtt: %i\n", PORT_NAME(Dev), LoadShared(&Att->RefAtt));
    ACQUIRE(Dev, Irql);
    const LONG OpenCount = ++Dev->OpenCount;
    RELEASE(Dev, Irql);
    StartWrTimer(Dev);
    if (OpenCount == 1) {
        ACQUIRE(Dev, Irql);
        Dev->PppMode = 0;
        StoreShared(&Dev->CtsGraceBytes, (ULONG)0);
        RELEASE(Dev, Irql);
        StartDataPaths(Dev);
    }
    Dev->PortInUse = 1;
    TraceIncRef(Dev, LoadShared(&Dev->Ref), __FILE_NAME__, __LINE__);
}

// Mutex held. STATUS_SUCCESS: the port is open.
static NTSTATUS TryOpen(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject)
{
    ATT_OBJ* Att = AttachmentOf(DeviceObject);
    if (Dev->PortInUse) {
        TRACE(TRC_OPEN, "%P:%S%S:Open data port rejected, in use\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
        return STATUS_UNSUCCESSFUL;
    }
    TRACE(TRC_OPEN, "%P:%S%S:Driver Version %d.%02d Obj:%d\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject),
          DRIVER_VERSION_MAJOR, DRIVER_VERSION_MINOR, Att != NULL ? ATT_OBJ_TYPE : DEVICE_TYPE_DATA);
    if (Dev->Initialized && LoadShared(&Dev->DevicePowerState) != PowerDeviceD0) {
        TRACE(TRC_ERROR, "%P:%S%S:Open Device power down\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
        return STATUS_UNSUCCESSFUL;
    }
    if (!Dev->Initialized || !ReferenceForOpen(Dev, Att)) {
        TRACE(TRC_ERROR, "%P:%S%S:DispatchCreate Device not initialized, hardware problem, reject open\n", PORT_NAME(Dev),
              OBJECT_LETTER(DeviceObject));
        return STATUS_UNSUCCESSFUL;
    }
    OpenPort(Dev, Port, DeviceObject);
    return STATUS_SUCCESS;
}

static NTSTATUS CreateEntry(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    TRACE(TRC_OPEN, "%P:%S%S:DispatchCreate[\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    IdleActivity(&Dev->Idle);
    LockMutex(Dev);
    const NTSTATUS Status = TryOpen(Dev, Port, DeviceObject);
    UnlockMutex(Dev);
    if (NT_SUCCESS(Status))
        SendOpenNotification(Dev);
    FinishIrp(Irp, Status);
    TRACE(TRC_OPEN, "%P:%S%S:]DispatchCreate (%D)\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Status);
    return Status;
}

NTSTATUS DispatchCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return WithDevice(DeviceObject, Irp, CreateEntry);
}

// A control without buffers, its result is for nobody. Mutex held: a removal cannot pass.
static NTSTATUS Notify(DEVICE* Dev, ULONG Code)
{
    const PIRP Irp = IoAllocateIrp(Dev->StackSize, FALSE);
    if (Irp == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS Status = SubmitIrpAndWait(Dev, Irp, NULL, Code, Dev->Cfg.RequestTimeout);
    IoFreeIrp(Irp);
    return NT_SUCCESS(Status) ? STATUS_SUCCESS : Status;
}

NTSTATUS SendOpenNotification(DEVICE* Dev)
{
    LockMutex(Dev);
    const NTSTATUS Status = Notify(Dev, IOCTL_PORT_OPENED);
    UnlockMutex(Dev);
    return Status;
}

NTSTATUS SendCloseNotification(DEVICE* Dev)
{
    LockMutex(Dev);
    const NTSTATUS Status = Dev->UsbDeviceEnabled ? Notify(Dev, IOCTL_PORT_CLOSED) : STATUS_UNSUCCESSFUL;
    UnlockMutex(Dev);
    return Status;
}

// --- Cleanup and close --------------------------------------------------------------------------

// Ends everything queued; from the first step on nothing new is queued.
static VOID EndRequests(DEVICE* Dev, PORT_OBJ* Port)
{
    KIRQL Irql;
    ACQUIRE(Dev, Irql);
    PrivateOf(Dev)->CleanedUp = 1;
    RELEASE(Dev, Irql);
    for (PIRP Irp = IrpQueue_RemoveHead(&Dev->FlushIrpQueue); Irp != NULL; Irp = IrpQueue_RemoveHead(&Dev->FlushIrpQueue)) {
        TRACE(TRC_OPEN, "%P:%S:DispatchCleanup complete IRP %p\n", PORT_NAME(Dev), Irp);
        CompleteDequeuedIrp(Irp, STATUS_SUCCESS, 0);
    }
    ACQUIRE(Dev, Irql);
    SqueueCancelAll(&Port->SerPort->RcvQueue);
    SqueueCancelAll(&Port->SerPort->SndQueue);
    CompleteWaitIrp(Port, 0);
    RELEASE(Dev, Irql);
}

static NTSTATUS CleanupEntry(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    TRACE(TRC_OPEN, "%P:%S%S:DispatchCleanup[\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    LockMutex(Dev);
    StoreShared(&Dev->ControlLines, (UCHAR)0);
    SetPcStatus(Dev);
    EndRequests(Dev, Port);
    UnlockMutex(Dev);
    const NTSTATUS Status = FinishIrp(Irp, STATUS_SUCCESS);
    TRACE(TRC_OPEN, "%P:%S%S:]DispatchCleanup (%D)\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Status);
    return Status;
}

NTSTATUS DispatchCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return WithDevice(DeviceObject, Irp, CleanupEntry);
}

static BOOLEAN SendRingEmpty(DEVICE* Dev)
{
    KIRQL Irql;
    ACQUIRE(Dev, Irql);
    const BOOLEAN Empty = Dev->Port.SerPort->CircSendBuf.Count == 0;
    RELEASE(Dev, Irql);
    return Empty;
}

// The send path keeps running meanwhile.
static VOID WaitForDrain(DEVICE* Dev, PDEVICE_OBJECT DeviceObject)
{
    TRACE(TRC_OPEN, "%P:%S%S:DispatchClose: waiting until TX buf is empty\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    for (ULONG Check = 0; Check < CLOSE_DRAIN_CHECKS; ++Check) {
        if (SendRingEmpty(Dev)) {
            TRACE(TRC_OPEN, "%P:%S%S:DispatchClose: TX buf is empty.\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
            return;
        }
        LARGE_INTEGER Step = RelativeMs(CLOSE_DRAIN_STEP_MS);
        KeDelayExecutionThread(KernelMode, FALSE, &Step);
    }
    TRACE(TRC_OPEN, "%P:%S%S:DispatchClose: TIMED OUT waiting until TX buf is empty\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
}

// The last open goes. Mutex held.
static VOID StopPort(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject)
{
    KIRQL Irql;
    if (Port->SerPort != NULL)
        WaitForDrain(Dev, DeviceObject);
    else
        TRACE(TRC_ERROR, "%P:%S%S:DispatchClose: Port->SerPort == NULL\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    TRACE(TRC_PROGRESS, "%P:%S%S:OpenCount == 0 Stop SendAndReceive\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    StopDataPaths(Dev, 1);
    PwrSetDevicePowerState(Dev);
    if (Port->SerPort == NULL)
        return;
    ACQUIRE(Dev, Irql);
    CircBufReset(&Port->SerPort->CircRcvBuf);
    ResetSendRing(Port->SerPort);
    RELEASE(Dev, Irql);
}

// The open's reference keeps the DEVICE until DecRef; what the exit trace prints is copied before it.
NTSTATUS DispatchClose(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE* Dev;
    PORT_OBJ* Port;
    KIRQL Irql;
    WCHAR Name[RTL_NUMBER_OF(DEVICE_PRIVATE::TraceName)];
    const WCHAR* Letter = OBJECT_LETTER(DeviceObject);
    GetDevice(DeviceObject, &Dev, &Port);
    if (Dev == NULL)
        return FinishIrp(Irp, STATUS_SUCCESS);
    KASSERT(PTRVALID(Dev,DEVICE));
    KASSERT(PTRVALID(Port,PORT_OBJ));
    ATT_OBJ* Att = AttachmentOf(DeviceObject);
    TRACE(TRC_OPEN, "%P:%S%S:[DispatchClose\n", PORT_NAME(Dev), Letter);
    LockMutex(Dev);
    ACQUIRE(Dev, Irql);
    const LONG OpenCount = --Dev->OpenCount;
    RELEASE(Dev, Irql);
    if (OpenCount == 0)
        StopPort(Dev, Port, DeviceObject);
    Dev->PortInUse = 0;
    if (Att != NULL)
        DecRefAtt(Att);
    SendCloseNotification(Dev);
    UnlockMutex(Dev);
    TraceSetName(Name, RTL_NUMBER_OF(Name), PORT_NAME(Dev));
    DecRef(Dev);
    FinishIrp(Irp, STATUS_SUCCESS);
    TRACE(TRC_OPEN, "%P:%S%S:]DispatchClose\n", Name, Letter);
    return STATUS_SUCCESS;
}

// --- System control -----------------------------------------------------------------------------

// The next lower driver of the device object the request came to, with an object reference; or null.
static PDEVICE_OBJECT ReferenceLower(PDEVICE_OBJECT DeviceObject, DEVICE* Dev)
{
    KIRQL Irql;
    const ATT_OBJ* Att = AttachmentOf(DeviceObject);
    if (Dev == NULL) {
        // No DEVICE shares the attachment now: it is being built or taken down by one thread.
        const PDEVICE_OBJECT Lower = LoadShared(&Att->LowerDevObj);
        if (Lower != NULL)
            ObReferenceObject(Lower);
        return Lower;
    }
    ACQUIRE(Dev, Irql);
    const PDEVICE_OBJECT Lower = Att != NULL ? Att->LowerDevObj : Dev->LowerDevObj;
    if (Lower != NULL)
        ObReferenceObject(Lower);
    RELEASE(Dev, Irql);
    return Lower;
}

NTSTATUS DispatchSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE* Dev = EnterDevice(DeviceObject);
    const WCHAR* Name = Dev != NULL ? PORT_NAME(Dev) : KTEXT("COM?");
    const WCHAR* Letter = OBJECT_LETTER(DeviceObject);
    TRACE(TRC_OPEN, "%P:%S%S:DispatchSystemControl[\n", Name, Letter);
    NTSTATUS Status = STATUS_UNSUCCESSFUL;
    const PDEVICE_OBJECT Lower = ReferenceLower(DeviceObject, Dev);
    if (Lower != NULL) {
        KASSERT(Irp->CurrentLocation <= Irp->StackCount);
        IoSkipCurrentIrpStackLocation(Irp);
        Status = IoCallDriver(Lower, Irp);
        ObDereferenceObject(Lower);
        TRACE(TRC_OPEN, "%P:%S%S:]DispatchSystemControl (%D)\n", Name, Letter, Status);
    } else {
        Irp->IoStatus.Status = Status;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
    if (Dev != NULL)
        RundownLeave(Dev);
    return Status;
}
