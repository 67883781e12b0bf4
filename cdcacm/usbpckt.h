// Transfer packets and their fixed-size pools.
#pragma once

#include "wdmkrnl.h"

struct SNDRCV_PIPE;
struct USB_PIPE;
struct USB_PACKET_POOL;

// An IRP, an MDL, a page-aligned buffer and a request block, allocated once and reused for every
// transfer. In exactly one place: the pool, the bus driver, or its context's PacketList.
struct USB_PACKET {
    LIST_ENTRY Link;         // pool FreeList (pool Lock) or PacketList (device Lock); else self-linked
    USB_PACKET_POOL* Pool;
    PIRP Irp;                // tag "usp0"
    PMDL Mdl;
    UCHAR* Buffer;
    UCHAR* Data;             // receive: first byte not consumed
    ULONG BufferSize;
    ULONG Length;            // send: bytes to transfer; receive: bytes not consumed
    SNDRCV_PIPE* Owner;      // set at each submission
    _URB_BULK_OR_INTERRUPT_TRANSFER Urb;
    ULONG PoolTag;           // "Upkt"
    USB_PIPE* UsbPipe;       // private: endpoint of the submission, held until its completion
};

// One non-paged block, tag "USBP"; PacketCount elements follow the header.
struct USB_PACKET_POOL {
    KSPIN_LOCK Lock;
    LIST_ENTRY FreeList;     // (Lock)
    ULONG Count;             // packets in FreeList (Lock; read without)
    ULONG PacketCount;       // packets owned
    ULONG ElementSize;       // bytes between elements
    CCHAR StackSize;
    USHORT IrpSize;
    ULONG PoolTag;           // "UpkP"
};

USB_PACKET_POOL* CreatePacketPool(ULONG Count, ULONG BufferSize, CCHAR StackSize) _IRQL_requires_max_(DISPATCH_LEVEL);
// Every packet is home. Null is ignored.
VOID DeletePacketPool(USB_PACKET_POOL* Pool) _IRQL_requires_max_(DISPATCH_LEVEL);
// Null when the pool is empty; the packet's IRP is initialised anew.
USB_PACKET* GetPacket(USB_PACKET_POOL* Pool) _IRQL_requires_max_(DISPATCH_LEVEL);
VOID ReturnPacket(USB_PACKET* Packet) _IRQL_requires_max_(DISPATCH_LEVEL);
NTSTATUS InitPacket(USB_PACKET* Packet, ULONG BufferSize);

// All packets home, as the pool's count says at this moment.
inline BOOLEAN PoolIsFull(const USB_PACKET_POOL* Pool) { return LoadShared(&Pool->Count) == Pool->PacketCount; }
