// Cancellable IRP queues and the deferred completion queue.
#pragma once

#include "wdmkrnl.h"

struct IRP_QUEUE {
    KSPIN_LOCK Lock;
    LIST_ENTRY Irps;   // by Tail.Overlay.ListEntry, oldest first (Lock)
};

struct COMPLETE_QUEUE {
    KSPIN_LOCK Lock;
    LIST_ENTRY Irps;   // oldest first (Lock)
    KDPC Dpc;          // CompleteQueue_Dpc, context the queue
};

VOID IrpQueue_Init(IRP_QUEUE* Queue);
// Queue and mark pending; STATUS_CANCELLED: the IRP was cancelled before and has been completed here.
// No spin lock held.
NTSTATUS IrpQueue_Insert(IRP_QUEUE* Queue, PIRP Irp) _IRQL_requires_max_(DISPATCH_LEVEL);
// The same for callers that hold Lock: on STATUS_CANCELLED the IRP is still the caller's to complete.
NTSTATUS IrpQueue_TryInsert(IRP_QUEUE* Queue, PIRP Irp) _IRQL_requires_max_(DISPATCH_LEVEL);
// The IRP when it was queued, with its cancel routine cleared; else null.
PIRP IrpQueue_Remove(IRP_QUEUE* Queue, PIRP Irp) _IRQL_requires_max_(DISPATCH_LEVEL);
PIRP IrpQueue_RemoveHead(IRP_QUEUE* Queue) _IRQL_requires_max_(DISPATCH_LEVEL);
DRIVER_CANCEL IrpQueue_IrpCancelRoutine;

VOID CompleteQueue_Init(COMPLETE_QUEUE* Queue);
// Marks the IRP pending; its status and information are set. The DPC completes it.
VOID CompleteQueue_Add(COMPLETE_QUEUE* Queue, PIRP Irp) _IRQL_requires_max_(DISPATCH_LEVEL);
KDEFERRED_ROUTINE CompleteQueue_Dpc;

// Complete an IRP that left a cancellable queue, without boost. Waits for a cancel routine that is
// just reading the IRP. No spin lock held.
VOID CompleteDequeuedIrp(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) _IRQL_requires_max_(DISPATCH_LEVEL);
