// Device creation and the COM name.
//
//   (none) --add-device--> attached, Ref 1 --surprise removal--> LowerDevObj null, no COM name
//                              ^                                      |           |
//                              +------- same identifier arrives ------+       last reference
//                                                                                 v
//                                                                         DeleteDevice, (none)
//
// DeviceListMutex decides between the two ways out: a search that meets a DEVICE whose Ref already
// fell to 0 waits for that deletion and searches again.
#include "pnpadd.h"

#include "wdmpwr.h"
#include "wrsupport.h"

static const ULONG NumberedNames = 100;                  // \Device\qvcdcacm0 to 99
static const WCHAR UnnamedPort[] = KTEXT("COM?");
static const WCHAR LinkPrefix[] = KTEXT("\\DosDevices\\");
static const ULONG NoMemoryEvent = 0xE0070003;

// Set whenever a DEVICE has left DeviceList; cleared by a search that found one on its way out.
static KEVENT DeviceDeletedEvent;

// Guards the Dev of every attachment; innermost. An attachment that shows a DEVICE holds a reference on it: whoever
// finds one under this lock finds it alive. Nothing else keeps it, as a start that fails is followed by the removal
// whatever handles are open or being opened.
static KSPIN_LOCK AttachmentLock;

VOID InitDeviceList()
{
    KeInitializeSpinLock(&AttachmentLock);
    InitializeListHead(&DeviceList);
    KeInitializeMutex(&DeviceListMutex, 0);
    KeInitializeEvent(&DeviceDeletedEvent, NotificationEvent, FALSE);
}

static VOID LockDeviceList() _Acquires_lock_(DeviceListMutex) _IRQL_requires_max_(PASSIVE_LEVEL)
{
    KeWaitForSingleObject(&DeviceListMutex, Executive, KernelMode, FALSE, NULL);
    _Analysis_assume_lock_acquired_(DeviceListMutex);
}

static VOID UnlockDeviceList() _Releases_lock_(DeviceListMutex)
{
    _Analysis_assume_lock_released_(DeviceListMutex);
    KeReleaseMutex(&DeviceListMutex, FALSE);
}

VOID GetDevice(PDEVICE_OBJECT DeviceObject, DEVICE** Dev, PORT_OBJ** Port)
{
    const ULONG Type = *(const ULONG*)DeviceObject->DeviceExtension;
    DEVICE* Found = NULL;
    if (Type == DEVICE_TYPE_DATA)
        Found = (DEVICE*)DeviceObject->DeviceExtension;
    else if (Type == ATT_OBJ_TYPE)
        Found = LoadShared(&((ATT_OBJ*)DeviceObject->DeviceExtension)->Dev);
    if (Dev != NULL)
        *Dev = Found;
    if (Port != NULL)
        *Port = Found != NULL ? &Found->Port : NULL;
}

static VOID SetAttachedDevice(ATT_OBJ* Att, DEVICE* Dev)
{
    KIRQL Irql;
    KeAcquireSpinLock(&AttachmentLock, &Irql);
    StoreShared(&Att->Dev, Dev);
    KeReleaseSpinLock(&AttachmentLock, Irql);
}

// The data device object is its DEVICE's own memory, which the request's hold on the object keeps: no lock, and
// entering the rundown of a DEVICE already deleted changes nothing.
DEVICE* EnterDevice(PDEVICE_OBJECT DeviceObject)
{
    DEVICE* Dev;
    KIRQL Irql;
    if (*(const ULONG*)DeviceObject->DeviceExtension == DEVICE_TYPE_DATA) {
        GetDevice(DeviceObject, &Dev, NULL);
        RundownEnter(Dev);
        return Dev;
    }
    KeAcquireSpinLock(&AttachmentLock, &Irql);
    GetDevice(DeviceObject, &Dev, NULL);
    if (Dev != NULL)
        RundownEnter(Dev);
    KeReleaseSpinLock(&AttachmentLock, Irql);
    return Dev;
}

DEVICE* ReferenceDevice(PDEVICE_OBJECT DeviceObject)
{
    DEVICE* Dev = EnterDevice(DeviceObject);
    if (Dev == NULL)
        return NULL;
    const BOOLEAN Referenced = TryRef(&Dev->Ref);
    RundownLeave(Dev);
    return Referenced ? Dev : NULL;
}

static VOID InitName(UNICODE_STRING* Name, WCHAR* Buffer, USHORT Capacity)
{
    Name->Buffer = Buffer;
    Name->Length = 0;
    Name->MaximumLength = Capacity;
}

static VOID CopyName(NAME_240* Target, const UNICODE_STRING* Source)
{
    InitName(&Target->String, Target->Buffer, sizeof(Target->Buffer));
    RtlCopyUnicodeString(&Target->String, (PUNICODE_STRING)Source);
}

static VOID SetObjectFlags(PDEVICE_OBJECT DeviceObject)
{
    DeviceObject->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
    DeviceObject->Flags &= ~(ULONG)DO_DEVICE_INITIALIZING;
}

NTSTATUS GetDeviceIdentifier(PDEVICE_OBJECT Pdo, NAME_120* Id)
{
    ULONG Length = 0;
    RtlZeroMemory(Id, sizeof(*Id));
    const NTSTATUS Status =
        IoGetDeviceProperty(Pdo, DevicePropertyDriverKeyName, sizeof(Id->Buffer), Id->Buffer, &Length);
    InitName(&Id->String, Id->Buffer, sizeof(Id->Buffer));
    if (Length <= sizeof(Id->Buffer))
        Id->String.Length = (USHORT)Length;
    return Status;
}

DEVICE* FindDeviceByIdentifier(const NAME_120* Id)
{
    for (LIST_ENTRY* Entry = DeviceList.Flink; Entry != &DeviceList; Entry = Entry->Flink) {
        DEVICE* Dev = CONTAINING_RECORD(Entry, DEVICE, DeviceListEntry);
        const USHORT Length = Dev->Identifier.String.Length;
        if (Length == Id->String.Length && RtlCompareMemory(Dev->Identifier.Buffer, Id->Buffer, Length) == Length)
            return Dev;
    }
    return NULL;
}

NTSTATUS CreateNumberedDeviceObject(const WCHAR* BaseName, ULONG ExtensionSize, PDRIVER_OBJECT DriverObject,
                                    NAME_240* Name, PDEVICE_OBJECT* DevObj)
{
    NTSTATUS Status = STATUS_UNSUCCESSFUL;
    KASSERT(IRQL_EQ_PASSIVE());
    for (ULONG N = 0; N < NumberedNames; ++N) {
        WCHAR Digits[12];
        UNICODE_STRING Number;
        InitName(&Number, Digits, sizeof(Digits));
        InitName(&Name->String, Name->Buffer, sizeof(Name->Buffer));
        RtlAppendUnicodeToString(&Name->String, KTEXT("\\Device\\"));
        RtlAppendUnicodeToString(&Name->String, BaseName);
        RtlIntegerToUnicodeString(N, 10, &Number);
        RtlAppendUnicodeStringToString(&Name->String, &Number);
        Status = IoCreateDevice(DriverObject, ExtensionSize, &Name->String, FILE_DEVICE_SERIAL_PORT,
                                FILE_DEVICE_SECURE_OPEN, TRUE, DevObj);
        if (NT_SUCCESS(Status))
            break;
    }
    return Status;
}

// --- The COM name -------------------------------------------------------------------------------

static VOID DropPortName(DEVICE* Dev)
{
    PORT_OBJ* Port = &Dev->Port;
    TraceSetName(PORT_NAME(Dev), RTL_NUMBER_OF(PrivateOf(Dev)->TraceName), UnnamedPort);
    if (Port->PortName != NULL) {
        MemFree(Port->PortName);
        Port->PortName = NULL;
    }
}

static VOID DropInterfaceName(PORT_OBJ* Port)
{
    RtlFreeUnicodeString(&Port->InterfaceName);
    RtlInitUnicodeString(&Port->InterfaceName, NULL);
}

// "\DosDevices\" and the port's name, linked to the data device. A name that does not fit fails as a
// link that the platform refuses.
static NTSTATUS LinkPortName(PORT_OBJ* Port)
{
    InitName(&Port->SymbolicLinkName.String, Port->SymbolicLinkName.Buffer, sizeof(Port->SymbolicLinkName.Buffer));
    RtlAppendUnicodeToString(&Port->SymbolicLinkName.String, LinkPrefix);
    if (!NT_SUCCESS(RtlAppendUnicodeToString(&Port->SymbolicLinkName.String, Port->PortName)))
        return STATUS_OBJECT_NAME_INVALID;
    return IoCreateSymbolicLink(&Port->SymbolicLinkName.String, &Port->DeviceName.String);
}

static ULONG StringBytes(const WCHAR* Text)
{
    ULONG Units = 0;
    while (Text[Units] != 0)
        ++Units;
    return (Units + 1) * (ULONG)sizeof(WCHAR);
}

// The SERIALCOMM value and the device interface, for a port whose link stands.
static NTSTATUS PublishPort(DEVICE* Dev)
{
    PORT_OBJ* Port = &Dev->Port;
    NTSTATUS Status;
    if (Port->InterfaceName.Length == 0) {
        Status = IoRegisterDeviceInterface(Dev->Pdo, (LPGUID)&GUID_CLASS_COMPORT, NULL, &Port->InterfaceName);
        if (!NT_SUCCESS(Status)) {
            RtlInitUnicodeString(&Port->InterfaceName, NULL);
            TRACE(TRC_ERROR, "%P:%S:CreateSymbolikLink: IoRegisterDeviceInterface failed (%D)\n", PORT_NAME(Dev), Status);
            return Status;
        }
    }
    Status = RtlWriteRegistryValue(RTL_REGISTRY_DEVICEMAP, KTEXT("SERIALCOMM"), Port->DeviceName.Buffer, REG_SZ,
                                   Port->PortName, StringBytes(Port->PortName));
    CopyName(&Port->SerialCommName, &Port->DeviceName.String);
    if (!NT_SUCCESS(Status)) {
        DropInterfaceName(Port);
        TRACE(TRC_ERROR, "%P:%S:CreateSymbolikLink: Get RtlWriteRegistryValue failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    Status = IoSetDeviceInterfaceState(&Port->InterfaceName, TRUE);
    if (!NT_SUCCESS(Status)) {
        DropInterfaceName(Port);
        TRACE(TRC_ERROR, "%P:%S:CreateSymbolikLink: IoSetDeviceInterfaceState failed (%D)\n", PORT_NAME(Dev), Status);
    }
    return Status;
}

NTSTATUS CreateSymbolikLink(PORT_OBJ* Port)
{
    DEVICE* Dev = Port->Device;
    HANDLE Key;
    KASSERT(IRQL_EQ_PASSIVE());
    NTSTATUS Status = IoOpenDeviceRegistryKey(Dev->Pdo, PLUGPLAY_REGKEY_DEVICE, READ_CONTROL, &Key);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:CreateSymbolikLink: Open PLUGPLAY_REGKEY_DEVICE failed (%D)\n", Status);
        return Status;
    }
    DropPortName(Dev);
    Status = ReadRegString(Key, KTEXT("PortName"), &Port->PortName);
    if (NT_SUCCESS(Status) && Port->PortName == NULL)
        Status = STATUS_UNSUCCESSFUL;
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:CreateSymbolikLink: Get PortName failed (%D)\n", Status);
        ZwClose(Key);
        return Status;
    }
    TraceSetName(PORT_NAME(Dev), RTL_NUMBER_OF(PrivateOf(Dev)->TraceName), Port->PortName);
    Status = LinkPortName(Port);
    if (NT_SUCCESS(Status)) {
        Port->SymLinkCreated = 1;
        Status = PublishPort(Dev);
    } else {
        TRACE(TRC_ERROR, "%P:%S:CreateSymbolikLink: IoCreateSymbolicLink failed (%D)\n", PORT_NAME(Dev), Status);
        LogError(Dev->Pdo, Status,
                 "Cannot create symbolic link. Use Device Manager to select a free COM port for this driver.");
        DropPortName(Dev);   // no link remembers the name, so nobody else would free it
    }
    ZwClose(Key);
    return Status;
}

NTSTATUS CreateLinks(DEVICE* Dev)
{
    const NTSTATUS Status = CreateSymbolikLink(&Dev->Port);
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:%S:Pnpadd: CreateSymbolikLink failed (%D)\n", PORT_NAME(Dev), Status);
    return Status;
}

VOID DeleteLinks(DEVICE* Dev)
{
    PORT_OBJ* Port = &Dev->Port;
    if (Port->SymLinkCreated) {
        const NTSTATUS Status = IoDeleteSymbolicLink(&Port->SymbolicLinkName.String);
        if (!NT_SUCCESS(Status))
            TRACE(TRC_ERROR, "%P:%S:DeleteLinks IoDeleteSymbolicLink_1 failed (%D)\n", PORT_NAME(Dev), Status);
        Port->SymLinkCreated = 0;
        DropPortName(Dev);
    }
    if (Port->SerialCommName.String.Buffer != NULL) {
        RtlDeleteRegistryValue(RTL_REGISTRY_DEVICEMAP, KTEXT("SERIALCOMM"), Port->SerialCommName.String.Buffer);
        Port->SerialCommName.String.Buffer = NULL;
    }
    if (Port->InterfaceName.Length != 0)
        IoSetDeviceInterfaceState(&Port->InterfaceName, FALSE);
}

// --- Deletion -----------------------------------------------------------------------------------

// No timer of the DEVICE fires and no DPC of it runs after this. The completion queue's DPC is not
// removed: it still holds requests, and the flush lets it finish.
static VOID DrainDpcs(DEVICE* Dev)
{
    CancelTimerObj(&Dev->DelayWaitTimer);
    CancelTimerObj(&Dev->FlushTimer);
    CancelTimerObj(&Dev->ReinitTimer);
    CancelTimerObj(&Dev->WrTimer);
    CancelTimerObj(&Dev->FlowTestTimer);
    CancelTimerObj(&Dev->Idle.IdleTimer);
    if (Dev->Rcv.Dev != NULL)
        KeRemoveQueueDpc(&Dev->Rcv.Dpc);
    if (Dev->Int.Dev != NULL)
        KeRemoveQueueDpc(&Dev->Int.Dpc);
    if (Dev->Snd.Dev != NULL)
        KeRemoveQueueDpc(&Dev->Snd.Dpc);
    KeFlushQueuedDpcs();
}

VOID DeleteDevice(PDEVICE_OBJECT DevObj)
{
    DEVICE* Dev = (DEVICE*)DevObj->DeviceExtension;
    KASSERT(IRQL_EQ_PASSIVE());
    TRACE(TRC_OBJECT, "%P:%S:[DeleteDevice\n", PORT_NAME(Dev));
    LockDeviceList();
    CancelTimerObj(&Dev->DelayWaitTimer);
    CancelTimerObj(&Dev->FlushTimer);
    CancelTimerObj(&Dev->ReinitTimer);
    PwrSetDevicePowerState(Dev);
    IdleStop(&Dev->Idle);
    RundownWait(Dev);
    DrainDpcs(Dev);
    RemoveEntryList(&Dev->DeviceListEntry);
    if (Dev->Port.SerPort != NULL)
        DeletePort(&Dev->Port);
    DeleteLinks(Dev);
    if (Dev->PnpIrp != NULL)
        MemFree(Dev->PnpIrp);
    Dev->PnpIrp = NULL;
    DeleteRcvPipe(&Dev->Rcv);
    DeleteRcvPipe(&Dev->Int);
    DeleteSndPipe(&Dev->Snd);
    KeFlushQueuedDpcs();   // the requests that the port object ended above
    if (PrivateOf(Dev)->DeleteItem != NULL)
        IoFreeWorkItem(PrivateOf(Dev)->DeleteItem);
    PrivateOf(Dev)->DeleteItem = NULL;
    TRACE(TRC_OBJECT, "%P:%S:]DeleteDevice\n", PORT_NAME(Dev));
    IoDeleteDevice(DevObj);
    KeSetEvent(&DeviceDeletedEvent, IO_NO_INCREMENT, FALSE);
    UnlockDeviceList();
}

VOID DeleteAttDevice(ATT_OBJ* Att)
{
    SetAttachedDevice(Att, NULL);
    if (Att->LowerDevObj != NULL)
        IoDetachDevice(Att->LowerDevObj);
    Att->LowerDevObj = NULL;
    IoDeleteDevice(Att->DevObj);
}

// --- Add device ---------------------------------------------------------------------------------

static NTSTATUS CreateAttachment(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Pdo, ATT_OBJ** Attachment)
{
    PDEVICE_OBJECT DevObj;
    const NTSTATUS Status = IoCreateDevice(DriverObject, sizeof(ATT_OBJ), NULL, FILE_DEVICE_SERIAL_PORT,
                                           FILE_DEVICE_SECURE_OPEN, TRUE, &DevObj);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:PnPAddDevice IoCreateDevice failed (%D)\n", Status);
        return Status;
    }
    ATT_OBJ* Att = (ATT_OBJ*)DevObj->DeviceExtension;
    RtlZeroMemory(Att, sizeof(*Att));
    Att->Type = ATT_OBJ_TYPE;
    Att->DevObj = DevObj;
    Att->LowerDevObj = IoAttachDeviceToDeviceStack(DevObj, Pdo);
    if (Att->LowerDevObj == NULL) {
        TRACE(TRC_ERROR, "%P:IoAttachDeviceToDeviceStack failed\n");
        IoDeleteDevice(DevObj);
        return STATUS_UNSUCCESSFUL;
    }
    SetObjectFlags(DevObj);
    *Attachment = Att;
    return STATUS_SUCCESS;
}

static VOID SetLower(DEVICE* Dev, PDEVICE_OBJECT Lower)
{
    KIRQL Irql;
    ACQUIRE(Dev, Irql);
    StoreShared(&Dev->LowerDevObj, Lower);
    RELEASE(Dev, Irql);
}

// Attaches the arrival to a DEVICE that lost its USB function. Under DeviceListMutex and the device
// Mutex, so that neither a removal still under way nor another arrival sees half of it.
static NTSTATUS ReuseDevice(DEVICE* Dev, ATT_OBJ* Att, PDEVICE_OBJECT Pdo)
{
    TRACE(TRC_OBJECT, "%P:%S:PnPAddDevice use existing Device Object %S, %S, %d\n", PORT_NAME(Dev),
          Dev->Port.DeviceName.Buffer, Dev->Identifier.Buffer, Dev->OpenCount);
    if (Dev->LowerDevObj != NULL) {
        TRACE(TRC_ERROR, "%P:%S:PnPAddDevice LowerDevObj != NULL! serial number %S! Exit!!!\n", PORT_NAME(Dev),
              Dev->Identifier.Buffer);
        return STATUS_UNSUCCESSFUL;
    }
    // Every request of the DEVICE is sized for the stack it was created on.
    if (Att->LowerDevObj->StackSize > Dev->StackSize)
        return STATUS_UNSUCCESSFUL;
    const PDEVICE_OBJECT OldPdo = Dev->Pdo;
    SetAttachedDevice(Att, Dev);
    SetLower(Dev, Att->LowerDevObj);
    Dev->Pdo = Pdo;
    StoreShared(&Dev->DevicePowerState, (ULONG)PowerDeviceD0);
    KeClearEvent(&PrivateOf(Dev)->Gone);
    KeSetEvent(&Dev->PowerOnEvent, IO_NO_INCREMENT, FALSE);
    const NTSTATUS Status = CreateLinks(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:PnPAddDevice CreateLinks_1 failed (%D)\n", Status);
        DeleteLinks(Dev);
        SetLower(Dev, NULL);
        Dev->Pdo = OldPdo;
        KeSetEvent(&PrivateOf(Dev)->Gone, IO_NO_INCREMENT, FALSE);
        SetAttachedDevice(Att, NULL);
        return Status;
    }
    Dev->ReinitRetries = 1;
    TraceIncRef(Dev, LoadShared(&Dev->Ref), __FILE_NAME__, __LINE__);   // taken by the search
    IncRefAtt(Att);
    if (Dev->OpenCount > 0)
        SendOpenNotification(Dev);
    return STATUS_SUCCESS;
}

// The DEVICE with this identifier, with a reference taken, or null.
static DEVICE* FindAndReference(const NAME_120* Id) _Requires_lock_held_(DeviceListMutex)
{
    for (;;) {
        DEVICE* Dev = FindDeviceByIdentifier(Id);
        if (Dev == NULL || TryRef(&Dev->Ref))
            return Dev;
        KeClearEvent(&DeviceDeletedEvent);
        UnlockDeviceList();
        KeWaitForSingleObject(&DeviceDeletedEvent, Executive, KernelMode, FALSE, NULL);
        LockDeviceList();
    }
}

// TRUE when a DEVICE with this identifier exists; then *Status is the result of attaching to it.
static BOOLEAN AttachToExisting(const NAME_120* Id, ATT_OBJ* Att, PDEVICE_OBJECT Pdo, NTSTATUS* Status)
{
    LockDeviceList();
    DEVICE* Dev = FindAndReference(Id);
    if (Dev != NULL) {
        KeWaitForSingleObject(&Dev->Mutex, Executive, KernelMode, FALSE, NULL);
        *Status = ReuseDevice(Dev, Att, Pdo);
        KeReleaseMutex(&Dev->Mutex, FALSE);
    }
    UnlockDeviceList();
    if (Dev == NULL)
        return FALSE;
    if (!NT_SUCCESS(*Status)) {
        DeleteAttDevice(Att);
        DropRef(Dev);
    }
    return TRUE;
}

static VOID InitDeviceRecord(DEVICE* Dev, ATT_OBJ* Att, PDEVICE_OBJECT DevObj, const NAME_240* Name, const NAME_120* Id)
{
    CopyName(&Dev->Port.DeviceName, &Name->String);
    InitName(&Dev->Identifier.String, Dev->Identifier.Buffer, sizeof(Dev->Identifier.Buffer));
    RtlCopyMemory(Dev->Identifier.Buffer, Id->Buffer, sizeof(Id->Buffer));
    Dev->Identifier.String.Length = Id->String.Length;
    Dev->Type = DEVICE_TYPE_DATA;
    Dev->Port.DeviceObject = DevObj;
    Dev->LowerDevObj = Att->LowerDevObj;
    Dev->StackSize = Att->LowerDevObj->StackSize;
    Dev->IrpSize = (USHORT)IoSizeOfIrp(Dev->StackSize);
    InitializeListHead(&Dev->DeviceListEntry);
    Dev->DriverObject = DevObj->DriverObject;
}

static VOID InitTimersAndLocks(DEVICE* Dev, const CFG* Cfg)
{
    InitTimerObj(&Dev->WrTimer, WrTimerFnc, Dev, Cfg->TimerInterval);
    KeInitializeEvent(&Dev->WrTimerIdleEvent, NotificationEvent, FALSE);
    InitTimerObj(&Dev->ReinitTimer, ReinitTimerFnc, Dev, 500);
    IdleInit(&Dev->Idle, Dev, Cfg->IdleInterval * 1000);
    InitTimerObj(&Dev->FlushTimer, FlushTimerFnc, Dev, 5000);
    IrpQueue_Init(&Dev->FlushIrpQueue);
    KeInitializeEvent(&Dev->PowerOnEvent, NotificationEvent, TRUE);
    InitTimerObj(&Dev->DelayWaitTimer, DelayWaitCancelFnc, Dev, 100);
    KeInitializeEvent(&Dev->FlagSentEvent, NotificationEvent, FALSE);
    InitTimerObj(&Dev->FlowTestTimer, RcvDelayTimerFnc, Dev, Cfg->FlowTest);
    KeInitializeMutex(&Dev->Mutex, 0);
    KeInitializeSpinLock(&Dev->Lock);
    CompleteQueue_Init(&Dev->CompleteQueue);
    KeInitializeEvent(&PrivateOf(Dev)->Gone, NotificationEvent, FALSE);
}

static NTSTATUS InitPipes(DEVICE* Dev)
{
    const CFG* Cfg = &Dev->Cfg;
    NTSTATUS Status = InitRcvPipe(&Dev->Rcv, Dev, RcvBulkIn, NULL, Cfg->ReadBufferSize, Cfg->ReadBufferCount, 0);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:Pnpadd: RcvInit failed, size ~%d\n", PORT_NAME(Dev), Cfg->ReadBufferSize * Cfg->ReadBufferCount);
        return Status;
    }
    Status = InitRcvPipe(&Dev->Int, Dev, RcvIntIn, NULL, 16, 1, 1);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:Pnpadd: RcvInit failed, size ~%d\n", PORT_NAME(Dev), 16);
        return Status;
    }
    Status = InitSndPipe(&Dev->Snd, Dev, SndOutComplete, NULL, Cfg->WriteBufferSize, 1);
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:%S:Pnpadd: SndInit failed, size ~%d\n", PORT_NAME(Dev), Cfg->WriteBufferSize);
    return Status;
}

// What requests cannot do without comes before; the rest of a new DEVICE that can fail, in order.
static NTSTATUS BuildDevice(DEVICE* Dev)
{
    NTSTATUS Status = CreatePort(Dev, &Dev->Port);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:Pnpadd: CreateDataPort failed (%D)\n", Status);
        return Status;
    }
    Status = CreateLinks(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:Pnpadd: CreateLinks failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    Dev->PnpIrp = (PIRP)MemAlloc(Dev->IrpSize, Tag4('P', 'N', 'P', '0'));
    if (Dev->PnpIrp == NULL) {
        TRACE(TRC_ERROR, "%P:%S:Pnpadd: alloc IRP failed, size %d\n", PORT_NAME(Dev), Dev->IrpSize);
        LogNoMemory(Dev->Pdo, (NTSTATUS)NoMemoryEvent);
        return STATUS_UNSUCCESSFUL;
    }
    IoInitializeIrp(Dev->PnpIrp, Dev->IrpSize, Dev->StackSize);
    return InitPipes(Dev);
}

static NTSTATUS CreateDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Pdo, ATT_OBJ* Att, const CFG* Cfg, const NAME_120* Id)
{
    NAME_240 Name;
    PDEVICE_OBJECT DevObj;
    NTSTATUS Status = CreateNumberedDeviceObject(KTEXT("qvcdcacm"), sizeof(DEVICE_EXTENSION), DriverObject, &Name, &DevObj);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:Pnpadd: CreateNumberedDeviceObject failed (%D)\n", Status);
        DeleteAttDevice(Att);
        return Status;
    }
    DEVICE* Dev = (DEVICE*)DevObj->DeviceExtension;
    RtlZeroMemory(Dev, sizeof(DEVICE_EXTENSION));
    TraceSetName(PORT_NAME(Dev), RTL_NUMBER_OF(PrivateOf(Dev)->TraceName), UnnamedPort);
    InitDeviceRecord(Dev, Att, DevObj, &Name, Id);
    Dev->Pdo = Pdo;
    InitTimersAndLocks(Dev, Cfg);
    Dev->DevicePowerState = PowerDeviceD0;
    Dev->PnpState = PNP_NOT_STARTED;
    Dev->ControlLines = 0;
    IncRef(Dev);
    Dev->Tag = DEVICE_TAG;
    InitUsbDev(Dev, &Dev->Usb);
    Dev->Cfg = *Cfg;
    Status = InitWorker(Dev, DevObj);
    // From here on requests may come, by the name and through the attachment; the rundown counts them.
    SetObjectFlags(DevObj);
    SetAttachedDevice(Att, Dev);
    if (NT_SUCCESS(Status))
        Status = BuildDevice(Dev);
    if (!NT_SUCCESS(Status)) {
        SetAttachedDevice(Att, NULL);
        DeleteDevice(DevObj);
        DeleteAttDevice(Att);
        return Status;
    }
    IncRefAtt(Att);
    LockDeviceList();
    InsertHeadList(&DeviceList, &Dev->DeviceListEntry);
    UnlockDeviceList();
    return STATUS_SUCCESS;
}

NTSTATUS PnPAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Pdo)
{
    ATT_OBJ* Att;
    CFG Cfg;
    NAME_120 Id;
    KASSERT(IRQL_EQ_PASSIVE());
    TRACE(TRC_OBJECT, "%P:[PnPAddDevice\n");
    NTSTATUS Status = CreateAttachment(DriverObject, Pdo, &Att);
    if (!NT_SUCCESS(Status))
        return Status;
    Status = LoadCfg(Pdo, &Cfg);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:Pnpadd: LoadCfg failed (%D)\n", Status);
        DeleteAttDevice(Att);
        return STATUS_UNSUCCESSFUL;
    }
    Status = GetDeviceIdentifier(Pdo, &Id);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:PnPAddDevice GetDeviceIdentifier failed\n");
        DeleteAttDevice(Att);
        return Status;
    }
    if (!AttachToExisting(&Id, Att, Pdo, &Status))
        Status = CreateDevice(DriverObject, Pdo, Att, &Cfg, &Id);
    TRACE(TRC_OBJECT, "%P:]PnPAddDevice (%D)\n", Status);
    return Status;
}
