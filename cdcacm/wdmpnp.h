// Plug and Play.
#pragma once

#include "wdmkrnl.h"

// DEVICE.PnpState; only PNP_STARTED is tested elsewhere.
enum : ULONG {
    PNP_STARTED = 0,
    PNP_STOP_PENDING = 1,
    PNP_STOPPED = 2,
    PNP_REMOVE_PENDING = 3,
    PNP_REMOVED = 4,
    PNP_SURPRISE_REMOVED = 5,
    PNP_NOT_STARTED = 8,
};

DRIVER_DISPATCH DispatchPnp;
// The request is the caller's again on return. PASSIVE_LEVEL.
NTSTATUS PassDownIrpAndWait(PDEVICE_OBJECT Lower, PIRP Irp) _IRQL_requires_max_(PASSIVE_LEVEL);
IO_COMPLETION_ROUTINE PnpIrpCompletionRoutine;
// All under the device Mutex.
NTSTATUS PnpStartDevice(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS PnpQueryStopDevice(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID PnpRemoveDevice(DEVICE* Dev, PDEVICE_OBJECT DeviceObject) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID PnpSurpriseRemoval(DEVICE* Dev, PDEVICE_OBJECT DeviceObject) _IRQL_requires_max_(PASSIVE_LEVEL);

// The lower device of the extension the request came to; null once detached. Any IRQL up to DISPATCH_LEVEL.
PDEVICE_OBJECT LowerOf(PDEVICE_OBJECT DeviceObject);
// The DEVICE has been given to a new arrival while this attachment still stands.
BOOLEAN AttachmentSuperseded(DEVICE* Dev, PDEVICE_OBJECT DeviceObject);
