// URBs: checked, handed to the backend, completed from the backend's thread.
//
//   submitted --backend ends it--> finish: completed, unless its cancel routine is on its way, which then does it
//       \--cancel routine, abort, gone--> backend told --backend ends it--> finish
//
// A refused request completes on the hub's thread, so nothing ever completes inside the call that submitted it: callers submit
// with locks held that their completion routines take.
#include "kernel/faults.h"
#include "usb/endpoint_zero.h"
#include "usb/hub.h"

#include <cstring>
#include <new>

namespace usb {

namespace {

constexpr std::size_t recordsPerBlock = 32;
// Bits 2...4 of bmRequestType; the rest of the field is the bus driver's.
constexpr std::uint8_t reservedBitsMask = 0x1C;

struct Ending {
    USBD_STATUS usbd;
    NTSTATUS status;
};

Ending endingOf(TransferStatus status) {
    switch (status) {
    case TransferStatus::ok:
        return {USBD_STATUS_SUCCESS, STATUS_SUCCESS};
    case TransferStatus::stalled:
        return {USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL};
    case TransferStatus::cancelled:
        return {USBD_STATUS_CANCELED, STATUS_CANCELLED};
    case TransferStatus::gone:
        return {USBD_STATUS_DEVICE_GONE, STATUS_DEVICE_NOT_CONNECTED};
    case TransferStatus::overrun:
        return {USBD_STATUS_DATA_OVERRUN, STATUS_DEVICE_DATA_ERROR};
    case TransferStatus::failed:
        break;
    }
    return {USBD_STATUS_XACT_ERROR, STATUS_DEVICE_DATA_ERROR};
}

NTSTATUS statusOf(USBD_STATUS status) {
    switch (status) {
    case USBD_STATUS_DEVICE_GONE:
        return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_DEV_NOT_RESPONDING:
        return STATUS_DEVICE_NOT_READY;
    case USBD_STATUS_ERROR_BUSY:
        return STATUS_DEVICE_BUSY;
    case USBD_STATUS_INSUFFICIENT_RESOURCES:
        return STATUS_INSUFFICIENT_RESOURCES;
    case USBD_STATUS_ENDPOINT_HALTED:
        return STATUS_UNSUCCESSFUL;
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

// The bytes of a transfer. False: there should be some and there are none.
template <class Record>
bool bufferOf(const Record& record, std::uint8_t*& data) {
    data = static_cast<std::uint8_t*>(record.TransferBuffer);
    if (record.TransferBufferLength == 0) return true;
    if (record.TransferBufferMDL != nullptr) {
        if (MmGetMdlByteCount(record.TransferBufferMDL) < record.TransferBufferLength) return false;
        data = static_cast<std::uint8_t*>(MmGetSystemAddressForMdlSafe(record.TransferBufferMDL, NormalPagePriority));
    }
    return data != nullptr;
}

// What a function's recipients are on the wire; 0xFF: not such a function.
std::uint8_t requestTypeOf(USHORT function) {
    switch (function) {
    case URB_FUNCTION_CLASS_DEVICE:
        return 0x20;
    case URB_FUNCTION_CLASS_INTERFACE:
        return 0x21;
    case URB_FUNCTION_CLASS_ENDPOINT:
        return 0x22;
    case URB_FUNCTION_CLASS_OTHER:
        return 0x23;
    case URB_FUNCTION_VENDOR_DEVICE:
        return 0x40;
    case URB_FUNCTION_VENDOR_INTERFACE:
        return 0x41;
    case URB_FUNCTION_VENDOR_ENDPOINT:
        return 0x42;
    case URB_FUNCTION_VENDOR_OTHER:
        return 0x43;
    default:
        return 0xFF;
    }
}

}  // namespace

NTSTATUS Function::submitUrb(PIRP irp) {
    auto* const urb = static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
    if (urb == nullptr) return refuse(irp, STATUS_INVALID_PARAMETER);
    const USHORT length = urb->UrbHeader.Length;
    std::size_t needed = sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
    NTSTATUS (Function::*serve)(PIRP, PURB) = nullptr;
    switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        needed = sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
        serve = &Function::bulkOrInterrupt;
        break;
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
        needed = sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
        serve = &Function::getDescriptor;
        break;
    case URB_FUNCTION_SELECT_CONFIGURATION:
        needed = FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, ConfigurationHandle);
        serve = &Function::selectConfiguration;
        break;
    case URB_FUNCTION_ABORT_PIPE:
        needed = sizeof(struct _URB_PIPE_REQUEST);
        serve = &Function::abortPipe;
        break;
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
        needed = sizeof(struct _URB_PIPE_REQUEST);
        serve = &Function::clearStall;
        break;
    default:
        if (requestTypeOf(urb->UrbHeader.Function) != 0xFF) serve = &Function::classOrVendor;
    }
    if (serve == nullptr) return refuseUrb(irp, urb, USBD_STATUS_INVALID_URB_FUNCTION);
    if (length < needed) return refuseUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
    return (this->*serve)(irp, urb);
}

NTSTATUS Function::refuseUrb(PIRP irp, PURB urb, USBD_STATUS status) {
    urb->UrbHeader.Status = status;
    return refuse(irp, statusOf(status));
}

// Why no request may go to the device now; success when it may.
USBD_STATUS Function::refusal() const {
    if (gone_) return USBD_STATUS_DEVICE_GONE;
    if (!started_ || power_ != PowerDeviceD0) return USBD_STATUS_DEV_NOT_RESPONDING;
    if (resetting_) return USBD_STATUS_ERROR_BUSY;
    return USBD_STATUS_SUCCESS;
}

Pipe* Function::pipeOf(USBD_PIPE_HANDLE handle) {
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    if (value >> 8 != generation_ || !configured_) return nullptr;
    Pipe& pipe = pipes_[value & 0x1F];
    return (value & 0xE0) == 0 && pipe.open ? &pipe : nullptr;
}

NTSTATUS Function::bulkOrInterrupt(PIRP irp, PURB urb) {
    auto& record = urb->UrbBulkOrInterruptTransfer;
    std::uint8_t* data = nullptr;
    if (!bufferOf(record, data)) return refuseUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
    USBD_STATUS status;
    {
        SpinGuard guard(lock_);
        status = refusal();
        Pipe* const pipe = pipeOf(record.PipeHandle);
        UrbRequest* request = nullptr;
        const std::uint32_t length = record.TransferBufferLength;
        if (status == USBD_STATUS_SUCCESS) {
            const bool in = pipe != nullptr && (pipe->address & 0x80) != 0;
            if (pipe == nullptr) {
                status = USBD_STATUS_INVALID_PIPE_HANDLE;
            } else if (in != (USBD_TRANSFER_DIRECTION_FLAG(record.TransferFlags) == USBD_TRANSFER_DIRECTION_IN) ||
                       length > pipe->maximumTransfer) {
                status = USBD_STATUS_INVALID_PARAMETER;
            } else if (pipe->halted) {
                status = USBD_STATUS_ENDPOINT_HALTED;
            } else if ((request = takeRecord()) == nullptr) {
                status = USBD_STATUS_INSUFFICIENT_RESOURCES;
            }
        }
        if (request != nullptr) {
            Transfer& transfer = request->transfer;
            transfer.endpoint = pipe->address;
            transfer.type = pipe->type;
            transfer.data = data;
            // A device sends whole packets: room that is no multiple of them would be overrun, not filled.
            const bool cut = transfer.isIn() && length > pipe->packetSize;
            transfer.length = cut ? length - length % pipe->packetSize : length;
            request->kind = UrbRequest::Kind::data;
            request->pipe = pipe;
            request->irp = irp;
            request->urb = urb;
            submitLocked(request);
            return STATUS_PENDING;
        }
    }
    record.TransferBufferLength = 0;
    return refuseUrb(irp, urb, status);
}

NTSTATUS Function::classOrVendor(PIRP irp, PURB urb) {
    const auto& record = urb->UrbControlVendorClassRequest;
    const bool in = USBD_TRANSFER_DIRECTION_FLAG(record.TransferFlags) == USBD_TRANSFER_DIRECTION_IN;
    std::uint8_t* data = nullptr;
    if (!bufferOf(record, data) || record.TransferBufferLength > 0xFFFF) {
        return refuseUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
    }
    SetupPacket setup;
    setup.requestType = static_cast<std::uint8_t>(requestTypeOf(record.Hdr.Function) | (in ? 0x80 : 0) |
                                                  (record.RequestTypeReservedBits & reservedBitsMask));
    setup.request = record.Request;
    setup.value = record.Value;
    setup.index = record.Index;
    setup.length = static_cast<std::uint16_t>(record.TransferBufferLength);
    return controlTransfer(irp, urb, setup, data, setup.length, UrbRequest::Kind::control);
}

NTSTATUS Function::getDescriptor(PIRP irp, PURB urb) {
    const auto& record = urb->UrbControlDescriptorRequest;
    std::uint8_t* data = nullptr;
    if (!bufferOf(record, data) || record.TransferBufferLength > 0xFFFF) {
        return refuseUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
    }
    SetupPacket setup{0x80, requestGetDescriptor, 0, record.LanguageId,
                      static_cast<std::uint16_t>(record.TransferBufferLength)};
    setup.value = USB_DESCRIPTOR_MAKE_TYPE_AND_INDEX(record.DescriptorType, record.Index);
    return controlTransfer(irp, urb, setup, data, setup.length, UrbRequest::Kind::control);
}

NTSTATUS Function::selectConfiguration(PIRP irp, PURB urb) {
    const auto* const configuration = urb->UrbSelectConfiguration.ConfigurationDescriptor;
    SetupPacket setup{0x00, requestSetConfiguration, 0, 0, 0};
    if (configuration != nullptr) {
        if (urb->UrbHeader.Length < FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface) ||
            configuration->wTotalLength < sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
            return refuseUrb(irp, urb, USBD_STATUS_INVALID_PARAMETER);
        }
        setup.value = configuration->bConfigurationValue;
    }
    return controlTransfer(irp, urb, setup, nullptr, 0, UrbRequest::Kind::selectConfiguration);
}

NTSTATUS Function::controlTransfer(PIRP irp, PURB urb, const SetupPacket& setup, void* data, std::uint32_t length,
                                   UrbRequest::Kind kind) {
    USBD_STATUS status;
    {
        SpinGuard guard(lock_);
        status = refusal();
        UrbRequest* const request = status == USBD_STATUS_SUCCESS ? takeRecord() : nullptr;
        if (request != nullptr) {
            if (kind == UrbRequest::Kind::selectConfiguration) closePipes();
            Transfer& transfer = request->transfer;
            transfer.endpoint = 0;
            transfer.type = TransferType::control;
            transfer.setup = setup;
            transfer.data = static_cast<std::uint8_t*>(data);
            transfer.length = length;
            request->kind = kind;
            request->pipe = &pipes_[0];
            request->irp = irp;
            request->urb = urb;
            submitLocked(request);
            return STATUS_PENDING;
        }
        if (status == USBD_STATUS_SUCCESS) status = USBD_STATUS_INSUFFICIENT_RESOURCES;
    }
    return refuseUrb(irp, urb, status);
}

// Everything pending on the pipe comes back as cancelled; the request completes after the last of it.
NTSTATUS Function::abortPipe(PIRP irp, PURB urb) {
    USBD_STATUS status = USBD_STATUS_SUCCESS;
    {
        SpinGuard guard(lock_);
        Pipe* const pipe = pipeOf(urb->UrbPipeRequest.PipeHandle);
        if (gone_) {
            status = USBD_STATUS_DEVICE_GONE;
        } else if (pipe == nullptr) {
            status = USBD_STATUS_INVALID_PIPE_HANDLE;
        } else if (pipe->first != nullptr) {
            rundown_.enter();
            IoMarkIrpPending(irp);
            urb->UrbHeader.Status = USBD_STATUS_SUCCESS;
            irp->IoStatus.Status = STATUS_SUCCESS;
            irp->IoStatus.Information = 0;
            irp->Tail.Overlay.DriverContext[0] = reinterpret_cast<PVOID>(static_cast<std::uintptr_t>(sequence_));
            InsertTailList(&pipe->aborts, &irp->Tail.Overlay.ListEntry);
            cancelPipeLocked(*pipe);
            return STATUS_PENDING;
        }
    }
    urb->UrbHeader.Status = status;
    return refuse(irp, status == USBD_STATUS_SUCCESS ? STATUS_SUCCESS : statusOf(status));
}

// Legal on an idle pipe only; the driver aborts it first.
NTSTATUS Function::clearStall(PIRP irp, PURB urb) {
    USBD_STATUS status = USBD_STATUS_SUCCESS;
    SetupPacket setup{0x02, requestClearFeature, 0, 0, 0};
    {
        SpinGuard guard(lock_);
        const Pipe* const pipe = pipeOf(urb->UrbPipeRequest.PipeHandle);
        status = refusal();
        if (status == USBD_STATUS_SUCCESS) {
            if (pipe == nullptr) {
                status = USBD_STATUS_INVALID_PIPE_HANDLE;
            } else if (pipe->first != nullptr) {
                status = USBD_STATUS_ERROR_BUSY;
            } else {
                setup.index = pipe->address;
            }
        }
    }
    if (status != USBD_STATUS_SUCCESS) return refuseUrb(irp, urb, status);
    return controlTransfer(irp, urb, setup, nullptr, 0, UrbRequest::Kind::clearStall);
}

// Null: no memory, or a test wants the request to fail.
UrbRequest* Function::takeRecord() {
    if (nt::faults::hit(nt::faults::Kind::usbRequest)) return nullptr;
    if (pool_ == nullptr) {
        std::unique_ptr<UrbRequest[]> block(new (std::nothrow) UrbRequest[recordsPerBlock]);
        if (block == nullptr) return nullptr;
        for (std::size_t i = 0; i < recordsPerBlock; ++i) {
            block[i].function = this;
            block[i].transfer.complete = transferDone;
            block[i].transfer.context = &block[i];
            returnRecord(&block[i]);
        }
        blocks_.push_back(std::move(block));
    }
    UrbRequest* const request = pool_;
    pool_ = request->next;
    return request;
}

void Function::returnRecord(UrbRequest* request) {
    request->next = pool_;
    pool_ = request;
}

// The IRP is the bus driver's from here on. The backend is called with the lock held: whatever is in a
// pipe's list is at the backend, so whoever finds it there may cancel it.
void Function::submitLocked(UrbRequest* request) {
    const PIRP irp = request->irp;
    Pipe& pipe = *request->pipe;
    rundown_.enter();
    IoMarkIrpPending(irp);
    irp->IoStatus.Information = 0;
    request->cancelSeen = request->done = false;
    request->sequence = ++sequence_;
    request->next = nullptr;
    request->previous = pipe.last;
    (pipe.last != nullptr ? pipe.last->next : pipe.first) = request;
    pipe.last = request;
    ++statistics_.submitted;
    ++statistics_.pending;
    irp->Tail.Overlay.DriverContext[0] = request;
    IoSetCancelRoutine(irp, cancelUrb);
    toBackend(request->transfer);
    // Cancelled before the routine was there: if nobody has called it, it is ours to act.
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        request->cancelSeen = true;
        backend_->cancel(&request->transfer);
    }
}

VOID NTAPI Function::cancelUrb(PDEVICE_OBJECT, PIRP irp) {
    auto* const request = static_cast<UrbRequest*>(irp->Tail.Overlay.DriverContext[0]);
    Function& function = *request->function;
    IoReleaseCancelSpinLock(irp->CancelIrql);
    bool done;
    {
        SpinGuard guard(function.lock_);
        done = request->done;
        request->cancelSeen = true;
        if (done) {
            function.returnRecord(request);
        } else {
            function.backend_->cancel(&request->transfer);
        }
    }
    if (!done) return;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    function.leave();
}

void Function::cancelPipeLocked(Pipe& pipe) {
    for (UrbRequest* request = pipe.first; request != nullptr; request = request->next) {
        backend_->cancel(&request->transfer);
    }
}

void Function::cancelAllLocked() {
    for (Pipe& pipe : pipes_) cancelPipeLocked(pipe);
}

void Function::transferDone(Transfer* transfer) {
    auto* const request = static_cast<UrbRequest*>(transfer->context);
    request->function->finish(request);
}

void Function::finish(UrbRequest* request) {
    const PIRP irp = request->irp;
    bool ours;
    LIST_ENTRY ended;
    InitializeListHead(&ended);
    {
        SpinGuard guard(lock_);
        Pipe& pipe = *request->pipe;
        (request->previous != nullptr ? request->previous->next : pipe.first) = request->next;
        (request->next != nullptr ? request->next->previous : pipe.last) = request->previous;
        settleUrb(request);
        takeEndedAborts(pipe, ended);
        ours = IoSetCancelRoutine(irp, nullptr) != nullptr || request->cancelSeen;
        if (ours) {
            returnRecord(request);
        } else {
            request->done = true;
        }
    }
    if (ours) {
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        leave();
    }
    if (!IsListEmpty(&ended)) completeAborts(ended);
}

// The result into the URB and the IRP; what it means for the pipe.
void Function::settleUrb(UrbRequest* request) {
    Transfer& transfer = request->transfer;
    const PURB urb = request->urb;
    if (gone_ && transfer.status != TransferStatus::ok) transfer.status = TransferStatus::gone;
    fromBackend(transfer);
    Ending ending = endingOf(transfer.status);
    const bool counted = request->kind == UrbRequest::Kind::data || request->kind == UrbRequest::Kind::control;
    if (counted) {
        auto& record = urb->UrbBulkOrInterruptTransfer;
        const bool described = record.Hdr.Function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
        const bool shortOk = described || (record.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        if (ending.usbd == USBD_STATUS_SUCCESS && transfer.isIn() && !shortOk &&
            transfer.actual < record.TransferBufferLength) {
            ending = {USBD_STATUS_ERROR_SHORT_TRANSFER, STATUS_DEVICE_DATA_ERROR};
        }
        record.TransferBufferLength = transfer.actual;
    }
    const bool broken = transfer.status == TransferStatus::stalled || transfer.status == TransferStatus::failed ||
                        transfer.status == TransferStatus::overrun;
    if (request->kind == UrbRequest::Kind::data && broken) request->pipe->halted = true;
    if (ending.usbd == USBD_STATUS_SUCCESS && request->kind == UrbRequest::Kind::clearStall) {
        pipes_[endpointIndex(static_cast<std::uint8_t>(transfer.setup.index))].halted = false;
    }
    if (ending.usbd == USBD_STATUS_SUCCESS && request->kind == UrbRequest::Kind::selectConfiguration) {
        ending.usbd = openConfiguration(urb);
        if (ending.usbd != USBD_STATUS_SUCCESS) ending.status = STATUS_INVALID_PARAMETER;
    }
    urb->UrbHeader.Status = ending.usbd;
    request->irp->IoStatus.Status = ending.status;
    if (--statistics_.pending == 0 && resetting_) KeSetEvent(&transfersOver_, 0, FALSE);
    count(*request, ending.usbd);
}

void Function::count(const UrbRequest& request, USBD_STATUS status) {
    constexpr unsigned allPipes = 3;
    const Transfer& transfer = request.transfer;
    ++statistics_.completed;
    if (status != USBD_STATUS_SUCCESS) ++statistics_.failed;
    if (transfer.status == TransferStatus::stalled) ++statistics_.stalls;
    if (request.kind == UrbRequest::Kind::data || request.kind == UrbRequest::Kind::control) {
        (transfer.isIn() ? statistics_.bytesIn : statistics_.bytesOut) += transfer.actual;
    }
    if (transfer.type == TransferType::bulk) {
        (transfer.isIn() ? statistics_.bulkIn : statistics_.bulkOut) += transfer.actual;
        if (transfer.status == TransferStatus::ok && transfer.actual == 0) ++statistics_.zeroLengthPackets;
    }
    if (transfer.type != TransferType::control) return;
    const bool reset = request.kind == UrbRequest::Kind::clearStall && status == USBD_STATUS_SUCCESS;
    pipesReset_ = reset ? pipesReset_ + 1 : 0;
    if (pipesReset_ == allPipes) {
        ++statistics_.reinitialisations;
        pipesReset_ = 0;
    }
}

void Function::takeEndedAborts(Pipe& pipe, LIST_ENTRY& ended) {
    while (!IsListEmpty(&pipe.aborts)) {
        const PIRP irp = CONTAINING_RECORD(pipe.aborts.Flink, IRP, Tail.Overlay.ListEntry);
        const auto upTo = reinterpret_cast<std::uintptr_t>(irp->Tail.Overlay.DriverContext[0]);
        if (pipe.first != nullptr && pipe.first->sequence <= upTo) return;
        RemoveHeadList(&pipe.aborts);
        InsertTailList(&ended, &irp->Tail.Overlay.ListEntry);
    }
}

void Function::completeAborts(LIST_ENTRY& ended) {
    while (!IsListEmpty(&ended)) {
        const PIRP irp = CONTAINING_RECORD(RemoveHeadList(&ended), IRP, Tail.Overlay.ListEntry);
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        leave();
    }
}

}  // namespace usb
