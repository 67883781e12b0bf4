// The port object, the requests that carry the line's state to the modem, reinitialisation and the event log.
//
//   Initialized 0 --Reinit succeeds--> 1 --Reinit begins--> 0
//   a failed Reinit while started --500 ms, at most four times in a row--> Reinit
//
// ReinitCount is what is queued or runs, never more than two: one that runs and one that starts after
// everything that asked for it.
#include "pnpadd.h"

#include "usbsbmit.h"
#include "wdmpwr.h"
#include "wrsupport.h"

enum : ULONG {
    POOL_INITIAL_COUNT = 5,
    POOL_MAX_COUNT = 40,
    POOL_GROW_COUNT = 10,
    FLOW_TEST_CHUNK = 64,        // bytes
    LINE_CODING_SIZE = 7,
    SPECIAL_CHARS_SIZE = 256,
    REINIT_RETRIES = 4,
    REINIT_RESET_FROM = 1,       // more failures than this: the USB port is reset first
    LOG_TEXT_UNITS = 100,        // UTF-16 units with the terminator
    LOG_UNIQUE_VALUE = 0xEBEBEBEB,
    LOG_STRING_OFFSET = FIELD_OFFSET(IO_ERROR_LOG_PACKET, DumpData),
};
static const LONG MaxReinits = 2;
static_assert(LOG_STRING_OFFSET == 40 && sizeof(IO_ERROR_LOG_PACKET) == 48);
static_assert(sizeof(IO_ERROR_LOG_PACKET) + LOG_TEXT_UNITS * sizeof(WCHAR) <= MAXUCHAR, "the size of an entry is a byte");

enum : UCHAR {
    SET_LINE_CODING = 0x20,
    SET_CONTROL_LINE_STATE = 0x22,
    SEND_BREAK = 0x23,
    VENDOR_GET_SPECIAL_CHARS = 0x60,
    VENDOR_START_FRAMING = 0x61,
    VENDOR_STOP_FRAMING = 0x62,
};
enum : USHORT { BREAK_ON = 0xFFFF, BREAK_OFF = 0 };

// --- The port object ----------------------------------------------------------------------------

static NTSTATUS BuildPort(DEVICE* Dev, PORT_OBJ* Port)
{
    NTSTATUS Status = DPoolInit(&Port->DPool, POOL_INITIAL_COUNT, POOL_MAX_COUNT, POOL_GROW_COUNT, sizeof(SER_REQUEST));
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:CreatePort: DPoolInit failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    Port->DeviceObject->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
    Port->DeviceObject->Flags &= ~(ULONG)DO_DEVICE_INITIALIZING;
    Status = AddPort(&Port->SerPort, Dev, Dev->Cfg.ReadCircBufferSize, Dev->Cfg.WriteCircBufferSize, Dev->Cfg.TimerInterval, Port);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:CreatePort: AddPort failed (%D)\n", PORT_NAME(Dev), Status);
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CreatePort(DEVICE* Dev, PORT_OBJ* Port)
{
    KASSERT(IRQL_EQ_PASSIVE());
    TRACE(TRC_OBJECT, "%P:%S:[CreatePort\n", PORT_NAME(Dev));
    Port->Device = Dev;
    IrpQueue_Init(&Port->ReadIrpQueue);
    IrpQueue_Init(&Port->WriteIrpQueue);
    Port->Tag = PORT_OBJ_TAG;
    const NTSTATUS Status = BuildPort(Dev, Port);
    if (!NT_SUCCESS(Status))
        DeletePort(Port);
    TRACE(TRC_OBJECT, "%P:%S:]CreatePort (%D)\n", PORT_NAME(Dev), Status);
    return Status;
}

VOID DeletePort(PORT_OBJ* Port)
{
    TRACE(TRC_OBJECT, "%P:%S:DeletePort\n", PORT_NAME(Port->Device));
    if (Port->SerPort != NULL)
        DeleteSerPort(Port->SerPort);
    Port->SerPort = NULL;
    if (Port->InterfaceName.Buffer != NULL) {
        IoSetDeviceInterfaceState(&Port->InterfaceName, FALSE);
        RtlFreeUnicodeString(&Port->InterfaceName);
        RtlZeroMemory(&Port->InterfaceName, sizeof(Port->InterfaceName));
    }
    DPoolFree(&Port->DPool);
}

static ULONG LineEvents(ULONG ModemStatus)
{
    return (ModemStatus & MODEM_CTS ? SERIAL_EV_CTS : 0) | (ModemStatus & MODEM_DSR ? SERIAL_EV_DSR : 0) |
           (ModemStatus & MODEM_RI ? SERIAL_EV_RING : 0) | (ModemStatus & MODEM_DCD ? SERIAL_EV_RLSD : 0);
}

static NTSTATUS ResetDataPipes(DEVICE* Dev)
{
    NTSTATUS Status = ResetPipe(&Dev->Usb, Dev->Rcv.Pipe);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:InitPort ResetPipe ReceivePipe failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    Status = ResetPipe(&Dev->Usb, Dev->Int.Pipe);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:InitPort ResetPipe IntPipe failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    Status = ResetPipe(&Dev->Usb, Dev->Snd.Pipe);
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:%S:InitPort ResetPipe WritePipe failed (%D)\n", PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS InitPort(DEVICE* Dev, UCHAR ResetPipes)
{
    KIRQL Irql;
    PORT_OBJ* Port = &Dev->Port;
    const NTSTATUS Status = SetPcStatus(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:InitPort SetPcStatus failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    ACQUIRE(Port->Device, Irql);
    Dev->ModemStatus = Dev->SavedModemStatus;
    IndicateWaitEvent(Port, LineEvents(Dev->SavedModemStatus));
    Dev->MaxWriteChunk = Dev->Cfg.FlowTest != 0 ? (ULONG)FLOW_TEST_CHUNK : Dev->Cfg.WriteBufferSize;
    RELEASE(Port->Device, Irql);
    return ResetPipes ? ResetDataPipes(Dev) : Status;
}

VOID GetModemStatus(DEVICE* Dev, ULONG* Status)
{
    *Status = Dev->ModemStatus;
}

// --- Class and vendor requests ------------------------------------------------------------------

VOID InitClassRequest(CLASS_VENDOR_REQUEST* Request, UCHAR RequestCode, USHORT Index)
{
    RtlZeroMemory(Request, sizeof(*Request));
    Request->RequestKind = REQUEST_CLASS;
    Request->Recipient = RECIPIENT_INTERFACE;
    Request->Request = RequestCode;
    Request->Index = Index;
}

static USHORT CommunicationInterface(DEVICE* Dev)
{
    return (USHORT)Dev->Cfg.UsbInterface;
}

static NTSTATUS SendClassRequest(DEVICE* Dev, UCHAR RequestCode, USHORT Value, VOID* Buffer, ULONG Length)
{
    CLASS_VENDOR_REQUEST Request;
    InitClassRequest(&Request, RequestCode, CommunicationInterface(Dev));
    Request.Value = Value;
    return ClassVendorRequest(0, Dev, Dev->PnpIrp, &Request, Buffer, &Length);
}

static NTSTATUS SendVendorRequest(UCHAR DirectionIn, DEVICE* Dev, UCHAR RequestCode, VOID* Buffer, ULONG* Length)
{
    CLASS_VENDOR_REQUEST Request;
    InitClassRequest(&Request, RequestCode, CommunicationInterface(Dev));
    Request.RequestKind = REQUEST_VENDOR;
    return ClassVendorRequest(DirectionIn, Dev, Dev->PnpIrp, &Request, Buffer, Length);
}

NTSTATUS SetPcStatus(DEVICE* Dev)
{
    TRACE(TRC_USBREQ, "%P:%S:SetPcStatus %B\n", PORT_NAME(Dev), Dev->ControlLines);
    return SendClassRequest(Dev, SET_CONTROL_LINE_STATE, Dev->ControlLines, NULL, 0);
}

// The line keeps its new state when the request fails: the next request carries it.
static NTSTATUS ChangeLines(DEVICE* Dev, const CHAR* Name, UCHAR Set, UCHAR Clear)
{
    TRACE(TRC_MODEM, "%P:%S:%s\n", PORT_NAME(Dev), Name);
    StoreShared(&Dev->ControlLines, (UCHAR)((Dev->ControlLines & ~Clear) | Set));
    return SetPcStatus(Dev);
}

NTSTATUS SetDTR(VOID* Dev)
{
    return ChangeLines((DEVICE*)Dev, "SetDTR", CONTROL_LINE_DTR, 0);
}

NTSTATUS ClrDTR(VOID* Dev)
{
    return ChangeLines((DEVICE*)Dev, "ClrDTR", 0, CONTROL_LINE_DTR);
}

NTSTATUS SetRTS(VOID* Dev)
{
    return ChangeLines((DEVICE*)Dev, "SetRTS", CONTROL_LINE_RTS, 0);
}

NTSTATUS ClrRTS(VOID* Dev)
{
    return ChangeLines((DEVICE*)Dev, "ClrRTS", 0, CONTROL_LINE_RTS);
}

NTSTATUS SendBreak(DEVICE* Dev, UCHAR On)
{
    TRACE(TRC_USBREQ, "%P:%S:SendBreak %d\n", PORT_NAME(Dev), On);
    return SendClassRequest(Dev, SEND_BREAK, On ? BREAK_ON : BREAK_OFF, NULL, 0);
}

NTSTATUS SetBreak(VOID* Dev)
{
    return SendBreak((DEVICE*)Dev, 1);
}

NTSTATUS ClrBreak(VOID* Dev)
{
    return SendBreak((DEVICE*)Dev, 0);
}

// Sends the settings as they are now, not as they were when the control arrived.
NTSTATUS SendLineCoding(VOID* Context)
{
    KIRQL Irql;
    UCHAR Coding[LINE_CODING_SIZE];
    DEVICE* Dev = (DEVICE*)Context;
    const SERIAL_SETTINGS* Settings = &Dev->Port.SerPort->Settings;
    ACQUIRE(Dev, Irql);
    const ULONG BaudRate = Settings->BaudRate;
    Coding[4] = Settings->StopBits;
    Coding[5] = Settings->Parity;
    Coding[6] = Settings->WordLength;
    RELEASE(Dev, Irql);
    for (ULONG Byte = 0; Byte < sizeof(BaudRate); ++Byte)
        Coding[Byte] = (UCHAR)(BaudRate >> 8 * Byte);
    TRACE(TRC_USBREQ, "%P:%S:SendLineCoding %d\n", PORT_NAME(Dev), BaudRate);
    return SendClassRequest(Dev, SET_LINE_CODING, 0, Coding, sizeof(Coding));
}

NTSTATUS GetSpecialChars(DEVICE* Dev)
{
    KIRQL Irql;
    UCHAR Chars[SPECIAL_CHARS_SIZE];
    ULONG Length = sizeof(Chars);
    const NTSTATUS Status = SendVendorRequest(1, Dev, VENDOR_GET_SPECIAL_CHARS, Chars, &Length);
    if (!NT_SUCCESS(Status))
        return Status;
    TRACE(TRC_PPP, "%P:%S:GetSpecialChars: called\n", PORT_NAME(Dev));
    if (TRACE_ON(TRC_PPP))
        TraceDumpLimited(Chars, Length);
    ACQUIRE(Dev, Irql);
    PppFramerSetSpecialChars(&Dev->Framer, Chars, Length);
    RELEASE(Dev, Irql);
    return Status;
}

NTSTATUS StartFraming(DEVICE* Dev)
{
    ULONG Length = 0;
    TRACE(TRC_USBREQ, "%P:%S:StartFraming\n", PORT_NAME(Dev));
    return SendVendorRequest(0, Dev, VENDOR_START_FRAMING, NULL, &Length);
}

NTSTATUS StopFraming(DEVICE* Dev)
{
    ULONG Length = 0;
    TRACE(TRC_USBREQ, "%P:%S:StopFraming\n", PORT_NAME(Dev));
    return SendVendorRequest(0, Dev, VENDOR_STOP_FRAMING, NULL, &Length);
}

// --- Reinitialisation ---------------------------------------------------------------------------

// FALSE: enough are outstanding, one of them begins after this call.
static BOOLEAN CountReinit(DEVICE* Dev)
{
    LONG Count = LoadShared(&Dev->ReinitCount);
    while (Count < MaxReinits) {
        const LONG Seen = InterlockedCompareExchange(&Dev->ReinitCount, Count + 1, Count);
        if (Seen == Count)
            return TRUE;
        Count = Seen;
    }
    return FALSE;
}

VOID ScheduleReinit(DEVICE* Dev)
{
    TRACE(TRC_PROGRESS, "%P:%S:ScheduleReinit\n", PORT_NAME(Dev));
    if (!CountReinit(Dev) || QueueWorkItem(Dev, Reinit, Dev, NULL))
        return;
    InterlockedDecrement(&Dev->ReinitCount);
    // Without memory now: nobody else would try again. A DEVICE about to go sets no timer any more.
    if (LoadShared(&Dev->Ref) != 0)
        ArmTimerObj(&Dev->ReinitTimer);
}

VOID ReinitNow(DEVICE* Dev)
{
    if (CountReinit(Dev))
        Reinit(Dev);
}

VOID ReinitTimerFnc(TIMER_OBJ* Timer, VOID* Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    UNREFERENCED_PARAMETER(Timer);
    TRACE(TRC_PROGRESS, "%P:%S:ReinitTimerFnc\n", PORT_NAME(Dev));
    KASSERT(PTRVALID(Dev,DEVICE));
    ScheduleReinit(Dev);
}

static VOID FinishReinit(DEVICE* Dev)
{
    TRACE(TRC_PROGRESS, "%P:%S:Reinit start sndrcv\n", PORT_NAME(Dev));
    StartDataPaths(Dev);
    StartWrTimer(Dev);
    SerPortStopSend(Dev->Port.SerPort, 0);
    Dev->Initialized = 1;
    Dev->ReinitRetries = 0;
    RequestWakeupIrp(Dev);
}

// The send engine stays held and the data paths stopped until a later attempt succeeds.
static VOID RetryReinit(DEVICE* Dev, NTSTATUS Status)
{
    TRACE(TRC_ERROR, "%P:%S:Reinit: InitPort failed (%D)\n", PORT_NAME(Dev), Status);
    if (Dev->PnpState != PNP_STARTED || Dev->ReinitRetries >= REINIT_RETRIES)
        return;
    ++Dev->ReinitRetries;
    TRACE(TRC_PROGRESS, "%P:%S:Reinit: Schedule delayed reinit\n", PORT_NAME(Dev));
    ArmTimerObj(&Dev->ReinitTimer);
}

// The device is enabled and in D0.
static VOID RunReinit(DEVICE* Dev)
{
    SerPortStopSend(Dev->Port.SerPort, 1);
    TRACE(TRC_PROGRESS, "%P:%S:Reinit stop sndrcv\n", PORT_NAME(Dev));
    StopDataPaths(Dev, 1);
    if (Dev->ReinitRetries > REINIT_RESET_FROM) {
        TRACE(TRC_PROGRESS, "%P:%S:Reinit: USBResetDevice \n", PORT_NAME(Dev));
        const NTSTATUS Status = ResetDevice(Dev);
        if (!NT_SUCCESS(Status))
            TRACE(TRC_ERROR, "%P:%S:Reinit: ResetDevice failed (%D)\n", PORT_NAME(Dev), Status);
    }
    TRACE(TRC_PROGRESS, "%P:%S:Reinit Init Port\n", PORT_NAME(Dev));
    const NTSTATUS Status = InitPort(Dev, 1);
    if (NT_SUCCESS(Status))
        FinishReinit(Dev);
    else
        RetryReinit(Dev, Status);
}

NTSTATUS Reinit(VOID* Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    TRACE(TRC_PROGRESS, "%P:%S:[Reinit\n", PORT_NAME(Dev));
    KASSERT(PTRVALID(Dev,DEVICE));
    KASSERT(IRQL_EQ_PASSIVE());
    Dev->Initialized = 0;
    if (Dev->UsbDeviceEnabled == 0)
        TRACE(TRC_PROGRESS, "%P:%S:Reinit: UsbDeviceEnabled not enabled\n", PORT_NAME(Dev));
    else if (LoadShared(&Dev->DevicePowerState) != PowerDeviceD0)
        TRACE(TRC_PROGRESS, "%P:%S:Reinit: Device is in sleep mode\n", PORT_NAME(Dev));
    else
        RunReinit(Dev);
    InterlockedDecrement(&Dev->ReinitCount);
    TRACE(TRC_PROGRESS, "%P:%S:]Reinit\n", PORT_NAME(Dev));
    return STATUS_SUCCESS;
}

// --- Event log ----------------------------------------------------------------------------------

VOID LogError(VOID* IoObject, NTSTATUS ErrorCode, const CHAR* Text)
{
    WCHAR Units[LOG_TEXT_UNITS];
    ANSI_STRING Ansi;
    UNICODE_STRING Wide = { 0, sizeof(Units), Units };
    RtlInitAnsiString(&Ansi, Text);
    if (!NT_SUCCESS(RtlAnsiStringToUnicodeString(&Wide, &Ansi, FALSE))) {
        TRACE(TRC_ASSERT, "%P:LogError:FATAL: conversion of '%s' to UNICODE failed\n", Text);
        Wide.Length = 0;
    }
    const ULONG Size = sizeof(IO_ERROR_LOG_PACKET) + Wide.Length + sizeof(WCHAR);
    IO_ERROR_LOG_PACKET* Entry = (IO_ERROR_LOG_PACKET*)IoAllocateErrorLogEntry(IoObject, (UCHAR)Size);
    if (Entry == NULL) {
        TRACE(TRC_ASSERT, "%P:LogError:FATAL: IoAllocateErrorLogEntry failed, size:%i\n", Size);
        return;
    }
    RtlZeroMemory(Entry, Size);
    Entry->NumberOfStrings = 1;
    Entry->StringOffset = LOG_STRING_OFFSET;
    Entry->ErrorCode = ErrorCode;
    Entry->UniqueErrorValue = LOG_UNIQUE_VALUE;
    Entry->FinalStatus = ErrorCode;
    RtlCopyMemory((UCHAR*)Entry + LOG_STRING_OFFSET, Units, Wide.Length);
    IoWriteErrorLogEntry(Entry);
    TRACE(TRC_ERROR, "%P:LogError: '%s'\n", Text);
}

VOID LogNoMemory(VOID* IoObject, NTSTATUS ErrorCode)
{
    LogError(IoObject, ErrorCode, "Unable to allocate memory.");
}
