// Power requests and wake.
#pragma once

#include "wdmkrnl.h"

DRIVER_DISPATCH DispatchPower;
NTSTATUS PassDownPowerIrp(PDEVICE_OBJECT Lower, PIRP Irp, PIO_COMPLETION_ROUTINE Routine, VOID* Context);
IO_COMPLETION_ROUTINE PwrIrpCompletionSetSystem;
IO_COMPLETION_ROUTINE PwrCompRoutDevOn;
REQUEST_POWER_COMPLETE PwrSetDevicePowerCallback;
REQUEST_POWER_COMPLETE WakeCompletionRoutine;
VOID RequestWakeupIrp(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);   // takes the device Mutex
// Cancels the outstanding wait-wake, if any, and clears the field.
VOID CancelWakeIrp(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS PowerOnWorker(VOID* Dev);                                       // work routine
