// References, rundown and work items.
//
// Ref:       1 at creation -> n (opens, requests, data paths, work) -> 0, from where there is no way
//            back: TryRef refuses, and the drop that reached 0 sees to DeleteDevice.
// InFlight:  1 from InitWorker, one more for each callback at work. RundownWait gives the 1 back; the
//            callback that then reaches 0 wakes it, and touches the DEVICE no more.
// Work:      queued at any level, in one FIFO a DEVICE. Each queued record brings a platform work item;
//            whichever of these workers gets the Mutex first runs the oldest work.
#include "pnpadd.h"

// The new count, or 0 when the count was 0 and stays so.
static LONG RefUnlessZero(LONG volatile* Ref)
{
    LONG Seen = __atomic_load_n(Ref, __ATOMIC_RELAXED);

    while (Seen > 0) {
        LONG Found = InterlockedCompareExchange(Ref, Seen + 1, Seen);
        if (Found == Seen)
            return Seen + 1;
        Seen = Found;
    }
    return 0;
}

BOOLEAN TryRef(LONG volatile* Ref) { return RefUnlessZero(Ref) != 0; }

VOID TraceIncRef(DEVICE* Dev, LONG Count, const CHAR* File, ULONG Line)
{
    TRACE(TRC_REF, "%P:%S:IncRef: %i, %s(%d)\n", PORT_NAME(Dev), Count, File, Line);
}

LONG IncRefAt(DEVICE* Dev, const CHAR* File, ULONG Line)
{
    LONG Count = InterlockedIncrement(&Dev->Ref);

    TraceIncRef(Dev, Count, File, Line);
    return Count;
}

static IO_WORKITEM_ROUTINE DeleteDeviceWorker;
static VOID DeleteDeviceWorker(PDEVICE_OBJECT DeviceObject, PVOID Context)
{
    UNREFERENCED_PARAMETER(Context);
    DeleteDevice(DeviceObject);
}

// The last drop has happened: nothing refers to the DEVICE but this call.
static VOID DeleteUnreferenced(DEVICE* Dev, BOOLEAN InCallback)
{
    if (IRQL_EQ_PASSIVE() && !InCallback)
        DeleteDevice(Dev->Port.DeviceObject);
    else
        IoQueueWorkItem(PrivateOf(Dev)->DeleteItem, DeleteDeviceWorker, DelayedWorkQueue, NULL);
}

VOID DropRef(DEVICE* Dev)
{
    if (InterlockedDecrement(&Dev->Ref) == 0)
        DeleteUnreferenced(Dev, FALSE);
}

LONG DecRefAt(DEVICE* Dev, BOOLEAN InCallback, const CHAR* File, ULONG Line)
{
    WCHAR Name[sizeof(DEVICE_PRIVATE::TraceName) / sizeof(WCHAR)];
    BOOLEAN Traced = TRACE_ON(TRC_REF);

    // Another thread's drop may delete the DEVICE right after this one.
    if (Traced)
        TraceSetName(Name, sizeof(Name) / sizeof(WCHAR), PORT_NAME(Dev));
    LONG Count = InterlockedDecrement(&Dev->Ref);
    if (Traced)
        TracePrint("%P:%S:DecRef: %i, %s(%d)\n", Name, Count, File, Line);
    if (Count == 0)
        DeleteUnreferenced(Dev, InCallback);
    return Count;
}

LONG IncRefAttOf(ATT_OBJ* Att)
{
    LONG Count = InterlockedIncrement(&Att->RefAtt);

    TRACE(TRC_REF, "%P:%S:IncRefAtt: %i\n", Att->Dev != NULL ? PORT_NAME(Att->Dev) : KTEXT("COM?"), Count);
    return Count;
}

LONG DecRefAttOf(ATT_OBJ* Att)
{
    WCHAR Name[sizeof(DEVICE_PRIVATE::TraceName) / sizeof(WCHAR)];
    BOOLEAN Traced = TRACE_ON(TRC_REF);

    if (Traced)
        TraceSetName(Name, sizeof(Name) / sizeof(WCHAR), Att->Dev != NULL ? PORT_NAME(Att->Dev) : KTEXT("COM?"));
    LONG Count = InterlockedDecrement(&Att->RefAtt);
    if (Traced)
        TracePrint("%P:%S:DecRefAtt: %i\n", Name, Count);
    if (Count == 0)
        DeleteAttDevice(Att);
    return Count;
}

NTSTATUS InitWorker(DEVICE* Dev, PDEVICE_OBJECT DeviceObject)
{
    DEVICE_PRIVATE* Private = PrivateOf(Dev);

    Private->InFlight = 1;
    KeInitializeEvent(&Private->InFlightEvent, NotificationEvent, FALSE);
    InitializeListHead(&Private->WorkFifo);
    KeInitializeSpinLock(&Private->WorkLock);
    Private->DeleteItem = IoAllocateWorkItem(DeviceObject);
    return Private->DeleteItem != NULL ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID RundownEnter(DEVICE* Dev) { InterlockedIncrement(&PrivateOf(Dev)->InFlight); }

VOID RundownLeave(DEVICE* Dev)
{
    DEVICE_PRIVATE* Private = PrivateOf(Dev);

    if (InterlockedDecrement(&Private->InFlight) == 0)
        KeSetEvent(&Private->InFlightEvent, IO_NO_INCREMENT, FALSE);
}

VOID RundownWait(DEVICE* Dev)
{
    DEVICE_PRIVATE* Private = PrivateOf(Dev);

    if (InterlockedDecrement(&Private->InFlight) != 0)
        KeWaitForSingleObject(&Private->InFlightEvent, Executive, KernelMode, FALSE, NULL);
}

BOOLEAN QueueWorkItem(DEVICE* Dev, WORK_ROUTINE* Routine, VOID* Context, PIRP Irp)
{
    DEVICE_PRIVATE* Private = PrivateOf(Dev);
    KIRQL OldIrql;
    LONG Count = 0;

    if (__atomic_load_n(&Dev->Ref, __ATOMIC_RELAXED) == 0)
        return FALSE;
    PIO_WORKITEM WorkItem = IoAllocateWorkItem(Dev->Port.DeviceObject);
    WORK_REC* Rec = (WORK_REC*)MemAlloc(sizeof(WORK_REC), Tag4('w', 'r', 'k', '1'));
    // The reference comes before the request is marked pending: a refusal must leave it unmarked.
    if (WorkItem != NULL && Rec != NULL)
        Count = RefUnlessZero(&Dev->Ref);
    if (Count == 0) {
        if (WorkItem != NULL)
            IoFreeWorkItem(WorkItem);
        if (Rec != NULL)
            MemFree(Rec);
        return FALSE;
    }
    if (Irp != NULL)
        IoMarkIrpPending(Irp);
    Rec->Dev = Dev;
    Rec->WorkItem = WorkItem;
    Rec->Routine = Routine;
    Rec->Context = Context;
    Rec->Irp = Irp;
    TraceIncRef(Dev, Count, __FILE_NAME__, __LINE__);
    KeAcquireSpinLock(&Private->WorkLock, &OldIrql);
    InsertTailList(&Private->WorkFifo, &Rec->FifoEntry);
    KeReleaseSpinLock(&Private->WorkLock, OldIrql);
    IoQueueWorkItem(WorkItem, _WorkerFuntion, DelayedWorkQueue, Rec);
    return TRUE;
}

// Copies the oldest work out of the FIFO into *Work. If it came with another record, that record's
// worker is still to come: the work of Own moves over to it and keeps its place in the order, so that
// each record is freed by its own worker and no work is lost or run twice.
static VOID TakeOldestWork(WORK_REC* Own, WORK_REC* Work)
{
    DEVICE_PRIVATE* Private = PrivateOf(Own->Dev);
    KIRQL OldIrql;

    KeAcquireSpinLock(&Private->WorkLock, &OldIrql);
    WORK_REC* Oldest = CONTAINING_RECORD(RemoveHeadList(&Private->WorkFifo), WORK_REC, FifoEntry);
    *Work = *Oldest;
    if (Oldest != Own) {
        Oldest->Routine = Own->Routine;
        Oldest->Context = Own->Context;
        Oldest->Irp = Own->Irp;
        InsertHeadList(&Own->FifoEntry, &Oldest->FifoEntry);
        RemoveEntryList(&Own->FifoEntry);
    }
    KeReleaseSpinLock(&Private->WorkLock, OldIrql);
}

VOID _WorkerFuntion(PDEVICE_OBJECT DeviceObject, PVOID Context)
{
    WORK_REC* Own = (WORK_REC*)Context;
    DEVICE* Dev = Own->Dev;
    WORK_REC Work;

    UNREFERENCED_PARAMETER(DeviceObject);
    KeWaitForSingleObject(&Dev->Mutex, Executive, KernelMode, FALSE, NULL);
    TakeOldestWork(Own, &Work);
    NTSTATUS Status = Work.Routine(Work.Context);
    KeReleaseMutex(&Dev->Mutex, FALSE);

    IoFreeWorkItem(Own->WorkItem);
    MemFree(Own);
    TRACE(TRC_QUEUE, "%P:%S:_WorkerFuntion after free\n", PORT_NAME(Dev));
    if (Work.Irp != NULL) {
        TRACE(TRC_QUEUE, "%P:%S:_WorkerFuntion complete \n", PORT_NAME(Dev));
        Work.Irp->IoStatus.Status = Status;
        IoCompleteRequest(Work.Irp, IO_NO_INCREMENT);
    }
    TRACE(TRC_QUEUE, "%P:%S:_WorkerFuntion DEL_REF \n", PORT_NAME(Dev));
    DecRef(Dev);
}
