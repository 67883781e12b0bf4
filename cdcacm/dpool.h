// Pool of request records: grows in blocks on demand, never shrinks until it is deleted.
#pragma once

#include "wdmkrnl.h"

struct DPOOL_SLOT;

struct DPOOL {
    KSPIN_LOCK Lock;
    DPOOL_SLOT* Head;     // free slots, last in first out (Lock)
    ULONG Count;          // elements handed out (Lock)
    ULONG ElementSize;    // bytes
    LIST_ENTRY Blocks;    // (Lock)
    ULONG CurrentCount;   // elements created (Lock)
    ULONG InitialCount;   // elements of the first block
    ULONG MaxCount;       // no growth once CurrentCount exceeds it
    ULONG GrowCount;      // least elements of a later block
};

NTSTATUS DPoolInit(DPOOL* Pool, ULONG InitialCount, ULONG MaxCount, ULONG GrowCount, ULONG ElementSize);
NTSTATUS DPoolGrow(DPOOL* Pool) _Requires_lock_held_(Pool->Lock);
// Null when the limit is reached or memory is out. The element holds what its last user left.
VOID* DPoolGet(DPOOL* Pool) _IRQL_requires_max_(DISPATCH_LEVEL);
VOID DPoolPut(VOID* Element) _IRQL_requires_max_(DISPATCH_LEVEL);
VOID DPoolFree(DPOOL* Pool) _IRQL_requires_max_(DISPATCH_LEVEL);
