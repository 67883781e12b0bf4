// The receiving half of the transfer contexts: bulk IN, and interrupt IN as far as it is the same.
//
// A packet's data stays in it, on PacketList, until its consumer has taken all of it; only then is the
// packet submitted again. So a reader that does not read throttles the device.
#include "sndrcv.h"

#include "pnpadd.h"
#include "transfer.h"

ULONG RcvBulkIn(DEVICE* Dev, UCHAR* Data, ULONG Length)
{
    _Analysis_assume_lock_held_(DeviceLock);
    return IndicateReadBuffer(Dev->Port.SerPort, Data, Length);
}

VOID StartRcv(SNDRCV_PIPE* Pipe)
{
    KIRQL OldIrql;

    ACQUIRE(Pipe->Dev, OldIrql);
    StartRcvLocked(Pipe);
    RELEASE(Pipe->Dev, OldIrql);
}

static VOID StopRcvFor(SNDRCV_PIPE* Pipe, UCHAR Wait, BOOLEAN Restarting)
{
    TRACE(TRC_PROGRESS, "%P:%S:StopRcv\n", PORT_NAME(Pipe->Dev));
    StopContext(Pipe, Wait, Restarting);
}

VOID StopRcv(SNDRCV_PIPE* Pipe, UCHAR Wait)
{
    StopRcvFor(Pipe, Wait, FALSE);
}

// Received bytes are being dropped. A frame that they were in the middle of must not be completed with
// the next one's bytes, under a fresh and valid FCS.
static VOID FramerLosesData(SNDRCV_PIPE* Pipe) _Requires_lock_held_(DeviceLock)
{
    PPP_FRAMER* Framer = &Pipe->Dev->Framer;

    if (Pipe->RawHandler || Pipe->Dev->PppMode != FRAMING)
        return;
    if (Framer->State == FRAMER_HEADER || Framer->State == FRAMER_PAYLOAD)
        Framer->State = FRAMER_RESYNC;
}

VOID RcvPurge(SNDRCV_PIPE* Pipe)
{
    TRACE(TRC_RCV, "%P:%S:RcvPurge\n", PORT_NAME(Pipe->Dev));
    if (PurgeList(Pipe) > 0)
        FramerLosesData(Pipe);
}

VOID SubmitReadBuffer(SNDRCV_PIPE* Pipe)
{
    DEVICE* Dev = Pipe->Dev;

    for (ULONG N = 0; N < Dev->Cfg.ReadBufferCount && LoadShared(&Dev->UsbDeviceEnabled) == 1; N++) {
        if (Pipe->Started == 0 || Pipe->Private.Stopping != 0)
            return;
        if (LoadShared(&Pipe->ErrorCount) >= 1) {
            TRACE(TRC_QUEUE, "%P:%S:ProcessRcvBuffer: max error count reached, stop processing of RCV buffers!\n", PORT_NAME(Dev));
            return;
        }
        if (LoadShared(&Pipe->Pool->Count) + 2 >= Pipe->Pool->PacketCount)
            TRACE(TRC_QUEUE, "%P:%S:Less than 2 RCV buffers at USBD!\n", PORT_NAME(Dev));
        USB_PACKET* Packet = GetPacket(Pipe->Pool);
        if (Packet == NULL)
            return;
        SubmitRcvUrb(Pipe, Packet);
    }
}

NTSTATUS SubmitRcvUrb(SNDRCV_PIPE* Pipe, USB_PACKET* Packet)
{
    const BOOLEAN Ready = ContextReady(Pipe);

    if (!Ready || Pipe->Pipe == NULL) {
        if (!Ready)
            TRACE(TRC_RCV, "%P:%S:]SubmitRcvUrb Port disabled\n", PORT_NAME(Pipe->Dev));
        else
            TRACE(TRC_RCV, "%P:%S:]SubmitRcvUrb fatal: Pipe->Pipe == 0\n", PORT_NAME(Pipe->Dev));
        ReturnPacket(Packet);
        SignalIfHome(Pipe);
        return STATUS_UNSUCCESSFUL;
    }
    Packet->Irp->Cancel = FALSE;
    PDEVICE_OBJECT Lower = PrepareTransfer(Pipe, Packet, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, Packet->BufferSize,
                                           NULL, RcvCompletionRoutine);
    return CallUnderLock(Pipe, Lower, Packet->Irp);
}

static VOID DataReceived(SNDRCV_PIPE* Pipe, USB_PACKET* Packet)
{
    DEVICE* Dev = Pipe->Dev;
    const ULONG Transferred = Packet->Urb.TransferBufferLength;
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    InterlockedExchange(&Pipe->ErrorCount, 0);
    Packet->Data = Packet->Buffer;
    Packet->Length = Transferred < Packet->BufferSize ? Transferred : Packet->BufferSize;
    if (TRACE_ON(TRC_COUNTS)) {
        TracePrint("%P:%S:RCV %d\n", PORT_NAME(Dev), Packet->Length);
        TraceDumpLimited(Packet->Buffer, Packet->Length);
    }
    if (Packet->Length > 0)
        TRACE(TRC_RCV, "%P:%S:RcvCompletionRoutine add packet\n", PORT_NAME(Dev));
    if (Packet->Length > 0 && Pipe->Started == 1) {
        InsertTailList(&Pipe->PacketList, &Packet->Link);
        SndRcvCheckRcvQueue(Pipe);
    } else {
        if (Packet->Length > 0)
            FramerLosesData(Pipe);
        ReturnPacket(Packet);
    }
    StoreShared(&Pipe->RestartNeeded, (UCHAR)0);
    RELEASE(Dev, OldIrql);
}

// The context stays stopped; the first error in a row queues its restart. A restart of a context that
// somebody else had stopped resets the pipe and leaves it stopped.
static VOID ReadFailed(SNDRCV_PIPE* Pipe, USB_PACKET* Packet)
{
    DEVICE* Dev = Pipe->Dev;
    PIPE_PRIVATE* Private = &Pipe->Private;
    BOOLEAN Queued = TRUE;
    KIRQL OldIrql;

    TRACE(TRC_ERROR, "%P:%S:RcvCompletionRoutine: UrbStatus %D\n", PORT_NAME(Dev), Packet->Urb.Hdr.Status);
    TRACE(TRC_ERROR, "%P:%S:RcvCompletionRoutine: IrpStatus %D\n", PORT_NAME(Dev), Packet->Irp->IoStatus.Status);
    // Counted with the look at Started: the first error in a row is the one that finds the context started.
    ACQUIRE(Dev, OldIrql);
    const LONG Errors = InterlockedIncrement(&Pipe->ErrorCount);
    const BOOLEAN WasStarted = Pipe->Started == 1;
    StoreShared(&Pipe->Started, (UCHAR)0);
    if (Errors <= 1 && LoadShared(&Dev->DevicePowerState) == DEVICE_POWER_D0) {
        if (LoadShared(&Private->RestartQueued) == 0)
            Private->RestartGeneration = WasStarted ? Private->StopGeneration : Private->StopGeneration - 1;
        Queued = QueueRestart(Pipe, RestartRead);
    }
    RELEASE(Dev, OldIrql);
    ReturnPacket(Packet);
    if (!Queued)
        ScheduleReinit(Dev);
}

static VOID ReadDeviceGone(SNDRCV_PIPE* Pipe, USB_PACKET* Packet)
{
    KIRQL OldIrql;

    TRACE(TRC_RCV, "%P:%S:RcvCompletionRoutine USBD_STATUS_DEVICE_GONE\n", PORT_NAME(Pipe->Dev));
    ACQUIRE(Pipe->Dev, OldIrql);
    InterlockedExchange(&Pipe->ErrorCount, 0);
    StoreShared(&Pipe->RestartNeeded, (UCHAR)0);
    StoreShared(&Pipe->Started, (UCHAR)0);
    RELEASE(Pipe->Dev, OldIrql);
    ReturnPacket(Packet);
}

static VOID AfterRead(SNDRCV_PIPE* Pipe)
{
    DEVICE* Dev = Pipe->Dev;

    if (LoadShared(&Pipe->ErrorCount) > 1)
        StoreShared(&Pipe->RestartNeeded, (UCHAR)1);
    if (PoolIsFull(Pipe->Pool)) {
        TRACE(TRC_RCV, "%P:%S:RcvCompletionRoutine: All buffers returned\n", PORT_NAME(Dev));
        KeSetEvent(&Pipe->PoolEvent, IO_NO_INCREMENT, FALSE);
        if (LoadShared(&Pipe->Started) == 1 && LoadShared(&Pipe->RestartNeeded) == 1) {
            TRACE(TRC_PROGRESS, "%P:%S:RcvCompletionRoutine: Schedule restart USB read\n", PORT_NAME(Dev));
            ScheduleReinit(Dev);
            StoreShared(&Pipe->RestartNeeded, (UCHAR)0);
        }
    }
    if (LoadShared(&Pipe->Started) == 1)
        ScheduleRcv(Pipe);
    TRACE(TRC_RCV, "%P:%S:]RequestIrpCompletionRoutine\n", PORT_NAME(Dev));
}

static VOID FinishRcv(USB_PACKET* Packet)
{
    SNDRCV_PIPE* Pipe = Packet->Owner;
    DEVICE* Dev = Pipe->Dev;
    USB_PIPE* UsbPipe = Packet->UsbPipe;

    InterlockedIncrement(&Pipe->Private.Completing);
    KASSERT(PTRVALID(Dev,DEVICE));
    switch (TransferStatus(Packet) & URB_STATUS_BITS) {
    case 0:
        DataReceived(Pipe, Packet);
        break;
    case URB_CANCELED:
        TRACE(TRC_RCV, "%P:%S:RcvCompletionRoutine USBD_STATUS_CANCELED\n", PORT_NAME(Dev));
        ReturnPacket(Packet);
        break;
    case URB_DEVICE_GONE:
        ReadDeviceGone(Pipe, Packet);
        break;
    case URB_ENDPOINT_HALTED:
        TRACE(TRC_ERROR, "%P:%S:USBD_STATUS_ENDPOINT_HALTED receive, restart\n", PORT_NAME(Dev));
        [[fallthrough]];
    default:
        ReadFailed(Pipe, Packet);
    }
    AfterRead(Pipe);
    InterlockedDecrement(&UsbPipe->PendingCount);
    ReleasePipe(UsbPipe);
    InterlockedDecrement(&Pipe->Private.Completing);
}

NTSTATUS RcvCompletionRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    USB_PACKET* Packet = (USB_PACKET*)Context;

    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    if (!DeferCompletion(Packet))
        FinishRcv(Packet);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Bytes of the packet that its consumer took.
static ULONG OfferPacket(SNDRCV_PIPE* Pipe, USB_PACKET* Packet) _Requires_lock_held_(DeviceLock)
{
    DEVICE* Dev = Pipe->Dev;

    if (Dev->PppMode == FRAMING && !Pipe->RawHandler)
        return PppFramerIndicateData(&Dev->Framer, Packet->Data, Packet->Length);
    return Pipe->Handler.Receive(Dev, Packet->Data, Packet->Length);
}

VOID SndRcvCheckRcvQueue(SNDRCV_PIPE* Pipe)
{
    DEVICE* Dev = Pipe->Dev;

    // A frame that did not fit may wait with no packet left to push it.
    if (Dev->PppMode == FRAMING && !Pipe->RawHandler && Dev->Framer.State == FRAMER_DELIVER)
        PppFramerDeliver(&Dev->Framer);
    while (!IsListEmpty(&Pipe->PacketList)) {
        USB_PACKET* Packet = CONTAINING_RECORD(Pipe->PacketList.Flink, USB_PACKET, Link);
        const ULONG Taken = OfferPacket(Pipe, Packet);

        if (Taken < Packet->Length) {
            Packet->Data += Taken;
            Packet->Length -= Taken;
            TRACE(TRC_QUEUE, "%P:%S:SndRcvCheckRcvQueue indicate FALSE\n", PORT_NAME(Dev));
            // With room in the receive ring a reader has just emptied it: the rest is offered again at once.
            if (Taken > 0 && !Dev->Port.SerPort->CircRcvBuf.Full)
                continue;
            return;
        }
        TRACE(TRC_QUEUE, "%P:%S:SndRcvCheckRcvQueue indicate OK\n", PORT_NAME(Dev));
        ReturnPacket(TakeListed(Pipe));
        ScheduleRcv(Pipe);
    }
}

VOID ScheduleRcv(SNDRCV_PIPE* Pipe)
{
    DEVICE* Dev = Pipe->Dev;

    if (LoadShared(&Pipe->RestartNeeded) != 0 || LoadShared(&Pipe->Started) != 1)
        return;
    if (Dev->Cfg.FlowTest > 0 && Pipe == &Dev->Rcv)
        ArmTimerObj(&Dev->FlowTestTimer);
    else
        KeInsertQueueDpc(&Pipe->Dpc, Pipe, NULL);
}

VOID RcvDpcRoutine(PKDPC Dpc, PVOID Context, PVOID Argument1, PVOID Argument2)
{
    DEVICE* Dev = (DEVICE*)Context;
    SNDRCV_PIPE* Pipe = (SNDRCV_PIPE*)Argument1;
    KIRQL OldIrql;

    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(Argument2);
    ACQUIRE(Dev, OldIrql);
    while (USB_PACKET* Parked = TakeDeferred(Pipe)) {
        RELEASE(Dev, OldIrql);
        FinishRcv(Parked);
        ACQUIRE(Dev, OldIrql);
    }
    SubmitReadBuffer(Pipe);
    RELEASE(Dev, OldIrql);
}

VOID RcvDelayTimerFnc(TIMER_OBJ* Timer, VOID* Context)
{
    DEVICE* Dev = (DEVICE*)Context;
    KIRQL OldIrql;

    UNREFERENCED_PARAMETER(Timer);
    ACQUIRE(Dev, OldIrql);
    SubmitReadBuffer(&Dev->Rcv);
    RELEASE(Dev, OldIrql);
}

// The stop generation that allows this restart to start the context: the one of the error, or, if
// somebody stopped and started it since, the present one.
static ULONG BeginRestart(SNDRCV_PIPE* Pipe)
{
    KIRQL OldIrql;

    ACQUIRE(Pipe->Dev, OldIrql);
    InterlockedExchange(&Pipe->Private.RestartQueued, 0);
    const ULONG Generation = Pipe->Started == 1 ? Pipe->Private.StopGeneration : Pipe->Private.RestartGeneration;
    RELEASE(Pipe->Dev, OldIrql);
    return Generation;
}

// The data paths run only while the port is open; a restart does not override a stop.
static VOID StartAgain(SNDRCV_PIPE* Pipe, ULONG Generation)
{
    DEVICE* Dev = Pipe->Dev;
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    if (Pipe->Private.StopGeneration == Generation && Dev->OpenCount > 0 && Dev->PnpState == PNP_STARTED)
        StartRcvLocked(Pipe);
    RELEASE(Dev, OldIrql);
}

NTSTATUS RestartRead(VOID* Context)
{
    SNDRCV_PIPE* Pipe = (SNDRCV_PIPE*)Context;
    DEVICE* Dev = Pipe->Dev;

    TRACE(TRC_PROGRESS, "%P:%S:[RestartRead]\n", PORT_NAME(Dev));
    const ULONG Generation = BeginRestart(Pipe);
    StopRcvFor(Pipe, 1, TRUE);
    NTSTATUS Status = ResetPipe(&Dev->Usb, LoadShared(&Pipe->Pipe));
    if (NT_SUCCESS(Status)) {
        StartAgain(Pipe, Generation);
    } else {
        TRACE(TRC_ERROR, "%P:%S:ResetPipe read failed (%D)\n", PORT_NAME(Dev), Status);
        ReinitNow(Dev);
    }
    return Status;
}
