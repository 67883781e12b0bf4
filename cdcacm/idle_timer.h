// Idle detection and selective suspend.
#pragma once

#include "wdmkrnl.h"

struct IDLE_CTX {
    DEVICE* Dev;
    KSPIN_LOCK IdleLock;
    ULONG Interval;              // ms, 0: off (IdleLock)
    TIMER_OBJ IdleTimer;         // armed under IdleLock
    PIRP IdleNotificationIrp;    // null if its allocation failed
    USB_IDLE_CALLBACK_INFO CallbackInfo;
    KEVENT IrpDoneEvent;         // signalled while the notification is not outstanding
    UCHAR IsIdle;                // (IdleLock)
    KEVENT D2Event;              // the D2 request has completed
    KEVENT D0Event;              // the driver's own D0 request has completed
};

VOID IdleInit(IDLE_CTX* Idle, DEVICE* Dev, ULONG IntervalMs) _IRQL_requires_max_(PASSIVE_LEVEL);
// Activity from above: restarts the count, ends a suspend and waits until the device is in D0 or gone.
VOID IdleActivity(IDLE_CTX* Idle) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID IdleRestartTimer(IDLE_CTX* Idle) _IRQL_requires_max_(DISPATCH_LEVEL);
TIMER_OBJ_CALLBACK IdleTimerFnc;           // context the IDLE_CTX
NTSTATUS IdleTimerWorker(VOID* Idle);      // work routine
NTSTATUS SubmitIdleNotification(IDLE_CTX* Idle) _IRQL_requires_max_(PASSIVE_LEVEL);
IO_COMPLETION_ROUTINE NotificationIrpComplete;
VOID NTAPI IdleCallback(PVOID Idle);       // on the bus driver's thread, PASSIVE_LEVEL
REQUEST_POWER_COMPLETE CompletionFunctionD0;
REQUEST_POWER_COMPLETE CompletionFunctionD2;
VOID CancelIdleNotification(IDLE_CTX* Idle) _IRQL_requires_max_(DISPATCH_LEVEL);
VOID IdleStop(IDLE_CTX* Idle) _IRQL_requires_max_(PASSIVE_LEVEL);
