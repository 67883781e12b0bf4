// The port object, the class and vendor requests that carry the line's state, reinitialisation after
// faults, and the event log.
#pragma once

#include "dpool.h"
#include "irpqueue.h"
#include "usbsbmit.h"

struct SER_PORT;

// A counted string with a buffer of its own.
struct NAME_240 {
    UNICODE_STRING String;
    WCHAR Buffer[120];
};
struct NAME_120 {
    UNICODE_STRING String;
    WCHAR Buffer[60];
};

// Embedded in DEVICE as Port. Names: device Mutex. Request state: Lock.
struct PORT_OBJ {
    NAME_240 DeviceName;              // "\Device\qvcdcacm" n
    WCHAR* PortName;                  // tracked, "COM5"; null while there is no name
    NAME_240 SymbolicLinkName;        // "\DosDevices\" PortName
    NAME_240 SerialCommName;          // String.Buffer null while no SERIALCOMM value is written
    UCHAR SymLinkCreated;
    PDEVICE_OBJECT DeviceObject;      // the data device object
    DEVICE* Device;
    SER_PORT* SerPort;                // null until AddPort succeeded
    UNICODE_STRING InterfaceName;     // platform-allocated; empty when not registered
    DPOOL DPool;                      // of SER_REQUEST
    IRP_QUEUE ReadIrpQueue;
    IRP_QUEUE WriteIrpQueue;
    PIRP WaitIrp;                     // the stored wait request, or null
    ULONG LastReportedModemStatus;
    ULONG PendingEvents;
    UCHAR ReadImmediate;
    ULONG Tag;                        // "PrtO"
};

enum : UCHAR { CONTROL_LINE_DTR = 0x01, CONTROL_LINE_RTS = 0x02 };
enum : ULONG { MODEM_CTS = 0x10, MODEM_DSR = 0x20, MODEM_RI = 0x40, MODEM_DCD = 0x80 };

NTSTATUS CreatePort(DEVICE* Dev, PORT_OBJ* Port) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID DeletePort(PORT_OBJ* Port) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS InitPort(DEVICE* Dev, UCHAR ResetPipes) _IRQL_requires_max_(PASSIVE_LEVEL);

// Class and vendor requests: PASSIVE_LEVEL, device Mutex held. Those with a VOID* are work routines
// whose argument is the DEVICE.
NTSTATUS SetPcStatus(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS SetDTR(VOID* Dev);
NTSTATUS ClrDTR(VOID* Dev);
NTSTATUS SetRTS(VOID* Dev);
NTSTATUS ClrRTS(VOID* Dev);
NTSTATUS SendBreak(DEVICE* Dev, UCHAR On) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS SetBreak(VOID* Dev);
NTSTATUS ClrBreak(VOID* Dev);
NTSTATUS SendLineCoding(VOID* Dev);
NTSTATUS GetSpecialChars(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS StartFraming(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS StopFraming(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID InitClassRequest(CLASS_VENDOR_REQUEST* Request, UCHAR RequestCode, USHORT Index);
VOID GetModemStatus(DEVICE* Dev, ULONG* Status) _Requires_lock_held_(DeviceLock);

// Reinitialisation.
NTSTATUS Reinit(VOID* Dev);                 // work routine, or inline in one after ReinitCounted
VOID ScheduleReinit(DEVICE* Dev) _IRQL_requires_max_(DISPATCH_LEVEL);
// Runs Reinit inside another work routine, counted like a queued one.
VOID ReinitNow(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
TIMER_OBJ_CALLBACK ReinitTimerFnc;          // context the DEVICE

// One entry with one insertion string to the system event log. PASSIVE_LEVEL.
VOID LogError(VOID* IoObject, NTSTATUS ErrorCode, const CHAR* Text) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID LogNoMemory(VOID* IoObject, NTSTATUS ErrorCode) _IRQL_requires_max_(PASSIVE_LEVEL);
