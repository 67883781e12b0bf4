// Serial and internal controls.
//
// A control ends in one of four ways: at once, through the completion queue; in a work item, which
// completes the request after its class request; stored, as a wait request; as a write.
#include "pnpadd.h"

struct CONTROL {
    DEVICE* Dev;
    PORT_OBJ* Port;
    SERIAL_SETTINGS* Settings;
    VOID* Buffer;            // in and out
    PDEVICE_OBJECT DeviceObject;
    PIRP Irp;
};

// Lock held. STATUS_PENDING: the request has a new owner.
typedef NTSTATUS CONTROL_ACTION(CONTROL* Control);

struct CONTROL_ENTRY {
    ULONG Code;
    ULONG MinIn;             // bytes
    ULONG MinOut;            // bytes, and the count returned
    CONTROL_ACTION* Action;  // null: the control is refused
    WORK_ROUTINE* Work;      // runs with the request after Action; null: done on the spot
};

struct CODE_NAME {
    ULONG Code;
    const CHAR* Name;
};

// --- Names --------------------------------------------------------------------------------------

#define NAMED(Code) { Code, #Code }

// The first match counts: an internal control goes by the name of the external one with its code.
static constexpr CODE_NAME CodeNames[] = {
    NAMED(IOCTL_SERIAL_SET_BAUD_RATE),
    NAMED(IOCTL_SERIAL_SET_QUEUE_SIZE),
    NAMED(IOCTL_SERIAL_SET_LINE_CONTROL),
    NAMED(IOCTL_SERIAL_SET_BREAK_ON),
    NAMED(IOCTL_SERIAL_SET_BREAK_OFF),
    NAMED(IOCTL_SERIAL_IMMEDIATE_CHAR),
    NAMED(IOCTL_SERIAL_SET_TIMEOUTS),
    NAMED(IOCTL_SERIAL_GET_TIMEOUTS),
    NAMED(IOCTL_SERIAL_SET_DTR),
    NAMED(IOCTL_SERIAL_CLR_DTR),
    NAMED(IOCTL_SERIAL_RESET_DEVICE),
    NAMED(IOCTL_SERIAL_SET_RTS),
    NAMED(IOCTL_SERIAL_CLR_RTS),
    NAMED(IOCTL_SERIAL_SET_XOFF),
    NAMED(IOCTL_SERIAL_SET_XON),
    NAMED(IOCTL_SERIAL_GET_WAIT_MASK),
    NAMED(IOCTL_SERIAL_SET_WAIT_MASK),
    NAMED(IOCTL_SERIAL_WAIT_ON_MASK),
    NAMED(IOCTL_SERIAL_PURGE),
    NAMED(IOCTL_SERIAL_GET_BAUD_RATE),
    NAMED(IOCTL_SERIAL_GET_LINE_CONTROL),
    NAMED(IOCTL_SERIAL_GET_CHARS),
    NAMED(IOCTL_SERIAL_SET_CHARS),
    NAMED(IOCTL_SERIAL_GET_HANDFLOW),
    NAMED(IOCTL_SERIAL_SET_HANDFLOW),
    NAMED(IOCTL_SERIAL_GET_MODEMSTATUS),
    NAMED(IOCTL_SERIAL_GET_COMMSTATUS),
    NAMED(IOCTL_SERIAL_XOFF_COUNTER),
    NAMED(IOCTL_SERIAL_GET_PROPERTIES),
    NAMED(IOCTL_SERIAL_GET_DTRRTS),
    NAMED(IOCTL_SERIAL_LSRMST_INSERT),
    { 0x370200, "IOCTL_SERENUM_EXPOSE_HARDWARE" },
    { 0x370204, "IOCTL_SERENUM_REMOVE_HARDWARE" },
    NAMED(IOCTL_SERENUM_PORT_DESC),
    NAMED(IOCTL_SERENUM_GET_PORT_NAME),
    NAMED(IOCTL_SERIAL_CONFIG_SIZE),
    { 0x1B0084, "IOCTL_SERIAL_GET_COMMCONFIG" },
    { 0x1B0088, "IOCTL_SERIAL_SET_COMMCONFIG" },
    NAMED(IOCTL_SERIAL_GET_STATS),
    NAMED(IOCTL_SERIAL_CLEAR_STATS),
    NAMED(IOCTL_SERIAL_GET_MODEM_CONTROL),
    NAMED(IOCTL_SERIAL_SET_MODEM_CONTROL),
    NAMED(IOCTL_SERIAL_SET_FIFO_CONTROL),
    NAMED(IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE),
    NAMED(IOCTL_SERIAL_INTERNAL_CANCEL_WAIT_WAKE),
    NAMED(IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS),
    NAMED(IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS),
    { 0, NULL },
};

const CHAR* IoctlName(ULONG Code)
{
    for (const CODE_NAME* Entry = CodeNames; Entry->Name != NULL; ++Entry) {
        if (Entry->Code == Code)
            return Entry->Name;
    }
    return "Unknown IO Ctrl code";
}

// --- Line and timing ----------------------------------------------------------------------------

// For controls that are accepted and have nothing to store.
static NTSTATUS Nothing(CONTROL*)
{
    return STATUS_SUCCESS;
}

static NTSTATUS SetBaudRate(CONTROL* Control)
{
    Control->Settings->BaudRate = ((const SERIAL_BAUD_RATE*)Control->Buffer)->BaudRate;
    return STATUS_SUCCESS;
}

static NTSTATUS GetBaudRate(CONTROL* Control)
{
    ((SERIAL_BAUD_RATE*)Control->Buffer)->BaudRate = Control->Settings->BaudRate;
    return STATUS_SUCCESS;
}

static NTSTATUS SetLineControl(CONTROL* Control)
{
    const SERIAL_LINE_CONTROL* Line = (const SERIAL_LINE_CONTROL*)Control->Buffer;
    Control->Settings->StopBits = Line->StopBits;
    Control->Settings->Parity = Line->Parity;
    Control->Settings->WordLength = Line->WordLength;
    return STATUS_SUCCESS;
}

static NTSTATUS GetLineControl(CONTROL* Control)
{
    SERIAL_LINE_CONTROL* Line = (SERIAL_LINE_CONTROL*)Control->Buffer;
    Line->StopBits = Control->Settings->StopBits;
    Line->Parity = Control->Settings->Parity;
    Line->WordLength = Control->Settings->WordLength;
    return STATUS_SUCCESS;
}

static VOID StoreTimeouts(SERIAL_SETTINGS* Settings, const SERIAL_TIMEOUTS* Timeouts) _Requires_lock_held_(DeviceLock)
{
    Settings->ReadIntervalTimeout = Timeouts->ReadIntervalTimeout;
    Settings->ReadTotalTimeoutMultiplier = Timeouts->ReadTotalTimeoutMultiplier;
    Settings->ReadTotalTimeoutConstant = Timeouts->ReadTotalTimeoutConstant;
    Settings->WriteTotalTimeoutMultiplier = Timeouts->WriteTotalTimeoutMultiplier;
    Settings->WriteTotalTimeoutConstant = Timeouts->WriteTotalTimeoutConstant;
}

static VOID FetchTimeouts(const SERIAL_SETTINGS* Settings, SERIAL_TIMEOUTS* Timeouts) _Requires_lock_held_(DeviceLock)
{
    Timeouts->ReadIntervalTimeout = Settings->ReadIntervalTimeout;
    Timeouts->ReadTotalTimeoutMultiplier = Settings->ReadTotalTimeoutMultiplier;
    Timeouts->ReadTotalTimeoutConstant = Settings->ReadTotalTimeoutConstant;
    Timeouts->WriteTotalTimeoutMultiplier = Settings->WriteTotalTimeoutMultiplier;
    Timeouts->WriteTotalTimeoutConstant = Settings->WriteTotalTimeoutConstant;
}

static NTSTATUS SetTimeouts(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    SERIAL_SETTINGS* Settings = Control->Settings;
    SER_PORT* SerPort = Control->Port->SerPort;
    StoreTimeouts(Settings, (const SERIAL_TIMEOUTS*)Control->Buffer);
    SqueueCheckTimeMode(&SerPort->RcvQueue, Settings);
    SqueueCheckTimeMode(&SerPort->SndQueue, Settings);
    Control->Port->ReadImmediate = Settings->ReadIntervalTimeout == MAXULONG && Settings->ReadTotalTimeoutMultiplier == 0 &&
                                   Settings->ReadTotalTimeoutConstant == 0;
    return STATUS_SUCCESS;
}

static NTSTATUS GetTimeouts(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    FetchTimeouts(Control->Settings, (SERIAL_TIMEOUTS*)Control->Buffer);
    return STATUS_SUCCESS;
}

static VOID StoreHandflow(SERIAL_SETTINGS* Settings, const SERIAL_HANDFLOW* Handflow) _Requires_lock_held_(DeviceLock)
{
    Settings->ControlHandShake = Handflow->ControlHandShake;
    Settings->FlowReplace = Handflow->FlowReplace;
    Settings->XonLimit = (ULONG)Handflow->XonLimit;
    Settings->XoffLimit = (ULONG)Handflow->XoffLimit;
}

static VOID FetchHandflow(const SERIAL_SETTINGS* Settings, SERIAL_HANDFLOW* Handflow) _Requires_lock_held_(DeviceLock)
{
    Handflow->ControlHandShake = Settings->ControlHandShake;
    Handflow->FlowReplace = Settings->FlowReplace;
    Handflow->XonLimit = (LONG)Settings->XonLimit;
    Handflow->XoffLimit = (LONG)Settings->XoffLimit;
}

static NTSTATUS SetHandflow(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    StoreHandflow(Control->Settings, (const SERIAL_HANDFLOW*)Control->Buffer);
    return STATUS_SUCCESS;
}

static NTSTATUS GetHandflow(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    FetchHandflow(Control->Settings, (SERIAL_HANDFLOW*)Control->Buffer);
    return STATUS_SUCCESS;
}

static NTSTATUS SetChars(CONTROL* Control)
{
    const SERIAL_CHARS* Chars = (const SERIAL_CHARS*)Control->Buffer;
    SERIAL_SETTINGS* Settings = Control->Settings;
    Settings->EofChar = Chars->EofChar;
    Settings->ErrorChar = Chars->ErrorChar;
    Settings->BreakChar = Chars->BreakChar;
    Settings->EventChar = Chars->EventChar;
    Settings->XonChar = Chars->XonChar;
    Settings->XoffChar = Chars->XoffChar;
    return STATUS_SUCCESS;
}

static NTSTATUS GetChars(CONTROL* Control)
{
    SERIAL_CHARS* Chars = (SERIAL_CHARS*)Control->Buffer;
    const SERIAL_SETTINGS* Settings = Control->Settings;
    Chars->EofChar = Settings->EofChar;
    Chars->ErrorChar = Settings->ErrorChar;
    Chars->BreakChar = Settings->BreakChar;
    Chars->EventChar = Settings->EventChar;
    Chars->XonChar = Settings->XonChar;
    Chars->XoffChar = Settings->XoffChar;
    return STATUS_SUCCESS;
}

// --- Queues and events --------------------------------------------------------------------------

// The sizes asked for are kept even where a ring is made larger.
static NTSTATUS SetQueueSize(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    const SERIAL_QUEUE_SIZE* Size = (const SERIAL_QUEUE_SIZE*)Control->Buffer;
    SERIAL_SETTINGS* Settings = Control->Settings;
    if (Size->InSize != Settings->InQueueSize) {
        RcvPurge(&Control->Dev->Rcv);
        SetRcvBufferSize(Control->Port->SerPort, Size->InSize);
        Settings->InQueueSize = Size->InSize;
        ScheduleRcv(&Control->Dev->Rcv);
    }
    if (Size->OutSize != Settings->OutQueueSize) {
        SetSendBufferSize(Control->Port->SerPort, Size->OutSize);
        Settings->OutQueueSize = Size->OutSize;
    }
    return STATUS_SUCCESS;
}

static NTSTATUS Purge(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    const ULONG Mask = *(const ULONG*)Control->Buffer;
    SER_PORT* SerPort = Control->Port->SerPort;
    if (Mask & SERIAL_PURGE_RXABORT)
        SqueueCancelAll(&SerPort->RcvQueue);
    if (Mask & SERIAL_PURGE_TXABORT)
        SqueueCancelAll(&SerPort->SndQueue);
    if (Mask & SERIAL_PURGE_RXCLEAR) {
        CircBufReset(&SerPort->CircRcvBuf);
        RcvPurge(&Control->Dev->Rcv);
        ScheduleRcv(&Control->Dev->Rcv);
    }
    if (Mask & SERIAL_PURGE_TXCLEAR) {
        ResetSendRing(SerPort);
        SndPurge(&Control->Dev->Snd);
    }
    return STATUS_SUCCESS;
}

static NTSTATUS GetWaitMask(CONTROL* Control)
{
    *(ULONG*)Control->Buffer = Control->Settings->WaitMask;
    return STATUS_SUCCESS;
}

static NTSTATUS SetWaitMask(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    Control->Settings->WaitMask = *(const ULONG*)Control->Buffer;
    TRACE(TRC_WAIT, "%P:%S%S:WaitMask: %x\n", PORT_NAME(Control->Dev), OBJECT_LETTER(Control->DeviceObject), Control->Settings->WaitMask);
    CompleteWaitIrp(Control->Port, 0);
    return STATUS_SUCCESS;
}

static NTSTATUS StoreWait(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    return WaitOnMask(Control->Dev, Control->Port, Control->DeviceObject, Control->Irp);
}

// --- Status -------------------------------------------------------------------------------------

// The low four bits tell what changed since the last report.
static NTSTATUS ReportModemStatus(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    ULONG Value;
    GetModemStatus(Control->Dev, &Value);
    Value &= MODEM_CTS | MODEM_DSR | MODEM_RI | MODEM_DCD;
    const ULONG Change = (Value ^ Control->Port->LastReportedModemStatus) >> 4;
    Value |= Change;
    Control->Port->LastReportedModemStatus = Value;
    *(ULONG*)Control->Buffer = Value;
    return STATUS_SUCCESS;
}

static NTSTATUS GetCommStatus(CONTROL* Control) _Requires_lock_held_(DeviceLock)
{
    SERIAL_STATUS* Status = (SERIAL_STATUS*)Control->Buffer;
    const SER_PORT* SerPort = Control->Port->SerPort;
    const USB_PACKET_POOL* Pool = Control->Dev->Snd.Pool;
    RtlZeroMemory(Status, sizeof(*Status));
    Status->AmountInInQueue = SerPort->CircRcvBuf.Count;
    Status->AmountInOutQueue = SerPort->CircSendBuf.Count;
    if (Pool != NULL && !PoolIsFull(Pool))
        ++Status->AmountInOutQueue;
    Status->WaitForImmediate = Control->Port->ReadImmediate;
    return STATUS_SUCCESS;
}

static NTSTATUS GetProperties(CONTROL* Control)
{
    SERIAL_COMMPROP* Properties = (SERIAL_COMMPROP*)Control->Buffer;
    RtlZeroMemory(Properties, sizeof(*Properties));
    Properties->PacketLength = sizeof(*Properties);
    Properties->PacketVersion = 2;
    Properties->ServiceMask = SERIAL_SP_SERIALCOMM;
    Properties->MaxBaud = SERIAL_BAUD_USER;
    Properties->ProvSubType = SERIAL_SP_RS232;
    Properties->ProvCapabilities =
        SERIAL_PCF_DTRDSR | SERIAL_PCF_RTSCTS | SERIAL_PCF_CD | SERIAL_PCF_TOTALTIMEOUTS | SERIAL_PCF_INTTIMEOUTS;
    Properties->SettableParams = SERIAL_SP_PARITY | SERIAL_SP_BAUD | SERIAL_SP_DATABITS | SERIAL_SP_STOPBITS |
                                 SERIAL_SP_HANDSHAKING | SERIAL_SP_CARRIER_DETECT;
    Properties->SettableBaud = 0x0007FFFF;   // every fixed rate
    Properties->SettableData = SERIAL_DATABITS_8;
    Properties->SettableStopParity = SERIAL_STOPBITS_10 | SERIAL_PARITY_NONE;
    Properties->CurrentTxQueue = Control->Settings->OutQueueSize;
    Properties->CurrentRxQueue = Control->Settings->InQueueSize;
    return STATUS_SUCCESS;
}

static NTSTATUS GetDtrRts(CONTROL* Control)
{
    const UCHAR Lines = LoadShared(&Control->Dev->ControlLines);
    *(ULONG*)Control->Buffer = (Lines & CONTROL_LINE_DTR ? SERIAL_DTR_STATE : 0) | (Lines & CONTROL_LINE_RTS ? SERIAL_RTS_STATE : 0);
    return STATUS_SUCCESS;
}

static NTSTATUS GetConfigSize(CONTROL* Control)
{
    *(ULONG*)Control->Buffer = 0;
    return STATUS_SUCCESS;
}

static NTSTATUS GetStats(CONTROL* Control)
{
    SERIALPERF_STATS* Stats = (SERIALPERF_STATS*)Control->Buffer;
    const SERIAL_SETTINGS* Settings = Control->Settings;
    Stats->ReceivedCount = Settings->ReceivedCount;
    Stats->TransmittedCount = Settings->TransmittedCount;
    Stats->FrameErrorCount = Settings->FrameErrorCount;
    Stats->SerialOverrunErrorCount = Settings->SerialOverrunErrorCount;
    Stats->BufferOverrunErrorCount = Settings->BufferOverrunErrorCount;
    Stats->ParityErrorCount = Settings->ParityErrorCount;
    return STATUS_SUCCESS;
}

static NTSTATUS ClearStats(CONTROL* Control)
{
    SERIAL_SETTINGS* Settings = Control->Settings;
    Settings->ReceivedCount = 0;
    Settings->TransmittedCount = 0;
    Settings->FrameErrorCount = 0;
    Settings->SerialOverrunErrorCount = 0;
    Settings->BufferOverrunErrorCount = 0;
    Settings->ParityErrorCount = 0;
    return STATUS_SUCCESS;
}

// --- The table ----------------------------------------------------------------------------------

enum : ULONG {
    FIRST_CONTROL = 0x1B0004,
    LAST_CONTROL = 0x1B0090,
    CONTROL_STEP = 4,
    CONTROL_COUNT = (LAST_CONTROL - FIRST_CONTROL) / CONTROL_STEP + 1,
};

// Immediate char goes to the write entry point before its row is looked at; the row keeps it valid.
static constexpr CONTROL_ENTRY Controls[] = {
    { IOCTL_SERIAL_SET_BAUD_RATE, sizeof(SERIAL_BAUD_RATE), 0, SetBaudRate, SendLineCoding },
    { IOCTL_SERIAL_SET_QUEUE_SIZE, sizeof(SERIAL_QUEUE_SIZE), 0, SetQueueSize, NULL },
    { IOCTL_SERIAL_SET_LINE_CONTROL, sizeof(SERIAL_LINE_CONTROL), 0, SetLineControl, SendLineCoding },
    { IOCTL_SERIAL_SET_BREAK_ON, 0, 0, Nothing, SetBreak },
    { IOCTL_SERIAL_SET_BREAK_OFF, 0, 0, Nothing, ClrBreak },
    { IOCTL_SERIAL_IMMEDIATE_CHAR, 0, 0, Nothing, NULL },
    { IOCTL_SERIAL_SET_TIMEOUTS, sizeof(SERIAL_TIMEOUTS), 0, SetTimeouts, NULL },
    { IOCTL_SERIAL_GET_TIMEOUTS, 0, sizeof(SERIAL_TIMEOUTS), GetTimeouts, NULL },
    { IOCTL_SERIAL_SET_DTR, 0, 0, Nothing, SetDTR },
    { IOCTL_SERIAL_CLR_DTR, 0, 0, Nothing, ClrDTR },
    { IOCTL_SERIAL_RESET_DEVICE, 0, 0, Nothing, NULL },
    { IOCTL_SERIAL_SET_RTS, 0, 0, Nothing, SetRTS },
    { IOCTL_SERIAL_CLR_RTS, 0, 0, Nothing, ClrRTS },
    { IOCTL_SERIAL_SET_XOFF, 0, 0, Nothing, NULL },
    { IOCTL_SERIAL_SET_XON, 0, 0, Nothing, NULL },
    { IOCTL_SERIAL_GET_WAIT_MASK, 0, sizeof(ULONG), GetWaitMask, NULL },
    { IOCTL_SERIAL_SET_WAIT_MASK, sizeof(ULONG), 0, SetWaitMask, NULL },
    { IOCTL_SERIAL_WAIT_ON_MASK, 0, sizeof(ULONG), StoreWait, NULL },
    { IOCTL_SERIAL_PURGE, sizeof(ULONG), 0, Purge, NULL },
    { IOCTL_SERIAL_GET_BAUD_RATE, 0, sizeof(SERIAL_BAUD_RATE), GetBaudRate, NULL },
    { IOCTL_SERIAL_GET_LINE_CONTROL, 0, sizeof(SERIAL_LINE_CONTROL), GetLineControl, NULL },
    { IOCTL_SERIAL_GET_CHARS, 0, sizeof(SERIAL_CHARS), GetChars, NULL },
    { IOCTL_SERIAL_SET_CHARS, sizeof(SERIAL_CHARS), 0, SetChars, NULL },
    { IOCTL_SERIAL_GET_HANDFLOW, 0, sizeof(SERIAL_HANDFLOW), GetHandflow, NULL },
    { IOCTL_SERIAL_SET_HANDFLOW, sizeof(SERIAL_HANDFLOW), 0, SetHandflow, NULL },
    { IOCTL_SERIAL_GET_MODEMSTATUS, 0, sizeof(ULONG), ReportModemStatus, NULL },
    { IOCTL_SERIAL_GET_COMMSTATUS, 0, sizeof(SERIAL_STATUS), GetCommStatus, NULL },
    { IOCTL_SERIAL_XOFF_COUNTER, 0, 0, NULL, NULL },
    { IOCTL_SERIAL_GET_PROPERTIES, 0, sizeof(SERIAL_COMMPROP), GetProperties, NULL },
    { IOCTL_SERIAL_GET_DTRRTS, 0, sizeof(ULONG), GetDtrRts, NULL },
    { IOCTL_SERIAL_LSRMST_INSERT, 0, 0, NULL, NULL },
    { IOCTL_SERIAL_CONFIG_SIZE, 0, sizeof(ULONG), GetConfigSize, NULL },
    { 0x1B0084, 0, 0, NULL, NULL },
    { 0x1B0088, 0, 0, NULL, NULL },
    { IOCTL_SERIAL_GET_STATS, 0, sizeof(SERIALPERF_STATS), GetStats, NULL },
    { IOCTL_SERIAL_CLEAR_STATS, 0, 0, ClearStats, NULL },
};

static constexpr BOOLEAN ControlsComplete()
{
    for (ULONG Index = 0; Index < CONTROL_COUNT; ++Index) {
        if (Controls[Index].Code != FIRST_CONTROL + Index * CONTROL_STEP)
            return FALSE;
    }
    return TRUE;
}
static_assert(RTL_NUMBER_OF(Controls) == CONTROL_COUNT && ControlsComplete(), "one row for each code, in code order");
static_assert(sizeof(SERIAL_TIMEOUTS) == 20 && sizeof(SERIAL_HANDFLOW) == 16 && sizeof(SERIAL_STATUS) == 20 &&
              sizeof(SERIAL_COMMPROP) == 64 && sizeof(SERIALPERF_STATS) == 24 && sizeof(SERIAL_BASIC_SETTINGS) == 44);

static const CONTROL_ENTRY* FindControl(ULONG Code)
{
    if (Code < FIRST_CONTROL || Code > LAST_CONTROL || Code % CONTROL_STEP != 0)
        return NULL;
    const CONTROL_ENTRY* Entry = &Controls[(Code - FIRST_CONTROL) / CONTROL_STEP];
    return Entry->Action != NULL ? Entry : NULL;
}

// --- Device controls ----------------------------------------------------------------------------

static BOOLEAN SizesFit(ULONG Code, ULONG InLength, ULONG MinIn, ULONG OutLength, ULONG MinOut)
{
    if (InLength < MinIn) {
        TRACE(TRC_ERROR, "%PReq %d InBuffer to small:%d expected:%d\n", Code, InLength, MinIn);
        return FALSE;
    }
    if (OutLength < MinOut) {
        TRACE(TRC_ERROR, "%PReq %d OutBuffer to small:%d expected:%d\n", Code, OutLength, MinOut);
        return FALSE;
    }
    return TRUE;
}

// STATUS_PENDING: the request has a new owner. Else status and information are set.
static NTSTATUS RunControl(CONTROL* Control, const IO_STACK_LOCATION* Stack) _Requires_lock_held_(DeviceLock)
{
    const ULONG Code = Stack->Parameters.DeviceIoControl.IoControlCode;
    const CONTROL_ENTRY* Entry = FindControl(Code);
    if (Entry == NULL) {
        TRACE(TRC_ERROR, "%P:%S%S:Invalid IO Control Code %D: %s\n", PORT_NAME(Control->Dev), OBJECT_LETTER(Control->DeviceObject), Code,
              IoctlName(Code));
        return STATUS_INVALID_PARAMETER;
    }
    if (!SizesFit(Code, Stack->Parameters.DeviceIoControl.InputBufferLength, Entry->MinIn,
                  Stack->Parameters.DeviceIoControl.OutputBufferLength, Entry->MinOut))
        return STATUS_INVALID_PARAMETER;
    const NTSTATUS Status = Entry->Action(Control);
    if (Status != STATUS_SUCCESS)
        return Status;
    if (Entry->Work != NULL && QueueWorkItem(Control->Dev, Entry->Work, Control->Dev, Control->Irp))
        return STATUS_PENDING;
    Control->Irp->IoStatus.Information = Entry->MinOut;
    return STATUS_SUCCESS;
}

static VOID InitControl(CONTROL* Control, DEVICE* Dev, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    Control->Dev = Dev;
    Control->Port = &Dev->Port;
    Control->Settings = &Dev->Port.SerPort->Settings;
    Control->Buffer = Irp->AssociatedIrp.SystemBuffer;
    Control->DeviceObject = DeviceObject;
    Control->Irp = Irp;
}

static NTSTATUS ControlEntry(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KIRQL Irql;
    CONTROL Control;
    UNREFERENCED_PARAMETER(Port);
    const PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    const ULONG Code = Stack->Parameters.DeviceIoControl.IoControlCode;
    Irp->IoStatus.Information = 0;
    TRACE(TRC_CONTROL, "%P:%S%S:[DispatchDeviceControl\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    TRACE(TRC_CONTROL, "%P:%S%S: Code: %08x %s\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Code, IoctlName(Code));
    IdleActivity(&Dev->Idle);
    if (Code == IOCTL_SERIAL_IMMEDIATE_CHAR)
        return DispatchWrite(DeviceObject, Irp);
    InitControl(&Control, Dev, DeviceObject, Irp);
    ACQUIRE(Dev, Irql);
    const NTSTATUS Status = RunControl(&Control, Stack);
    RELEASE(Dev, Irql);
    if (Status != STATUS_PENDING) {
        Irp->IoStatus.Status = Status;
        CompleteQueue_Add(&Dev->CompleteQueue, Irp);
    }
    TRACE(TRC_CONTROL, "%P:%S%S:]DispatchDeviceControl (%D)\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), STATUS_PENDING);
    return STATUS_PENDING;
}

NTSTATUS DispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return WithDevice(DeviceObject, Irp, ControlEntry);
}

// --- Internal controls --------------------------------------------------------------------------

// Information is set. What is restored takes effect with the next serial control that evaluates it.
static NTSTATUS RunInternalControl(CONTROL* Control, const IO_STACK_LOCATION* Stack) _Requires_lock_held_(DeviceLock)
{
    SERIAL_SETTINGS* Settings = Control->Settings;
    SERIAL_BASIC_SETTINGS* Basic = (SERIAL_BASIC_SETTINGS*)Control->Buffer;
    const ULONG Code = Stack->Parameters.DeviceIoControl.IoControlCode;
    switch (Code) {
    case IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE:
    case IOCTL_SERIAL_INTERNAL_CANCEL_WAIT_WAKE:
        return STATUS_NOT_SUPPORTED;
    case IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS:
        if (!SizesFit(Code, 0, 0, Stack->Parameters.DeviceIoControl.OutputBufferLength, sizeof(*Basic)))
            return STATUS_INVALID_PARAMETER;
        FetchTimeouts(Settings, &Basic->Timeouts);
        FetchHandflow(Settings, &Basic->HandFlow);
        Basic->RxFifo = Settings->InQueueSize;
        Basic->TxFifo = Settings->OutQueueSize;
        Control->Irp->IoStatus.Information = sizeof(*Basic);
        return STATUS_SUCCESS;
    case IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS:
        if (!SizesFit(Code, Stack->Parameters.DeviceIoControl.InputBufferLength, sizeof(*Basic), 0, 0))
            return STATUS_INVALID_PARAMETER;
        StoreTimeouts(Settings, &Basic->Timeouts);
        StoreHandflow(Settings, &Basic->HandFlow);
        Settings->InQueueSize = Basic->RxFifo;
        Settings->OutQueueSize = Basic->TxFifo;
        return STATUS_SUCCESS;
    default:
        TRACE(TRC_ERROR, "%P:%S%S:Internal: Invalid IO Control Code %D: %s\n", PORT_NAME(Control->Dev),
              OBJECT_LETTER(Control->DeviceObject), Code, IoctlName(Code));
        return STATUS_INVALID_PARAMETER;
    }
}

static NTSTATUS InternalControlEntry(DEVICE* Dev, PORT_OBJ* Port, PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KIRQL Irql;
    CONTROL Control;
    UNREFERENCED_PARAMETER(Port);
    const PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    const ULONG Code = Stack->Parameters.DeviceIoControl.IoControlCode;
    Irp->IoStatus.Information = 0;
    TRACE(TRC_CONTROL, "%P:%S%S:[DispatchInternalDeviceControl\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject));
    TRACE(TRC_CONTROL, "%P:%S%S:Code: %08x %s\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), Code, IoctlName(Code));
    IdleActivity(&Dev->Idle);
    InitControl(&Control, Dev, DeviceObject, Irp);
    ACQUIRE(Dev, Irql);
    const NTSTATUS Status = RunInternalControl(&Control, Stack);
    RELEASE(Dev, Irql);
    Irp->IoStatus.Status = Status;
    CompleteQueue_Add(&Dev->CompleteQueue, Irp);
    TRACE(TRC_CONTROL, "%P:%S%S:]DispatchInternalDeviceControl (%D)\n", PORT_NAME(Dev), OBJECT_LETTER(DeviceObject), STATUS_PENDING);
    return STATUS_PENDING;
}

NTSTATUS DispatchInternalDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return WithDevice(DeviceObject, Irp, InternalControlEntry);
}
