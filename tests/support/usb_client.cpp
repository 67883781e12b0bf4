#include "tests/support/usb_client.h"

namespace test {

namespace {

struct Extension {
    PDEVICE_OBJECT lower;
};

PDEVICE_OBJECT latest = nullptr;
constexpr const char* service = "usbclient";

Extension& extensionOf(PDEVICE_OBJECT device) { return *static_cast<Extension*>(device->DeviceExtension); }

NTSTATUS NTAPI addDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    PDEVICE_OBJECT device;
    const NTSTATUS status = IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    extensionOf(device).lower = IoAttachDeviceToDeviceStack(device, pdo);
    latest = extensionOf(device).lower;
    device->Flags |= DO_POWER_PAGABLE;
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI passDown(PDEVICE_OBJECT device, PIRP irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(extensionOf(device).lower, irp);
}

NTSTATUS NTAPI pnp(PDEVICE_OBJECT device, PIRP irp) {
    const PDEVICE_OBJECT lower = extensionOf(device).lower;
    const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    if (minor <= IRP_MN_CANCEL_STOP_DEVICE || minor == IRP_MN_SURPRISE_REMOVAL) irp->IoStatus.Status = STATUS_SUCCESS;
    if (minor != IRP_MN_REMOVE_DEVICE) return passDown(device, irp);
    if (latest == lower) latest = nullptr;
    IoSkipCurrentIrpStackLocation(irp);
    IoDetachDevice(lower);
    const NTSTATUS status = IoCallDriver(lower, irp);
    IoDeleteDevice(device);
    return status;
}

NTSTATUS NTAPI power(PDEVICE_OBJECT device, PIRP irp) {
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(extensionOf(device).lower, irp);
}

VOID NTAPI unload(PDRIVER_OBJECT) {}

NTSTATUS NTAPI entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->DriverExtension->AddDevice = addDevice;
    driver->DriverUnload = unload;
    driver->MajorFunction[IRP_MJ_PNP] = pnp;
    driver->MajorFunction[IRP_MJ_POWER] = power;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = passDown;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = passDown;
    return STATUS_SUCCESS;
}

}  // namespace

UsbClient::UsbClient(nt::Executive& executive) {
    latest = nullptr;
    EXPECT_EQ(executive.loadDriver(service, entry), STATUS_SUCCESS);
    for (const char* id : {"USB\\Class_02&SubClass_02", "USB\\Class_02", "USB\\UNKNOWN"}) {
        executive.bindDriver(id, service, "Tests", "{00000000-0000-0000-0000-000000000001}");
    }
}

UsbClient::~UsbClient() { latest = nullptr; }

PDEVICE_OBJECT UsbClient::lower() { return latest; }

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

NTSTATUS ClientRequest::wait(std::uint32_t ms) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = -static_cast<LONGLONG>(ms) * 10000;
    if (KeWaitForSingleObject(&done_, Executive, KernelMode, FALSE, &timeout) == STATUS_TIMEOUT) return STATUS_TIMEOUT;
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

RigOptions busOnly(std::uint64_t seed) {
    RigOptions options;
    options.seed = seed;
    options.loadDriver = false;
    options.plug = false;
    return options;
}

}  // namespace test
