// Requests: their memory, their way down the stack and up again, and their cancellation.
//
//   allocated -> (IoCallDriver: one location down)* -> IoCompleteRequest: up again, completion routine by completion routine
//   a routine may stop the way up (MORE_PROCESSING_REQUIRED); whoever completes the request next goes on from there
//   past the last location a request of the executive's own is finished (IrpFinish); a driver's own must not get that far
//
// An IRP of the executive is pinned while a cancellation runs; its memory goes to the cache with the last pin.
#include <cstring>
#include <new>

#include "kernel/faults.h"
#include "kernel/io_internal.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr ULONG irpTag = ' prI';
constexpr ULONG bufferTag = 'fuBI';
constexpr UCHAR poison = 0xf1;
constexpr std::size_t cachedCapacities = 16;
constexpr ULONG smallestBuffer = 64;
constexpr std::size_t bufferClasses = 15;  // 64 bytes to 1 MiB

struct FreeBuffer {
    FreeBuffer* next;
};

TinyLock cacheLock;
IrpRecord* freeIrps[cachedCapacities];     // guarded by cacheLock
FreeBuffer* freeBuffers[bufferClasses];  // likewise
KSPIN_LOCK cancelLock;
bool cancelLockReady = false;

std::size_t sizeOfRecord(CCHAR capacity) {
    return sizeof(IrpRecord) + static_cast<std::size_t>(capacity) * sizeof(IO_STACK_LOCATION);
}

// Room for what follows the IRP inside its record.
std::size_t bodySize(const IrpRecord& record) { return sizeOfRecord(static_cast<CCHAR>(record.capacity)) - offsetof(IrpRecord, irp); }

IrpRecord* takeCached(std::size_t stackSize) {
    TinyGuard guard(cacheLock);
    IrpRecord* record = freeIrps[stackSize];
    if (record) {
        freeIrps[stackSize] = record->next;
    }
    return record;
}

void checkPoison(const IrpRecord& record) {
    auto bytes = reinterpret_cast<const UCHAR*>(&record.irp);
    std::size_t size = bodySize(record);
    if (bytes[0] != poison || std::memcmp(bytes, bytes + 1, size - 1) != 0) {
        verifier::stop("I17", "IoAllocateIrp", &record.irp, "request written to after its end");
    }
}

void recycle(IrpRecord& record) {
    if (verifying()) {
        noteIrp(IrpEvent::free, &record.irp, nullptr, 0);
        RtlFillMemory(static_cast<void*>(&record.irp), bodySize(record), poison);
    }
    if (record.capacity >= cachedCapacities) {
        record.~IrpRecord();
        ExFreePoolWithTag(&record, irpTag);
        return;
    }
    TinyGuard guard(cacheLock);
    record.next = freeIrps[record.capacity];
    freeIrps[record.capacity] = &record;
}

std::atomic<ULONGLONG> lastSerial{0};

// Tells one life of an IRP from the next at the same address.
ULONGLONG serialOf(PIRP irp) { return static_cast<ULONGLONG>(irp->Overlay.AllocationSize.QuadPart); }

void initialize(PIRP irp, USHORT packetSize, CCHAR stackSize) {
    RtlZeroMemory(static_cast<void*>(irp), packetSize);
    irp->Type = IO_TYPE_IRP;
    irp->Size = packetSize;
    irp->StackCount = stackSize;
    irp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
    InitializeListHead(&irp->ThreadListEntry);
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stackSize;
    if (verifying()) {
        irp->Overlay.AllocationSize.QuadPart =
            static_cast<LONGLONG>(lastSerial.fetch_add(1, std::memory_order_relaxed) + 1);
    }
}

bool inSomeDriversHands(PIRP irp) { return irp->CurrentLocation <= irp->StackCount; }

// One dispatch routine in progress on this thread, while the verifier is on. A location that is completed within it tells it so;
// whatever happens on other threads needs no more than the pending mark.
struct CallFrame {
    PIRP irp;
    ULONGLONG serial;
    PIO_STACK_LOCATION location;
    CallFrame* outer;
    bool completed;
    bool pending;
    NTSTATUS status;
};

constinit thread_local CallFrame* callFrames = nullptr;

void checkReturn(const CallFrame& frame, NTSTATUS status, UCHAR major) {
    if (!frame.completed) {
        if (status != STATUS_PENDING) {
            verifier::stop("I9", "dispatch routine", frame.irp,
                           "major %02x returned %08x, but the request was neither completed nor left pending", major,
                           status);
        }
        return;
    }
    if (frame.pending && status != STATUS_PENDING) {
        verifier::stop("I8", "dispatch routine", frame.irp, "major %02x marked the request pending and returned %08x",
                       major, status);
    }
    if (!frame.pending && status == STATUS_PENDING) {
        verifier::stop("I8", "dispatch routine", frame.irp,
                       "major %02x returned STATUS_PENDING for a request completed without being marked pending", major);
    }
    if (!frame.pending && status != frame.status) {
        verifier::stop("I8", "dispatch routine", frame.irp, "major %02x returned %08x for a request completed with %08x",
                       major, status, frame.status);
    }
}

// The current location of `irp` is being completed.
void noteLocationCompleted(PIRP irp, PIO_STACK_LOCATION location) {
    bool pending = (location->Control & SL_PENDING_RETURNED) != 0;
    bool within = false;
    for (CallFrame* frame = callFrames; frame; frame = frame->outer) {
        if (frame->irp == irp && frame->location == location && frame->serial == serialOf(irp) && !frame->completed) {
            frame->completed = true;
            frame->pending = pending;
            frame->status = irp->IoStatus.Status;
            within = true;
        }
    }
    if (!within && !pending) {
        verifier::stop("I8", "IoCompleteRequest", irp,
                       "major %02x completed outside its dispatch routine without being marked pending",
                       location->MajorFunction);
    }
}

PDRIVER_CANCEL cancelRoutineOf(PIRP irp) { return __atomic_load_n(&irp->CancelRoutine, __ATOMIC_SEQ_CST); }

void checkComplete(PIRP irp) {
    noteIrp(IrpEvent::complete, irp, nullptr, irp->IoStatus.Status);
    if (irp->IoStatus.Status == STATUS_PENDING || irp->IoStatus.Status == -1) {
        verifier::stop("I2", "IoCompleteRequest", irp, "completed with status %08x", irp->IoStatus.Status);
    }
    if (cancelRoutineOf(irp)) {
        verifier::stop("I3", "IoCompleteRequest", irp, "completed with its cancel routine still set");
    }
    verifier::checkIrqlMax("IoCompleteRequest", DISPATCH_LEVEL);
}

void checkCall(PDEVICE_OBJECT device, PIRP irp) {
    noteIrp(IrpEvent::call, irp, device, 0);
    if (cancelRoutineOf(irp)) {
        verifier::stop("I4", "IoCallDriver", irp, "sent down with a cancel routine set");
    }
    verifier::checkIrqlMax("IoCallDriver", DISPATCH_LEVEL);
}

NTSTATUS callChecked(PDEVICE_OBJECT device, PIRP irp, PIO_STACK_LOCATION location) {
    UCHAR major = location->MajorFunction;
    CallFrame frame{irp, serialOf(irp), location, callFrames, false, false, 0};
    callFrames = &frame;
    verifier::RoutineFrame routine = verifier::enterRoutine();
    NTSTATUS status = device->DriverObject->MajorFunction[major](device, irp);
    verifier::leaveRoutine(routine, "dispatch routine", irp);
    callFrames = frame.outer;
    noteIrp(IrpEvent::returned, irp, device, status);
    checkReturn(frame, status, major);
    return status;
}

bool wantsRoutine(PIRP irp, UCHAR control) {
    if (irp->Cancel && (control & SL_INVOKE_ON_CANCEL)) {
        return true;
    }
    return (control & (NT_SUCCESS(irp->IoStatus.Status) ? SL_INVOKE_ON_SUCCESS : SL_INVOKE_ON_ERROR)) != 0;
}

// Runs the routine the upper driver set in `location`; true when the way up goes on. The request may be gone otherwise.
bool runRoutine(PIRP irp, const IO_STACK_LOCATION& location) {
    bool atTop = irp->CurrentLocation > irp->StackCount;
    PDEVICE_OBJECT device = atTop ? nullptr : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
    bool pending = irp->PendingReturned;
    verifier::RoutineFrame routine = verifier::enterRoutine();
    NTSTATUS status = location.CompletionRoutine(device, irp, location.Context);
    verifier::leaveRoutine(routine, "completion routine", irp);
    if (status == STATUS_MORE_PROCESSING_REQUIRED) {
        return false;
    }
    if (verifying() && pending && !atTop && !(IoGetCurrentIrpStackLocation(irp)->Control & SL_PENDING_RETURNED)) {
        verifier::stop("I10", "completion routine", irp, "let a pending request go on without marking it pending");
    }
    return true;
}

}  // namespace

IrpRecord* allocateIrp(CCHAR stackSize, bool mayFail) {
    if (mayFail && faults::hit(faults::Kind::request)) {
        return nullptr;
    }
    bool cached = static_cast<std::size_t>(stackSize) < cachedCapacities;
    IrpRecord* record = cached ? takeCached(static_cast<std::size_t>(stackSize)) : nullptr;
    if (!record) {
        faults::Off noFaults(!mayFail);
        void* memory = ExAllocatePoolWithTag(NonPagedPool, sizeOfRecord(stackSize), irpTag);
        if (!memory) {
            return nullptr;
        }
        record = new (memory) IrpRecord{};
        record->capacity = static_cast<UCHAR>(stackSize);
    } else if (verifying()) {
        checkPoison(*record);
    }
    record->pins.store(1, std::memory_order_relaxed);
    record->allocated = true;
    record->finish = nullptr;
    record->request = nullptr;
    record->output = nullptr;
    record->systemBuffer = nullptr;
    record->powerVisits.store(0, std::memory_order_relaxed);
    record->powerStarts.store(0, std::memory_order_relaxed);
    initialize(&record->irp, IoSizeOfIrp(stackSize), stackSize);
    record->irp.AllocationFlags = irpHasRecord;
    return record;
}

void pinIrp(IrpRecord& record) {
    if (record.pins.fetch_add(1, std::memory_order_relaxed) == 0) {
        verifier::stop("I17", "IoCancelIrp", &record.irp, "request used after its end");
    }
}

void unpinIrp(IrpRecord& record) {
    if (record.pins.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        recycle(record);
    }
}

NTSTATUS callAndWait(PDEVICE_OBJECT device, IrpRecord& record) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    record.event = &event;
    record.finish = [](IrpRecord& r) { KeSetEvent(r.event, IO_NO_INCREMENT, FALSE); };
    IoCallDriver(device, &record.irp);
    KeWaitForSingleObject(&event, ::Executive, KernelMode, FALSE, nullptr);
    return record.irp.IoStatus.Status;
}

PVOID allocateBuffer(ULONG& size) {
    std::size_t index = 0;
    ULONG rounded = smallestBuffer;
    for (; rounded < size && index < bufferClasses; ++index) {
        rounded <<= 1;
    }
    if (index >= bufferClasses) {
        return ExAllocatePoolWithTag(NonPagedPool, size, bufferTag);
    }
    size = rounded;
    {
        TinyGuard guard(cacheLock);
        if (FreeBuffer* buffer = freeBuffers[index]) {
            freeBuffers[index] = buffer->next;
            return buffer;
        }
    }
    return ExAllocatePoolWithTag(NonPagedPool, size, bufferTag);
}

void freeBuffer(PVOID buffer, ULONG size) {
    std::size_t index = 0;
    while (index < bufferClasses && (smallestBuffer << index) != size) {
        ++index;
    }
    if (index == bufferClasses) {
        ExFreePoolWithTag(buffer, bufferTag);
        return;
    }
    auto entry = static_cast<FreeBuffer*>(buffer);
    TinyGuard guard(cacheLock);
    entry->next = freeBuffers[index];
    freeBuffers[index] = entry;
}

void emptyIoCaches() {
    for (IrpRecord*& head : freeIrps) {
        while (IrpRecord* record = head) {
            head = record->next;
            record->~IrpRecord();
            ExFreePoolWithTag(record, irpTag);
        }
    }
    for (FreeBuffer*& head : freeBuffers) {
        while (FreeBuffer* buffer = head) {
            head = buffer->next;
            ExFreePoolWithTag(buffer, bufferTag);
        }
    }
    cancelLockReady = false;
}

void startIrps() {
    KeInitializeSpinLock(&cancelLock);
    cancelLockReady = true;
    verifier::setHistoryPrinter(printIrpHistory);
}

}  // namespace nt

using namespace nt;

extern "C" {

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN) {
    IrpRecord* record = allocateIrp(StackSize, true);
    if (record && verifying()) {
        noteIrp(IrpEvent::allocate, &record->irp, nullptr, 0);
    }
    return record ? &record->irp : nullptr;
}

VOID NTAPI IoFreeIrp(PIRP Irp) {
    IrpRecord* record = recordOf(Irp);
    if (!record || !record->allocated) {
        verifier::stop("I12", "IoFreeIrp", Irp, "not a request of IoAllocateIrp, or freed already");
    }
    if (verifying() && inSomeDriversHands(Irp)) {
        verifier::stop("I12", "IoFreeIrp", Irp, "freed while a driver below still has it");
    }
    record->allocated = false;
    unpinIrp(*record);
}

VOID NTAPI IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize) {
    if (PacketSize < IoSizeOfIrp(StackSize)) {
        verifier::stop("I13", "IoInitializeIrp", Irp, "%u bytes are too few for %d stack locations", PacketSize, StackSize);
    }
    initialize(Irp, PacketSize, StackSize);
    if (verifying()) {
        noteIrp(IrpEvent::initialize, Irp, nullptr, 0);
    }
}

VOID NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Status) {
    if (verifying() && inSomeDriversHands(Irp)) {
        verifier::stop("I13", "IoReuseIrp", Irp, "reused while a driver below still has it");
    }
    UCHAR flags = Irp->AllocationFlags;
    initialize(Irp, Irp->Size, Irp->StackCount);
    Irp->AllocationFlags = flags;
    Irp->IoStatus.Status = Status;
    if (verifying()) {
        noteIrp(IrpEvent::initialize, Irp, nullptr, Status);
    }
}

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    schedulePoint(Point::callDriver);
    bool checked = verifying();
    if (checked) {
        checkCall(DeviceObject, Irp);
    }
    if (Irp->CurrentLocation <= 1 || Irp->CurrentLocation > Irp->StackCount + 1) {
        verifier::stop("I5", "IoCallDriver", Irp, "no stack location left for the driver below (%d of %d)",
                       Irp->CurrentLocation, Irp->StackCount);
    }
    IoSetNextIrpStackLocation(Irp);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    location->DeviceObject = DeviceObject;
    if (location->MajorFunction == IRP_MJ_POWER) {
        if (IrpRecord* record = recordOf(Irp)) {
            record->powerVisits.fetch_add(1, std::memory_order_relaxed);
        }
    }
    if (checked) {
        return callChecked(DeviceObject, Irp, location);
    }
    return DeviceObject->DriverObject->MajorFunction[location->MajorFunction](DeviceObject, Irp);
}

VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR) {
    schedulePoint(Point::completion);
    if (Irp->CurrentLocation > Irp->StackCount || Irp->CurrentLocation < 1 || Irp->Type != IO_TYPE_IRP) {
        verifier::stop("I1", "IoCompleteRequest", Irp, "completed a second time, or never sent");
    }
    bool checked = verifying();
    if (checked) {
        checkComplete(Irp);
    }
    while (Irp->CurrentLocation <= Irp->StackCount) {
        PIO_STACK_LOCATION place = IoGetCurrentIrpStackLocation(Irp);
        IO_STACK_LOCATION location = *place;
        if (checked) {
            noteLocationCompleted(Irp, place);
        }
        Irp->PendingReturned = (location.Control & SL_PENDING_RETURNED) != 0;
        place->Control = 0;
        IoSkipCurrentIrpStackLocation(Irp);
        if (wantsRoutine(Irp, location.Control)) {
            if (!runRoutine(Irp, location)) {
                return;
            }
        } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
            IoMarkIrpPending(Irp);
        }
    }
    IrpRecord* record = recordOf(Irp);
    if (!record || !record->finish) {
        verifier::stop("I12", "IoCompleteRequest", Irp, "a driver's own request went past its last stack location");
    }
    if (checked) {
        noteIrp(IrpEvent::finish, Irp, nullptr, Irp->IoStatus.Status);
    }
    record->finish(*record);
}

BOOLEAN NTAPI IoCancelIrp(PIRP Irp) {
    IrpRecord* record = recordOf(Irp);
    if (record) {
        pinIrp(*record);
    }
    if (verifying()) {
        noteIrp(IrpEvent::cancel, Irp, nullptr, 0);
    }
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (!routine) {
        IoReleaseCancelSpinLock(irql);
    } else {
        if (!inSomeDriversHands(Irp)) {
            verifier::stop("I3", "IoCancelIrp", Irp, "a cancel routine is set on a request no driver has");
        }
        Irp->CancelIrql = irql;
        routine(IoGetCurrentIrpStackLocation(Irp)->DeviceObject, Irp);
        if (verifying() && verifier::holdsLock(&cancelLock)) {
            verifier::stop("L12", "cancel routine", Irp, "returned with the cancel spin lock held");
        }
    }
    if (record) {
        unpinIrp(*record);
    }
    return routine != nullptr;
}

VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) _No_thread_safety_analysis_ { KeAcquireSpinLock(&cancelLock, Irql); }

VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql) _No_thread_safety_analysis_ { KeReleaseSpinLock(&cancelLock, Irql); }

}  // extern "C"
