// The I/O manager's smaller services: built requests, memory descriptor lists, work items, the error log, object references.
#include <new>

#include "kernel/faults.h"
#include "kernel/io_internal.h"
#include "kernel/verifier.h"
#include "kernel/work.h"

struct _IO_WORKITEM {
    nt::WorkEntry entry;
    PDEVICE_OBJECT device;
    PIO_WORKITEM_ROUTINE routine;
    PVOID context;
    std::atomic<bool> queued;
};

namespace nt {

namespace {

constexpr ULONG mdlTag = ' ldM';
constexpr ULONG workTag = 'krWI';
constexpr ULONG errorTag = 'rrEI';

// Stands before an error-log entry handed to a driver.
struct alignas(16) ErrorRecord {
    PVOID object;  // device or driver object; a device is referenced
    UCHAR size;
};

PVOID allocateService(SIZE_T size, ULONG tag) {
    return faults::hit(faults::Kind::request) ? nullptr : ExAllocatePoolWithTag(NonPagedPool, size, tag);
}

CSHORT typeOf(PVOID object) { return *static_cast<CSHORT*>(object); }

// The item may be freed or queued again by its own routine, so it is not touched once that runs.
void runWorkItem(void* context) {
    auto item = static_cast<PIO_WORKITEM>(context);
    PDEVICE_OBJECT device = item->device;
    PIO_WORKITEM_ROUTINE routine = item->routine;
    PVOID argument = item->context;
    item->queued.store(false, std::memory_order_release);
    verifier::RoutineFrame frame = verifier::enterRoutine();
    routine(device, argument);
    verifier::leaveRoutine(frame, "work item routine", item);
    dereferenceDevice(device);
}

void finishBuilt(IrpRecord& record) {
    PIRP irp = &record.irp;
    if (record.systemBuffer) {
        if (record.output && !NT_ERROR(irp->IoStatus.Status)) {
            ULONG_PTR bytes = irp->IoStatus.Information;
            if (bytes > record.outputLength) {
                verifier::stop("I15", "IoCompleteRequest", irp, "%zu bytes of output for a buffer of %u",
                               static_cast<std::size_t>(bytes), record.outputLength);
            }
            RtlCopyMemory(record.output, record.systemBuffer, bytes);
        }
        freeBuffer(record.systemBuffer, record.systemBufferSize);
    }
    PKEVENT event = irp->UserEvent;
    if (irp->UserIosb) {
        *irp->UserIosb = irp->IoStatus;
    }
    record.allocated = false;
    unpinIrp(record);
    if (event) {
        KeSetEvent(event, IO_NO_INCREMENT, FALSE);
    }
}

void readErrorEntry(const ErrorRecord& record, const IO_ERROR_LOG_PACKET& packet, ErrorLogEntry& entry) {
    if (typeOf(record.object) == IO_TYPE_DEVICE) {
        auto device = static_cast<PDEVICE_OBJECT>(record.object);
        entry.device = deviceName(device);
        entry.driver = serviceOf(device->DriverObject);
    } else {
        entry.driver = serviceOf(static_cast<PDRIVER_OBJECT>(record.object));
    }
    entry.errorCode = packet.ErrorCode;
    entry.finalStatus = packet.FinalStatus;
    entry.uniqueErrorValue = packet.UniqueErrorValue;
    entry.majorFunction = packet.MajorFunctionCode;
    entry.retryCount = packet.RetryCount;
    auto bytes = reinterpret_cast<const UCHAR*>(&packet);
    std::size_t dumpAt = offsetof(IO_ERROR_LOG_PACKET, DumpData);
    if (dumpAt + packet.DumpDataSize <= record.size) {
        entry.dumpData.assign(bytes + dumpAt, bytes + dumpAt + packet.DumpDataSize);
    }
    std::size_t at = packet.StringOffset;
    for (USHORT i = 0; i < packet.NumberOfStrings; ++i) {
        std::u16string text;
        for (; at + sizeof(WCHAR) <= record.size; at += sizeof(WCHAR)) {
            WCHAR c;
            RtlCopyMemory(&c, bytes + at, sizeof c);
            if (c == 0) {
                break;
            }
            text += c;
        }
        at += sizeof(WCHAR);
        entry.strings.push_back(toUtf8(text));
    }
}

}  // namespace

}  // namespace nt

using namespace nt;

extern "C" {

VOID FASTCALL ObfReferenceObject(PVOID Object) {
    if (typeOf(Object) == IO_TYPE_DEVICE) {
        referenceDevice(static_cast<PDEVICE_OBJECT>(Object));
    }
}

VOID FASTCALL ObfDereferenceObject(PVOID Object) {
    if (typeOf(Object) == IO_TYPE_DEVICE) {
        dereferenceDevice(static_cast<PDEVICE_OBJECT>(Object));
    }
}

PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                         BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                         PIO_STATUS_BLOCK IoStatusBlock) {
    verifier::checkIrqlMax("IoBuildDeviceIoControlRequest", PASSIVE_LEVEL);
    IrpRecord* record = allocateIrp(DeviceObject->StackSize, true);
    if (!record) {
        return nullptr;
    }
    PIRP irp = &record->irp;
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    location->Parameters.DeviceIoControl.IoControlCode = IoControlCode;
    location->Parameters.DeviceIoControl.InputBufferLength = InputBufferLength;
    location->Parameters.DeviceIoControl.OutputBufferLength = OutputBufferLength;
    if (METHOD_FROM_CTL_CODE(IoControlCode) == METHOD_BUFFERED) {
        ULONG size = InputBufferLength > OutputBufferLength ? InputBufferLength : OutputBufferLength;
        if (size != 0) {
            record->systemBufferSize = size;
            record->systemBuffer = allocateBuffer(record->systemBufferSize);
            if (!record->systemBuffer) {
                unpinIrp(*record);
                return nullptr;
            }
            if (InputBuffer) {
                RtlCopyMemory(record->systemBuffer, InputBuffer, InputBufferLength);
            }
            irp->AssociatedIrp.SystemBuffer = record->systemBuffer;
            irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (OutputBuffer ? IRP_INPUT_OPERATION : 0);
        }
        record->output = OutputBuffer;
        record->outputLength = OutputBufferLength;
    } else {
        location->Parameters.DeviceIoControl.Type3InputBuffer = InputBuffer;
        irp->UserBuffer = OutputBuffer;
    }
    irp->UserEvent = Event;
    irp->UserIosb = IoStatusBlock;
    record->finish = finishBuilt;
    return irp;
}

PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN, PIRP Irp) {
    auto mdl = static_cast<PMDL>(allocateService(sizeof(MDL), mdlTag));
    if (!mdl) {
        return nullptr;
    }
    auto address = reinterpret_cast<ULONG_PTR>(VirtualAddress);
    *mdl = {};
    mdl->Size = sizeof(MDL);
    mdl->StartVa = reinterpret_cast<PVOID>(address & ~static_cast<ULONG_PTR>(PAGE_SIZE - 1));
    mdl->ByteOffset = static_cast<ULONG>(address & (PAGE_SIZE - 1));
    mdl->ByteCount = Length;
    if (Irp) {
        PMDL* slot = &Irp->MdlAddress;
        while (SecondaryBuffer && *slot) {
            slot = &(*slot)->Next;
        }
        *slot = mdl;
    }
    return mdl;
}

VOID NTAPI IoFreeMdl(PMDL Mdl) { ExFreePoolWithTag(Mdl, mdlTag); }

VOID NTAPI MmBuildMdlForNonPagedPool(PMDL Mdl) {
    Mdl->MappedSystemVa = static_cast<PUCHAR>(Mdl->StartVa) + Mdl->ByteOffset;
    Mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject) {
    void* memory = allocateService(sizeof(_IO_WORKITEM), workTag);
    if (!memory) {
        return nullptr;
    }
    auto item = new (memory) _IO_WORKITEM{};
    item->device = DeviceObject;
    return item;
}

VOID NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE,
                           PVOID Context) {
    verifier::checkIrqlMax("IoQueueWorkItem", DISPATCH_LEVEL);
    if (IoWorkItem->queued.exchange(true, std::memory_order_acquire)) {
        verifier::stop("M7", "IoQueueWorkItem", IoWorkItem, "work item queued while it is queued");
    }
    IoWorkItem->routine = WorkerRoutine;
    IoWorkItem->context = Context;
    IoWorkItem->entry.routine = runWorkItem;
    IoWorkItem->entry.context = IoWorkItem;
    referenceDevice(IoWorkItem->device);
    queueWork(IoWorkItem->entry);
}

VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem) {
    if (IoWorkItem->queued.load(std::memory_order_acquire)) {
        verifier::stop("M6", "IoFreeWorkItem", IoWorkItem, "work item freed while it is queued");
    }
    IoWorkItem->~_IO_WORKITEM();
    ExFreePoolWithTag(IoWorkItem, workTag);
}

PVOID NTAPI IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize) {
    if (EntrySize < sizeof(IO_ERROR_LOG_PACKET) || EntrySize > ERROR_LOG_MAXIMUM_SIZE) {
        return nullptr;
    }
    void* memory = allocateService(sizeof(ErrorRecord) + EntrySize, errorTag);
    if (!memory) {
        return nullptr;
    }
    RtlZeroMemory(memory, sizeof(ErrorRecord) + EntrySize);
    auto record = new (memory) ErrorRecord{IoObject, EntrySize};
    ObfReferenceObject(IoObject);
    return record + 1;
}

VOID NTAPI IoFreeErrorLogEntry(PVOID ElEntry) {
    auto record = static_cast<ErrorRecord*>(ElEntry) - 1;
    ObfDereferenceObject(record->object);
    ExFreePoolWithTag(record, errorTag);
}

VOID NTAPI IoWriteErrorLogEntry(PVOID ElEntry) {
    System& sys = system();
    ErrorLogEntry entry;
    readErrorEntry(static_cast<ErrorRecord*>(ElEntry)[-1], *static_cast<IO_ERROR_LOG_PACKET*>(ElEntry), entry);
    {
        std::lock_guard guard(sys.sinkLock);
        if (sys.options.errorLogSink) {
            sys.options.errorLogSink(sys.options.errorLogContext, entry);
        }
        sys.errorLog.push_back(std::move(entry));
    }
    IoFreeErrorLogEntry(ElEntry);
}

}  // extern "C"
