// Requests that the caller waits for. The IRP always is back with the caller when a call returns.
#include "usbsbmit.h"

#include "pnpadd.h"

enum : ULONG { URB_STATUS_NONE = 0xFFFFFFFF, URB_STATUS_FOLD = 0xE0000000 };

NTSTATUS IrpCompletionRoutineWait(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    KeSetEvent((PKEVENT)Context, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS SubmitIrpAndWait(DEVICE* Dev, PIRP Irp, VOID* Argument1, ULONG IoControlCode, ULONG TimeoutMs)
{
    KASSERT(IRQL_EQ_PASSIVE());
    PDEVICE_OBJECT Lower = LoadShared(&Dev->LowerDevObj);
    if (Lower == NULL)
        return STATUS_UNSUCCESSFUL;

    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    LARGE_INTEGER Timeout = RelativeMs(TimeoutMs);

    PIO_STACK_LOCATION Stack = IoGetNextIrpStackLocation(Irp);
    RtlZeroMemory((VOID*)Stack, sizeof(*Stack));
    Stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    Stack->Parameters.DeviceIoControl.IoControlCode = IoControlCode;
    Stack->Parameters.Others.Argument1 = Argument1;
    IoSetCompletionRoutine(Irp, IrpCompletionRoutineWait, &Event, TRUE, TRUE, TRUE);

    NTSTATUS Status = IoCallDriver(Lower, Irp);
    TRACE(TRC_USBREQ, "%P:%S:SubmitIrpAndWait: IoCallDriver %D\n", PORT_NAME(Dev), Status);
    Status = KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, TimeoutMs != 0 ? &Timeout : NULL);
    if (Status == STATUS_TIMEOUT) {
        TRACE(TRC_ERROR, "%P:%S:SubmitIrpAndWait: TIMEOUT:%d\n", PORT_NAME(Dev), TimeoutMs);
        IoCancelIrp(Irp);
        KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
        return STATUS_IO_TIMEOUT;
    }
    if (Irp->IoStatus.Status == STATUS_PENDING)
        Irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
    return Irp->IoStatus.Status;
}

NTSTATUS SubmitUrbAndWait(DEVICE* Dev, PIRP Irp, PURB Urb, ULONG TimeoutMs)
{
    Urb->UrbHeader.Status = (USBD_STATUS)URB_STATUS_NONE;
    NTSTATUS Status = SubmitIrpAndWait(Dev, Irp, Urb, IOCTL_INTERNAL_USB_SUBMIT_URB, TimeoutMs);
    const ULONG UrbStatus = (ULONG)Urb->UrbHeader.Status;

    // The URB's word counts unless nobody looked at the URB or the request failed around it.
    const BOOLEAN Unseen = Status == STATUS_IO_TIMEOUT || UrbStatus == URB_STATUS_NONE;
    if (!Unseen && ((LONG)UrbStatus < 0 || NT_SUCCESS(Status)))
        Status = UrbStatus >> 16 == 0 ? STATUS_SUCCESS : (NTSTATUS)(UrbStatus | URB_STATUS_FOLD);
    KASSERT(Status != STATUS_PENDING);
    return Status;
}

// 0: no such request; function 0 selects a configuration and is no class or vendor request.
static USHORT ClassVendorFunction(const CLASS_VENDOR_REQUEST* Request)
{
    static const USHORT Functions[2][4] = {
        {URB_FUNCTION_CLASS_DEVICE, URB_FUNCTION_CLASS_INTERFACE, URB_FUNCTION_CLASS_ENDPOINT, URB_FUNCTION_CLASS_OTHER},
        {URB_FUNCTION_VENDOR_DEVICE, URB_FUNCTION_VENDOR_INTERFACE, URB_FUNCTION_VENDOR_ENDPOINT, URB_FUNCTION_VENDOR_OTHER},
    };

    if (Request->RequestKind < REQUEST_CLASS || Request->RequestKind > REQUEST_VENDOR || Request->Recipient > RECIPIENT_OTHER)
        return 0;
    return Functions[Request->RequestKind - REQUEST_CLASS][Request->Recipient];
}

NTSTATUS ClassVendorRequest(UCHAR DirectionIn, DEVICE* Dev, PIRP Irp, CLASS_VENDOR_REQUEST* Request, VOID* Buffer,
                            ULONG* LengthInOut)
{
    TRACE(TRC_USBREQ, "%P:%S:ClassVendorRequest[ Reg:%B Len:%D\n", PORT_NAME(Dev), Request->Request, *LengthInOut);
    if (LoadShared(&Dev->UsbDeviceEnabled) == 0) {
        TRACE(TRC_USBREQ, "%P:%S:ClassVendorRequest skipped, Device disabled\n", PORT_NAME(Dev));
        return STATUS_UNSUCCESSFUL;
    }
    IoInitializeIrp(Irp, Dev->IrpSize, Dev->StackSize);

    URB Urb;
    RtlZeroMemory((VOID*)&Urb, sizeof(Urb));
    _URB_CONTROL_VENDOR_OR_CLASS_REQUEST* Transfer = &Urb.UrbControlVendorClassRequest;
    Transfer->RequestTypeReservedBits = Request->ReservedBits;
    Transfer->Request = Request->Request;
    Transfer->Value = Request->Value;
    Transfer->Index = Request->Index;
    Transfer->TransferBufferLength = *LengthInOut;
    Transfer->TransferBuffer = Buffer;
    Transfer->TransferFlags = USBD_SHORT_TRANSFER_OK | (DirectionIn != 0 ? USBD_TRANSFER_DIRECTION_IN : 0);
    Urb.UrbHeader.Function = ClassVendorFunction(Request);
    Urb.UrbHeader.Length = sizeof(*Transfer);
    if (Urb.UrbHeader.Function == 0)
        return STATUS_UNSUCCESSFUL;

    NTSTATUS Status = SubmitUrbAndWait(Dev, Irp, &Urb, Dev->Cfg.RequestTimeout);
    if (!NT_SUCCESS(Status)) {
        if (TRACE_ON(TRC_ERROR)) {
            TracePrint("%P:%S:ClassVendorRequest: SubmitUrbAndWait failed (%D).\n", PORT_NAME(Dev), Status);
            TraceDump(Request, sizeof(*Request));
        }
        return Status;
    }
    // A bus driver that claims more than it was asked for is not believed.
    if (Transfer->TransferBufferLength < *LengthInOut)
        *LengthInOut = Transfer->TransferBufferLength;
    TRACE(TRC_USBREQ, "%P:%S:ClassVendorRequest: Transferred Bytes %d\n", PORT_NAME(Dev), *LengthInOut);
    return Status;
}
