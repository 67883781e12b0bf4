// Plug and Play: one dispatch routine, serialised by the device Mutex.
//
//   not started --START--> started --QUERY_STOP--> stop pending --STOP--> stopped --START--> started
//                            ^  |                      |
//                            |  +--QUERY_REMOVE--> remove pending --REMOVE--> removed
//                            +---CANCEL_STOP, CANCEL_REMOVE---+
//   any --SURPRISE_REMOVAL--> surprise removed --REMOVE--> removed
//
// Requests are accepted in every state. An attachment whose DEVICE has meanwhile been given to a new
// arrival is superseded: it only passes requests down and lets go of its references at REMOVE.
#include "wdmpnp.h"

#include "pnpadd.h"
#include "wdmpwr.h"
#include "wrsupport.h"

static NTSTATUS CompleteIrp(PIRP Irp, NTSTATUS Status)
{
    Irp->IoStatus.Status = Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

static NTSTATUS PassDown(PDEVICE_OBJECT Lower, PIRP Irp)
{
    IoSkipCurrentIrpStackLocation(Irp);
    return IoCallDriver(Lower, Irp);
}

static NTSTATUS SucceedAndPassDown(PDEVICE_OBJECT Lower, PIRP Irp)
{
    Irp->IoStatus.Status = STATUS_SUCCESS;
    return PassDown(Lower, Irp);
}

NTSTATUS PnpIrpCompletionRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Event)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    TRACE(TRC_PASSDOWN, "%P:PnpIrpCompletionRoutine irp:%p\n", Irp);
    KeSetEvent((PKEVENT)Event, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS PassDownIrpAndWait(PDEVICE_OBJECT Lower, PIRP Irp)
{
    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, PnpIrpCompletionRoutine, &Event, TRUE, TRUE, TRUE);
    IoCallDriver(Lower, Irp);
    KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
    const NTSTATUS Status = Irp->IoStatus.Status;
    KASSERT(Status != STATUS_PENDING);
    TRACE(TRC_PASSDOWN, "%P:PassDownIrpAndWait (%D)\n", Status);
    return Status;
}

NTSTATUS PnpStartDevice(DEVICE* Dev)
{
    UnconfigureDevice(&Dev->Usb, 0);
    NTSTATUS Status = GetDeviceDescriptor(&Dev->Usb, &Dev->DeviceDescriptor);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:PnpStartDevice: GetDeviceDescriptor failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    Status = InitUsbDevice(&Dev->Usb);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:PnpStartDevice: InitUsbDevice failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    Status = WriteInstance(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:PnpStartDevice: WriteInstance failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    SerPortStopSend(Dev->Port.SerPort, 1);
    StoreShared(&Dev->UsbDeviceEnabled, (UCHAR)1);
    StartWrTimer(Dev);
    ScheduleReinit(Dev);
    return STATUS_SUCCESS;
}

NTSTATUS PnpQueryStopDevice(DEVICE* Dev)
{
    StopDataPaths(Dev, 0);
    return STATUS_SUCCESS;
}

// The extension of the device object the request came to; null unless it is an attachment.
static ATT_OBJ* AttachmentOf(PDEVICE_OBJECT DeviceObject)
{
    ATT_OBJ* Att = (ATT_OBJ*)DeviceObject->DeviceExtension;
    return Att->Type == ATT_OBJ_TYPE ? Att : NULL;
}

// The USB side goes down and the DEVICE loses its lower device. Wait requests end, the COM name stays.
static VOID LeaveUsb(DEVICE* Dev, ATT_OBJ* SurpriseRemoved)
{
    KIRQL Irql;
    StopDataPaths(Dev, 1);
    UnconfigureDevice(&Dev->Usb, 0);
    StoreShared(&Dev->UsbDeviceEnabled, (UCHAR)0);
    if (SurpriseRemoved != NULL)
        SurpriseRemoved->SurpriseRemoved = 1;
    ACQUIRE(Dev, Irql);
    StoreShared(&Dev->LowerDevObj, (PDEVICE_OBJECT)NULL);
    Dev->ModemStatus = 0;
    // Framing was agreed with the device that is gone; one that comes back begins in byte mode.
    Dev->PppMode = BYTE_MODE;
    CompleteWaitIrp(&Dev->Port, 0);
    RELEASE(Dev, Irql);
}

VOID PnpSurpriseRemoval(DEVICE* Dev, PDEVICE_OBJECT DeviceObject)
{
    LeaveUsb(Dev, AttachmentOf(DeviceObject));
    DeleteLinks(Dev);
}

// The attachment leaves the stack and drops what it holds on the DEVICE; returns what is left of Ref.
static LONG ReleaseAttachment(DEVICE* Dev, ATT_OBJ* Att)
{
    KIRQL Irql;
    if (Att != NULL) {
        ACQUIRE(Dev, Irql);
        const PDEVICE_OBJECT Lower = Att->LowerDevObj;
        StoreShared(&Att->LowerDevObj, (PDEVICE_OBJECT)NULL);
        RELEASE(Dev, Irql);
        if (Lower != NULL)
            IoDetachDevice(Lower);
        DecRefAtt(Att);
    }
    return DecRef(Dev);
}

VOID PnpRemoveDevice(DEVICE* Dev, PDEVICE_OBJECT DeviceObject)
{
    ATT_OBJ* Att = AttachmentOf(DeviceObject);
    if (Dev->OpenCount > 0)
        SendCloseNotification(Dev);
    if (Att == NULL || !Att->SurpriseRemoved)
        LeaveUsb(Dev, NULL);
    DeleteLinks(Dev);
    const LONG Ref = ReleaseAttachment(Dev, Att);
    TRACE(TRC_PNP, "%P:%S:PnpRemoveDevice: Ref %D, expected 1\n", PORT_NAME(Dev), Ref);
}

// --- Dispatch -----------------------------------------------------------------------------------

// One request on its way through DispatchPnp. What removal may take away is fetched before it.
struct PNP_REQUEST {
    DEVICE* Dev;
    PDEVICE_OBJECT DeviceObject;
    PDEVICE_OBJECT Lower;
    const WCHAR* Letter;
    PIRP Irp;
};

static NTSTATUS HandleStart(const PNP_REQUEST* Request)
{
    DEVICE* Dev = Request->Dev;
    POWER_STATE State;
    State.DeviceState = PowerDeviceD0;
    State = PoSetPowerState(Request->DeviceObject, DevicePowerState, State);
    TRACE(TRC_PNP, "%P:%S%S:DispatchPnp: previous device power state %d\n", PORT_NAME(Dev), Request->Letter, (ULONG)State.DeviceState);
    NTSTATUS Status = PassDownIrpAndWait(Request->Lower, Request->Irp);
    if (NT_SUCCESS(Status)) {
        Status = PnpStartDevice(Dev);
        if (NT_SUCCESS(Status))
            StoreShared(&Dev->PnpState, (ULONG)PNP_STARTED);
        else
            TRACE(TRC_ERROR, "%P:%S%S:DispatchPnp: PnpStartDevice failed, st:%D\n", PORT_NAME(Dev), Request->Letter, Status);
    }
    return CompleteIrp(Request->Irp, Status);
}

static NTSTATUS HandleCancelQuery(const PNP_REQUEST* Request, const CHAR* FailureFormat)
{
    DEVICE* Dev = Request->Dev;
    const NTSTATUS Status = PassDownIrpAndWait(Request->Lower, Request->Irp);
    if (NT_SUCCESS(Status)) {
        // The paths look at the state: started first.
        StoreShared(&Dev->PnpState, (ULONG)PNP_STARTED);
        StartDataPaths(Dev);
    } else {
        TRACE(TRC_ERROR, FailureFormat, PORT_NAME(Dev), Request->Letter, Status);
    }
    return CompleteIrp(Request->Irp, Status);
}

static VOID TraceCapabilities(const PNP_REQUEST* Request, const DEVICE_CAPABILITIES* Capabilities)
{
    TRACE(TRC_PNP, "%P:%S%S:Capabilities: DeviceWake %d SystemWake %d WakeFromD2 %d SurpriseRemovalOK %d\n", PORT_NAME(Request->Dev),
          Request->Letter, (ULONG)Capabilities->DeviceWake, (ULONG)Capabilities->SystemWake, (ULONG)Capabilities->WakeFromD2,
          (ULONG)Capabilities->SurpriseRemovalOK);
    for (ULONG State = PowerSystemWorking; State < PowerSystemMaximum; ++State)
        TRACE(TRC_PNP, "%P:%S%S:Capabilities: system state %d device state %d\n", PORT_NAME(Request->Dev), Request->Letter, State,
              (ULONG)Capabilities->DeviceState[State]);
}

static NTSTATUS HandleCapabilities(const PNP_REQUEST* Request)
{
    DEVICE* Dev = Request->Dev;
    const NTSTATUS Status = PassDownIrpAndWait(Request->Lower, Request->Irp);
    if (NT_SUCCESS(Status)) {
        DEVICE_CAPABILITIES* Capabilities = IoGetCurrentIrpStackLocation(Request->Irp)->Parameters.DeviceCapabilities.Capabilities;
        Capabilities->DeviceState[PowerSystemShutdown] = PowerDeviceD3;
        Capabilities->SurpriseRemovalOK = 1;
        Dev->Capabilities = *Capabilities;
        const BOOLEAN News = Capabilities->WakeFromD2 && !Dev->WakeSupported;
        if (Capabilities->WakeFromD2)
            StoreShared(&Dev->WakeSupported, (UCHAR)1);
        if (TRACE_ON(TRC_PNP))
            TraceCapabilities(Request, Capabilities);
        // The initialisation arms the wake; one that came before this was known could not.
        if (News && Dev->Initialized && LoadShared(&Dev->DevicePowerState) == PowerDeviceD0)
            RequestWakeupIrp(Dev);
    } else {
        TRACE(TRC_ERROR, "%P:%S%S:DispatchPnp: pass down IRP_MN_QUERY_CAPABILITIES failed, st:%D\n", PORT_NAME(Dev), Request->Letter, Status);
    }
    return CompleteIrp(Request->Irp, Status);
}

static NTSTATUS HandleMinor(const PNP_REQUEST* Request, UCHAR Minor)
{
    DEVICE* Dev = Request->Dev;
    switch (Minor) {
    case IRP_MN_START_DEVICE:
        return HandleStart(Request);
    case IRP_MN_QUERY_REMOVE_DEVICE:
        PnpQueryStopDevice(Dev);
        StoreShared(&Dev->PnpState, (ULONG)PNP_REMOVE_PENDING);
        return SucceedAndPassDown(Request->Lower, Request->Irp);
    case IRP_MN_REMOVE_DEVICE:
        StoreShared(&Dev->PnpState, (ULONG)PNP_REMOVED);
        PnpRemoveDevice(Dev, Request->DeviceObject);
        return SucceedAndPassDown(Request->Lower, Request->Irp);
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        return HandleCancelQuery(Request, "%P:%S%S:DispatchPnp: Bus Driver has failed IRP_MN_CANCEL_REMOVE_DEVICE, (%D)\n");
    case IRP_MN_STOP_DEVICE:
        StopDataPaths(Dev, 1);
        StoreShared(&Dev->PnpState, (ULONG)PNP_STOPPED);
        return SucceedAndPassDown(Request->Lower, Request->Irp);
    case IRP_MN_QUERY_STOP_DEVICE:
        PnpQueryStopDevice(Dev);
        StoreShared(&Dev->PnpState, (ULONG)PNP_STOP_PENDING);
        return SucceedAndPassDown(Request->Lower, Request->Irp);
    case IRP_MN_CANCEL_STOP_DEVICE:
        return HandleCancelQuery(Request, "%P:%S%S:DispatchPnp: Bus Driver has failed IRP_MN_CANCEL_STOP_DEVICE, (%D)\n");
    case IRP_MN_QUERY_CAPABILITIES:
        return HandleCapabilities(Request);
    case IRP_MN_SURPRISE_REMOVAL:
        StoreShared(&Dev->PnpState, (ULONG)PNP_SURPRISE_REMOVED);
        PnpSurpriseRemoval(Dev, Request->DeviceObject);
        return SucceedAndPassDown(Request->Lower, Request->Irp);
    default:
        TRACE(TRC_PNP, "%P:%S%S:DispatchPnp: unsupported MinorFunction: %B, pass thru\n", PORT_NAME(Dev), Request->Letter, Minor);
        return PassDown(Request->Lower, Request->Irp);
    }
}

// The DEVICE serves a new arrival: nothing of it may be touched on behalf of the old attachment.
static NTSTATUS HandleSuperseded(const PNP_REQUEST* Request, UCHAR Minor)
{
    if (Minor != IRP_MN_REMOVE_DEVICE)
        return PassDown(Request->Lower, Request->Irp);
    ReleaseAttachment(Request->Dev, AttachmentOf(Request->DeviceObject));
    return SucceedAndPassDown(Request->Lower, Request->Irp);
}

BOOLEAN AttachmentSuperseded(DEVICE* Dev, PDEVICE_OBJECT DeviceObject)
{
    const ATT_OBJ* Att = AttachmentOf(DeviceObject);
    if (Att == NULL)
        return FALSE;
    const PDEVICE_OBJECT Lower = LoadShared(&Dev->LowerDevObj);
    return Lower != NULL && Lower != LoadShared(&Att->LowerDevObj);
}

PDEVICE_OBJECT LowerOf(PDEVICE_OBJECT DeviceObject)
{
    const ATT_OBJ* Att = AttachmentOf(DeviceObject);
    if (Att != NULL)
        return LoadShared(&Att->LowerDevObj);
    return LoadShared(&((DEVICE*)DeviceObject->DeviceExtension)->LowerDevObj);
}

// A request for an attachment that has no DEVICE: one still being built, or that failed to be.
static NTSTATUS PassWithoutDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    const PDEVICE_OBJECT Lower = LowerOf(DeviceObject);
    return Lower != NULL ? PassDown(Lower, Irp) : CompleteIrp(Irp, STATUS_DEVICE_REMOVED);
}

NTSTATUS DispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PNP_REQUEST Request = {NULL, DeviceObject, NULL, OBJECT_LETTER(DeviceObject), Irp};
    const UCHAR Minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    NTSTATUS Status;
    DEVICE* Dev = Request.Dev = ReferenceDevice(DeviceObject);
    if (Dev == NULL)
        return PassWithoutDevice(DeviceObject, Irp);
    KASSERT(PTRVALID(Dev,DEVICE));
    TRACE(TRC_PNP, "%P:%S%S:[DispatchPnp MinorFunction: %B\n", PORT_NAME(Dev), Request.Letter, Minor);
    TraceIncRef(Dev, LoadShared(&Dev->Ref), __FILE_NAME__, __LINE__);
    // Removal deletes the attachment before the request goes down.
    ObReferenceObject(DeviceObject);
    if ((Minor == IRP_MN_SURPRISE_REMOVAL || Minor == IRP_MN_REMOVE_DEVICE) && !AttachmentSuperseded(Dev, DeviceObject))
        KeSetEvent(&PrivateOf(Dev)->Gone, IO_NO_INCREMENT, FALSE);
    IdleActivity(&Dev->Idle);
    KeWaitForSingleObject(&Dev->Mutex, Executive, KernelMode, FALSE, NULL);
    Request.Lower = LowerOf(DeviceObject);
    if (Request.Lower == NULL) {
        KeReleaseMutex(&Dev->Mutex, FALSE);
        DecRef(Dev);
        ObDereferenceObject(DeviceObject);
        return CompleteIrp(Irp, STATUS_DEVICE_REMOVED);
    }
    if (AttachmentSuperseded(Dev, DeviceObject))
        Status = HandleSuperseded(&Request, Minor);
    else
        Status = HandleMinor(&Request, Minor);
    TRACE(TRC_PNP, "%P:%S%S:]DispatchPnp (%D)\n", PORT_NAME(Dev), Request.Letter, Status);
    KeReleaseMutex(&Dev->Mutex, FALSE);
    DecRef(Dev);
    ObDereferenceObject(DeviceObject);
    return Status;
}
