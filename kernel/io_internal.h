// The I/O manager's records behind device objects and requests, and the calls its parts share.
#pragma once

#include <wdm.h>

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/file.h"
#include "kernel/rtl_text.h"
#include "kernel/system.h"
#include "kernel/work.h"

namespace nt {

struct DeviceNodeRecord;
struct IrpRecord;

}  // namespace nt

// The I/O manager's part of a device object.
struct _DEVOBJ_EXTENSION {
    PDEVICE_OBJECT device;
    // The creator's until IoDeleteDevice, and one for each file, attached device, queued work item and ObReferenceObject. The
    // memory goes with the last.
    std::atomic<LONG> references;
    std::atomic<LONG> handles;         // files open or being opened
    std::atomic<bool> deletePending;
    std::atomic<bool> leaving;         // its stack is being removed: nobody opens it any more
    PDEVICE_OBJECT attachedTo;         // guarded by the attachment lock
    std::atomic<DEVICE_POWER_STATE> powerState;
    // Of the lowest device of a stack.
    std::atomic<LONG> waitWakes;       // outstanding
    nt::IrpRecord* powerActive[2];     // the query or set request under way, by POWER_STATE_TYPE, and those that
    nt::IrpRecord* powerLast[2];       // wait behind it, the last of them here; po.cpp's lock
    nt::DeviceNodeRecord* node;        // of a PDO the PnP manager knows; guarded by the PnP manager's lock
    std::u16string* name;              // null for a nameless device; fixed
};

namespace nt {

// Devices. Any IRQL up to DISPATCH_LEVEL.
void referenceDevice(PDEVICE_OBJECT device);
void dereferenceDevice(PDEVICE_OBJECT device);
void countHandle(PDEVICE_OBJECT device);
void discountHandle(PDEVICE_OBJECT device);
std::string deviceName(PDEVICE_OBJECT device);
// Open files on the stack that `device` belongs to, from `device` upwards.
LONG handlesOnStack(PDEVICE_OBJECT device);
// From now on files on that stack, from `device` upwards, are refused, or no longer.
void setLeaving(PDEVICE_OBJECT device, bool leaving);
// Top of the stack with a reference.
PDEVICE_OBJECT topOfStack(PDEVICE_OBJECT device);
// Lowest of its stack with a reference.
PDEVICE_OBJECT bottomOfStack(PDEVICE_OBJECT device);
// The lowest state that a driver of the stack has reported, from `device` upwards.
DEVICE_POWER_STATE stackPowerState(PDEVICE_OBJECT device);
// Device objects of a driver that nobody deleted, one line each; frees what they hold.
std::vector<std::string> leftDevices(Driver& driver);

// Requests.

// Ends a request of the executive's own, when its last stack location has been completed.
using IrpFinish = void (*)(IrpRecord& record);

// Stands before every IRP the executive allocates.
struct alignas(16) IrpRecord {
    std::atomic<LONG> pins;  // the owner's, and one for each running cancellation; free at 0
    UCHAR capacity;          // stack locations there is room for
    bool allocated;
    IrpFinish finish;  // null: a driver's own request, which must never get that far
    IrpRecord* next;   // in the free list

    // Requests of files and of IoBuildDeviceIoControlRequest
    FileRecord* file;
    Request* request;
    PVOID output;  // where the result goes, null for none
    ULONG outputLength;
    PVOID systemBuffer;
    ULONG systemBufferSize;
    KDPC dpc;

    // Power requests
    std::atomic<LONG> powerVisits;  // drivers that got it
    std::atomic<LONG> powerStarts;  // PoStartNextPowerIrp calls
    WorkEntry work;
    PDEVICE_OBJECT device;       // where it is to be sent from a system thread
    PDEVICE_OBJECT powerDevice;  // as asked for; referenced
    PDEVICE_OBJECT powerTop;     // referenced
    PDEVICE_OBJECT powerBottom;  // referenced
    IrpRecord* powerNext;        // waits behind this one
    POWER_STATE_TYPE powerType;
    PREQUEST_POWER_COMPLETE powerComplete;
    PVOID powerContext;
    UCHAR powerMinor;
    POWER_STATE powerState;

    // Requests somebody waits for
    PKEVENT event;

    alignas(16) IRP irp;
};

// Marks IRPs that have an IrpRecord, in IRP::AllocationFlags.
inline constexpr UCHAR irpHasRecord = 0x40;

inline IrpRecord* recordOf(PIRP irp) {
    return irp->AllocationFlags & irpHasRecord ? CONTAINING_RECORD(irp, IrpRecord, irp) : nullptr;
}

// Null only when memory ran out; `mayFail` lets the fault switchboard have its say.
IrpRecord* allocateIrp(CCHAR stackSize, bool mayFail);
void pinIrp(IrpRecord& record);
void unpinIrp(IrpRecord& record);
// Sends a request of the executive's own and waits for its end; the caller still owns it. Below DISPATCH_LEVEL.
NTSTATUS callAndWait(PDEVICE_OBJECT device, IrpRecord& record);

struct PowerRequest {
    UCHAR minor = 0;
    POWER_STATE_TYPE type = DevicePowerState;
    POWER_STATE state{};
    POWER_ACTION action = PowerActionNone;
    PREQUEST_POWER_COMPLETE complete = nullptr;
    PVOID context = nullptr;
    bool mayFail = true;  // the fault switchboard has its say
};
// Sends it to the top of the stack, after those of its kind that were asked for before. STATUS_PENDING, or STATUS_INSUFFICIENT_RESOURCES: then nothing is called.
NTSTATUS requestPower(PDEVICE_OBJECT device, const PowerRequest& wanted, PIRP* irp);
// A wait-wake that was good from `deepest` upwards has ended with success. <= DISPATCH_LEVEL.
void deviceWoke(SYSTEM_POWER_STATE deepest);

// System buffers from caches by size; null when memory ran out. `size` is rounded up to what it really holds.
PVOID allocateBuffer(ULONG& size);
void freeBuffer(PVOID buffer, ULONG size);
// Gives all cached requests and buffers back to the pool.
void emptyIoCaches();

// The last events of requests, kept while the verifier is on, for its reports.
enum class IrpEvent : UCHAR { allocate, initialize, call, returned, complete, finish, cancel, free };
void noteIrp(IrpEvent event, PIRP irp, PDEVICE_OBJECT device, NTSTATUS status);
void printIrpHistory(const void* subject);

// For boot.
void startIrps();

}  // namespace nt
