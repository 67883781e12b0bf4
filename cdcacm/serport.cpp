// The serial engine: byte rings, the port object, and what moves bytes between requests, rings and the
// USB paths.
//
// A write's byte: request -> send ring -> packet. A read's byte: packet -> receive ring -> request.
// In byte mode the chunk between ring and packet is outside Lock while it is handed over. ChunkOut marks
// that time: nobody else gets a packet then, so chunks stay in order, and no write enters the ring, so a
// refused chunk fits back in front of what follows it.
#include "pnpadd.h"
#include "wrsupport.h"

enum : ULONG { MIN_RING_SIZE = 100, SEND_FLAG = PPP_FLAG };

// ---- Byte rings

BOOLEAN CircBufInit(CIRC_BUF* Ring, ULONG Size)
{
    RtlZeroMemory(Ring, sizeof(*Ring));
    if (Size == MAXULONG)
        return FALSE;
    UCHAR* Storage = (UCHAR*)MemAlloc(Size + 1, Tag4('c', 'r', 'c', '0'));
    if (Storage == NULL)
        return FALSE;
    RtlZeroMemory(Storage, (SIZE_T)Size + 1);
    Ring->Storage = Storage;
    Ring->Size = Size;
    Ring->Start = Storage;
    Ring->End = Storage + Size + 1;
    CircBufReset(Ring);
    return TRUE;
}

VOID CircBufFree(CIRC_BUF* Ring)
{
    if (Ring->Storage != NULL) {
        MemFree(Ring->Storage);
        Ring->Storage = NULL;
    }
}

VOID CircBufReset(CIRC_BUF* Ring)
{
    Ring->Count = 0;
    Ring->ReadPtr = Ring->Start;
    Ring->WritePtr = Ring->Start;
    Ring->Empty = 1;
    Ring->Full = 0;
}

// Copies into the ring at Place and returns the place behind it. No more than the ring's storage.
static UCHAR* CopyIn(CIRC_BUF* Ring, UCHAR* Place, const UCHAR* Source, ULONG Length)
{
    ULONG Tail = (ULONG)(Ring->End - Place);

    if (Length > Tail) {
        RtlCopyMemory(Place, Source, Tail);
        RtlCopyMemory(Ring->Start, Source + Tail, Length - Tail);
        return Ring->Start + (Length - Tail);
    }
    if (Length != 0)
        RtlCopyMemory(Place, Source, Length);
    return Place + Length == Ring->End ? Ring->Start : Place + Length;
}

ULONG CircBufWrite(CIRC_BUF* Ring, const UCHAR* Source, ULONG Length)
{
    if (Length == 0)
        return 0;
    ULONG Room = Ring->Size - Ring->Count;
    ULONG Moved = Room < Length ? Room : Length;
    Ring->WritePtr = CopyIn(Ring, Ring->WritePtr, Source, Moved);
    Ring->Count += Moved;
    Ring->Empty = 0;
    if (Ring->Count == Ring->Size)
        Ring->Full = 1;
    return Moved;
}

ULONG CircBufRead(CIRC_BUF* Ring, UCHAR* Target, ULONG Length)
{
    if (Length == 0)
        return 0;
    ULONG Moved = Length < Ring->Count ? Length : Ring->Count;
    ULONG Tail = (ULONG)(Ring->End - Ring->ReadPtr);
    if (Moved > Tail) {
        RtlCopyMemory(Target, Ring->ReadPtr, Tail);
        RtlCopyMemory(Target + Tail, Ring->Start, Moved - Tail);
        Ring->ReadPtr = Ring->Start + (Moved - Tail);
    } else {
        if (Moved != 0)
            RtlCopyMemory(Target, Ring->ReadPtr, Moved);
        Ring->ReadPtr += Moved;
        if (Ring->ReadPtr >= Ring->End)
            Ring->ReadPtr = Ring->Start;
    }
    Ring->Count -= Moved;
    Ring->Full = 0;
    if (Ring->Count == 0)
        Ring->Empty = 1;
    return Moved;
}

ULONG CircBufPeek(const CIRC_BUF* Ring, const UCHAR** Bytes)
{
    const ULONG Tail = (ULONG)(Ring->End - Ring->ReadPtr);

    *Bytes = Ring->ReadPtr;
    return Ring->Count < Tail ? Ring->Count : Tail;
}

VOID CircBufSkip(CIRC_BUF* Ring, ULONG Length)
{
    if (Length == 0)
        return;
    Ring->ReadPtr += Length;
    if (Ring->ReadPtr >= Ring->End)
        Ring->ReadPtr = Ring->Start;
    Ring->Count -= Length;
    Ring->Full = 0;
    if (Ring->Count == 0)
        Ring->Empty = 1;
}

BOOLEAN CircBufUnread(CIRC_BUF* Ring, const UCHAR* Source, ULONG Length)
{
    if (Length > Ring->Size - Ring->Count)
        return FALSE;
    if (Length == 0)
        return TRUE;
    ULONG Before = (ULONG)(Ring->ReadPtr - Ring->Start);
    UCHAR* Place = Length <= Before ? Ring->ReadPtr - Length : Ring->End - (Length - Before);
    CopyIn(Ring, Place, Source, Length);
    Ring->ReadPtr = Place;
    Ring->Count += Length;
    Ring->Empty = 0;
    if (Ring->Count == Ring->Size)
        Ring->Full = 1;
    return TRUE;
}

// ---- Creation and deletion

static VOID FreeSerPort(SER_PORT* Port)
{
    CircBufFree(&Port->CircSendBuf);
    CircBufFree(&Port->CircRcvBuf);
    MemFree(Port);
}

NTSTATUS AddPort(SER_PORT** NewPort, DEVICE* Dev, ULONG RcvSize, ULONG SndSize, ULONG TickMs, PORT_OBJ* PortObj)
{
    NTSTATUS Status = STATUS_INSUFFICIENT_RESOURCES;

    TRACE(TRC_SERPORT, "%P:[AddPort\n");
    *NewPort = NULL;
    SER_PORT* Port = (SER_PORT*)MemAlloc(sizeof(SER_PORT), Tag4('s', 'p', 'r', '0'));
    if (Port != NULL) {
        RtlZeroMemory(Port, sizeof(*Port));
        Port->WrContext = Dev;
        if (CircBufInit(&Port->CircSendBuf, SndSize) && CircBufInit(&Port->CircRcvBuf, RcvSize)) {
            *NewPort = Port;
            Port->Tag = SER_PORT_TAG;
            SerPortInit(Port, TickMs);
            Port->Settings.InQueueSize = RcvSize;
            Port->Settings.OutQueueSize = SndSize;
            Port->Port = PortObj;
            Status = STATUS_SUCCESS;
        } else {
            FreeSerPort(Port);
            TRACE(TRC_ERROR, "%P:AddPort: Not success! Status:%x", Status);
        }
    }
    TRACE(TRC_SERPORT, "%P:]AddPort\n");
    return Status;
}

VOID SerPortInit(SER_PORT* Port, ULONG TickMs)
{
    CircBufReset(&Port->CircSendBuf);
    CircBufReset(&Port->CircRcvBuf);
    SqueueInit(&Port->SndQueue, Port, 1, TickMs);
    SqueueInit(&Port->RcvQueue, Port, 0, TickMs);
    SerPortSetDefaults(Port);
}

VOID SerPortSetDefaults(SER_PORT* Port)
{
    SERIAL_SETTINGS* Settings = &Port->Settings;

    RtlZeroMemory(Settings, sizeof(*Settings));
    Settings->BaudRate = 9600;
    Settings->ReadTotalTimeoutConstant = 2000;
    Settings->ReadTotalTimeoutMultiplier = 10;
    Settings->WriteTotalTimeoutConstant = 2000;
    Settings->WriteTotalTimeoutMultiplier = 10;
    Settings->InQueueSize = 1000;
    Settings->OutQueueSize = 1000;
    Settings->StopBits = 1;
    Settings->WordLength = 8;
}

VOID DeleteSerPort(SER_PORT* Port)
{
    KIRQL OldIrql;

    TRACE(TRC_SERPORT, "%P:[DeleteSerPort\n");
    ACQUIRE(Port->WrContext, OldIrql);
    SqueueCancelAll(&Port->RcvQueue);
    SqueueCancelAll(&Port->SndQueue);
    RELEASE(Port->WrContext, OldIrql);
    FreeSerPort(Port);
    TRACE(TRC_SERPORT, "%P:]DeleteSerPort\n");
}

VOID SetRcvBufferSize(SER_PORT* Port, ULONG Size)
{
    KASSERT(PTRVALID(Port,SER_PORT));
    CircBufFree(&Port->CircRcvBuf);
    if (!CircBufInit(&Port->CircRcvBuf, Size < MIN_RING_SIZE ? (ULONG)MIN_RING_SIZE : Size))
        TRACE(TRC_SERPORT, "%PCould'nt allocate CircRcvBuf!\n");
}

VOID SetSendBufferSize(SER_PORT* Port, ULONG Size)
{
    KASSERT(PTRVALID(Port,SER_PORT));
    ++Port->RingGeneration;
    CircBufFree(&Port->CircSendBuf);
    if (!CircBufInit(&Port->CircSendBuf, Size < MIN_RING_SIZE ? (ULONG)MIN_RING_SIZE : Size))
        TRACE(TRC_SERPORT, "%PCould'nt allocate CircSendBuf!\n");
}

VOID ResetSendRing(SER_PORT* Port)
{
    ++Port->RingGeneration;
    CircBufReset(&Port->CircSendBuf);
}

// ---- Sending

// Bytes taken from the send ring, in a packet, not yet with the send path.
struct CHUNK {
    UCHAR* Buffer;
    ULONG Length;
    ULONG Capacity;
    USB_PACKET* Packet;
    ULONG RingGeneration;
    UCHAR FlagBefore;       // FlagSent as it was before these bytes
};

// FlagSent and its event say whether the last byte that left the ring was a flag.
static VOID NoteLastByte(DEVICE* Dev, UCHAR IsFlag) _Requires_lock_held_(DeviceLock)
{
    if (Dev->FlagSent == IsFlag)
        return;
    Dev->FlagSent = IsFlag;
    if (IsFlag)
        KeSetEvent(&Dev->FlagSentEvent, IO_NO_INCREMENT, FALSE);
    else
        KeClearEvent(&Dev->FlagSentEvent);
}

// A packet to fill. Without one, and with nothing to put into it, FALSE. Bytes are taken from the ring
// only if the send path would accept them now.
static BOOLEAN BeginChunk(SER_PORT* Port, CHUNK* Chunk) _Requires_lock_held_(DeviceLock)
{
    DEVICE* Dev = Port->WrContext;

    if (Dev->PppMode == BYTE_MODE)
        SqueueSend(&Port->SndQueue, &Port->CircSendBuf);
    if (!GetWriteBuffer(Dev, &Chunk->Buffer, &Chunk->Capacity, &Chunk->Packet)) {
        TRACE(TRC_SERPORT, "%P:%S:No Send Buffer\n", PORT_NAME(Dev));
        return FALSE;
    }
    if (Dev->PppMode != BYTE_MODE)
        SqueueSend(&Port->SndQueue, &Port->CircSendBuf);
    if (Port->CircSendBuf.Count == 0 || !SndReady(Dev)) {
        ReturnWriteBuffer(Dev, Chunk->Buffer, Chunk->Packet);
        return FALSE;
    }
    Chunk->Length = 0;
    Chunk->RingGeneration = Port->RingGeneration;
    Chunk->FlagBefore = Dev->FlagSent;
    return TRUE;
}

// The send path refused the chunk: back in front of the ring with it, unless the ring was emptied
// meanwhile. FALSE: it is gone.
static BOOLEAN PutBack(SER_PORT* Port, const CHUNK* Chunk) _Requires_lock_held_(DeviceLock)
{
    if (Port->RingGeneration != Chunk->RingGeneration ||
        !CircBufUnread(&Port->CircSendBuf, Chunk->Buffer, Chunk->Length))
        return FALSE;
    NoteLastByte(Port->WrContext, Chunk->FlagBefore);
    return TRUE;
}

static BOOLEAN TakeByteChunk(SER_PORT* Port, CHUNK* Chunk) _Requires_lock_held_(DeviceLock)
{
    if (!BeginChunk(Port, Chunk))
        return FALSE;
    Chunk->Length = CircBufRead(&Port->CircSendBuf, Chunk->Buffer, Chunk->Capacity);
    NoteLastByte(Port->WrContext, Chunk->Buffer[Chunk->Length - 1] == SEND_FLAG);
    PrivateOf(Port->WrContext)->ChunkOut = 1;
    return TRUE;
}

// After the hand-over. TRUE when the run may go on.
static BOOLEAN EndByteChunk(SER_PORT* Port, const CHUNK* Chunk, NTSTATUS Status, ULONG* Moved) _Requires_lock_held_(DeviceLock)
{
    BOOLEAN Refused = Status == STATUS_UNSUCCESSFUL;

    PrivateOf(Port->WrContext)->ChunkOut = 0;
    if (!Refused || !PutBack(Port, Chunk))
        *Moved += Chunk->Length;
    // Writes that came in the meantime were held back.
    SqueueSend(&Port->SndQueue, &Port->CircSendBuf);
    return !Refused && Port->SendStopped == 0;
}

// Framing requested: send up to and including the next flag, then nothing more.
static VOID SendUpToFlag(SER_PORT* Port, ULONG* Moved) _Requires_lock_held_(DeviceLock)
{
    DEVICE* Dev = Port->WrContext;
    CHUNK Chunk;

    Port->CharPending = 0;
    while (Dev->FlagSent == 0 && BeginChunk(Port, &Chunk)) {
        UCHAR* Next = Chunk.Buffer;
        UCHAR* End = Chunk.Buffer + Chunk.Capacity;
        while (Next < End && Dev->FlagSent == 0 && CircBufRead(&Port->CircSendBuf, Next, 1) == 1)
            NoteLastByte(Dev, *Next++ == SEND_FLAG);
        Chunk.Length = (ULONG)(Next - Chunk.Buffer);
        if (SubmitWriteBuffer(Dev, Chunk.Buffer, Chunk.Length, Chunk.Packet) != STATUS_UNSUCCESSFUL) {
            *Moved += Chunk.Length;
            continue;
        }
        if (!PutBack(Port, &Chunk))
            *Moved += Chunk.Length;
        break;
    }
}

// The bytes in front of the ring that only add to the frame being built.
static ULONG SendIntoFrame(SER_PORT* Port) _Requires_lock_held_(DeviceLock)
{
    const UCHAR* Bytes;
    const ULONG Length = CircBufPeek(&Port->CircSendBuf, &Bytes);
    const ULONG Taken = PppDeFramerSendData(&Port->WrContext->DeFramer, Bytes, Length);

    CircBufSkip(&Port->CircSendBuf, Taken);
    return Taken;
}

// Framing: every byte goes through the de-framer; one that it does not take waits in PendingChar.
static VOID SendFramed(SER_PORT* Port) _Requires_lock_held_(DeviceLock)
{
    PPP_DEFRAMER* DeFramer = &Port->WrContext->DeFramer;

    for (;;) {
        SqueueSend(&Port->SndQueue, &Port->CircSendBuf);
        if (Port->CharPending == 0 && SendIntoFrame(Port) > 0)
            continue;
        if (Port->CharPending == 0 && CircBufRead(&Port->CircSendBuf, &Port->PendingChar, 1) == 1)
            Port->CharPending = 1;
        if (Port->CharPending == 0) {
            PppDeFramerSubmitBuffer(DeFramer);
            return;
        }
        if (!PppDeFramerSendChar(DeFramer, Port->PendingChar))
            return;
        Port->CharPending = 0;
    }
}

static VOID SendInFramingModes(SER_PORT* Port, ULONG* Moved) _Requires_lock_held_(DeviceLock)
{
    switch (Port->WrContext->PppMode) {
    case FRAMING_REQUESTED: SendUpToFlag(Port, Moved); break;
    case FRAMING: SendFramed(Port); break;
    case FRAMING_STOP_REQUESTED: break;
    default: KASSERT(0);
    }
}

VOID SerPortSend(SER_PORT* Port, BOOLEAN Force)
{
    ULONG Moved = 0;
    CHUNK Chunk;
    KIRQL OldIrql;

    KASSERT(PTRVALID(Port,SER_PORT));
    TRACE(TRC_SERPORT, "%P:%S:SerPortSend\n", PORT_NAME(Port->WrContext));
    ACQUIRE(Port->WrContext, OldIrql);
    if (Port->SendStopped == 1) {
        RELEASE(Port->WrContext, OldIrql);
        return;
    }
    // The mode may change whenever Lock was released.
    for (;;) {
        if (Port->WrContext->PppMode != BYTE_MODE) {
            SendInFramingModes(Port, &Moved);
            break;
        }
        if (!TakeByteChunk(Port, &Chunk))
            break;
        RELEASE(Port->WrContext, OldIrql);
        NTSTATUS Status = SubmitWriteBuffer(Port->WrContext, Chunk.Buffer, Chunk.Length, Chunk.Packet);
        ACQUIRE(Port->WrContext, OldIrql);
        if (!EndByteChunk(Port, &Chunk, Status, &Moved))
            break;
    }
    if ((Moved > 0 || Force) && Port->CircSendBuf.Empty == 1)
        IndicateWaitEvent(Port->Port, SERIAL_EV_TXEMPTY);
    RELEASE(Port->WrContext, OldIrql);
}

NTSTATUS SendRequest(SER_PORT* Port, SER_REQUEST* Request)
{
    KIRQL OldIrql;

    KASSERT(PTRVALID(Port,SER_PORT));
    KASSERT(Request != NULL);
    KASSERT(Request->Length != 0);
    ACQUIRE(Port->WrContext, OldIrql);
    NTSTATUS Status = SqueueAddRequest(&Port->SndQueue, Request, &Port->CircSendBuf);
    RELEASE(Port->WrContext, OldIrql);
    SerPortSend(Port, TRUE);
    return Status;
}

VOID SerPortStopSend(SER_PORT* Port, ULONG Stop)
{
    KIRQL OldIrql;

    ACQUIRE(Port->WrContext, OldIrql);
    Port->SendStopped = Stop;
    RELEASE(Port->WrContext, OldIrql);
    if (Stop == 0)
        SerPortSend(Port, FALSE);
}

// ---- Receiving

static BOOLEAN HasSpecialChar(const SERIAL_SETTINGS* Settings, const UCHAR* Data, ULONG Length)
{
    UCHAR Event = Settings->EventChar;
    UCHAR Error = Settings->ErrorChar;
    UCHAR Eof = Settings->EofChar;

    if (Event == 0 && Error == 0 && Eof == 0)
        return FALSE;
    for (ULONG Index = 0; Index < Length; ++Index) {
        UCHAR Byte = Data[Index];
        if (Byte != 0 && (Byte == Event || Byte == Error || Byte == Eof))
            return TRUE;
    }
    return FALSE;
}

ULONG IndicateReadBuffer(SER_PORT* Port, UCHAR* Data, ULONG Length)
{
    ULONG Events = 0;

    KASSERT(PTRVALID(Port,SER_PORT));
    if (TRACE_ON(TRC_SERPORT))
        TraceDumpLimited(Data, Length);
    if (Length > 0)
        Events |= SERIAL_EV_RXCHAR;
    if (HasSpecialChar(&Port->Settings, Data, Length))
        Events |= SERIAL_EV_RXFLAG;
    if (Events != 0)
        IndicateWaitEvent(Port->Port, Events);
    ULONG Accepted = CircBufWrite(&Port->CircRcvBuf, Data, Length);
    SqueueReceive(&Port->RcvQueue, &Port->CircRcvBuf);
    if (Port->CircRcvBuf.Count * 100 > Port->Settings.InQueueSize * 80)
        IndicateWaitEvent(Port->Port, SERIAL_EV_RX80FULL);
    return Accepted;
}
