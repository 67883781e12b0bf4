// The I/O, PnP, power and object calls. Part of nt/io.h.
#ifndef NT_IOCALLS_H
#define NT_IOCALLS_H

typedef enum {
    DevicePropertyDeviceDescription,
    DevicePropertyHardwareID,
    DevicePropertyCompatibleIDs,
    DevicePropertyBootConfiguration,
    DevicePropertyBootConfigurationTranslated,
    DevicePropertyClassName,
    DevicePropertyClassGuid,
    DevicePropertyDriverKeyName,
    DevicePropertyManufacturer,
    DevicePropertyFriendlyName,
    DevicePropertyLocationInformation,
    DevicePropertyPhysicalDeviceObjectName,
    DevicePropertyBusTypeGuid,
    DevicePropertyLegacyBusType,
    DevicePropertyBusNumber,
    DevicePropertyEnumeratorName,
    DevicePropertyAddress,
    DevicePropertyUINumber
} DEVICE_REGISTRY_PROPERTY;

#define PLUGPLAY_REGKEY_DEVICE 1
#define PLUGPLAY_REGKEY_DRIVER 2
#define PLUGPLAY_REGKEY_CURRENT_HWPROFILE 4

typedef enum _WORK_QUEUE_TYPE { CriticalWorkQueue, DelayedWorkQueue, HyperCriticalWorkQueue } WORK_QUEUE_TYPE;
typedef struct _IO_WORKITEM* PIO_WORKITEM;

extern "C" {

typedef VOID NTAPI REQUEST_POWER_COMPLETE(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                          PVOID Context, PIO_STATUS_BLOCK IoStatus);
typedef REQUEST_POWER_COMPLETE* PREQUEST_POWER_COMPLETE;

// Devices. PASSIVE_LEVEL, except the references (IRQL <= DISPATCH_LEVEL).
NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                              DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                              PDEVICE_OBJECT* DeviceObject);
// The memory stays until the last reference, open handle and work item is gone.
VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
PDEVICE_OBJECT NTAPI IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice);
// Takes the device one below the one to detach.
VOID NTAPI IoDetachDevice(PDEVICE_OBJECT TargetDevice);
PDEVICE_OBJECT NTAPI IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject);
PDEVICE_OBJECT NTAPI IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject);
NTSTATUS NTAPI IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                        PFILE_OBJECT* FileObject, PDEVICE_OBJECT* DeviceObject);
NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName);
NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);
VOID FASTCALL ObfReferenceObject(PVOID Object);
VOID FASTCALL ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(object) ObfReferenceObject(object)
#define ObDereferenceObject(object) ObfDereferenceObject(object)

// Requests. IRQL <= DISPATCH_LEVEL.
PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
VOID NTAPI IoFreeIrp(PIRP Irp);
VOID NTAPI IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize);
VOID NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Status);
NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
// TRUE when a cancel routine was called.
BOOLEAN NTAPI IoCancelIrp(PIRP Irp);
VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql);
VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql);
// PASSIVE_LEVEL. Freed by the I/O manager at completion, which also fills IoStatusBlock and sets Event.
PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                         BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                         PIO_STATUS_BLOCK IoStatusBlock);
PIRP NTAPI IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                        PLARGE_INTEGER StartingOffset, PKEVENT Event,
                                        PIO_STATUS_BLOCK IoStatusBlock);

PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp);
VOID NTAPI IoFreeMdl(PMDL Mdl);
VOID NTAPI MmBuildMdlForNonPagedPool(PMDL Mdl);

// Work items run at PASSIVE_LEVEL on a system thread; the device object lives until they return.
PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
VOID NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                           PVOID Context);
VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem);

// Error log. IRQL <= DISPATCH_LEVEL. Writing hands the entry over.
PVOID NTAPI IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize);
VOID NTAPI IoWriteErrorLogEntry(PVOID ElEntry);
VOID NTAPI IoFreeErrorLogEntry(PVOID ElEntry);

// PnP. PASSIVE_LEVEL, except the first (IRQL <= DISPATCH_LEVEL).
VOID NTAPI IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type);
VOID NTAPI IoInvalidateDeviceState(PDEVICE_OBJECT PhysicalDeviceObject);
NTSTATUS NTAPI IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty,
                                   ULONG BufferLength, PVOID PropertyBuffer, PULONG ResultLength);
NTSTATUS NTAPI IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType, ACCESS_MASK DesiredAccess,
                                       PHANDLE DevInstRegKey);
// The link name's buffer is the caller's to free with RtlFreeUnicodeString.
NTSTATUS NTAPI IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, const GUID* InterfaceClassGuid,
                                         PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName);
NTSTATUS NTAPI IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable);

// Power. IRQL <= DISPATCH_LEVEL.
NTSTATUS NTAPI PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
VOID NTAPI PoStartNextPowerIrp(PIRP Irp);
POWER_STATE NTAPI PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State);
// STATUS_PENDING when the request was sent; CompletionFunction is called when it has ended.
NTSTATUS NTAPI PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                 PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP* Irp);

}  // extern "C"

#define IoCallDriver(device, irp) IofCallDriver((device), (irp))
#define IoCompleteRequest(irp, boost) IofCompleteRequest((irp), (boost))
#define IoSizeOfIrp(stackSize) ((USHORT)(sizeof(IRP) + (stackSize) * sizeof(IO_STACK_LOCATION)))

FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) {
    return Irp->Tail.Overlay.CurrentStackLocation;
}
FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) {
    return Irp->Tail.Overlay.CurrentStackLocation - 1;
}
FORCEINLINE VOID IoSetNextIrpStackLocation(PIRP Irp) {
    Irp->CurrentLocation--;
    Irp->Tail.Overlay.CurrentStackLocation--;
}
FORCEINLINE VOID IoSkipCurrentIrpStackLocation(PIRP Irp) {
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
}
// Everything but the completion routine and its context goes down.
FORCEINLINE VOID IoCopyCurrentIrpStackLocationToNext(PIRP Irp) {
    PIO_STACK_LOCATION Current = IoGetCurrentIrpStackLocation(Irp);
    PIO_STACK_LOCATION Next = IoGetNextIrpStackLocation(Irp);
    memcpy((void*)Next, (const void*)Current, offsetof(IO_STACK_LOCATION, CompletionRoutine));
    Next->Control = 0;
}
FORCEINLINE VOID IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE Routine, PVOID Context, BOOLEAN OnSuccess,
                                        BOOLEAN OnError, BOOLEAN OnCancel) {
    PIO_STACK_LOCATION Next = IoGetNextIrpStackLocation(Irp);
    Next->CompletionRoutine = Routine;
    Next->Context = Context;
    Next->Control = (UCHAR)((OnSuccess ? SL_INVOKE_ON_SUCCESS : 0) | (OnError ? SL_INVOKE_ON_ERROR : 0) |
                            (OnCancel ? SL_INVOKE_ON_CANCEL : 0));
}
FORCEINLINE VOID IoMarkIrpPending(PIRP Irp) { IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED; }
// Returns the routine set before; atomic against IoCancelIrp.
FORCEINLINE PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL CancelRoutine) {
    return __atomic_exchange_n(&Irp->CancelRoutine, CancelRoutine, __ATOMIC_SEQ_CST);
}

FORCEINLINE PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, ULONG Priority) {
    UNREFERENCED_PARAMETER(Priority);
    return Mdl->MappedSystemVa;
}
FORCEINLINE ULONG MmGetMdlByteCount(PMDL Mdl) { return Mdl->ByteCount; }
FORCEINLINE PVOID MmGetMdlVirtualAddress(PMDL Mdl) { return (PUCHAR)Mdl->StartVa + Mdl->ByteOffset; }

#endif
