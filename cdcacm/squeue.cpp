// Request queues of the serial engine and their timing.
//
// A request is linked in one queue from SqueueAddRequest to SqueueCompleteRequest, which hands it to
// CompleteRequest. The head alone makes progress (CurPtr, Done); reads are fed from the receive ring,
// writes feed the send ring. The tick takes a tick's length from each countdown; a request expires at
// the tick that takes it below 0.
#include "pnpadd.h"

enum : LONG { CTS_GRACE_MS = 1000 };

VOID SqueueInit(SQUEUE* Queue, SER_PORT* SerPort, ULONG IsWrite, ULONG TickMs)
{
    InitializeListHead(&Queue->Requests);
    Queue->SerPort = SerPort;
    Queue->IsWrite = IsWrite;
    Queue->TimeMode = INTERVALTIME_OFF;
    Queue->CurPtr = NULL;
    Queue->Done = 0;
    Queue->Tick = TickMs;
}

static SER_REQUEST* RequestAt(LIST_ENTRY* Entry) { return CONTAINING_RECORD(Entry, SER_REQUEST, Link); }

SER_REQUEST* SqueueHead(SQUEUE* Queue)
{
    return IsListEmpty(&Queue->Requests) ? NULL : RequestAt(Queue->Requests.Flink);
}

VOID SqueueCompleteRequest(SQUEUE* Queue, SER_REQUEST* Request, NTSTATUS Status, ULONG Count)
{
    Request->Status = Status;
    Request->Length = Count;
    if (Request == SqueueHead(Queue)) {
        Queue->CurPtr = NULL;
        Queue->Done = 0;
    }
    RemoveEntryList(&Request->Link);
    InitializeListHead(&Request->Link);
    CompleteRequest(Queue->SerPort->WrContext, Request);
}

ULONG SqueueReceive(SQUEUE* Queue, CIRC_BUF* Ring)
{
    ULONG Total = 0;

    for (SER_REQUEST* Head; (Head = SqueueHead(Queue)) != NULL && Ring->Empty == 0;) {
        if (Queue->CurPtr == NULL)
            Queue->CurPtr = Head->Buffer;
        ULONG Moved = CircBufRead(Ring, Queue->CurPtr, Head->Length - Queue->Done);
        Queue->CurPtr += Moved;
        Queue->Done += Moved;
        Total += Moved;
        if (Queue->TimeMode == INTERVALTIME_WAITFIRST && Moved > 0)
            SqueueCompleteRequest(Queue, Head, STATUS_SUCCESS, Queue->Done);
        else if (Queue->Done == Head->Length)
            SqueueCompleteRequest(Queue, Head, STATUS_SUCCESS, Queue->Done);
        else
            Head->IntervalTime = (LONG)Queue->SerPort->Settings.ReadIntervalTimeout;
    }
    if (Queue->TimeMode == INTERVALTIME_NOWAIT) {
        while (SER_REQUEST* Head = SqueueHead(Queue))
            SqueueCompleteRequest(Queue, Head, STATUS_SUCCESS, Queue->Done);
    }
    return Total;
}

NTSTATUS SqueueSend(SQUEUE* Queue, CIRC_BUF* Ring)
{
    // A chunk on its way to the send path must find its room again if it is refused. Its run comes
    // back here.
    BOOLEAN Held = PrivateOf(Queue->SerPort->WrContext)->ChunkOut;

    while (SER_REQUEST* Head = SqueueHead(Queue)) {
        // A ring without storage is never full and takes nothing.
        if (Ring->Full == 1 || Ring->Size == Ring->Count || Held)
            return STATUS_PENDING;
        if (Queue->CurPtr == NULL)
            Queue->CurPtr = Head->Buffer;
        ULONG Room = Ring->Size - Ring->Count;
        ULONG Wanted = Head->Length - Queue->Done;
        ULONG Moved = CircBufWrite(Ring, Queue->CurPtr, Room < Wanted ? Room : Wanted);
        Queue->CurPtr += Moved;
        Queue->Done += Moved;
        if (Queue->Done == Head->Length)
            SqueueCompleteRequest(Queue, Head, STATUS_SUCCESS, Queue->Done);
    }
    return STATUS_SUCCESS;
}

VOID SqueueCancelAll(SQUEUE* Queue)
{
    LIST_ENTRY* Next;

    for (LIST_ENTRY* Entry = Queue->Requests.Flink; Entry != &Queue->Requests; Entry = Next) {
        Next = Entry->Flink;
        SqueueCompleteRequest(Queue, RequestAt(Entry), STATUS_CANCELLED, Queue->Done);
    }
}

BOOLEAN SqueueCancelIrp(SQUEUE* Queue, PIRP Irp)
{
    for (LIST_ENTRY* Entry = Queue->Requests.Flink; Entry != &Queue->Requests; Entry = Entry->Flink) {
        SER_REQUEST* Request = RequestAt(Entry);
        if (Request->Irp != Irp)
            continue;
        // The address of an IRP that ended may be back with a new request, which nobody cancelled.
        if (!Irp->Cancel)
            return FALSE;
        SqueueCompleteRequest(Queue, Request, STATUS_CANCELLED, Request == SqueueHead(Queue) ? Queue->Done : 0);
        return TRUE;
    }
    return FALSE;
}

VOID SqueueCheckTimeMode(SQUEUE* Queue, const SERIAL_SETTINGS* Settings)
{
    Queue->TimeMode = INTERVALTIME_ON;
    if (Queue->IsWrite) {
        if (Settings->WriteTotalTimeoutConstant == 0 && Settings->WriteTotalTimeoutMultiplier == 0)
            Queue->TimeMode = INTERVALTIME_OFF;
        return;
    }
    ULONG Interval = Settings->ReadIntervalTimeout;
    ULONG Constant = Settings->ReadTotalTimeoutConstant;
    ULONG Multiplier = Settings->ReadTotalTimeoutMultiplier;
    if (Interval == 0 && Constant == 0 && Multiplier == 0) {
        Queue->TimeMode = INTERVALTIME_OFF;
        TRACE(TRC_USBREQ, "%P:SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_OFF\n");
    } else if (Interval == MAXULONG && Constant == 0 && Multiplier == 0) {
        Queue->TimeMode = INTERVALTIME_NOWAIT;
        TRACE(TRC_USBREQ, "%P:SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_NOWAIT\n");
    } else if (Interval == MAXULONG && Constant != 0 && Multiplier == MAXULONG) {
        Queue->TimeMode = INTERVALTIME_WAITFIRST;
        TRACE(TRC_USBREQ, "%P:SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_WAITFIRST\n");
    }
}

// Milliseconds, in 32 bits with wrap-around; what comes out negative stands for an overflow.
static LONG TotalTimeOf(const SQUEUE* Queue, ULONG Length)
{
    const SERIAL_SETTINGS* Settings = &Queue->SerPort->Settings;
    ULONG Total;

    if (Queue->IsWrite) {
        Total = Settings->WriteTotalTimeoutMultiplier * Length + Settings->WriteTotalTimeoutConstant;
    } else {
        Total = Settings->ReadTotalTimeoutConstant;
        if (Queue->TimeMode != INTERVALTIME_WAITFIRST && (LONG)Settings->ReadTotalTimeoutMultiplier > 0)
            Total += Settings->ReadTotalTimeoutMultiplier * Length;
    }
    if ((LONG)Total < 0) {
        TRACE(TRC_USBREQ, "%P:SqueueAddRequest:Overflow in TotalTime! Set time to MAXLONG!\n");
        return MAXLONG;
    }
    return (LONG)Total;
}

NTSTATUS SqueueAddRequest(SQUEUE* Queue, SER_REQUEST* Request, CIRC_BUF* Ring)
{
    Request->TotalTime = TotalTimeOf(Queue, Request->Length);
    Request->IntervalTime = (LONG)Queue->SerPort->Settings.ReadIntervalTimeout;
    InsertTailList(&Queue->Requests, &Request->Link);
    switch (Queue->IsWrite) {
    case 0: SqueueReceive(Queue, Ring); return STATUS_PENDING;
    case 1: return SqueueSend(Queue, Ring);
    default: KASSERT(0); return STATUS_PENDING;
    }
}

// What is below 0 has expired and stays there, whatever its value.
static VOID CountDown(LONG* TimeMs, ULONG TickMs)
{
    if (*TimeMs >= 0)
        *TimeMs -= (LONG)TickMs;
}

static VOID TickRead(SQUEUE* Queue, SER_REQUEST* Request, ULONG Done) _Requires_lock_held_(DeviceLock)
{
    const SERIAL_SETTINGS* Settings = &Queue->SerPort->Settings;
    BOOLEAN Expired = FALSE;

    if (Queue->TimeMode == INTERVALTIME_WAITFIRST) {
        CountDown(&Request->TotalTime, Queue->Tick);
        Expired = Request->TotalTime < 0 || Done > 0;
    } else if (Queue->TimeMode == INTERVALTIME_ON) {
        if (Queue->Done > 0 && Settings->ReadIntervalTimeout != 0)
            CountDown(&Request->IntervalTime, Queue->Tick);
        if (Settings->ReadTotalTimeoutConstant != 0 || Settings->ReadTotalTimeoutMultiplier != 0)
            CountDown(&Request->TotalTime, Queue->Tick);
        Expired = Request->IntervalTime < 0 || Request->TotalTime < 0;
    }
    if (Expired)
        SqueueCompleteRequest(Queue, Request, STATUS_TIMEOUT, Done);
}

static VOID TickWrite(SQUEUE* Queue, SER_REQUEST* Request, ULONG Done) _Requires_lock_held_(DeviceLock)
{
    const SERIAL_SETTINGS* Settings = &Queue->SerPort->Settings;
    DEVICE* Dev = Queue->SerPort->WrContext;

    if (Queue->TimeMode != INTERVALTIME_ON)
        return;
    if (Settings->WriteTotalTimeoutConstant != 0 || Settings->WriteTotalTimeoutMultiplier != 0)
        CountDown(&Request->TotalTime, Queue->Tick);
    if (Dev->Cfg.useCtsFlowControl == 0 || Request->TotalTime >= 0)
        return;
    if (Dev->ModemStatus & MODEM_CTS) {
        TRACE(TRC_CTS, "%P:%S:CTS active and timeout, complete IRP with timeout\n", PORT_NAME(Dev));
        SqueueCompleteRequest(Queue, Request, STATUS_TIMEOUT, Done);
    } else if (Request->Flags & REQ_CTS_GRACE) {
        TRACE(TRC_CTS, "%P:%S:IRP with seconds timout, complete it with timeout\n", PORT_NAME(Dev));
        SqueueCompleteRequest(Queue, Request, STATUS_TIMEOUT, Done);
    } else {
        Request->Flags |= REQ_CTS_GRACE;
        InterlockedExchangeAdd((LONG volatile*)&Dev->CtsGraceBytes, (LONG)Done);
        Request->TotalTime = CTS_GRACE_MS;
        TRACE(TRC_CTS, "%P:%S:IRP with timout send %u bytes\n", PORT_NAME(Dev), Done);
        QueueSndDpc(Dev);
    }
}

VOID SqueueTick(SQUEUE* Queue)
{
    ULONG Done = Queue->Done;
    LIST_ENTRY* Next;

    for (LIST_ENTRY* Entry = Queue->Requests.Flink; Entry != &Queue->Requests; Entry = Next) {
        Next = Entry->Flink;
        if (Queue->IsWrite)
            TickWrite(Queue, RequestAt(Entry), Done);
        else
            TickRead(Queue, RequestAt(Entry), Done);
        Done = 0;
    }
}

VOID WrTimerFnc(TIMER_OBJ* Timer, VOID* Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    if (Dev->WrTimerArmed == 1) {
        SqueueTick(&Dev->Port.SerPort->RcvQueue);
        SqueueTick(&Dev->Port.SerPort->SndQueue);
        // Counted before it can expire. A start in between has armed, and counted, the timer already.
        InterlockedIncrement(&Dev->WrTimerPending);
        if (ArmTimerObj(Timer))
            InterlockedDecrement(&Dev->WrTimerPending);
    }
    RELEASE(Dev, OldIrql);
    if (InterlockedDecrement(&Dev->WrTimerPending) == 0)
        KeSetEvent(&Dev->WrTimerIdleEvent, IO_NO_INCREMENT, FALSE);
}
