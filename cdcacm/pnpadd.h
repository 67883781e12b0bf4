// The two device objects of a port, the DEVICE record, and the COM name.
//
// The attachment device object stands on the USB function's stack and takes Plug and Play and power
// requests; the data device object carries the name that applications open and the DEVICE, which
// outlives the USB function as long as anything references it.
#pragma once

#include "dispatch.h"
#include "idle_timer.h"
#include "irpqueue.h"
#include "ntcfg.h"
#include "port.h"
#include "ppp_frame.h"
#include "serport.h"
#include "sndrcv.h"
#include "usbcfg.h"
#include "wdmpnp.h"
#include "worker.h"

// Extension of the attachment device object.
struct ATT_OBJ {
    ULONG Type;                    // ATT_OBJ_TYPE
    PDEVICE_OBJECT DevObj;
    DEVICE* Dev;                   // null while the DEVICE is being built or taken down (AttachmentLock)
    PDEVICE_OBJECT LowerDevObj;    // null once detached (written under Lock)
    UCHAR SurpriseRemoved;
    LONG volatile RefAtt;          // interlocked
};

enum : ULONG { DEVICE_TYPE_DATA = 0, ATT_OBJ_TYPE = 1 };

// Extension of the data device object, behind it DEVICE_PRIVATE.
struct DEVICE {
    ULONG Type;                            // DEVICE_TYPE_DATA
    PDRIVER_OBJECT DriverObject;
    PDEVICE_OBJECT Pdo;                    // replaced on reuse (Mutex)
    PDEVICE_OBJECT LowerDevObj;            // null after removal (written under Lock)
    PORT_OBJ Port;
    DEVICE_CAPABILITIES Capabilities;      // last answer, after the driver's edits (Mutex)
    ULONG PnpState;                        // PNP_* (Mutex)
    ULONG DevicePowerState;                // 1 is D0
    KEVENT PowerOnEvent;                   // signalled in D0
    PIRP systemPowerIrp;                   // waits for its device request
    PIRP PnpIrp;                           // tag "PNP0", for synchronous requests (Mutex)
    USHORT IrpSize;                        // bytes of a request with StackSize locations
    CCHAR StackSize;                       // of LowerDevObj at creation
    CFG Cfg;
    PIRP WakeIrp;                          // outstanding wait-wake, or null (Lock)
    UCHAR WakeSupported;
    LIST_ENTRY DeviceListEntry;            // (DeviceListMutex)
    LONG OpenCount;                        // (written under Mutex and Lock)
    SNDRCV_PIPE Rcv;                       // bulk IN
    SNDRCV_PIPE Snd;                       // bulk OUT
    SNDRCV_PIPE Int;                       // interrupt IN
    ULONG MaxWriteChunk;                   // bytes
    TIMER_OBJ FlowTestTimer;
    TIMER_OBJ WrTimer;                     // the request tick
    UCHAR WrTimerArmed;                    // (Lock)
    LONG WrTimerPending;                   // ticks armed or running, interlocked
    KEVENT WrTimerIdleEvent;
    USB_DEVICE_DESCRIPTOR DeviceDescriptor;
    COMPLETE_QUEUE CompleteQueue;
    KMUTEX Mutex;
    KSPIN_LOCK Lock;
    LONG ReinitCount;                      // interlocked
    TIMER_OBJ ReinitTimer;
    ULONG ReinitRetries;                   // (Mutex)
    IDLE_CTX Idle;
    ULONG SavedModemStatus;                // (Lock)
    ULONG ModemStatus;                     // MODEM_* (Lock)
    UCHAR ControlLines;                    // CONTROL_LINE_* (Mutex)
    USB_DEV Usb;
    NAME_120 Identifier;                   // driver key name of the USB function
    UCHAR PortInUse;                       // (Mutex)
    UCHAR UsbDeviceEnabled;                // (written under Mutex)
    UCHAR Initialized;                     // (Mutex)
    UCHAR DataPathRef;                     // (Lock)
    LONG volatile Ref;                     // interlocked; 0 deletes
    UCHAR TxEnabled;                       // (Lock)
    TIMER_OBJ FlushTimer;
    IRP_QUEUE FlushIrpQueue;
    TIMER_OBJ DelayWaitTimer;
    ULONG PppMode;                         // (Lock)
    PPP_FRAMER Framer;                     // (Lock)
    PPP_DEFRAMER DeFramer;                 // (Lock)
    KEVENT FlagSentEvent;
    UCHAR FlagSent;                        // (Lock)
    ULONG CtsGraceBytes;                   // bytes, interlocked
    ULONG Tag;                             // "DevO"
    LONG CheckLock;                        // (Lock)
};

// What the driver keeps beside the record. TraceName first: leaf units trace through it.
struct DEVICE_PRIVATE {
    WCHAR TraceName[120];        // what "%S" prints for the port; always terminated (trace lock)
    LONG volatile InFlight;      // 1 and the callbacks at work without a reference, interlocked
    KEVENT InFlightEvent;        // set when InFlight falls to 0
    PIO_WORKITEM DeleteItem;     // carries out a deletion that may not run where Ref fell to 0
    LIST_ENTRY WorkFifo;         // WORK_REC in the order queued (WorkLock)
    KSPIN_LOCK WorkLock;         // innermost
    KEVENT Gone;                 // the USB function is being removed; frees who waits for power
    UCHAR CleanedUp;             // between cleanup and the next open requests end at once (Lock)
    UCHAR ChunkOut;              // byte mode: a run holds bytes taken from the ring (Lock)
    ULONG WaitGeneration;        // of the stored wait request (Lock)
    ULONG CancelledGeneration;   // of the wait request whose cancel armed the timer (Lock)
    LONG SwitchQueued;           // framing switches queued and not begun, one bit each way (Lock)
    ULONG SwitchRequests;        // requests for a switch so far (Lock)
    PIRP WakeCancelling;         // wait-wake being cancelled, kept from completing meanwhile (Lock)
    UCHAR WakeCancelDone;        // it completed meanwhile: the canceller goes on with it (Lock)
    LONG ResumeRequested;        // the D0 request for this idle notification was made, interlocked
};

struct DEVICE_EXTENSION {
    DEVICE Device;
    DEVICE_PRIVATE Private;
};

inline DEVICE_PRIVATE* PrivateOf(DEVICE* Dev) { return &((DEVICE_EXTENSION*)Dev)->Private; }

// What traces print for the port.
#define PORT_NAME(Dev) (PrivateOf(Dev)->TraceName)
// "S" for the data device object, "A" for the attachment.
#define OBJECT_LETTER(DeviceObject) (*(const ULONG*)(DeviceObject)->DeviceExtension == DEVICE_TYPE_DATA ? KTEXT("S") : KTEXT("A"))

DRIVER_ADD_DEVICE PnPAddDevice;
// At load: an empty DeviceList and its mutex.
VOID InitDeviceList();
// All at PASSIVE_LEVEL.
NTSTATUS CreateNumberedDeviceObject(const WCHAR* BaseName, ULONG ExtensionSize, PDRIVER_OBJECT DriverObject, NAME_240* Name,
                                    PDEVICE_OBJECT* DevObj) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS GetDeviceIdentifier(PDEVICE_OBJECT Pdo, NAME_120* Id) _IRQL_requires_max_(PASSIVE_LEVEL);
DEVICE* FindDeviceByIdentifier(const NAME_120* Id) _Requires_lock_held_(DeviceListMutex);
NTSTATUS CreateLinks(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS CreateSymbolikLink(PORT_OBJ* Port) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID DeleteLinks(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);
// Runs when Ref has fallen to 0, and when creation fails. Takes DeviceListMutex.
VOID DeleteDevice(PDEVICE_OBJECT DevObj) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID DeleteAttDevice(ATT_OBJ* Att) _IRQL_requires_max_(PASSIVE_LEVEL);
// Both null when the device object belongs to no DEVICE yet or any more. Each out pointer may be null.
VOID GetDevice(PDEVICE_OBJECT DeviceObject, DEVICE** Dev, PORT_OBJ** Port);
// The same in one step with what keeps the DEVICE, for requests that no open handle stands behind: a removal may be
// on its way. Null as above, or once the DEVICE is being deleted.
// Up to DISPATCH_LEVEL; the caller leaves the rundown, or drops the (untraced) reference.
DEVICE* EnterDevice(PDEVICE_OBJECT DeviceObject) _IRQL_requires_max_(DISPATCH_LEVEL);
DEVICE* ReferenceDevice(PDEVICE_OBJECT DeviceObject) _IRQL_requires_max_(DISPATCH_LEVEL);
