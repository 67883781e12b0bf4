#include "tests/support/usb_client.h"

#include "tests/kernel_bus.h"
#include "tests/kernel_core.h"

namespace test {

UsbClient::UsbClient(nt::Executive& executive) {
    // The machine runs down after the client has gone.
    static World own;
    own = {};
    world = &own;
    EXPECT_EQ(executive.loadDriver("usbclient", entry<addFunction>), STATUS_SUCCESS);
    for (const char* id : {"USB\\Class_02&SubClass_02", "USB\\Class_02", "USB\\UNKNOWN"}) {
        executive.bindDriver(id, "usbclient", "Tests", "{00000000-0000-0000-0000-000000000001}");
    }
}

PDEVICE_OBJECT UsbClient::lower() { return world->latestLower; }

ClientRequest::ClientRequest() {
    KeInitializeEvent(&done_, NotificationEvent, TRUE);
    irp_ = IoAllocateIrp(8, FALSE);
}

ClientRequest::~ClientRequest() {
    EXPECT_TRUE(done()) << "a request is destroyed under way";
    IoFreeIrp(irp_);
}

NTSTATUS NTAPI ClientRequest::completed(PDEVICE_OBJECT, PIRP, PVOID context) {
    auto& request = *static_cast<ClientRequest*>(context);
    ++request.completions;
    request.completedInside = request.submitter_ == KeGetCurrentThread();
    KeSetEvent(&request.done_, 0, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS ClientRequest::submit(ULONG code, PVOID argument) {
    EXPECT_TRUE(done());
    KeClearEvent(&done_);
    IoReuseIrp(irp_, STATUS_UNSUCCESSFUL);
    completedInside = false;
    const bool ownUrb = code == IOCTL_INTERNAL_USB_SUBMIT_URB && argument == nullptr;
    if (ownUrb) urb.UrbHeader.Status = -1;
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp_);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = code;
    if (code == IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION) {
        next->Parameters.DeviceIoControl.InputBufferLength = sizeof(USB_IDLE_CALLBACK_INFO);
        next->Parameters.DeviceIoControl.Type3InputBuffer = argument;
    } else {
        next->Parameters.Others.Argument1 = ownUrb ? &urb : argument;
    }
    IoSetCompletionRoutine(irp_, completed, this, TRUE, TRUE, TRUE);
    submitter_ = KeGetCurrentThread();
    // The device may be removed under the call.
    const PDEVICE_OBJECT lower = UsbClient::lower();
    ObReferenceObject(lower);
    const NTSTATUS status = IoCallDriver(lower, irp_);
    ObDereferenceObject(lower);
    submitter_ = nullptr;
    return status;
}

NTSTATUS ClientRequest::wait(std::uint32_t timeoutMs) {
    if (waitFor(&done_, timeoutMs * ms) == STATUS_TIMEOUT) return STATUS_TIMEOUT;
    return irp_->IoStatus.Status;
}

NTSTATUS ClientRequest::run(ULONG code, PVOID argument) {
    submit(code, argument);
    return wait();
}

ClientRequest& ClientRequest::data(USBD_PIPE_HANDLE pipe, bool in, void* buffer, ULONG length, bool shortOk) {
    urb = {};
    const ULONG flags = (in ? USBD_TRANSFER_DIRECTION_IN : USBD_TRANSFER_DIRECTION_OUT) | (shortOk ? USBD_SHORT_TRANSFER_OK : 0);
    UsbBuildInterruptOrBulkTransferRequest(&urb, sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER), pipe, buffer, nullptr,
                                           length, flags, nullptr);
    return *this;
}

ClientRequest& ClientRequest::pipeRequest(USHORT function, USBD_PIPE_HANDLE pipe) {
    urb = {};
    urb.UrbHeader.Function = function;
    urb.UrbHeader.Length = sizeof(struct _URB_PIPE_REQUEST);
    urb.UrbPipeRequest.PipeHandle = pipe;
    return *this;
}

NTSTATUS UsbClient::configure(ClientPipes& pipes) {
    // Zeroed room behind the bytes that come: a descriptor that lies about its length stays inside.
    std::vector<std::uint8_t> bytes(65536 + 64);
    ClientRequest request;
    UsbBuildGetDescriptorRequest(&request.urb, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 0, bytes.data(), nullptr, 4096, nullptr);
    NTSTATUS status = request.run();
    if (!NT_SUCCESS(status)) return status;
    auto* const configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    USBD_INTERFACE_LIST_ENTRY list[3] = {};
    for (LONG i = 0; i < 2; ++i) {
        list[i].InterfaceDescriptor =
            USBD_ParseConfigurationDescriptorEx(configuration, configuration, i, 0, -1, -1, -1);
    }
    if (list[0].InterfaceDescriptor == nullptr) return STATUS_NOT_FOUND;
    const PURB urb = USBD_CreateConfigurationRequestEx(configuration, list);
    if (urb == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    ClientRequest select;
    status = select.run(IOCTL_INTERNAL_USB_SUBMIT_URB, urb);
    for (const auto& entry : list) {
        if (!NT_SUCCESS(status) || entry.Interface == nullptr) break;
        for (ULONG i = 0; i < entry.Interface->NumberOfPipes; ++i) {
            const auto& pipe = entry.Interface->Pipes[i];
            const bool in = (pipe.EndpointAddress & 0x80) != 0;
            if (pipe.PipeType == UsbdPipeTypeInterrupt) {
                pipes.interrupt = pipe.PipeHandle;
            } else {
                (in ? pipes.in : pipes.out) = pipe.PipeHandle;
            }
        }
    }
    ExFreePool(urb);
    return status;
}

ClientPipes UsbClient::configured() {
    ClientPipes pipes;
    EXPECT_EQ(configure(pipes), STATUS_SUCCESS);
    return pipes;
}

std::string readText(USBD_PIPE_HANDLE pipe, ULONG room) {
    ClientRead read(pipe, room);
    EXPECT_EQ(read.wait(), STATUS_SUCCESS);
    return read.text();
}

RigOptions busOnly(std::uint64_t seed) { return {.seed = seed, .loadDriver = false, .plug = false}; }

}  // namespace test
