// USB configuration. Start: descriptors are read, a configuration chosen, its interfaces and pipes
// recorded, the three contexts bound. Teardown unbinds the contexts first, so that nobody starts a
// transfer on a pipe whose record goes; a record lives until its last transfer has come back.
#include "usbcfg.h"

#include "pnpadd.h"
#include "wdmpwr.h"

enum : ULONG {
    INTERFACE_POOL_TAG = Tag4('u', 's', 'c', '0'),
    DESCRIPTOR_POOL_TAG = Tag4('u', 's', 'c', '1'),
    INTERFACE_LIST_POOL_TAG = Tag4('u', 's', 'c', '2'),
    PIPE_POOL_TAG = Tag4('p', 'i', 'p', '0'),
    DESCRIPTOR_FIRST_READ = 64,
    MAX_TRANSFER_SIZE = 128000,
    HUB_CURRENT_SELF_POWERED = 500,   // mA
    HUB_CURRENT_BUS_POWERED = 100,    // mA
};

enum : UCHAR { ENDPOINT_BULK = 2, ENDPOINT_INTERRUPT = 3, ENDPOINT_IN = 0x80, ENDPOINT_OUT = 0, NO_INTERFACE = 0xFF };

VOID InitUsbDev(DEVICE* Dev, USB_DEV* Usb)
{
    RtlZeroMemory((VOID*)Usb, sizeof(*Usb));
    Usb->Dev = Dev;
    Usb->StackSize = Dev->StackSize;
    InitializeListHead(&Usb->PipeList);
    InitializeListHead(&Usb->InterfaceList);
}

// One URB with an IRP of its own.
static NTSTATUS SubmitOwnIrp(USB_DEV* Usb, PURB Urb)
{
    PIRP Irp = IoAllocateIrp(Usb->StackSize, FALSE);
    if (Irp == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS Status = SubmitUrbAndWait(Usb->Dev, Irp, Urb, Usb->Dev->Cfg.RequestTimeout);
    IoFreeIrp(Irp);
    return Status;
}

static NTSTATUS ReadDescriptor(USB_DEV* Usb, UCHAR Type, UCHAR Index, ULONG* LengthInOut, VOID* Buffer)
{
    URB Urb;

    RtlZeroMemory((VOID*)&Urb, sizeof(Urb));
    _URB_CONTROL_DESCRIPTOR_REQUEST* Transfer = &Urb.UrbControlDescriptorRequest;
    Urb.UrbHeader.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    Urb.UrbHeader.Length = sizeof(*Transfer);
    Transfer->DescriptorType = Type;
    Transfer->Index = Index;
    Transfer->LanguageId = 0;
    Transfer->TransferBufferLength = *LengthInOut;
    Transfer->TransferBuffer = Buffer;
    NTSTATUS Status = SubmitOwnIrp(Usb, &Urb);
    if (NT_SUCCESS(Status) && Transfer->TransferBufferLength < *LengthInOut)
        *LengthInOut = Transfer->TransferBufferLength;
    return Status;
}

static VOID TraceDeviceDescriptor(const USB_DEVICE_DESCRIPTOR* Descriptor)
{
    if (!TRACE_ON(TRC_USBCFG))
        return;
    TracePrint("bLength            %B\n", Descriptor->bLength);
    TracePrint("bDescriptorType    %B\n", Descriptor->bDescriptorType);
    TracePrint("bcdUSB             %W\n", Descriptor->bcdUSB);
    TracePrint("bDeviceClass       %B\n", Descriptor->bDeviceClass);
    TracePrint("bDeviceSubClass    %B\n", Descriptor->bDeviceSubClass);
    TracePrint("bDeviceProtocol    %B\n", Descriptor->bDeviceProtocol);
    TracePrint("bMaxPacketSize0    %B\n", Descriptor->bMaxPacketSize0);
    TracePrint("idVendor           %W\n", Descriptor->idVendor);
    TracePrint("idProduct          %W\n", Descriptor->idProduct);
    TracePrint("bcdDevice          %W\n", Descriptor->bcdDevice);
    TracePrint("iManufacturer      %B\n", Descriptor->iManufacturer);
    TracePrint("iProduct           %B\n", Descriptor->iProduct);
    TracePrint("iSerialNumber      %B\n", Descriptor->iSerialNumber);
    TracePrint("bNumConfigurations %B\n", Descriptor->bNumConfigurations);
}

NTSTATUS GetDeviceDescriptor(USB_DEV* Usb, VOID* Buffer)
{
    ULONG Length = sizeof(USB_DEVICE_DESCRIPTOR);
    NTSTATUS Status = ReadDescriptor(Usb, USB_DEVICE_DESCRIPTOR_TYPE, 0, &Length, Buffer);

    static_assert(sizeof(USB_DEVICE_DESCRIPTOR) == 18);
    if (NT_SUCCESS(Status))
        TraceDeviceDescriptor((const USB_DEVICE_DESCRIPTOR*)Buffer);
    else
        TRACE(TRC_ERROR, "%P:%S:GetDeviceDescriptor: SubmitUrbAndWait failed (%D).\n", PORT_NAME(Usb->Dev), Status);
    return Status;
}

NTSTATUS GetConfigurationDescriptor(USB_DEV* Usb, UCHAR Index, ULONG* LengthInOut, VOID* Buffer)
{
    NTSTATUS Status = ReadDescriptor(Usb, USB_CONFIGURATION_DESCRIPTOR_TYPE, Index, LengthInOut, Buffer);

    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:GetConfigurationDescriptor: SubmitUrbAndWait failed (%D).\n", PORT_NAME(Usb->Dev), Status);
        return Status;
    }
    if (TRACE_ON(TRC_USBCFG) && *LengthInOut >= sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
        const USB_CONFIGURATION_DESCRIPTOR* Descriptor = (const USB_CONFIGURATION_DESCRIPTOR*)Buffer;

        TracePrint("bLength             %B\n", Descriptor->bLength);
        TracePrint("bDescriptorType     %B\n", Descriptor->bDescriptorType);
        TracePrint("wTotalLength        %W\n", Descriptor->wTotalLength);
        TracePrint("bNumInterfaces      %B\n", Descriptor->bNumInterfaces);
        TracePrint("bConfigurationValue %B\n", Descriptor->bConfigurationValue);
        TracePrint("iConfiguration      %B\n", Descriptor->iConfiguration);
        TracePrint("bmAttributes        %B\n", Descriptor->bmAttributes);
        TracePrint("MaxPower            %B\n", Descriptor->MaxPower);
    }
    return Status;
}

NTSTATUS GetConfigDescAndAlloc(USB_DEV* Usb, UCHAR Index, ULONG* Length, UCHAR** Descriptor)
{
    const WCHAR* Name = PORT_NAME(Usb->Dev);
    ULONG Size = DESCRIPTOR_FIRST_READ;
    NTSTATUS Status = STATUS_UNSUCCESSFUL;

    *Length = 0;
    *Descriptor = NULL;
    for (ULONG Attempt = 0; Attempt < 2; Attempt++) {
        // Fields of a descriptor that claims less than its header are read as zero.
        const ULONG Room = Size < DESCRIPTOR_FIRST_READ ? (ULONG)DESCRIPTOR_FIRST_READ : Size;
        UCHAR* Buffer = (UCHAR*)MemAlloc(Room, DESCRIPTOR_POOL_TAG);

        if (Buffer == NULL) {
            TRACE(TRC_ERROR, "%P:%S:GetConfigDescAndAlloc: alloc buffer failed (%u)\n", Name, Size);
            return STATUS_NO_MEMORY;
        }
        RtlZeroMemory(Buffer, Room);
        Status = GetConfigurationDescriptor(Usb, Index, &Size, Buffer);
        if (!NT_SUCCESS(Status)) {
            TRACE(TRC_ERROR, "%P:%S:GetConfigDescAndAlloc: GetConfigurationDescriptor failed\n", Name);
            MemFree(Buffer);
            return Status;
        }
        const ULONG TotalLength = ((const USB_CONFIGURATION_DESCRIPTOR*)Buffer)->wTotalLength;
        if (TotalLength <= Size) {
            *Length = Size;
            *Descriptor = Buffer;
            return STATUS_SUCCESS;
        }
        Size = TotalLength;
        TRACE(TRC_USBCFG, "%P:%S:GetConfigDescAndAlloc: Default buffer size is to small, retry with %D\n", Name, Size);
        MemFree(Buffer);
        Status = STATUS_UNSUCCESSFUL;
    }
    return Status;
}

// Sends a request that the I/O manager frees, and waits for it without limit.
static NTSTATUS CallAndWait(PDEVICE_OBJECT Target, PIRP Irp, PKEVENT Event, PIO_STATUS_BLOCK IoStatus)
{
    NTSTATUS Status = IoCallDriver(Target, Irp);

    if (Status == STATUS_PENDING) {
        KeWaitForSingleObject(Event, Executive, KernelMode, FALSE, NULL);
        Status = IoStatus->Status;
    }
    return Status;
}

static NTSTATUS GetParentHub(DEVICE* Dev, PDEVICE_OBJECT* Hub)
{
    PDEVICE_OBJECT Lower = LoadShared(&Dev->LowerDevObj);
    IO_STATUS_BLOCK IoStatus = {};
    KEVENT Event;
    PIRP Irp = NULL;

    *Hub = NULL;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    if (Lower != NULL)
        Irp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO, Lower, NULL, 0, NULL, 0, TRUE, &Event, &IoStatus);
    if (Irp == NULL) {
        TRACE(TRC_ERROR, "%P:%S:QueryInterface: IoBuildSynchronousFsdRequest failed\n", PORT_NAME(Dev));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    IoGetNextIrpStackLocation(Irp)->Parameters.Others.Argument1 = Hub;
    NTSTATUS Status = CallAndWait(Lower, Irp, &Event, &IoStatus);
    if (NT_SUCCESS(Status) && *Hub == NULL)
        Status = STATUS_UNSUCCESSFUL;
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:%S: IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO failed with %D\n", PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS GetHubInfo(DEVICE* Dev, PUSB_NODE_INFORMATION NodeInformation)
{
    PDEVICE_OBJECT Hub;
    IO_STATUS_BLOCK IoStatus = {};
    KEVENT Event;

    KASSERT(IRQL_EQ_PASSIVE());
    NTSTATUS Status = GetParentHub(Dev, &Hub);
    if (!NT_SUCCESS(Status))
        return Status;
    while (Hub->AttachedDevice != NULL)
        Hub = Hub->AttachedDevice;

    RtlZeroMemory((VOID*)NodeInformation, sizeof(*NodeInformation));
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    PIRP Irp = IoBuildDeviceIoControlRequest(IOCTL_USB_GET_NODE_INFORMATION, Hub, NULL, 0, NodeInformation,
                                             sizeof(*NodeInformation), FALSE, &Event, &IoStatus);
    if (Irp == NULL) {
        TRACE(TRC_ERROR, "%P:%S:QueryInterface: IoBuildSynchronousFsdRequest failed\n", PORT_NAME(Dev));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Status = CallAndWait(Hub, Irp, &Event, &IoStatus);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:IOCTL_USB_GET_NODE_INFORMATION failed with %D\n", PORT_NAME(Dev), Status);
        return Status;
    }
    if (TRACE_ON(TRC_HUB)) {
        const USB_HUB_DESCRIPTOR* Descriptor = &NodeInformation->u.HubInformation.HubDescriptor;

        TracePrint("NodeType %D\n", (ULONG)NodeInformation->NodeType);
        TracePrint("Length 0x%B\n", Descriptor->bDescriptorLength);
        TracePrint("Type 0x%B\n", Descriptor->bDescriptorType);
        TracePrint("bNumberOfPorts 0x%B\n", Descriptor->bNumberOfPorts);
    }
    return STATUS_SUCCESS;
}

// A hub that cannot be asked counts as bus-powered.
static BOOLEAN HubIsSelfPowered(DEVICE* Dev)
{
    USB_NODE_INFORMATION Node;

    if (Dev->DeviceDescriptor.bNumConfigurations <= 1)
        return FALSE;
    NTSTATUS Status = GetHubInfo(Dev, &Node);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:InitUsbDevice:GetHubInfo failed %08x\n", PORT_NAME(Dev), Status);
        return FALSE;
    }
    return !Node.u.HubInformation.HubIsBusPowered;
}

static UCHAR ChooseConfigIndex(DEVICE* Dev)
{
    const BOOLEAN HighPower = HubIsSelfPowered(Dev);
    const LONG Last = (LONG)Dev->DeviceDescriptor.bNumConfigurations - 1;
    const UCHAR Index = (UCHAR)(HighPower ? Dev->Cfg.HighPowerCfg : Dev->Cfg.LowPowerCfg);

    TRACE(TRC_PROGRESS, "%P:%S:Hub supports cuurrent up to %d mA\n", PORT_NAME(Dev),
          HighPower ? (ULONG)HUB_CURRENT_SELF_POWERED : (ULONG)HUB_CURRENT_BUS_POWERED);
    return (LONG)Index >= Last ? (UCHAR)Last : Index;
}

static VOID SetPipe(DEVICE* Dev, SNDRCV_PIPE* Context, USB_PIPE* Pipe)
{
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    Context->Pipe = Pipe;
    RELEASE(Dev, OldIrql);
}

// Every missing pipe is traced; the first two fail together.
static NTSTATUS BindPipes(USB_DEV* Usb)
{
    DEVICE* Dev = Usb->Dev;
    NTSTATUS Status = STATUS_SUCCESS;
    USB_PIPE* In = FindPipe(Usb, (UCHAR)Dev->Cfg.DataInPipe);
    USB_PIPE* Out = FindPipe(Usb, (UCHAR)Dev->Cfg.DataOutPipe);
    USB_PIPE* Int = FindPipe(Usb, (UCHAR)Dev->Cfg.IntInPipe);

    SetPipe(Dev, &Dev->Rcv, In);
    SetPipe(Dev, &Dev->Snd, Out);
    if (In == NULL || Out == NULL) {
        TRACE(TRC_ASSERT, "%P:%S:Cannot find USB pipe\n", PORT_NAME(Dev));
        Status = STATUS_UNSUCCESSFUL;
    } else {
        if (In->PipeHandle == NULL) {
            TRACE(TRC_ASSERT, "%P:%S:USBD return ReceivePipeHandle == NULL fatal\n", PORT_NAME(Dev));
            Status = STATUS_UNSUCCESSFUL;
        }
        if (Out->PipeHandle == NULL) {
            TRACE(TRC_ASSERT, "%P:%S:USBD return WritePipeHandle == NULL fatal\n", PORT_NAME(Dev));
            Status = STATUS_UNSUCCESSFUL;
        }
    }
    SetPipe(Dev, &Dev->Int, Int);
    if (Int == NULL) {
        TRACE(TRC_ASSERT, "%P:%S:Cannot find interrupt USB pipe\n", PORT_NAME(Dev));
        Status = STATUS_UNSUCCESSFUL;
    } else if (Int->PipeHandle == NULL) {
        TRACE(TRC_ASSERT, "%P:%S:USBD return IntPipeHandle == NULL fatal\n", PORT_NAME(Dev));
        Status = STATUS_UNSUCCESSFUL;
    }
    return Status;
}

static VOID RecordConfiguration(DEVICE* Dev, const UCHAR* Descriptor, ULONG Length)
{
    CFG* Cfg = &Dev->Cfg;

    Cfg->DataInPipe = FindEndpointAddress(Descriptor, Length, ENDPOINT_BULK, ENDPOINT_IN);
    Cfg->DataOutPipe = FindEndpointAddress(Descriptor, Length, ENDPOINT_BULK, ENDPOINT_OUT);
    Cfg->IntInPipe = FindEndpointAddress(Descriptor, Length, ENDPOINT_INTERRUPT, ENDPOINT_IN);
    Cfg->UsbInterface = GetInterfaceNumber(Descriptor, Length, 0);
    Cfg->UsbConfig = ((const USB_CONFIGURATION_DESCRIPTOR*)Descriptor)->bConfigurationValue;
    TRACE(TRC_PROGRESS, "%P:%S:Interface %d\n", PORT_NAME(Dev), Cfg->UsbInterface);
    TRACE(TRC_PROGRESS, "%P:%S:DataInPipe %x\n", PORT_NAME(Dev), Cfg->DataInPipe);
    TRACE(TRC_PROGRESS, "%P:%S:DataOutPipe %x\n", PORT_NAME(Dev), Cfg->DataOutPipe);
    TRACE(TRC_PROGRESS, "%P:%S:IntInPipe %x\n", PORT_NAME(Dev), Cfg->IntInPipe);
}

static VOID FreeConfigDesc(USB_DEV* Usb)
{
    if (Usb->ConfigDesc != NULL)
        MemFree(Usb->ConfigDesc);
    Usb->ConfigDesc = NULL;
}

NTSTATUS InitUsbDevice(USB_DEV* Usb)
{
    DEVICE* Dev = Usb->Dev;
    ULONG Length;
    UCHAR* Descriptor;

    FreeConfigDesc(Usb);
    const UCHAR Index = ChooseConfigIndex(Dev);
    NTSTATUS Status = GetConfigDescAndAlloc(Usb, Index, &Length, &Descriptor);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:InitUsbDevice: Get Config Descriptor failed. (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    const ULONG CurrentMa = ((const USB_CONFIGURATION_DESCRIPTOR*)Descriptor)->MaxPower * 2;
    TRACE(TRC_PROGRESS, "%P:%S:Got configuration Desc: index %d MAX current:%d mA\n", PORT_NAME(Dev), Index, CurrentMa);

    // The first two interfaces of the configuration, whatever their class.
    CONFIG_SELECTION Selection = {};
    Selection.NumberOfInterfaces = RTL_NUMBER_OF(Selection.Interface);
    for (ULONG N = 0; N < Selection.NumberOfInterfaces; N++) {
        Selection.Interface[N].InterfaceNumber = GetInterfaceNumber(Descriptor, Length, N);
        Selection.Interface[N].AlternateSetting = 0;
        Selection.Interface[N].MaxTransferSize = MAX_TRANSFER_SIZE;
    }
    Usb->DataInterfaceNumber = (UCHAR)Selection.Interface[1].InterfaceNumber;

    Status = SetConfiguration(Usb, &Selection, Descriptor);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:Cannot configure USB device (%D)\n", PORT_NAME(Dev), Status);
        MemFree(Descriptor);
        return Status;
    }
    TRACE(TRC_PROGRESS, "%P:%S:Device configured with index %d MAX current:%d mA\n", PORT_NAME(Dev), Index, CurrentMa);
    RecordConfiguration(Dev, Descriptor, Length);
    Status = BindPipes(Usb);
    if (!NT_SUCCESS(Status)) {
        UnconfigureDevice(Usb, 1);
        MemFree(Descriptor);
        return Status;
    }
    Usb->ConfigIndex = Index;
    Usb->ConfigDesc = Descriptor;
    return STATUS_SUCCESS;
}

// List has an empty entry behind the last.
static NTSTATUS FindInterfaces(USB_DEV* Usb, const CONFIG_SELECTION* Selection, UCHAR* ConfigDesc, PUSBD_INTERFACE_LIST_ENTRY List)
{
    for (ULONG N = 0; N < Selection->NumberOfInterfaces; N++) {
        const INTERFACE_SELECTION* Wanted = &Selection->Interface[N];

        List[N].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(
            (PUSB_CONFIGURATION_DESCRIPTOR)ConfigDesc, ConfigDesc, Wanted->InterfaceNumber, Wanted->AlternateSetting, -1, -1, -1);
        TRACE(TRC_USBCFG, "%P:%S:InterfaceDescriptor: %x\n", PORT_NAME(Usb->Dev), (ULONG)(ULONG_PTR)List[N].InterfaceDescriptor);
        if (List[N].InterfaceDescriptor == NULL) {
            TRACE(TRC_ERROR, "%P:%S:Interface (%x,%x) not found in config descriptor\n", PORT_NAME(Usb->Dev),
                  Wanted->InterfaceNumber, Wanted->AlternateSetting);
            return STATUS_UNSUCCESSFUL;
        }
    }
    return STATUS_SUCCESS;
}

static VOID LimitTransfers(USB_DEV* Usb, const CONFIG_SELECTION* Selection, PUSBD_INTERFACE_LIST_ENTRY List)
{
    for (ULONG N = 0; N < Selection->NumberOfInterfaces; N++) {
        PUSBD_INTERFACE_INFORMATION Information = List[N].Interface;

        if (Information == NULL) {
            TRACE(TRC_ERROR, "%P:%S:SetConfiguration: got NULL InterfaceInfo pointer\n", PORT_NAME(Usb->Dev));
            continue;
        }
        TRACE(TRC_USBCFG, "%P:%S:InterfaceInfo: Nb:%d As:%d nPipes:%d\n", PORT_NAME(Usb->Dev), Information->InterfaceNumber,
              Information->AlternateSetting, Information->NumberOfPipes);
        for (ULONG P = 0; P < Information->NumberOfPipes; P++) {
            TRACE(TRC_USBCFG, "%P:%S:PipeInfo: EP:%x \n", PORT_NAME(Usb->Dev), Information->Pipes[P].EndpointAddress);
            Information->Pipes[P].MaximumTransferSize = Selection->Interface[N].MaxTransferSize;
        }
    }
}

static NTSTATUS SelectConfiguration(USB_DEV* Usb, const CONFIG_SELECTION* Selection, UCHAR* ConfigDesc, PUSBD_INTERFACE_LIST_ENTRY List)
{
    PURB Urb = USBD_CreateConfigurationRequestEx((PUSB_CONFIGURATION_DESCRIPTOR)ConfigDesc, List);
    if (Urb == NULL) {
        TRACE(TRC_ERROR, "%P:%S:allocation of ConfigUrb failed\n", PORT_NAME(Usb->Dev));
        return STATUS_NO_MEMORY;
    }
    LimitTransfers(Usb, Selection, List);
    NTSTATUS Status = SubmitOwnIrp(Usb, Urb);
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:%S:SetConfiguration: SubmitUrbAndWait failed (%D).\n", PORT_NAME(Usb->Dev), Status);
    for (ULONG N = 0; N < Selection->NumberOfInterfaces && NT_SUCCESS(Status); N++) {
        if (List[N].Interface != NULL)
            Status = CreateInterfacePipes(Usb, List[N].Interface, Urb->UrbSelectConfiguration.ConfigurationHandle);
    }
    if (NT_SUCCESS(Status))
        Usb->Configured = 1;
    ExFreePool(Urb);
    return Status;
}

NTSTATUS SetConfiguration(USB_DEV* Usb, const CONFIG_SELECTION* Selection, UCHAR* ConfigDesc)
{
    if (Usb->Configured) {
        TRACE(TRC_ERROR, "%P:%S:SetConfiguration: already configured\n", PORT_NAME(Usb->Dev));
        return STATUS_UNSUCCESSFUL;
    }
    TRACE(TRC_USBCFG, "%P:%S:NbOfInterfaces: %d\n", PORT_NAME(Usb->Dev), Selection->NumberOfInterfaces);
    const ULONG Size = (Selection->NumberOfInterfaces + 1) * (ULONG)sizeof(USBD_INTERFACE_LIST_ENTRY);
    PUSBD_INTERFACE_LIST_ENTRY InterfaceList = (PUSBD_INTERFACE_LIST_ENTRY)MemAlloc(Size, INTERFACE_LIST_POOL_TAG);
    if (InterfaceList == NULL) {
        TRACE(TRC_ERROR, "%P:%S:allocation of InterfaceList failed, %u bytes\n", PORT_NAME(Usb->Dev), Size);
        return STATUS_NO_MEMORY;
    }
    RtlZeroMemory((VOID*)InterfaceList, Size);
    NTSTATUS Status = FindInterfaces(Usb, Selection, ConfigDesc, InterfaceList);
    if (NT_SUCCESS(Status))
        Status = SelectConfiguration(Usb, Selection, ConfigDesc, InterfaceList);
    MemFree(InterfaceList);
    return Status;
}

NTSTATUS CreateInterfacePipes(USB_DEV* Usb, PUSBD_INTERFACE_INFORMATION Information, USBD_CONFIGURATION_HANDLE Handle)
{
    USB_INTERFACE* Interface = (USB_INTERFACE*)MemAlloc(sizeof(USB_INTERFACE), INTERFACE_POOL_TAG);
    if (Interface == NULL) {
        TRACE(TRC_ERROR, "%P:%S:allocation of USB_INTERFACE failed\n", PORT_NAME(Usb->Dev));
        return STATUS_NO_MEMORY;
    }
    Interface->InterfaceNumber = Information->InterfaceNumber;
    Interface->AlternateSetting = Information->AlternateSetting;
    Interface->Class = Information->Class;
    Interface->SubClass = Information->SubClass;
    Interface->Protocol = Information->Protocol;
    Interface->InterfaceHandle = Information->InterfaceHandle;
    Interface->NumberOfPipes = Information->NumberOfPipes;
    TRACE(TRC_USBCFG, "%P:%S:Interface created: %B\n", PORT_NAME(Usb->Dev), Interface->InterfaceNumber);
    Usb->ConfigurationHandle = Handle;
    InsertTailList(&Usb->InterfaceList, &Interface->Link);

    for (ULONG P = 0; P < Information->NumberOfPipes; P++) {
        const USBD_PIPE_INFORMATION* Source = &Information->Pipes[P];
        USB_PIPE* Pipe = (USB_PIPE*)MemAlloc(sizeof(USB_PIPE), PIPE_POOL_TAG);

        if (Pipe == NULL) {
            TRACE(TRC_ERROR, "%P:%S:allocation of USB_PIPE failed\n", PORT_NAME(Usb->Dev));
            DeleteInterfacePipes(Usb, Interface);
            return STATUS_NO_MEMORY;
        }
        Pipe->Interface = Interface;
        Pipe->MaximumPacketSize = Source->MaximumPacketSize;
        Pipe->EndpointAddress = Source->EndpointAddress;
        Pipe->Interval = Source->Interval;
        Pipe->PipeType = Source->PipeType;
        Pipe->PipeHandle = Source->PipeHandle;
        Pipe->MaximumTransferSize = Source->MaximumTransferSize;
        Pipe->PipeFlags = Source->PipeFlags;
        Pipe->PendingCount = 0;
        Pipe->HoldCount = 1;
        TRACE(TRC_USBCFG, "%P:%S:Pipe created: EP:%B Handle:%D\n", PORT_NAME(Usb->Dev), Pipe->EndpointAddress,
              (ULONG)(ULONG_PTR)Pipe->PipeHandle);
        InsertTailList(&Usb->PipeList, &Pipe->Link);
    }
    return STATUS_SUCCESS;
}

USB_PIPE* FindPipe(USB_DEV* Usb, UCHAR EndpointAddress)
{
    for (PLIST_ENTRY Entry = Usb->PipeList.Flink; Entry != &Usb->PipeList; Entry = Entry->Flink) {
        USB_PIPE* Pipe = CONTAINING_RECORD(Entry, USB_PIPE, Link);

        if (Pipe->EndpointAddress == EndpointAddress)
            return Pipe;
    }
    return NULL;
}

// The next descriptor of a type from *Offset on, which moves behind it; null at the end of the walk:
// a length of 0, one that runs past the end, or a wanted descriptor shorter than Least bytes.
static const UCHAR* NextDescriptor(const UCHAR* Table, ULONG Length, ULONG* Offset, UCHAR Type, ULONG Least)
{
    while (*Offset < Length && Length - *Offset >= 2) {
        const UCHAR* Descriptor = Table + *Offset;

        if (Descriptor[0] < 2 || Descriptor[0] > Length - *Offset)
            return NULL;
        *Offset += Descriptor[0];
        if (Descriptor[1] == Type)
            return Descriptor[0] >= Least ? Descriptor : NULL;
    }
    return NULL;
}

UCHAR GetInterfaceNumber(const UCHAR* ConfigDesc, ULONG Length, ULONG N)
{
    const ULONG NumberField = FIELD_OFFSET(USB_INTERFACE_DESCRIPTOR, bInterfaceNumber);
    ULONG Offset = 0;

    while (const UCHAR* Descriptor = NextDescriptor(ConfigDesc, Length, &Offset, USB_INTERFACE_DESCRIPTOR_TYPE, NumberField + 1)) {
        if (N-- == 0)
            return Descriptor[NumberField];
    }
    return NO_INTERFACE;
}

UCHAR FindEndpointAddress(const UCHAR* ConfigDesc, ULONG Length, UCHAR TransferType, UCHAR Direction)
{
    const ULONG AddressField = FIELD_OFFSET(USB_ENDPOINT_DESCRIPTOR, bEndpointAddress);
    const ULONG AttributesField = FIELD_OFFSET(USB_ENDPOINT_DESCRIPTOR, bmAttributes);
    ULONG Offset = 0;

    while (const UCHAR* Descriptor = NextDescriptor(ConfigDesc, Length, &Offset, USB_ENDPOINT_DESCRIPTOR_TYPE, AttributesField + 1)) {
        if ((Descriptor[AttributesField] & 3) == TransferType && (Descriptor[AddressField] & 0x80) == Direction)
            return Descriptor[AddressField];
    }
    return 0;
}

VOID HoldPipe(USB_PIPE* Pipe)
{
    InterlockedIncrement(&Pipe->HoldCount);
}

VOID ReleasePipe(USB_PIPE* Pipe)
{
    if (InterlockedDecrement(&Pipe->HoldCount) == 0)
        MemFree(Pipe);
}

static NTSTATUS SubmitPipeRequest(USB_DEV* Usb, USB_PIPE* Pipe, USHORT Function)
{
    URB Urb;

    RtlZeroMemory((VOID*)&Urb, sizeof(Urb));
    Urb.UrbHeader.Function = Function;
    Urb.UrbHeader.Length = sizeof(Urb.UrbPipeRequest);
    Urb.UrbPipeRequest.PipeHandle = Pipe->PipeHandle;
    return SubmitOwnIrp(Usb, &Urb);
}

NTSTATUS AbortPipe(USB_DEV* Usb, USB_PIPE* Pipe)
{
    KASSERT(Pipe!=NULL);
    if (Pipe == NULL)
        return STATUS_UNSUCCESSFUL;
    const LONG Pending = LoadShared(&Pipe->PendingCount);
    if (Pending == 0) {
        TRACE(TRC_USBCFG, "%P:%S:Abort Pipe for EP:%02x not required\n", PORT_NAME(Usb->Dev), Pipe->EndpointAddress);
        return STATUS_SUCCESS;
    }
    TRACE(TRC_USBCFG, "%P:%S:Abort Pipe EP:%02x, pending requests:%d\n", PORT_NAME(Usb->Dev), Pipe->EndpointAddress, Pending);
    NTSTATUS Status = SubmitPipeRequest(Usb, Pipe, URB_FUNCTION_ABORT_PIPE);
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:%S:AbortPipe: SubmitUrbAndWait failed (%D).\n", PORT_NAME(Usb->Dev), Status);
    return Status;
}

NTSTATUS ResetPipe(USB_DEV* Usb, USB_PIPE* Pipe)
{
    if (LoadShared(&Usb->Dev->UsbDeviceEnabled) == 0)
        return STATUS_DEVICE_REMOVED;
    KASSERT(Pipe!=NULL);
    if (Pipe == NULL)
        return STATUS_UNSUCCESSFUL;
    TRACE(TRC_USBCFG, "%P:%S:Reset Pipe EP:%02x\n", PORT_NAME(Usb->Dev), Pipe->EndpointAddress);
    NTSTATUS Status = SubmitPipeRequest(Usb, Pipe, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL);
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:%S:ResetPipe: SubmitUrbAndWait failed (%D).\n", PORT_NAME(Usb->Dev), Status);
    return Status;
}

VOID AbortAllPipes(USB_DEV* Usb)
{
    for (PLIST_ENTRY Entry = Usb->PipeList.Flink; Entry != &Usb->PipeList; Entry = Entry->Flink) {
        NTSTATUS Status = AbortPipe(Usb, CONTAINING_RECORD(Entry, USB_PIPE, Link));

        if (!NT_SUCCESS(Status))
            TRACE(TRC_ERROR, "%P:%S:AbortAllPipes: FATAL: AbortPipe failed (%D)\n", PORT_NAME(Usb->Dev), Status);
    }
}

VOID DeletePipe(USB_PIPE* Pipe)
{
    TRACE(TRC_USBCFG, "%P:Delete Pipe EP:%02x\n", Pipe->EndpointAddress);
    RemoveEntryList(&Pipe->Link);
    ReleasePipe(Pipe);
}

VOID DeleteInterface(USB_INTERFACE* Interface)
{
    TRACE(TRC_USBCFG, "%P:Delete Interface %02x\n", Interface->InterfaceNumber);
    RemoveEntryList(&Interface->Link);
    MemFree(Interface);
}

VOID DeleteInterfacePipes(USB_DEV* Usb, USB_INTERFACE* Interface)
{
    PLIST_ENTRY Next;

    for (PLIST_ENTRY Entry = Usb->PipeList.Flink; Entry != &Usb->PipeList; Entry = Next) {
        USB_PIPE* Pipe = CONTAINING_RECORD(Entry, USB_PIPE, Link);

        Next = Entry->Flink;
        if (Pipe->Interface == Interface) {
            AbortPipe(Usb, Pipe);
            DeletePipe(Pipe);
        }
    }
    DeleteInterface(Interface);
}

VOID DeleteAllPipes(USB_DEV* Usb)
{
    while (!IsListEmpty(&Usb->PipeList))
        DeletePipe(CONTAINING_RECORD(Usb->PipeList.Flink, USB_PIPE, Link));
    while (!IsListEmpty(&Usb->InterfaceList))
        DeleteInterface(CONTAINING_RECORD(Usb->InterfaceList.Flink, USB_INTERFACE, Link));
}

// No transfer starts on the pipes any more; those under way hold their record.
static VOID UnbindPipes(DEVICE* Dev)
{
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    Dev->Rcv.Pipe = NULL;
    Dev->Int.Pipe = NULL;
    Dev->Snd.Pipe = NULL;
    RELEASE(Dev, OldIrql);
}

NTSTATUS UnconfigureDevice(USB_DEV* Usb, UCHAR SendUrb)
{
    NTSTATUS Status = STATUS_SUCCESS;

    AbortAllPipes(Usb);
    if (SendUrb) {
        URB Urb;

        RtlZeroMemory((VOID*)&Urb, sizeof(Urb));
        Urb.UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
        Urb.UrbHeader.Length = sizeof(Urb.UrbSelectConfiguration);
        Status = SubmitOwnIrp(Usb, &Urb);
        if (!NT_SUCCESS(Status))
            TRACE(TRC_ERROR, "%P:%S:UnconfigureDevice: SubmitUrbAndWait failed (%D).\n", PORT_NAME(Usb->Dev), Status);
    }
    UnbindPipes(Usb->Dev);
    DeleteAllPipes(Usb);
    CancelWakeIrp(Usb->Dev);
    Usb->Configured = 0;
    FreeConfigDesc(Usb);
    return Status;
}

NTSTATUS ResetDevice(DEVICE* Dev)
{
    TRACE(TRC_USBCFG, "%P:%S:ResetDevice[\n", PORT_NAME(Dev));
    NTSTATUS Status = STATUS_INSUFFICIENT_RESOURCES;
    PIRP Irp = IoAllocateIrp(Dev->Usb.StackSize, FALSE);
    if (Irp != NULL) {
        Status = SubmitIrpAndWait(Dev, Irp, NULL, IOCTL_INTERNAL_USB_RESET_PORT, Dev->Cfg.RequestTimeout);
        IoFreeIrp(Irp);
        if (NT_SUCCESS(Status))
            Status = STATUS_SUCCESS;
    }
    TRACE(TRC_USBCFG, "%P:%S:]ResetDevice (%d)\n", PORT_NAME(Dev), Status);
    return Status;
}
