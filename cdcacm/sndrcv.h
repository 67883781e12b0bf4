// Transfer contexts: the bulk OUT, bulk IN and interrupt IN paths, the data paths as one unit, and the
// switch between byte mode and framing mode.
#pragma once

#include "usbpckt.h"

struct USB_PIPE;

typedef ULONG RCV_HANDLER(DEVICE* Dev, UCHAR* Data, ULONG Length);   // Lock held; returns bytes taken
typedef VOID SND_HANDLER(DEVICE* Dev);                               // no Lock

// Private state of a context.
struct PIPE_PRIVATE {
    LONG Completing;         // completion routines at work, interlocked; a waiting stop waits for 0
    ULONG StopGeneration;    // moves with every stop from outside a restart (Lock)
    ULONG RestartGeneration; // StopGeneration when a restart was queued (Lock)
    LONG RestartQueued;      // a restart is queued and has not begun, interlocked
    LONG Stopping;           // waiting stops at work: nothing is submitted (Lock)
    VOID* Submitter;         // thread that calls the bus driver under Lock, or null (Lock)
    LIST_ENTRY Deferred;     // packets completed inside that call (Lock)
    UCHAR ZlpDue;            // the send DPC is queued to send the zero-length packet (Lock)
};

struct SNDRCV_PIPE {
    ULONG RawHandler;        // 1: data never goes to the framer
    USB_PACKET_POOL* Pool;   // null after deletion
    union {
        RCV_HANDLER* Receive;
        SND_HANDLER* SendMore;
    } Handler;
    LONG ErrorCount;         // consecutive errors, interlocked
    USB_PIPE* Pipe;          // null until configured (written under Lock)
    DEVICE* Dev;
    KEVENT PoolEvent;        // set when the last packet came home
    KDPC Dpc;                // RcvDpcRoutine or SndDpcRoutine, context the DEVICE
    LIST_ENTRY PacketList;   // receive: filled, oldest first; send: failed, to be sent again (Lock)
    UCHAR RestartNeeded;
    UCHAR Started;           // written under Lock
    UCHAR ZlpPending;        // send: a zero-length packet must follow (Lock)
    PIPE_PRIVATE Private;
};

// Creation and deletion. STATUS_INSUFFICIENT_RESOURCES without a pool. Deletion takes Lock.
NTSTATUS InitRcvPipe(SNDRCV_PIPE* Pipe, DEVICE* Dev, RCV_HANDLER* Handler, USB_PIPE* UsbPipe, ULONG BufferSize, ULONG Count, ULONG RawHandler);
NTSTATUS InitSndPipe(SNDRCV_PIPE* Pipe, DEVICE* Dev, SND_HANDLER* Callback, USB_PIPE* UsbPipe, ULONG BufferSize, ULONG Count);
VOID DeleteRcvPipe(SNDRCV_PIPE* Pipe) _Requires_lock_not_held_(DeviceLock);
VOID DeleteSndPipe(SNDRCV_PIPE* Pipe) _Requires_lock_not_held_(DeviceLock);

// The data paths as one unit. StartDataPaths may run at DISPATCH_LEVEL (power completion); the paths only run while the
// port is open. StopDataPaths with Wait 1: PASSIVE_LEVEL, returns when every packet is home.
VOID StartDataPaths(DEVICE* Dev) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(DISPATCH_LEVEL);
VOID StopDataPaths(DEVICE* Dev, UCHAR Wait) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(PASSIVE_LEVEL);

// Bulk OUT.
VOID StartSnd(SNDRCV_PIPE* Snd) _Requires_lock_not_held_(DeviceLock);
VOID StopSnd(SNDRCV_PIPE* Snd, UCHAR Wait) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID SndOutComplete(DEVICE* Dev) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(DISPATCH_LEVEL);
VOID SndPurge(SNDRCV_PIPE* Snd) _Requires_lock_held_(DeviceLock);
// Submission would be accepted now; else the refusal's trace is written.
BOOLEAN SndReady(DEVICE* Dev) _Requires_lock_held_(DeviceLock);
// STATUS_UNSUCCESSFUL: refused, the packet is back in its pool and no byte of it was sent.
NTSTATUS SubmitWriteUrb(SNDRCV_PIPE* Snd, USB_PACKET* Packet) _IRQL_requires_max_(DISPATCH_LEVEL);
KDEFERRED_ROUTINE SndDpcRoutine;
IO_COMPLETION_ROUTINE WriteCompletionRoutine;
NTSTATUS RestartWrite(VOID* Snd);          // work routine
// Queue the send DPC so that waiting bytes leave.
VOID QueueSndDpc(DEVICE* Dev) _IRQL_requires_max_(DISPATCH_LEVEL);

// Bulk IN and interrupt IN.
RCV_HANDLER RcvBulkIn;
RCV_HANDLER RcvIntIn;
VOID ProzessModemStatus(DEVICE* Dev, USHORT State) _Requires_lock_held_(DeviceLock);
VOID StartRcv(SNDRCV_PIPE* Pipe) _Requires_lock_not_held_(DeviceLock);
VOID StopRcv(SNDRCV_PIPE* Pipe, UCHAR Wait) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS RestartRead(VOID* Pipe);          // work routine
VOID SubmitReadBuffer(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock);
NTSTATUS SubmitRcvUrb(SNDRCV_PIPE* Pipe, USB_PACKET* Packet) _Requires_lock_held_(DeviceLock);
VOID SndRcvCheckRcvQueue(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock);
VOID ScheduleRcv(SNDRCV_PIPE* Pipe) _IRQL_requires_max_(DISPATCH_LEVEL);
VOID RcvPurge(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock);
KDEFERRED_ROUTINE RcvDpcRoutine;
IO_COMPLETION_ROUTINE RcvCompletionRoutine;
TIMER_OBJ_CALLBACK RcvDelayTimerFnc;       // FlowTestTimer, context the DEVICE

// Framing switch: work routines, context the DEVICE.
NTSTATUS SwitchToPppMode(VOID* Dev);
NTSTATUS SwitchFromPppMode(VOID* Dev);
