// Synchronous submission to the lower stack: internal controls, URBs, class and vendor requests.
#pragma once

#include "wdmkrnl.h"

enum : UCHAR { REQUEST_CLASS = 1, REQUEST_VENDOR = 2 };
enum : UCHAR { RECIPIENT_DEVICE, RECIPIENT_INTERFACE, RECIPIENT_ENDPOINT, RECIPIENT_OTHER };

struct CLASS_VENDOR_REQUEST {
    UCHAR RequestKind;    // REQUEST_*
    UCHAR Recipient;      // RECIPIENT_*
    UCHAR ReservedBits;
    UCHAR Request;        // bRequest
    USHORT Value;         // wValue
    USHORT Index;         // wIndex
};
static_assert(sizeof(CLASS_VENDOR_REQUEST) == 8);

enum : ULONG { IOCTL_PORT_OPENED = 0x89312007, IOCTL_PORT_CLOSED = 0x8931200B };

// PASSIVE_LEVEL. Waits at most TimeoutMs (0: without limit), then cancels and waits for the request to
// come back: STATUS_IO_TIMEOUT. The IRP is the caller's again on return in every case.
NTSTATUS SubmitIrpAndWait(DEVICE* Dev, PIRP Irp, VOID* Argument1, ULONG IoControlCode, ULONG TimeoutMs) _IRQL_requires_max_(PASSIVE_LEVEL);
IO_COMPLETION_ROUTINE IrpCompletionRoutineWait;
// The same for a URB; a USB failure comes back as its status with the top three bits set.
NTSTATUS SubmitUrbAndWait(DEVICE* Dev, PIRP Irp, PURB Urb, ULONG TimeoutMs) _IRQL_requires_max_(PASSIVE_LEVEL);
// One control transfer on the default pipe with the given IRP, time-out RequestTimeout. *LengthInOut: bytes asked for, then
// bytes transferred. STATUS_UNSUCCESSFUL without a transfer while the device is disabled.
NTSTATUS ClassVendorRequest(UCHAR DirectionIn, DEVICE* Dev, PIRP Irp, CLASS_VENDOR_REQUEST* Request, VOID* Buffer, ULONG* LengthInOut)
    _IRQL_requires_max_(PASSIVE_LEVEL);
