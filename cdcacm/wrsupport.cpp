#include "wrsupport.h"

#include "pnpadd.h"
#include "transfer.h"

enum : ULONG { TICK_STOP_WAIT_MS = 1000 };

static BOOLEAN CtsHoldsSending(DEVICE* Dev) _Requires_lock_held_(DeviceLock)
{
    return Dev->Cfg.useCtsFlowControl && !(Dev->ModemStatus & MODEM_CTS) && LoadShared(&Dev->CtsGraceBytes) == 0;
}

BOOLEAN GetWriteBuffer(DEVICE* Dev, UCHAR** Buffer, ULONG* MaxLength, USB_PACKET** Packet)
{
    if (Dev->Snd.Pool == NULL || Dev->TxEnabled == 0)
        return FALSE;
    if (CtsHoldsSending(Dev)) {
        TRACE(TRC_CTS, "%P:%S:Stop sending because CTS is inactive\n", PORT_NAME(Dev));
        return FALSE;
    }
    // Nothing overtakes the empty packet that ends the last transfer, nor a chunk still outside Lock.
    if (Dev->Snd.Private.ZlpDue || PrivateOf(Dev)->ChunkOut)
        return FALSE;
    *Packet = GetPacket(Dev->Snd.Pool);
    if (*Packet == NULL)
        return FALSE;
    *Buffer = (*Packet)->Buffer;
    *MaxLength = Dev->MaxWriteChunk < (*Packet)->BufferSize ? Dev->MaxWriteChunk : (*Packet)->BufferSize;
    return TRUE;
}

VOID ReturnWriteBuffer(DEVICE* Dev, UCHAR* Buffer, USB_PACKET* Packet)
{
    UNREFERENCED_PARAMETER(Buffer);
    TRACE(TRC_USBREQ, "%P:%S:ReturnWriteBuffer\n", PORT_NAME(Dev));
    ReturnPacket(Packet);
    SignalIfHome(&Dev->Snd);
}

// Bytes of the CTS grace used up by a transfer: its length, or all of a smaller grace.
static ULONG TakeCtsGrace(DEVICE* Dev, ULONG Length)
{
    LONG volatile* Grace = (LONG volatile*)&Dev->CtsGraceBytes;
    ULONG Before;
    ULONG After;

    do {
        Before = LoadShared(&Dev->CtsGraceBytes);
        After = Length <= Before ? Before - Length : 0;
    } while ((ULONG)InterlockedCompareExchange(Grace, (LONG)After, (LONG)Before) != Before);
    if (Length <= Before)
        TRACE(TRC_CTS, "%P:%S:Send %u waiting data of %u\n", PORT_NAME(Dev), Length, Before);
    return Before - After;
}

// The caller holds Lock unless ChunkOut is set: no other packet is granted while it is, and only its
// setter hands one over meanwhile. That makes it the caller's own word here.
static NTSTATUS SubmitChunk(DEVICE* Dev, USB_PACKET* Packet, BOOLEAN* Refused) _No_thread_safety_analysis_
{
    if (PrivateOf(Dev)->ChunkOut)
        return SendPacket(&Dev->Snd, Packet, Refused);
    return SendPacketLocked(&Dev->Snd, Packet, Refused);
}

NTSTATUS SubmitWriteBuffer(DEVICE* Dev, UCHAR* Buffer, ULONG Length, USB_PACKET* Packet)
{
    ULONG GraceTaken = 0;
    BOOLEAN Refused;

    UNREFERENCED_PARAMETER(Buffer);
    TRACE(TRC_USBREQ, "%P:%S:[SubmitWriteBuffer %d\n", PORT_NAME(Dev), Length);
    if (Dev->Cfg.useCtsFlowControl)
        GraceTaken = TakeCtsGrace(Dev, Length);
    Packet->Length = Length;
    NTSTATUS Status = SubmitChunk(Dev, Packet, &Refused);
    if (Status != STATUS_SUCCESS && Status != STATUS_PENDING)
        TRACE(TRC_ERROR, "%P:%S:SubmitWriteBuffer IoCallDriver failed %D\n", PORT_NAME(Dev), Status);
    if (!Refused)
        return STATUS_SUCCESS;
    InterlockedExchangeAdd((LONG volatile*)&Dev->CtsGraceBytes, (LONG)GraceTaken);
    return STATUS_UNSUCCESSFUL;
}

// The count is up before the timer can expire; moving a queued tick adds none. A closed port has nothing to count down, and the open
// starts the tick: until then nobody is woken for it.
VOID StartWrTimer(DEVICE* Dev)
{
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    if (Dev->OpenCount > 0) {
        Dev->WrTimerArmed = 1;
        InterlockedIncrement(&Dev->WrTimerPending);
        if (ArmTimerObj(&Dev->WrTimer))
            InterlockedDecrement(&Dev->WrTimerPending);
    }
    RELEASE(Dev, OldIrql);
}

VOID PwrSetDevicePowerState(DEVICE* Dev)
{
    LARGE_INTEGER Timeout = RelativeMs(TICK_STOP_WAIT_MS);
    KIRQL OldIrql;

    ACQUIRE(Dev, OldIrql);
    Dev->WrTimerArmed = 0;
    if (CancelTimerObj(&Dev->WrTimer))
        InterlockedDecrement(&Dev->WrTimerPending);
    RELEASE(Dev, OldIrql);

    KeClearEvent(&Dev->WrTimerIdleEvent);
    if (LoadShared(&Dev->WrTimerPending) <= 0)
        return;
    if (KeWaitForSingleObject(&Dev->WrTimerIdleEvent, Executive, KernelMode, FALSE, &Timeout) == STATUS_TIMEOUT)
        TRACE(TRC_ERROR, "%P:%S:PwrSetDevicePowerState KeWaitForSingleObject %d\n", PORT_NAME(Dev), LoadShared(&Dev->WrTimerPending));
}
