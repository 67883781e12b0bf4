// Transfer packets. A pool is one block: the header, then the packets, each with its page-aligned buffer.
#include "usbpckt.h"

enum : ULONG { PACKET_POOL_POOL_TAG = Tag4('U', 'S', 'B', 'P'), PACKET_IRP_POOL_TAG = Tag4('u', 's', 'p', '0') };

static_assert(sizeof(USB_PACKET_POOL) % alignof(USB_PACKET) == 0, "the packets follow the header");

// The buffer begins within a page behind the record; elements keep the record's alignment.
static ULONGLONG PacketElementSize(ULONG BufferSize)
{
    ULONGLONG Size = (ULONGLONG)sizeof(USB_PACKET) + BufferSize + PAGE_SIZE;

    return (Size + alignof(USB_PACKET) - 1) & ~(ULONGLONG)(alignof(USB_PACKET) - 1);
}

static USB_PACKET* PacketAt(USB_PACKET_POOL* Pool, ULONG Index)
{
    return (USB_PACKET*)((UCHAR*)(Pool + 1) + (SIZE_T)Index * Pool->ElementSize);
}

NTSTATUS InitPacket(USB_PACKET* Packet, ULONG BufferSize)
{
    Packet->Buffer = (UCHAR*)ROUND_TO_PAGES(Packet + 1);
    Packet->BufferSize = BufferSize;
    Packet->Mdl = IoAllocateMdl(Packet->Buffer, BufferSize, FALSE, FALSE, NULL);
    if (Packet->Mdl == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    MmBuildMdlForNonPagedPool(Packet->Mdl);
    Packet->Irp = (PIRP)MemAlloc(Packet->Pool->IrpSize, PACKET_IRP_POOL_TAG);
    return Packet->Irp != NULL ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

USB_PACKET_POOL* CreatePacketPool(ULONG Count, ULONG BufferSize, CCHAR StackSize)
{
    const ULONGLONG ElementSize = PacketElementSize(BufferSize);
    const ULONGLONG Size = sizeof(USB_PACKET_POOL) + Count * ElementSize;

    if (Count == 0 || ElementSize > MAXLONG || Size > MAXLONG)
        return NULL;
    USB_PACKET_POOL* Pool = (USB_PACKET_POOL*)ExAllocatePoolWithTag(NonPagedPool, (SIZE_T)Size, PACKET_POOL_POOL_TAG);
    if (Pool == NULL)
        return NULL;
    RtlZeroMemory(Pool, (SIZE_T)Size);
    KeInitializeSpinLock(&Pool->Lock);
    InitializeListHead(&Pool->FreeList);
    Pool->Count = Pool->PacketCount = Count;
    Pool->ElementSize = (ULONG)ElementSize;
    Pool->StackSize = StackSize;
    Pool->IrpSize = IoSizeOfIrp(StackSize);
    Pool->PoolTag = USB_PACKET_POOL_TAG;

    NTSTATUS Status = STATUS_SUCCESS;
    for (ULONG Index = 0; Index < Count && NT_SUCCESS(Status); Index++) {
        USB_PACKET* Packet = PacketAt(Pool, Index);

        Packet->Pool = Pool;
        Packet->PoolTag = USB_PACKET_TAG;
        InsertTailList(&Pool->FreeList, &Packet->Link);
        Status = InitPacket(Packet, BufferSize);
    }
    if (!NT_SUCCESS(Status)) {
        DeletePacketPool(Pool);
        return NULL;
    }
    return Pool;
}

VOID DeletePacketPool(USB_PACKET_POOL* Pool)
{
    if (Pool == NULL)
        return;
    KASSERT(PTRVALID(Pool,USB_PACKET_POOL));
    KASSERT(Pool->Count==Pool->PacketCount);
    for (ULONG Index = 0; Index < Pool->PacketCount; Index++) {
        USB_PACKET* Packet = PacketAt(Pool, Index);

        if (Packet->Irp != NULL)
            MemFree(Packet->Irp);
        if (Packet->Mdl != NULL)
            IoFreeMdl(Packet->Mdl);
        Packet->Irp = NULL;
        Packet->Mdl = NULL;
        Packet->Buffer = NULL;
        Packet->BufferSize = 0;
        Packet->PoolTag = 0;
    }
    Pool->PoolTag = 0;
    ExFreePool(Pool);
}

USB_PACKET* GetPacket(USB_PACKET_POOL* Pool)
{
    USB_PACKET* Packet = NULL;
    KIRQL OldIrql;

    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    if (!IsListEmpty(&Pool->FreeList)) {
        Packet = CONTAINING_RECORD(RemoveHeadList(&Pool->FreeList), USB_PACKET, Link);
        StoreShared(&Pool->Count, Pool->Count - 1);
    }
    KeReleaseSpinLock(&Pool->Lock, OldIrql);

    if (Packet != NULL) {
        InitializeListHead(&Packet->Link);
        IoInitializeIrp(Packet->Irp, Pool->IrpSize, Pool->StackSize);
    }
    return Packet;
}

VOID ReturnPacket(USB_PACKET* Packet)
{
    USB_PACKET_POOL* Pool = Packet->Pool;
    KIRQL OldIrql;

    KASSERT(PTRVALID(Packet,USB_PACKET));
    KASSERT(PTRVALID(Pool,USB_PACKET_POOL));
    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    InsertHeadList(&Pool->FreeList, &Packet->Link);
    StoreShared(&Pool->Count, Pool->Count + 1);
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
}
