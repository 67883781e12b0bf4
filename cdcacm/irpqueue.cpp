// Cancellable IRP queues and the deferred completion queue.
//
// A queued IRP has its cancel routine armed and counts in the DEVICE's rundown. Whoever takes it out
// clears the routine and ends that count, unless the I/O manager had taken the routine first: then
// the routine is running or about to, and ends the count as its last act.
//
// DriverContext[3] names the queue, DriverContext[2] the DEVICE whose rundown counts the IRP.
#include "pnpadd.h"

enum { CONTEXT_DEVICE = 2, CONTEXT_QUEUE = 3 };

VOID IrpQueue_Init(IRP_QUEUE* Queue)
{
    KeInitializeSpinLock(&Queue->Lock);
    InitializeListHead(&Queue->Irps);
}

NTSTATUS IrpQueue_TryInsert(IRP_QUEUE* Queue, PIRP Irp)
{
    DEVICE* Dev;
    KIRQL OldIrql;

    GetDevice(IoGetCurrentIrpStackLocation(Irp)->DeviceObject, &Dev, NULL);
    RundownEnter(Dev);
    KeAcquireSpinLock(&Queue->Lock, &OldIrql);
    PDRIVER_CANCEL OldCancel = IoSetCancelRoutine(Irp, IrpQueue_IrpCancelRoutine);
    KASSERT(OldCancel==NULL);
    UNREFERENCED_PARAMETER(OldCancel);
    if (Irp->Cancel && IoSetCancelRoutine(Irp, NULL) != NULL) {
        KeReleaseSpinLock(&Queue->Lock, OldIrql);
        RundownLeave(Dev);
        return STATUS_CANCELLED;
    }
    // Pending only now: what is refused completes without ever having been pending. Nobody completes
    // the IRP before this lock is released.
    IoMarkIrpPending(Irp);
    Irp->Tail.Overlay.DriverContext[CONTEXT_DEVICE] = Dev;
    Irp->Tail.Overlay.DriverContext[CONTEXT_QUEUE] = Queue;
    InsertTailList(&Queue->Irps, &Irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&Queue->Lock, OldIrql);
    return STATUS_PENDING;
}

NTSTATUS IrpQueue_Insert(IRP_QUEUE* Queue, PIRP Irp)
{
    NTSTATUS Status = IrpQueue_TryInsert(Queue, Irp);

    if (Status == STATUS_CANCELLED)
        CompleteDequeuedIrp(Irp, STATUS_CANCELLED, 0);
    return Status;
}

// Unlinks the IRP and clears its routine. The DEVICE whose rundown the caller leaves once the queue's
// lock is released, or null when the cancel routine does that.
static DEVICE* TakeOut(IRP_QUEUE* Queue, PIRP Irp) _Requires_lock_held_(Queue->Lock)
{
    UNREFERENCED_PARAMETER(Queue);
    RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
    if (IoSetCancelRoutine(Irp, NULL) == NULL)
        return NULL;
    return (DEVICE*)Irp->Tail.Overlay.DriverContext[CONTEXT_DEVICE];
}

// An address is no identity: an IRP that was completed may be back with a new request. The cancel
// routine therefore asks for cancelled ones only.
static PIRP RemoveMatching(IRP_QUEUE* Queue, PIRP Irp, BOOLEAN CancelledOnly)
{
    PIRP Found = NULL;
    DEVICE* Counted = NULL;
    KIRQL OldIrql;

    KeAcquireSpinLock(&Queue->Lock, &OldIrql);
    for (LIST_ENTRY* Entry = Queue->Irps.Flink; Entry != &Queue->Irps; Entry = Entry->Flink) {
        if (CONTAINING_RECORD(Entry, IRP, Tail.Overlay.ListEntry) != Irp)
            continue;
        if (!CancelledOnly || Irp->Cancel) {
            Found = Irp;
            Counted = TakeOut(Queue, Irp);
        }
        break;
    }
    KeReleaseSpinLock(&Queue->Lock, OldIrql);
    if (Counted != NULL)
        RundownLeave(Counted);
    return Found;
}

PIRP IrpQueue_Remove(IRP_QUEUE* Queue, PIRP Irp) { return RemoveMatching(Queue, Irp, FALSE); }

PIRP IrpQueue_RemoveHead(IRP_QUEUE* Queue)
{
    PIRP Irp = NULL;
    DEVICE* Counted = NULL;
    KIRQL OldIrql;

    KeAcquireSpinLock(&Queue->Lock, &OldIrql);
    if (!IsListEmpty(&Queue->Irps)) {
        Irp = CONTAINING_RECORD(Queue->Irps.Flink, IRP, Tail.Overlay.ListEntry);
        Counted = TakeOut(Queue, Irp);
    }
    KeReleaseSpinLock(&Queue->Lock, OldIrql);
    if (Counted != NULL)
        RundownLeave(Counted);
    return Irp;
}

VOID IrpQueue_IrpCancelRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE* Dev;
    PORT_OBJ* Port;
    PIRP Flush = NULL;
    KIRQL OldIrql;

    GetDevice(DeviceObject, &Dev, &Port);
    KASSERT(PTRVALID(Port,PORT_OBJ));
    TRACE(TRC_RW, "%P:%S%S:IrpQueue_IrpCancelRoutine\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    // From here on the IRP is only an address until it is found in a queue.

    ACQUIRE(Port->Device, OldIrql);
    if (!SqueueCancelIrp(&Port->SerPort->RcvQueue, Irp) && !SqueueCancelIrp(&Port->SerPort->SndQueue, Irp)) {
        Flush = RemoveMatching(&Dev->FlushIrpQueue, Irp, TRUE);
        if (Flush == NULL)
            TRACE(TRC_RW, "%P:%S%S:IrpQueue_IrpCancelRoutine: The IRP was not found %X\n", PORT_NAME(Dev),
                  OBJECT_LETTER(DeviceObject), (ULONG)(ULONG_PTR)Irp);
    }
    RELEASE(Port->Device, OldIrql);
    if (Flush != NULL)
        CompleteDequeuedIrp(Flush, STATUS_CANCELLED, 0);
    RundownLeave(Dev);
}

VOID CompleteQueue_Init(COMPLETE_QUEUE* Queue)
{
    KeInitializeSpinLock(&Queue->Lock);
    KeInitializeDpc(&Queue->Dpc, CompleteQueue_Dpc, Queue);
    InitializeListHead(&Queue->Irps);
}

VOID CompleteQueue_Add(COMPLETE_QUEUE* Queue, PIRP Irp)
{
    KIRQL OldIrql;

    KeAcquireSpinLock(&Queue->Lock, &OldIrql);
    IoMarkIrpPending(Irp);
    InsertTailList(&Queue->Irps, &Irp->Tail.Overlay.ListEntry);
    KeInsertQueueDpc(&Queue->Dpc, NULL, NULL);
    KeReleaseSpinLock(&Queue->Lock, OldIrql);
}

// A cancel routine that was taken before the IRP left its queue may still be reading the IRP's cancel
// level. It does so with the cancel lock held.
static VOID AwaitCancelRoutine(PIRP Irp)
{
    KIRQL OldIrql;

    if (Irp->Cancel) {
        IoAcquireCancelSpinLock(&OldIrql);
        IoReleaseCancelSpinLock(OldIrql);
    }
}

VOID CompleteDequeuedIrp(PIRP Irp, NTSTATUS Status, ULONG_PTR Information)
{
    AwaitCancelRoutine(Irp);
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
}

VOID CompleteQueue_Dpc(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2)
{
    COMPLETE_QUEUE* Queue = (COMPLETE_QUEUE*)DeferredContext;
    KIRQL OldIrql;

    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);
    for (BOOLEAN Last = FALSE; !Last;) {
        KeAcquireSpinLock(&Queue->Lock, &OldIrql);
        if (IsListEmpty(&Queue->Irps)) {
            KeReleaseSpinLock(&Queue->Lock, OldIrql);
            return;
        }
        PIRP Irp = CONTAINING_RECORD(RemoveHeadList(&Queue->Irps), IRP, Tail.Overlay.ListEntry);
        // What is added from here on has queued the DPC again.
        Last = IsListEmpty(&Queue->Irps);
        KeReleaseSpinLock(&Queue->Lock, OldIrql);
        AwaitCancelRoutine(Irp);
        Irp->Tail.Overlay.ListEntry.Flink = NULL;
        Irp->Tail.Overlay.ListEntry.Blink = NULL;
        RtlZeroMemory(Irp->Tail.Overlay.DriverContext, sizeof(Irp->Tail.Overlay.DriverContext));
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
}
