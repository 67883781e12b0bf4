// Kernel services: interrupt levels, spin locks, dispatcher objects, timers, DPCs, threads.
#ifndef NT_KE_H
#define NT_KE_H

#include "interlocked.h"

#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 31

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;
typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;
typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    MaximumWaitReason = 39
} KWAIT_REASON;
typedef enum _KDPC_IMPORTANCE { LowImportance, MediumImportance, HighImportance } KDPC_IMPORTANCE;

// Owner is the processor that holds the lock, 0 when free. Class names the place that initialised it
// and is 0 before KeInitializeSpinLock.
typedef struct NT_CAPABILITY_("spin lock") _KSPIN_LOCK {
    volatile ULONG Owner;
    ULONG Class;
} KSPIN_LOCK, *PKSPIN_LOCK;

typedef struct _KTHREAD* PKTHREAD;
typedef PKTHREAD PETHREAD;

// Common head of everything a thread can wait for; guarded by the dispatcher lock.
typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Spare[3];
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

// SignalState is 1 when free and goes down with every acquisition of the owner.
typedef struct NT_CAPABILITY_("mutex") _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    ULONG Class;
    BOOLEAN Abandoned;
} KMUTANT, *PKMUTANT, *PRKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

struct _KDPC;
typedef VOID NTAPI KDEFERRED_ROUTINE(struct _KDPC* Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                     PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE* PKDEFERRED_ROUTINE;

// DpcData is the processor whose queue holds the DPC, null when it is not queued; Ticket its place there.
typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID volatile DpcData;
    ULONGLONG Ticket;
} KDPC, *PKDPC, *PRKDPC;

// HeapIndex is the timer's place in the queue, counted from 1; 0 when it is not set.
typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULARGE_INTEGER DueTime;
    ULONGLONG Sequence;
    PKDPC Dpc;
    ULONG HeapIndex;
    LONG Period;
} KTIMER, *PKTIMER, *PRKTIMER;

typedef VOID NTAPI KSTART_ROUTINE(PVOID StartContext);
typedef KSTART_ROUTINE* PKSTART_ROUTINE;

#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64
#define THREAD_ALL_ACCESS 0x001fffff

extern "C" {

KIRQL NTAPI KeGetCurrentIrql(VOID);
// To the same or a higher level only.
VOID NTAPI KfRaiseIrqlTo(KIRQL NewIrql, PKIRQL OldIrql);
// To the same or a lower level only; below DISPATCH_LEVEL this processor's DPCs run first.
VOID NTAPI KeLowerIrql(KIRQL NewIrql);
FORCEINLINE VOID KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) { KfRaiseIrqlTo(NewIrql, OldIrql); }
FORCEINLINE KIRQL KeRaiseIrqlToDpcLevel(VOID) {
    KIRQL OldIrql;
    KfRaiseIrqlTo(DISPATCH_LEVEL, &OldIrql);
    return OldIrql;
}

// The place of the call names the lock's class for the lock-order check.
VOID NTAPI KiInitializeSpinLock(PKSPIN_LOCK SpinLock, const char* File, ULONG Line);
FORCEINLINE VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock, const char* File = __builtin_FILE(),
                                      ULONG Line = __builtin_LINE()) {
    KiInitializeSpinLock(SpinLock, File, Line);
}
// IRQL <= DISPATCH_LEVEL; returns at DISPATCH_LEVEL. Not recursive.
VOID NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql) _Acquires_lock_(*SpinLock);
VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) _Releases_lock_(*SpinLock);
// IRQL = DISPATCH_LEVEL.
VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) _Acquires_lock_(*SpinLock);
VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) _Releases_lock_(*SpinLock);

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
// All three return the state before, the second nothing. The event is not touched once a waiter
// may run, so it may live on the waiter's stack. IRQL <= DISPATCH_LEVEL.
LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
VOID NTAPI KeClearEvent(PRKEVENT Event);
LONG NTAPI KeResetEvent(PRKEVENT Event);
LONG NTAPI KeReadStateEvent(PRKEVENT Event);

VOID NTAPI KiInitializeMutex(PRKMUTEX Mutex, const char* File, ULONG Line);
FORCEINLINE VOID KeInitializeMutex(PRKMUTEX Mutex, ULONG Level, const char* File = __builtin_FILE(),
                                   ULONG Line = __builtin_LINE()) {
    UNREFERENCED_PARAMETER(Level);
    KiInitializeMutex(Mutex, File, Line);
}
// Returns the signal state before: 0 when this was the last of the owner's acquisitions.
LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex);

// Timeout in 100 ns: negative relative, positive absolute, zero polls, none waits for ever. Only a
// zero Timeout is legal at DISPATCH_LEVEL. STATUS_TIMEOUT or STATUS_WAIT_0 (+ index).
NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                     BOOLEAN Alertable, PLARGE_INTEGER Timeout);
#define KeWaitForMutexObject KeWaitForSingleObject
NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                        KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                        struct _KWAIT_BLOCK* WaitBlockArray);
// IRQL <= APC_LEVEL.
NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

VOID NTAPI KeInitializeTimer(PKTIMER Timer);
VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
// Both return whether the timer was set before the call; setting a set timer moves it.
BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer);
BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer);

VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
// FALSE when it is queued already. Below DISPATCH_LEVEL the routine has run when the call returns.
BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
// TRUE when it was still queued and will not run for that insertion.
BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc);
// Returns when every DPC queued or running at the call has ended. PASSIVE_LEVEL.
VOID NTAPI KeFlushQueuedDpcs(VOID);
VOID NTAPI KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance);

PKTHREAD NTAPI KeGetCurrentThread(VOID);
#define PsGetCurrentThread KeGetCurrentThread
KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
ULONG NTAPI KeGetCurrentProcessorNumber(VOID);
// 100 ns units since 1601; since boot; ticks since boot (KeQueryTimeIncrement units each).
VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
ULONGLONG NTAPI KeQueryInterruptTime(VOID);
VOID NTAPI KeQueryTickCount(PLARGE_INTEGER CurrentCount);
ULONG NTAPI KeQueryTimeIncrement(VOID);
LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);
VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds);
VOID NTAPI KeEnterCriticalRegion(VOID);
VOID NTAPI KeLeaveCriticalRegion(VOID);
DECLSPEC_NORETURN VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR Parameter1, ULONG_PTR Parameter2,
                                          ULONG_PTR Parameter3, ULONG_PTR Parameter4);

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES Attributes,
                                    HANDLE ProcessHandle, struct _CLIENT_ID* ClientId, PKSTART_ROUTINE StartRoutine,
                                    PVOID StartContext);
NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus);

}  // extern "C"

#endif
