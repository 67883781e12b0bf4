// Configuration: one table of seventeen numbered parameters, read from the registry.
#pragma once

#include "wdmkrnl.h"

// Indices of the parameter table.
enum : ULONG {
    CFG_REQUEST_TIMEOUT,
    CFG_TIMER_INTERVAL,
    CFG_IDLE_INTERVAL,
    CFG_HIGH_POWER_CFG,
    CFG_LOW_POWER_CFG,
    CFG_USB_INTERFACE,
    CFG_USB_CONFIG,
    CFG_READ_BUFFER_SIZE,
    CFG_WRITE_BUFFER_SIZE,
    CFG_READ_CIRC_BUFFER_SIZE,
    CFG_WRITE_CIRC_BUFFER_SIZE,
    CFG_READ_BUFFER_COUNT,
    CFG_VID,
    CFG_PID,
    CFG_USE_CTS_FLOW_CONTROL,
    CFG_FLOW_TEST,
    CFG_TRACE_MASK,
    CFG_PARAMETER_COUNT,
};

// Per-device configuration. Read once when the DEVICE is created; the endpoint fields, UsbInterface
// and UsbConfig are filled at start.
struct CFG {
    ULONG RequestTimeout;       // ms, synchronous USB requests; 0 waits without limit
    ULONG DataInPipe;           // bulk IN endpoint address
    ULONG DataOutPipe;          // bulk OUT endpoint address
    ULONG IntInPipe;            // interrupt IN endpoint address
    ULONG UsbInterface;         // low 16 bits: communication interface number, wIndex of class requests
    ULONG UsbConfig;            // bConfigurationValue in use
    ULONG TimerInterval;        // ms, request tick
    ULONG IdleInterval;         // s, 0 switches selective suspend off
    ULONG HighPowerCfg;         // configuration index behind a self-powered hub
    ULONG LowPowerCfg;          // configuration index otherwise
    ULONG ReadBufferSize;       // bytes of a bulk IN transfer
    ULONG WriteBufferSize;      // bytes of a bulk OUT transfer
    ULONG ReadCircBufferSize;   // bytes of the receive ring
    ULONG WriteCircBufferSize;  // bytes of the send ring
    ULONG ReadBufferCount;      // bulk IN transfers
    ULONG VID;                  // reserved
    ULONG PID;                  // reserved
    ULONG useCtsFlowControl;    // not 0: sending waits while CTS is inactive
    ULONG FlowTest;             // ms, not 0 delays bulk IN and cuts bulk OUT to 64 bytes
};

// All at PASSIVE_LEVEL.
NTSTATUS LoadCfg(PDEVICE_OBJECT Pdo, CFG* Cfg) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS WriteInstance(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
// 0 for an index outside the table. A missing value is written with its default where the table says so.
ULONG ReadCfgParam(HANDLE Key, ULONG Idx) _IRQL_requires_max_(PASSIVE_LEVEL);
ULONG ReadRegDword(HANDLE Key, const WCHAR* Name, ULONG Default, UCHAR WriteDefault) _IRQL_requires_max_(PASSIVE_LEVEL);
// *Out is a terminated tracked block (tag "cfg0") or null; the caller frees it with MemFree.
NTSTATUS ReadRegString(HANDLE Key, const WCHAR* Name, WCHAR** Out) _IRQL_requires_max_(PASSIVE_LEVEL);
// Length in and out in bytes; Buffer may be null to ask for the length.
NTSTATUS QueryRegValue(HANDLE Key, const WCHAR* Name, ULONG* Length, VOID* Buffer) _IRQL_requires_max_(PASSIVE_LEVEL);
// Absolute path, access 0x2001F, kernel handle; the caller closes it with ZwClose.
NTSTATUS OpenKey(HANDLE* Key, const WCHAR* Path) _IRQL_requires_max_(PASSIVE_LEVEL);
