// Pool of request records. A slot is either on the free list or in its user's hands; its one link word
// says which slot is free next, or which pool the element belongs to.
#include "dpool.h"

struct DPOOL_SLOT {
    union {
        DPOOL_SLOT* Next;   // while free
        DPOOL* Pool;        // while handed out
    };
};

struct DPOOL_BLOCK {
    LIST_ENTRY Link;   // in DPOOL.Blocks; the slots follow
};

static ULONG SlotSize(const DPOOL* Pool)
{
    return (ULONG)(sizeof(DPOOL_SLOT) + ((Pool->ElementSize + sizeof(VOID*) - 1) & ~(sizeof(VOID*) - 1)));
}

NTSTATUS DPoolInit(DPOOL* Pool, ULONG InitialCount, ULONG MaxCount, ULONG GrowCount, ULONG ElementSize)
{
    KIRQL OldIrql;

    RtlZeroMemory(Pool, sizeof(*Pool));
    Pool->InitialCount = InitialCount;
    Pool->MaxCount = MaxCount;
    Pool->GrowCount = GrowCount;
    Pool->ElementSize = ElementSize;
    InitializeListHead(&Pool->Blocks);
    KeInitializeSpinLock(&Pool->Lock);
    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    NTSTATUS Status = DPoolGrow(Pool);
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
    return Status;
}

NTSTATUS DPoolGrow(DPOOL* Pool)
{
    if (Pool->CurrentCount > Pool->MaxCount)
        return STATUS_INSUFFICIENT_RESOURCES;
    ULONG Count = Pool->InitialCount;
    if (Pool->CurrentCount != 0)
        Count = Pool->GrowCount > Pool->CurrentCount / 2 ? Pool->GrowCount : Pool->CurrentCount / 2;

    ULONG Size = (ULONG)sizeof(DPOOL_BLOCK) + Count * SlotSize(Pool);
    DPOOL_BLOCK* Block = (DPOOL_BLOCK*)MemAlloc(Size, Tag4('p', 'o', 'o', 'l'));
    if (Block == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Block, Size);
    InsertTailList(&Pool->Blocks, &Block->Link);
    for (ULONG Index = 0; Index < Count; ++Index) {
        DPOOL_SLOT* Slot = (DPOOL_SLOT*)((UCHAR*)(Block + 1) + Index * SlotSize(Pool));
        Slot->Next = Pool->Head;
        Pool->Head = Slot;
    }
    Pool->CurrentCount += Count;
    return STATUS_SUCCESS;
}

VOID* DPoolGet(DPOOL* Pool)
{
    KIRQL OldIrql;

    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    if (Pool->Head == NULL && !NT_SUCCESS(DPoolGrow(Pool))) {
        ULONG CurrentCount = Pool->CurrentCount;
        KeReleaseSpinLock(&Pool->Lock, OldIrql);
        TRACE(TRC_ERROR, "%PDPoolGet: alloc failed. CurrentCount %d MaxCount %d\n", CurrentCount, Pool->MaxCount);
        return NULL;
    }
    KASSERT(Pool->Head!=NULL);
    DPOOL_SLOT* Slot = Pool->Head;
    Pool->Head = Slot->Next;
    ++Pool->Count;
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
    Slot->Pool = Pool;
    return Slot + 1;
}

VOID DPoolPut(VOID* Element)
{
    DPOOL_SLOT* Slot = (DPOOL_SLOT*)Element - 1;
    DPOOL* Pool = Slot->Pool;
    KIRQL OldIrql;

    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    Slot->Next = Pool->Head;
    Pool->Head = Slot;
    --Pool->Count;
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
}

VOID DPoolFree(DPOOL* Pool)
{
    KIRQL OldIrql;

    KASSERT(Pool!=NULL);
    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    KASSERT(Pool->Count==0);
    while (!IsListEmpty(&Pool->Blocks))
        MemFree(CONTAINING_RECORD(RemoveHeadList(&Pool->Blocks), DPOOL_BLOCK, Link));
    Pool->CurrentCount = 0;
    Pool->Head = NULL;
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
}
