// Request queues of the serial engine and their timing.
#pragma once

#include "wdmkrnl.h"

struct SER_PORT;
struct PORT_OBJ;
struct CIRC_BUF;
struct SERIAL_SETTINGS;

enum : ULONG {
    INTERVALTIME_OFF,         // no timeouts
    INTERVALTIME_WAITFIRST,   // a read ends with the first bytes, or at the total time
    INTERVALTIME_NOWAIT,      // a read ends at once with what is there
    INTERVALTIME_ON,          // interval and total countdowns
};

enum : ULONG {
    REQ_READ = 1,        // a read
    REQ_INLINE = 2,      // the entry point completes the IRP itself
    REQ_CTS_GRACE = 4,   // a write has had its CTS grace
};

enum : NTSTATUS { DEFAULT_STATUS = -1 };   // not completed yet

// One read or write on its way; element of the port's DPool. All under Lock while queued.
struct SER_REQUEST {
    LIST_ENTRY Link;       // in one SQUEUE; self-linked when in none
    UCHAR* Buffer;         // the IRP's system buffer
    ULONG Length;          // asked for; once completed, moved
    LONG TotalTime;        // ms left
    LONG IntervalTime;     // ms left
    NTSTATUS Status;
    PIRP Irp;
    PORT_OBJ* Port;
    ULONG Flags;           // REQ_*
};

// Only the head is ever partly served; CurPtr and Done belong to it. All under Lock.
struct SQUEUE {
    LIST_ENTRY Requests;   // oldest first
    SER_PORT* SerPort;
    ULONG IsWrite;
    ULONG TimeMode;        // INTERVALTIME_*
    UCHAR* CurPtr;         // next byte of the head; null while none has moved
    ULONG Done;            // bytes of the head moved
    ULONG Tick;            // ms
};

VOID SqueueInit(SQUEUE* Queue, SER_PORT* SerPort, ULONG IsWrite, ULONG TickMs);
SER_REQUEST* SqueueHead(SQUEUE* Queue) _Requires_lock_held_(DeviceLock);
// Serve queued reads out of the ring; returns bytes moved.
ULONG SqueueReceive(SQUEUE* Queue, CIRC_BUF* Ring) _Requires_lock_held_(DeviceLock);
// Take queued writes into the ring: STATUS_SUCCESS when none is left, STATUS_PENDING when the ring is full.
NTSTATUS SqueueSend(SQUEUE* Queue, CIRC_BUF* Ring) _Requires_lock_held_(DeviceLock);
// Unlinks the request and ends it through CompleteRequest; it may be reused on return.
VOID SqueueCompleteRequest(SQUEUE* Queue, SER_REQUEST* Request, NTSTATUS Status, ULONG Count) _Requires_lock_held_(DeviceLock);
VOID SqueueCancelAll(SQUEUE* Queue) _Requires_lock_held_(DeviceLock);
BOOLEAN SqueueCancelIrp(SQUEUE* Queue, PIRP Irp) _Requires_lock_held_(DeviceLock);

VOID SqueueCheckTimeMode(SQUEUE* Queue, const SERIAL_SETTINGS* Settings) _Requires_lock_held_(DeviceLock);
// STATUS_PENDING for a read; for a write the result of SqueueSend.
NTSTATUS SqueueAddRequest(SQUEUE* Queue, SER_REQUEST* Request, CIRC_BUF* Ring) _Requires_lock_held_(DeviceLock);
VOID SqueueTick(SQUEUE* Queue) _Requires_lock_held_(DeviceLock);
// Callback of WrTimer, context the DEVICE. DISPATCH_LEVEL, takes Lock.
TIMER_OBJ_CALLBACK WrTimerFnc;
