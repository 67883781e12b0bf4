// What the sending and the receiving half of the transfer contexts share.
#pragma once

#include "sndrcv.h"
#include "worker.h"

enum : ULONG {
    URB_STATUS_BITS = 0x0FFFFFFF,   // of a URB's status: what the completion routines act on
    URB_CANCELED = (ULONG)USBD_STATUS_CANCELED & URB_STATUS_BITS,
    URB_DEVICE_GONE = (ULONG)USBD_STATUS_DEVICE_GONE & URB_STATUS_BITS,
    URB_ENDPOINT_HALTED = (ULONG)USBD_STATUS_ENDPOINT_HALTED & URB_STATUS_BITS,
};
static_assert(URB_CANCELED == 0x10000 && URB_DEVICE_GONE == 0x7000 && URB_ENDPOINT_HALTED == 0x30);

enum : ULONG { DEVICE_POWER_D0 = 1 };

// The context may submit: started, no waiting stop at work, the device enabled and present.
BOOLEAN ContextReady(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock);
// Builds the transfer, takes the pipe's record for it and yields the device to call. The packet is the
// bus driver's from the call on.
PDEVICE_OBJECT PrepareTransfer(SNDRCV_PIPE* Pipe, USB_PACKET* Packet, ULONG Flags, ULONG Length, PMDL Mdl,
                               PIO_COMPLETION_ROUTINE Routine) _Requires_lock_held_(DeviceLock);
// Calls the bus driver with Lock held. What it completes inside the call waits for the context's DPC.
NTSTATUS CallUnderLock(SNDRCV_PIPE* Pipe, PDEVICE_OBJECT Lower, PIRP Irp) _Requires_lock_held_(DeviceLock);
// TRUE when this completion runs inside a call made under Lock: the packet is parked.
BOOLEAN DeferCompletion(USB_PACKET* Packet);
// The oldest parked packet, or null.
USB_PACKET* TakeDeferred(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock);
// The URB's status; a failed IRP whose URB nobody touched counts as failed.
ULONG TransferStatus(USB_PACKET* Packet);
// One restart of a context is queued at a time. FALSE: it could not be queued.
BOOLEAN QueueRestart(SNDRCV_PIPE* Pipe, WORK_ROUTINE* Routine);

// The first packet of PacketList, unlinked, or null.
USB_PACKET* TakeListed(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock);
// Gives the packets on PacketList back; their count.
ULONG PurgeList(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock);
// After a packet went home without a completion.
VOID SignalIfHome(SNDRCV_PIPE* Pipe);
// Restarting: the stop is part of a restart and does not countermand it.
VOID StopContext(SNDRCV_PIPE* Pipe, UCHAR Wait, BOOLEAN Restarting) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID StartRcvLocked(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock);

// SubmitWriteUrb for callers without and with Lock. *Refused: nothing was sent, the packet is home.
NTSTATUS SendPacket(SNDRCV_PIPE* Snd, USB_PACKET* Packet, BOOLEAN* Refused) _Requires_lock_not_held_(DeviceLock);
NTSTATUS SendPacketLocked(SNDRCV_PIPE* Snd, USB_PACKET* Packet, BOOLEAN* Refused) _Requires_lock_held_(DeviceLock);
