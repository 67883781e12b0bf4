// Entry points for applications: read, write, flush, open, cleanup, close, system control, serial and
// internal controls, and the wait-on-mask events.
#pragma once

#include "squeue.h"

struct PORT_OBJ;

DRIVER_DISPATCH DispatchRead;
DRIVER_DISPATCH DispatchWrite;
DRIVER_DISPATCH DispatchFlush;
DRIVER_DISPATCH DispatchCreate;
DRIVER_DISPATCH DispatchCleanup;
DRIVER_DISPATCH DispatchClose;
DRIVER_DISPATCH DispatchSystemControl;
DRIVER_DISPATCH DispatchDeviceControl;
DRIVER_DISPATCH DispatchInternalDeviceControl;

// Ends a request whose Status and Length are set; its IRP goes to the completion queue.
VOID CompleteRequest(DEVICE* Dev, SER_REQUEST* Request) _Requires_lock_held_(DeviceLock);
VOID CompleteFlushIrps(DEVICE* Dev) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(DISPATCH_LEVEL);
TIMER_OBJ_CALLBACK FlushTimerFnc;          // context the DEVICE

// Tell the lower driver that the port was opened or closed. PASSIVE_LEVEL; take the device Mutex.
NTSTATUS SendOpenNotification(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS SendCloseNotification(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);

// Wait-on-mask.
VOID IndicateWaitEvent(PORT_OBJ* Port, ULONG Events) _Requires_lock_held_(DeviceLock);
VOID CompleteWaitIrp(PORT_OBJ* Port, ULONG Events) _Requires_lock_held_(DeviceLock);
DRIVER_CANCEL WaitIrp_IrpCancelRoutine;
TIMER_OBJ_CALLBACK DelayWaitCancelFnc;     // context the DEVICE
// The control itself. STATUS_PENDING: stored; else the request is still the caller's.
NTSTATUS WaitOnMask(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp) _Requires_lock_held_(DeviceLock);
const CHAR* IoctlName(ULONG Code);

// Finds the DEVICE and works inside its rundown: an entry point touches the DEVICE after its request
// may be completed, and with it the last handle gone. Without a DEVICE the request fails.
typedef NTSTATUS ENTRY_ROUTINE(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS WithDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp, ENTRY_ROUTINE* Entry);
