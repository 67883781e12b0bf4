// Interrupt IN notifications, and the switch between byte mode and framing mode that two of them ask for.
//
//   byte mode --start--> requested --flag sent, device told--> framing --stop--> stop requested --device told--> byte mode
//
// A notification sets the mode at once and queues the switch; a switch sets its result only while the mode
// still is the one that it was queued for, and not set again meanwhile by a request whose own switch is to come.
// Bytes to the device wait in the two modes between. The first open and the end of the USB side lead back to
// byte mode from anywhere, and a start that was asked for before is not carried out any more.
#include "sndrcv.h"

#include "pnpadd.h"

enum : ULONG {
    NOTIFICATION_SIZE = 8,
    SERIAL_STATE_SIZE = 10,
    KIND_MASK = 0x60,
    KIND_CLASS = 0x20,
    KIND_VENDOR = 0x40,
    NETWORK_CONNECTION = 0x00,
    RESPONDS_AVAILABLE = 0x01,
    RESPONDS_SERIAL_STATE = 0x20,
    OPPP_REQUEST_TO_START_FRAMING = 0x10,
    OPPP_REQUEST_TO_STOP_FRAMING = 0x11,
    FLAG_WAIT_MS = 300,
};

// The UART state bitmap.
enum : ULONG {
    STATE_RX_CARRIER = 0x01,
    STATE_TX_CARRIER = 0x02,
    STATE_BREAK = 0x04,
    STATE_RING = 0x08,
    STATE_FRAMING = 0x10,
    STATE_PARITY = 0x20,
    STATE_OVERRUN = 0x40,
    STATE_FLOW_OFF = 0x100,
};

// DEVICE_PRIVATE.SwitchQueued.
enum : LONG { SWITCH_TO_QUEUED = 1, SWITCH_FROM_QUEUED = 2, SWITCH_REORDERED = 4 };

static ULONG Word16(const UCHAR* Bytes)
{
    return (ULONG)Bytes[0] | (ULONG)Bytes[1] << 8;
}

// ---- Modem status

static VOID NetworkConnection(DEVICE* Dev, ULONG Value) _Requires_lock_held_(DeviceLock)
{
    const ULONG Cts = Value & 1 ? (ULONG)MODEM_CTS : 0;
    const BOOLEAN Changed = Cts != (Dev->ModemStatus & MODEM_CTS);

    TRACE(TRC_MODEM, "%P:%S:received new Network Connection %x\n", PORT_NAME(Dev),
          Value);
    Dev->ModemStatus = (Dev->ModemStatus & ~(ULONG)MODEM_CTS) | Cts;
    Dev->SavedModemStatus = Dev->ModemStatus;
    if (!Changed)
        return;
    IndicateWaitEvent(&Dev->Port, SERIAL_EV_CTS);
    if (Dev->Cfg.useCtsFlowControl && Cts != 0) {
        TRACE(TRC_CTS, "%P:%S:CTS active restart write\n", PORT_NAME(Dev));
        QueueSndDpc(Dev);
    }
}

static VOID TraceLines(DEVICE* Dev, ULONG State)
{
    if (!TRACE_ON(TRC_MODEM))
        return;
    TracePrint("%P:%S:ProzessModemStatus: ModemStatus %B\n", PORT_NAME(Dev), Dev->ModemStatus);
    TracePrint(State & STATE_TX_CARRIER ? "DSR_on, " : "DSR_off, ");
    TracePrint(State & STATE_RING ? "RI_on, " : "RI_off, ");
    TracePrint(State & STATE_RX_CARRIER ? "DCD_on\n" : "DCD_off\n");
}

// Events of the state bits that count each time they are reported.
static ULONG LineErrorEvents(ULONG State)
{
    ULONG Events = 0;

    if (State & STATE_BREAK) {
        TRACE(TRC_MODEM, "Break\n");
        Events |= SERIAL_EV_BREAK;
    }
    if (State & STATE_FRAMING) {
        TRACE(TRC_MODEM, "Frame error\n");
        Events |= SERIAL_EV_ERR;
    }
    if (State & STATE_PARITY) {
        TRACE(TRC_MODEM, "Parity error\n");
        Events |= SERIAL_EV_ERR;
    }
    if (State & STATE_OVERRUN) {
        TRACE(TRC_MODEM, "Overrun error\n");
        Events |= SERIAL_EV_ERR;
    }
    return Events;
}

VOID ProzessModemStatus(DEVICE* Dev, USHORT State)
{
    ULONG New = Dev->ModemStatus & MODEM_CTS;   // only a network connection changes it
    ULONG Events = 0;

    TraceLines(Dev, State);
    New |= State & STATE_TX_CARRIER ? (ULONG)MODEM_DSR : 0;
    New |= State & STATE_RING ? (ULONG)MODEM_RI : 0;
    New |= State & STATE_RX_CARRIER ? (ULONG)MODEM_DCD : 0;

    if (State & STATE_FLOW_OFF) {
        Dev->TxEnabled = 0;
    } else if (Dev->TxEnabled == 0) {
        Dev->TxEnabled = 1;
        QueueSndDpc(Dev);
    }

    const ULONG Changed = New ^ Dev->ModemStatus;
    Dev->ModemStatus = New;
    Dev->SavedModemStatus = New;
    Events |= Changed & MODEM_DSR ? SERIAL_EV_DSR : 0;
    Events |= Changed & MODEM_DCD ? SERIAL_EV_RLSD : 0;
    Events |= Changed & MODEM_RI ? SERIAL_EV_RING : 0;
    Events |= LineErrorEvents(State);
    if (Events != 0)
        IndicateWaitEvent(&Dev->Port, Events);
}

// ---- Notifications

static VOID TraceNotification(const UCHAR* Data, ULONG Length)
{
    if (TRACE_ON(TRC_ERROR))
        TraceDumpLimited(Data, Length);
}

// A switch that is queued and has not begun serves a further request of its kind. If one of the other
// kind is queued too, their order may not be that of the requests any more: then each looks first
// whether it is still wanted.
static VOID QueueSwitch(DEVICE* Dev, ULONG Mode) _Requires_lock_held_(DeviceLock)
{
    LONG* Queued = &PrivateOf(Dev)->SwitchQueued;
    const BOOLEAN To = Mode == FRAMING_REQUESTED;
    const LONG Mine = To ? SWITCH_TO_QUEUED : SWITCH_FROM_QUEUED;
    const LONG Other = To ? SWITCH_FROM_QUEUED : SWITCH_TO_QUEUED;

    Dev->PppMode = Mode;
    PrivateOf(Dev)->SwitchRequests++;
    if (*Queued & Mine) {
        if (*Queued & Other)
            *Queued |= SWITCH_REORDERED;
        return;
    }
    // Not queued, as the device is going away: the mode stays and holds the data back.
    if (QueueWorkItem(Dev, To ? SwitchToPppMode : SwitchFromPppMode, Dev, NULL))
        *Queued |= Mine;
}

static VOID ClassNotification(DEVICE* Dev, const UCHAR* Data, ULONG Length) _Requires_lock_held_(DeviceLock)
{
    switch (Data[1]) {
    case NETWORK_CONNECTION:
        NetworkConnection(Dev, Word16(Data + 2));
        break;
    case RESPONDS_AVAILABLE:
        TRACE(TRC_MODEM, "%P:%S:RcvIntIn: RESPONDS_AVAILABLE not supported\n", PORT_NAME(Dev));
        break;
    case RESPONDS_SERIAL_STATE:
        if (Length < SERIAL_STATE_SIZE) {
            TRACE(TRC_ERROR, "%P:%S:RcvIntIn: Data packet to small for RESPONDS_SERIAL_STATE\n", PORT_NAME(Dev));
            TraceNotification(Data, Length);
            break;
        }
        TRACE(TRC_MODEM, "%P:%S:received new Serial State %x\n", PORT_NAME(Dev),
              Word16(Data + NOTIFICATION_SIZE));
        ProzessModemStatus(Dev, (USHORT)Word16(Data + NOTIFICATION_SIZE));
        break;
    default:
        TRACE(TRC_ERROR, "%P:%S:RcvIntIn: Unexpected class responds:\n", PORT_NAME(Dev));
        TraceNotification(Data, Length);
    }
}

static VOID VendorNotification(DEVICE* Dev, const UCHAR* Data, ULONG Length) _Requires_lock_held_(DeviceLock)
{
    switch (Data[1]) {
    case OPPP_REQUEST_TO_START_FRAMING:
        TRACE(TRC_PPP, "%P:%S:RcvIntIn: OPPP_REQUEST_TO_START_FRAMING received\n", PORT_NAME(Dev));
        QueueSwitch(Dev, FRAMING_REQUESTED);
        break;
    case OPPP_REQUEST_TO_STOP_FRAMING:
        TRACE(TRC_PPP, "%P:%S:RcvIntIn: OPPP_REQUEST_TO_STOP_FRAMING received\n", PORT_NAME(Dev));
        QueueSwitch(Dev, FRAMING_STOP_REQUESTED);
        break;
    default:
        TRACE(TRC_ERROR, "%P:%S:RcvIntIn: Unexpected vendor responds:\n", PORT_NAME(Dev));
        TraceNotification(Data, Length);
    }
}

ULONG RcvIntIn(DEVICE* Dev, UCHAR* Data, ULONG Length)
{
    _Analysis_assume_lock_held_(DeviceLock);
    TRACE(TRC_PPP, "%P:%S:RcvIntIn: len:%d\n", PORT_NAME(Dev), Length);
    if (Length < NOTIFICATION_SIZE) {
        TRACE(TRC_ERROR, "%P:%S:RcvIntIn: Data packet to small\n", PORT_NAME(Dev));
        TraceNotification(Data, Length);
        return Length;
    }
    switch (Data[0] & KIND_MASK) {
    case KIND_CLASS:
        ClassNotification(Dev, Data, Length);
        break;
    case KIND_VENDOR:
        VendorNotification(Dev, Data, Length);
        break;
    default:
        TRACE(TRC_ERROR, "%P:%S:RcvIntIn: Unexpected responds:\n", PORT_NAME(Dev));
        TraceNotification(Data, Length);
    }
    return Length;
}

// ---- The framing switch

// One run of a switch.
struct SWITCH_RUN {
    DEVICE* Dev;
    ULONG Mode;       // it was queued for
    ULONG Requests;   // SwitchRequests when it began
};

// FALSE: a later notification, an open or a removal made this switch needless.
static BOOLEAN BeginSwitch(SWITCH_RUN* Run, LONG Mine)
{
    DEVICE* Dev = Run->Dev;
    LONG* Queued = &PrivateOf(Dev)->SwitchQueued;
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    const BOOLEAN Superseded = (*Queued & SWITCH_REORDERED) && Dev->PppMode != Run->Mode;
    const BOOLEAN Countermanded = Run->Mode == FRAMING_REQUESTED && Dev->PppMode == BYTE_MODE;
    Run->Requests = PrivateOf(Dev)->SwitchRequests;
    *Queued &= ~Mine;
    if (!(*Queued & (SWITCH_TO_QUEUED | SWITCH_FROM_QUEUED)))
        *Queued = 0;
    RELEASE(Dev, OldIrql);
    return !Superseded && !Countermanded;
}

// A request made since the switch began has a switch of its own queued, which decides; only framing that has begun stands
// until then, if that is no stop. So a switch may find framing begun, and makes it its own.
static VOID EndSwitch(const SWITCH_RUN* Run, ULONG Result)
{
    DEVICE* Dev = Run->Dev;
    const DEVICE_PRIVATE* Private = PrivateOf(Dev);
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    const BOOLEAN Mine = Dev->PppMode == Run->Mode || (Run->Mode == FRAMING_REQUESTED && Dev->PppMode == FRAMING);
    const BOOLEAN Last = Private->SwitchRequests == Run->Requests;
    if (Mine && (Last || (Result == FRAMING && !(Private->SwitchQueued & SWITCH_FROM_QUEUED))))
        Dev->PppMode = Result;
    RELEASE(Dev, OldIrql);
}

static VOID InitConverters(DEVICE* Dev)
{
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    PppFramerInit(&Dev->Framer, Dev);
    PppDeFramerInit(&Dev->DeFramer, Dev);
    Dev->Port.SerPort->CharPending = 0;
    RELEASE(Dev, OldIrql);
}

// The stream to the device stands at a frame boundary.
static NTSTATUS StartFramingAtFlag(DEVICE* Dev)
{
    NTSTATUS Status = GetSpecialChars(Dev);

    if (NT_SUCCESS(Status)) {
        InitConverters(Dev);
        Status = StartFraming(Dev);
    }
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:%S:SwitchToPppMode StartFraming failed with %08x\n", PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS SwitchToPppMode(VOID* Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    SWITCH_RUN Run = {Dev, FRAMING_REQUESTED, 0};
    LARGE_INTEGER Timeout = RelativeMs(FLAG_WAIT_MS);
    NTSTATUS Status = STATUS_SUCCESS;

    TRACE(TRC_PPP, "%P:%S:SwitchToPppMode[\n", PORT_NAME(Dev));
    if (BeginSwitch(&Run, SWITCH_TO_QUEUED)) {
        ULONG Result = BYTE_MODE;

        Status = KeWaitForSingleObject(&Dev->FlagSentEvent, Executive, KernelMode, FALSE, &Timeout);
        if (Status == STATUS_SUCCESS) {
            Status = StartFramingAtFlag(Dev);
            if (NT_SUCCESS(Status))
                Result = FRAMING;
        } else if (Status == STATUS_TIMEOUT) {
            TRACE(TRC_ERROR, "%P:%S:SwitchToPppMode failed with timeout!!!\n", PORT_NAME(Dev));
        } else {
            KASSERT(0);
        }
        EndSwitch(&Run, Result);
    }
    SndOutComplete(Dev);
    TRACE(TRC_PPP, "%P:%S:SwitchToPppMode] %D\n", PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS SwitchFromPppMode(VOID* Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    SWITCH_RUN Run = {Dev, FRAMING_STOP_REQUESTED, 0};

    if (!BeginSwitch(&Run, SWITCH_FROM_QUEUED))
        return STATUS_SUCCESS;
    NTSTATUS Status = StopFraming(Dev);
    EndSwitch(&Run, BYTE_MODE);
    return Status;
}
