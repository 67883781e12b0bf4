// References, rundown and work items of a DEVICE.
//
// Ref decides deletion: the drop that reaches 0 deletes. Three private tools stand beside it and are
// never traced: a rundown count of callbacks that hold no reference, an increment that refuses a
// DEVICE already at 0, and a deletion carried out on a worker when the last drop happens where
// deletion may not run.
#pragma once

#include "wdmkrnl.h"

struct ATT_OBJ;

typedef NTSTATUS WORK_ROUTINE(VOID* Context);   // PASSIVE_LEVEL, device Mutex held

struct WORK_REC {
    DEVICE* Dev;
    PIO_WORKITEM WorkItem;
    WORK_ROUTINE* Routine;
    VOID* Context;
    PIRP Irp;             // completed with the routine's status; may be null
    LIST_ENTRY FifoEntry; // in DEVICE_PRIVATE.WorkFifo (WorkLock)
};

// Any IRQL up to DISPATCH_LEVEL, with or without Lock held. True when queued: a reference is held until the routine is
// done, and a given Irp is marked pending and completed by the worker. False: nothing happened, the
// caller keeps the Irp. Routines of one DEVICE run one at a time, in the order queued.
BOOLEAN QueueWorkItem(DEVICE* Dev, WORK_ROUTINE* Routine, VOID* Context, PIRP Irp) _IRQL_requires_max_(DISPATCH_LEVEL);
IO_WORKITEM_ROUTINE _WorkerFuntion;

// Each returns the new count and traces it with the caller's file and line.
#define IncRef(Dev) IncRefAt((Dev), __FILE_NAME__, __LINE__)
// At 0 DeleteDevice runs: here when the level is PASSIVE, else on the deletion worker.
#define DecRef(Dev) DecRefAt((Dev), FALSE, __FILE_NAME__, __LINE__)
// The same inside a routine counted by the rundown, which deletion waits for: always on the worker.
#define DecRefInCallback(Dev) DecRefAt((Dev), TRUE, __FILE_NAME__, __LINE__)
#define IncRefAtt(Att) IncRefAttOf(Att)
// At 0 the attachment device object is detached and deleted.
#define DecRefAtt(Att) DecRefAttOf(Att)

LONG IncRefAt(DEVICE* Dev, const CHAR* File, ULONG Line) _IRQL_requires_max_(DISPATCH_LEVEL);
LONG DecRefAt(DEVICE* Dev, BOOLEAN InCallback, const CHAR* File, ULONG Line) _IRQL_requires_max_(DISPATCH_LEVEL);
LONG IncRefAttOf(ATT_OBJ* Att);
LONG DecRefAttOf(ATT_OBJ* Att) _IRQL_requires_max_(PASSIVE_LEVEL);

// Take a reference unless the count is 0. Not traced; trace with TraceIncRef where the reference counts.
BOOLEAN TryRef(LONG volatile* Ref);
// Untraced end of a reference that TryRef took and nothing counted; at 0 the DEVICE is deleted.
VOID DropRef(DEVICE* Dev) _IRQL_requires_max_(DISPATCH_LEVEL);
VOID TraceIncRef(DEVICE* Dev, LONG Count, const CHAR* File, ULONG Line);

// Rundown of callbacks with the DEVICE as context: entered where the callback is set up, left as its
// last act. DeleteDevice waits, once, until all have left.
VOID RundownEnter(DEVICE* Dev);
VOID RundownLeave(DEVICE* Dev);
VOID RundownWait(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);

// Private part of device creation and deletion. InitWorker fails with STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS InitWorker(DEVICE* Dev, PDEVICE_OBJECT DeviceObject) _IRQL_requires_max_(PASSIVE_LEVEL);
