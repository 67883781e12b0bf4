// Files: the application's side of the I/O manager.
//
// A file lives from a successful IRP_MJ_CREATE to IRP_MJ_CLOSE. The handle holds one reference and each outstanding request one:
//   open --close()--> IRP_MJ_CLEANUP, the handle's reference goes --last reference--> IRP_MJ_CLOSE, record freed
// IRP_MJ_CLOSE is sent by close() itself or, when a request ended last, by a work item.
//
// A request ends in a DPC of its own: completion may come from a driver that holds its locks, and the application's callback must
// be free to call any driver.
#include "kernel/io_internal.h"
#include "kernel/ob_names.h"
#include "kernel/verifier.h"
#include "kernel/work.h"

namespace nt {

struct FileRecord {
    FILE_OBJECT object{};
    PDEVICE_OBJECT device = nullptr;  // referenced, and counted as open
    std::atomic<LONG> references{1};
    std::u16string name;
    WorkEntry closeWork{};
    TinyLock lock;
    // Guarded by lock; IRPs by their ThreadListEntry. Guards the irp_ of their requests, too.
    LIST_ENTRY requests{&requests, &requests};

    NTSTATUS open(std::string_view path);
    NTSTATUS issue(Request& request, UCHAR major, ULONG controlCode, const void* input, ULONG inputLength, void* output,
                   ULONG outputLength);
    void cancel(Request& request);
    void cancelAll();
    void close();
    void release(bool here);

    static NTSTATUS refuse(Request& request, NTSTATUS status);

private:
    IrpRecord* prepare(UCHAR major, PDEVICE_OBJECT top, const void* input, ULONG inputLength, ULONG outputLength);
    NTSTATUS callForFile(UCHAR major);
    void sendClose();
    static void finish(IrpRecord& record);
    static KDEFERRED_ROUTINE finishDpc;
    void ended(IrpRecord& record);
};

namespace {

constexpr const char* sizeRule = "I15";

// A completion that wakes whoever waits for the request.
struct WaitedRequest {
    WaitedRequest() : request(wake, this) { KeInitializeEvent(&event, NotificationEvent, FALSE); }

    IoResult wait() {
        KeWaitForSingleObject(&event, ::Executive, KernelMode, FALSE, nullptr);
        return {request.status(), request.information()};
    }
    static void wake(Request&, void* context) {
        KeSetEvent(&static_cast<WaitedRequest*>(context)->event, IO_NO_INCREMENT, FALSE);
    }

    KEVENT event;
    Request request;
};

}  // namespace

NTSTATUS FileRecord::refuse(Request& request, NTSTATUS status) {
    request.status_ = status;
    request.information_ = 0;
    request.completion_(request, request.context_);
    return status;
}

// IRP_MJ_CREATE, CLEANUP and CLOSE: the executive cannot do without them, so they never fail for want of memory.
NTSTATUS FileRecord::callForFile(UCHAR major) {
    PDEVICE_OBJECT top = topOfStack(device);
    IrpRecord* record = allocateIrp(top->StackSize, false);
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (record) {
        PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(&record->irp);
        location->MajorFunction = major;
        location->FileObject = &object;
        if (major == IRP_MJ_CREATE) {
            location->Parameters.Create.Options = FILE_OPEN << 24;
            record->irp.Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API;
        } else if (major == IRP_MJ_CLOSE) {
            record->irp.Flags = IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API;
        }
        record->irp.Tail.Overlay.OriginalFileObject = &object;
        status = callAndWait(top, *record);
        unpinIrp(*record);
    }
    dereferenceDevice(top);
    return status;
}

NTSTATUS FileRecord::open(std::string_view path) {
    std::u16string rest;
    NTSTATUS status = system().names->lookUp(toUtf16(path), true, &device, &rest);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    name = std::move(rest);
    object.Type = IO_TYPE_FILE;
    object.Size = sizeof object;
    object.DeviceObject = device;
    object.ReadAccess = object.WriteAccess = TRUE;
    object.FileName.Buffer = name.data();
    object.FileName.Length = static_cast<USHORT>(name.size() * sizeof(WCHAR));
    object.FileName.MaximumLength = object.FileName.Length;
    KeInitializeEvent(&object.Lock, SynchronizationEvent, TRUE);
    KeInitializeEvent(&object.Event, NotificationEvent, FALSE);
    InitializeListHead(&object.IrpList);
    const auto& mine = *device->DeviceObjectExtension;
    if (mine.deletePending || mine.leaving || (device->Flags & DO_DEVICE_INITIALIZING)) {
        status = STATUS_NO_SUCH_DEVICE;
    } else {
        status = callForFile(IRP_MJ_CREATE);
    }
    if (!NT_SUCCESS(status)) {
        discountHandle(device);
        dereferenceDevice(device);
        return status;
    }
    object.Flags |= FO_HANDLE_CREATED;
    return status;
}

void FileRecord::sendClose() {
    callForFile(IRP_MJ_CLOSE);
    discountHandle(device);
    dereferenceDevice(device);
    delete this;
}

// `here`: this is a place where IRP_MJ_CLOSE may be sent.
void FileRecord::release(bool here) {
    if (references.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    if (here) {
        sendClose();
        return;
    }
    closeWork.routine = [](void* context) { static_cast<FileRecord*>(context)->sendClose(); };
    closeWork.context = this;
    queueWork(closeWork);
}

void FileRecord::close() {
    callForFile(IRP_MJ_CLEANUP);
    object.Flags |= FO_CLEANUP_COMPLETE;
    release(true);
}

// An IRP with its system buffer and the input in it; null when there is no memory.
IrpRecord* FileRecord::prepare(UCHAR major, PDEVICE_OBJECT top, const void* input, ULONG inputLength,
                               ULONG outputLength) {
    IrpRecord* record = allocateIrp(top->StackSize, true);
    if (!record) {
        return nullptr;
    }
    PIRP irp = &record->irp;
    irp->Tail.Overlay.OriginalFileObject = &object;
    irp->RequestorMode = KernelMode;
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = major;
    location->FileObject = &object;
    ULONG size = inputLength > outputLength ? inputLength : outputLength;
    bool buffered = major == IRP_MJ_DEVICE_CONTROL || (top->Flags & DO_BUFFERED_IO);
    if (!buffered) {
        irp->UserBuffer = nullptr;
    } else if (size != 0) {
        record->systemBufferSize = size;
        record->systemBuffer = allocateBuffer(record->systemBufferSize);
        if (!record->systemBuffer) {
            unpinIrp(*record);
            return nullptr;
        }
        if (inputLength != 0) {
            RtlCopyMemory(record->systemBuffer, input, inputLength);
        }
        irp->AssociatedIrp.SystemBuffer = record->systemBuffer;
        irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (outputLength != 0 ? IRP_INPUT_OPERATION : 0);
    }
    return record;
}

NTSTATUS FileRecord::issue(Request& request, UCHAR major, ULONG controlCode, const void* input, ULONG inputLength,
                           void* output, ULONG outputLength) {
    bool stacked = __atomic_load_n(&device->AttachedDevice, __ATOMIC_ACQUIRE) != nullptr;
    PDEVICE_OBJECT top = stacked ? IoGetAttachedDevice(device) : device;
    IrpRecord* record = prepare(major, top, input, inputLength, outputLength);
    if (!record) {
        return refuse(request, STATUS_INSUFFICIENT_RESOURCES);
    }
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(&record->irp);
    switch (major) {
    case IRP_MJ_READ:
        location->Parameters.Read.Length = outputLength;
        record->irp.Flags |= IRP_READ_OPERATION;
        break;
    case IRP_MJ_WRITE:
        location->Parameters.Write.Length = inputLength;
        record->irp.Flags |= IRP_WRITE_OPERATION;
        break;
    case IRP_MJ_DEVICE_CONTROL:
        location->Parameters.DeviceIoControl.IoControlCode = controlCode;
        location->Parameters.DeviceIoControl.InputBufferLength = inputLength;
        location->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
        break;
    default:
        break;
    }
    if (!record->systemBuffer && !(top->Flags & DO_BUFFERED_IO)) {
        record->irp.UserBuffer = output ? output : const_cast<void*>(input);
    } else {
        record->output = output;
    }
    record->outputLength = outputLength;
    record->file = this;
    record->request = &request;
    record->finish = finish;
    references.fetch_add(1, std::memory_order_relaxed);
    {
        TinyGuard guard(lock);
        request.irp_ = &record->irp;
        InsertTailList(&requests, &record->irp.ThreadListEntry);
    }
    return IoCallDriver(top, &record->irp);
}

void FileRecord::finish(IrpRecord& record) {
    KeInitializeDpc(&record.dpc, finishDpc, &record);
    KeInsertQueueDpc(&record.dpc, nullptr, nullptr);
}

VOID FileRecord::finishDpc(struct _KDPC*, PVOID context, PVOID, PVOID) {
    IrpRecord& record = *static_cast<IrpRecord*>(context);
    FileRecord* file = record.file;
    file->ended(record);
    file->release(false);
}

void FileRecord::ended(IrpRecord& record) {
    PIRP irp = &record.irp;
    Request& request = *record.request;
    NTSTATUS status = irp->IoStatus.Status;
    ULONG_PTR information = irp->IoStatus.Information;
    if (record.output && !NT_ERROR(status) && information != 0) {
        if (information > record.outputLength) {
            verifier::stop(sizeRule, "IoCompleteRequest", irp, "%zu bytes of output for a buffer of %u",
                           static_cast<std::size_t>(information), record.outputLength);
        }
        RtlCopyMemory(record.output, record.systemBuffer, information);
    }
    {
        TinyGuard guard(lock);
        RemoveEntryList(&irp->ThreadListEntry);
        request.irp_ = nullptr;
    }
    if (record.systemBuffer) {
        freeBuffer(record.systemBuffer, record.systemBufferSize);
    }
    unpinIrp(record);
    request.status_ = status;
    request.information_ = information;
    request.completion_(request, request.context_);
}

void FileRecord::cancel(Request& request) {
    PIRP irp;
    {
        TinyGuard guard(lock);
        irp = request.irp_;
        if (!irp) {
            return;
        }
        pinIrp(*recordOf(irp));
    }
    IoCancelIrp(irp);
    unpinIrp(*recordOf(irp));
}

void FileRecord::cancelAll() {
    // A cancelled request keeps its Cancel flag, so each turn finds another one or ends.
    for (;;) {
        PIRP irp = nullptr;
        {
            TinyGuard guard(lock);
            for (PLIST_ENTRY entry = requests.Flink; entry != &requests && !irp; entry = entry->Flink) {
                PIRP candidate = CONTAINING_RECORD(entry, IRP, ThreadListEntry);
                if (!candidate->Cancel) {
                    irp = candidate;
                    pinIrp(*recordOf(irp));
                }
            }
        }
        if (!irp) {
            return;
        }
        IoCancelIrp(irp);
        unpinIrp(*recordOf(irp));
    }
}

void Request::destroyedEarly() const {
    if (verifying()) {
        verifier::stop("I18", "~Request", irp_, "destroyed by its owner while the request is outstanding");
    }
}

File::File(File&& other) noexcept : record_(other.record_) { other.record_ = nullptr; }

File& File::operator=(File&& other) noexcept {
    if (this != &other) {
        close();
        record_ = other.record_;
        other.record_ = nullptr;
    }
    return *this;
}

NTSTATUS File::open(std::string_view name) {
    verifier::checkIrqlMax("open", PASSIVE_LEVEL);
    if (record_) {
        return STATUS_INVALID_PARAMETER;
    }
    auto record = std::make_unique<FileRecord>();
    NTSTATUS status = record->open(name);
    if (NT_SUCCESS(status)) {
        record_ = record.release();
    }
    return status;
}

PFILE_OBJECT File::object() const { return record_ ? &record_->object : nullptr; }

NTSTATUS File::read(Request& request, void* buffer, ULONG length) {
    return record_ ? record_->issue(request, IRP_MJ_READ, 0, nullptr, 0, buffer, length)
                   : FileRecord::refuse(request, STATUS_FILE_CLOSED);
}

NTSTATUS File::write(Request& request, const void* buffer, ULONG length) {
    return record_ ? record_->issue(request, IRP_MJ_WRITE, 0, buffer, length, nullptr, 0)
                   : FileRecord::refuse(request, STATUS_FILE_CLOSED);
}

NTSTATUS File::flush(Request& request) {
    return record_ ? record_->issue(request, IRP_MJ_FLUSH_BUFFERS, 0, nullptr, 0, nullptr, 0)
                   : FileRecord::refuse(request, STATUS_FILE_CLOSED);
}

NTSTATUS File::control(Request& request, ULONG code, const void* input, ULONG inputLength, void* output,
                       ULONG outputLength) {
    if (!record_ || METHOD_FROM_CTL_CODE(code) != METHOD_BUFFERED) {
        return FileRecord::refuse(request, record_ ? STATUS_NOT_SUPPORTED : STATUS_FILE_CLOSED);
    }
    return record_->issue(request, IRP_MJ_DEVICE_CONTROL, code, input, inputLength, output, outputLength);
}

IoResult File::read(void* buffer, ULONG length) {
    WaitedRequest waited;
    read(waited.request, buffer, length);
    return waited.wait();
}

IoResult File::write(const void* buffer, ULONG length) {
    WaitedRequest waited;
    write(waited.request, buffer, length);
    return waited.wait();
}

IoResult File::flush() {
    WaitedRequest waited;
    flush(waited.request);
    return waited.wait();
}

IoResult File::control(ULONG code, const void* input, ULONG inputLength, void* output, ULONG outputLength) {
    WaitedRequest waited;
    control(waited.request, code, input, inputLength, output, outputLength);
    return waited.wait();
}

// The last request may end here, and with it a file that is being closed: not under our feet.
void File::cancel(Request& request) {
    if (FileRecord* record = record_) {
        record->references.fetch_add(1, std::memory_order_relaxed);
        record->cancel(request);
        record->release(false);
    }
}

void File::cancelAll() {
    if (FileRecord* record = record_) {
        record->references.fetch_add(1, std::memory_order_relaxed);
        record->cancelAll();
        record->release(false);
    }
}

void File::close() {
    if (record_) {
        verifier::checkIrqlMax("close", PASSIVE_LEVEL);
        FileRecord* record = record_;
        record_ = nullptr;
        record->close();
    }
}

}  // namespace nt
