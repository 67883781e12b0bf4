// The converters of framing mode. Each is a machine over bytes; runs of bytes that only add to a frame go through
// it together.
//
// Framer, device to host:   hunt --AA--> header --good--> payload --last byte--> deliver --taken--> hunt
//                             bad magic, sequence or length ----> resync --AA--> header
// De-framer, host to device: in frame <--> escape; in frame --flag--> send --sent--> in frame;
//                             too long ----> hunt --flag--> in frame
//
// A device frame: AA BB, then sequence (5 bits) and length of the whole frame (11 bits), high byte
// first, then the frame's bytes without flags and escapes.
#include "ppp_frame.h"

#include "pnpadd.h"
#include "wrsupport.h"

enum : ULONG {
    MAGIC_LO = 0xAA,
    MAGIC_HI = 0xBB,
    SEQUENCE_MASK = 31,
    SEQUENCE_SHIFT = 11,
    LENGTH_MASK = 0x7FF,
};

// Every byte and the FCS escaped, and two flags.
static_assert(2 * (PPP_DEVICE_FRAME_LIMIT + (ULONG)FCS_SIZE) + 2 <= PPP_FRAMER_OUT_SIZE);
static_assert(PPP_DEVICE_FRAME_LIMIT + PPP_HEADER_SIZE == (ULONG)LENGTH_MASK);

// ---- Runs of bytes

// As many bytes as are looked at together.
typedef SIZE_T SCAN_WORD;

// Bytes that are taken one by one after a byte that was found to matter: the next one is often near.
enum : ULONG { NEAR_BYTES = 16 };

static constexpr SCAN_WORD Every(UCHAR Byte)
{
    return ~(SCAN_WORD)0 / 0xFF * Byte;
}

// Not 0 if one of the bytes is Byte.
static inline SCAN_WORD HasByte(SCAN_WORD Word, UCHAR Byte)
{
    const SCAN_WORD Zero = Word ^ Every(Byte);

    return (Zero - Every(1)) & ~Zero & Every(0x80);
}

// A word of bytes without flag and escape goes to Out as it is.
static inline BOOLEAN CopyPlainWord(UCHAR* Out, const UCHAR* In)
{
    SCAN_WORD Word;

    RtlCopyMemory(&Word, In, sizeof(Word));
    if (HasByte(Word, PPP_ESCAPE) | HasByte(Word, PPP_FLAG))
        return FALSE;
    RtlCopyMemory(Out, &Word, sizeof(Word));
    return TRUE;
}

// ---- Framer

VOID PppFramerInit(PPP_FRAMER* Framer, DEVICE* Dev)
{
    Framer->Dev = Dev;
    Framer->State = FRAMER_HUNT;
    Framer->Remaining = 0;
    Framer->ExpectedSeq = 0;
    Framer->OutPtr = Framer->OutBuf;
}

VOID PppFramerSetSpecialChars(PPP_FRAMER* Framer, const UCHAR* Bytes, ULONG Length)
{
    RtlZeroMemory(Framer->EscapeMap, sizeof(Framer->EscapeMap));
    Framer->MoreEscapes = FALSE;
    for (ULONG N = 0; N < Length; N++) {
        Framer->EscapeMap[Bytes[N]] = 1;
        if (Bytes[N] != PPP_ESCAPE && Bytes[N] != PPP_FLAG)
            Framer->MoreEscapes = TRUE;
    }
    Framer->EscapeMap[PPP_ESCAPE] = 1;
    Framer->EscapeMap[PPP_FLAG] = 1;
    for (ULONG Byte = 0; Byte < 256; Byte++) {
        PPP_WRITTEN* Written = &Framer->Written[Byte];

        Written->Count = 1 + Framer->EscapeMap[Byte];
        Written->Bytes[0] = Written->Count == 2 ? (UCHAR)PPP_ESCAPE : (UCHAR)Byte;
        Written->Bytes[1] = (UCHAR)(Byte ^ PPP_ESCAPE_XOR);
    }
}

VOID PppFramerPutChar(PPP_FRAMER* Framer, UCHAR Byte)
{
    if (Framer->EscapeMap[Byte] == 1) {
        *Framer->OutPtr++ = PPP_ESCAPE;
        *Framer->OutPtr++ = Byte ^ PPP_ESCAPE_XOR;
        return;
    }
    KASSERT(Byte != PPP_ESCAPE && Byte != PPP_FLAG);
    *Framer->OutPtr++ = Byte;
}

// The same without a branch: which bytes are escaped cannot be foreseen. Returns the place behind them.
static inline UCHAR* PutEscaped(const PPP_WRITTEN* Written, UCHAR* Out, const UCHAR* In, const UCHAR* End)
{
    for (; In < End; In++) {
        const PPP_WRITTEN* Byte = &Written[*In];

        RtlCopyMemory(Out, Byte->Bytes, sizeof(Byte->Bytes));
        Out += Byte->Count;
    }
    return Out;
}

static VOID FramerPutBytes(PPP_FRAMER* Framer, const UCHAR* In, ULONG Length)
{
    const UCHAR* End = In + Length;
    UCHAR* Out = Framer->OutPtr;

    while (!Framer->MoreEscapes && (SIZE_T)(End - In) >= sizeof(SCAN_WORD)) {
        if (!CopyPlainWord(Out, In)) {
            Out = PutEscaped(Framer->Written, Out, In, In + sizeof(SCAN_WORD));
        } else {
            Out += sizeof(SCAN_WORD);
        }
        In += sizeof(SCAN_WORD);
    }
    Framer->OutPtr = PutEscaped(Framer->Written, Out, In, End);
}

BOOLEAN PppFramerDeliver(PPP_FRAMER* Framer)
{
    SER_PORT* Port = Framer->Dev->Port.SerPort;

    // Room left after a partial take: a reader has just emptied the ring.
    do {
        const ULONG Taken = IndicateReadBuffer(Port, Framer->OutPtr, Framer->Remaining);

        Framer->OutPtr += Taken;
        Framer->Remaining -= Taken;
        if (Framer->Remaining == 0) {
            Framer->State = FRAMER_HUNT;
            return TRUE;
        }
        if (Taken == 0)
            return FALSE;
    } while (!Port->CircRcvBuf.Full);
    return FALSE;
}

static VOID FramerHunt(PPP_FRAMER* Framer, UCHAR Byte)
{
    if (Byte != MAGIC_LO) {
        if (Framer->State == FRAMER_HUNT)
            TRACE(TRC_ERROR, "%P:%S:PppFramerIndicateChar unexpected magic_lo:%x\n", PORT_NAME(Framer->Dev), Byte);
        Framer->State = FRAMER_RESYNC;
        return;
    }
    Framer->State = FRAMER_HEADER;
    Framer->OutPtr = Framer->Header;
    *Framer->OutPtr++ = Byte;
    Framer->Remaining = PPP_HEADER_SIZE - 1;
}

static VOID FramerHeaderDone(PPP_FRAMER* Framer)
{
    const UCHAR* Header = Framer->Header;
    const ULONG Word = (ULONG)Header[2] << 8 | Header[3];
    const ULONG Sequence = Word >> SEQUENCE_SHIFT;
    const ULONG Length = Word & LENGTH_MASK;

    if (Header[0] != MAGIC_LO || Header[1] != MAGIC_HI) {
        TRACE(TRC_ERROR, "%P:%S:PppFramerIndicateChar invalid Magic:%x\n", PORT_NAME(Framer->Dev), (ULONG)Header[1] << 8 | Header[0]);
        Framer->State = FRAMER_RESYNC;
        return;
    }
    if (Sequence != (Framer->ExpectedSeq & SEQUENCE_MASK)) {
        TRACE(TRC_ERROR, "%P:%S:PppFramerIndicateChar invalid Sequence: got:%d, exp:%d\n", PORT_NAME(Framer->Dev), Sequence,
              Framer->ExpectedSeq & SEQUENCE_MASK);
        Framer->ExpectedSeq = Sequence + 1;
        Framer->State = FRAMER_RESYNC;
        return;
    }
    Framer->ExpectedSeq++;
    // A frame without bytes gives the host nothing; one shorter than its own header is nonsense.
    if (Length <= PPP_HEADER_SIZE) {
        Framer->State = Length == PPP_HEADER_SIZE ? FRAMER_HUNT : FRAMER_RESYNC;
        return;
    }
    Framer->OutPtr = Framer->OutBuf;
    Framer->Remaining = Length - PPP_HEADER_SIZE;
    *Framer->OutPtr++ = PPP_FLAG;
    Framer->Fcs = FCS_INIT;
    Framer->GatheredCount = 0;
    Framer->State = FRAMER_PAYLOAD;
}

static VOID FramerFrameDone(PPP_FRAMER* Framer) _Requires_lock_held_(DeviceLock)
{
    Framer->Fcs ^= 0xFFFF;
    PppFramerPutChar(Framer, (UCHAR)Framer->Fcs);
    PppFramerPutChar(Framer, (UCHAR)(Framer->Fcs >> 8));
    *Framer->OutPtr++ = PPP_FLAG;
    Framer->Remaining = (ULONG)(Framer->OutPtr - Framer->OutBuf);
    Framer->OutPtr = Framer->OutBuf;
    Framer->State = FRAMER_DELIVER;
    if (TRACE_ON(TRC_PPP)) {
        TracePrint("%P:%S:PppFramerIndicateChar: frame length:%d\n", PORT_NAME(Framer->Dev), Framer->Remaining);
        TraceDumpLimited(Framer->OutBuf, Framer->Remaining);
    }
    PppFramerDeliver(Framer);
}

static VOID FramerAdd(PPP_FRAMER* Framer, const UCHAR* Data, ULONG Length) _Requires_lock_held_(DeviceLock)
{
    FramerPutBytes(Framer, Data, Length);
    Framer->Fcs = CalcFcs16(Framer->Fcs, Data, Length);
    Framer->Remaining -= Length;
    if (Framer->Remaining == 0)
        FramerFrameDone(Framer);
}

static VOID FramerAddGathered(PPP_FRAMER* Framer) _Requires_lock_held_(DeviceLock)
{
    const ULONG Length = Framer->GatheredCount;

    Framer->GatheredCount = 0;
    FramerAdd(Framer, Framer->Gathered, Length);
}

// Bytes of the frame that Data still brings, all consumed.
static ULONG FramerPayload(PPP_FRAMER* Framer, const UCHAR* Data, ULONG Length) _Requires_lock_held_(DeviceLock)
{
    if (Framer->GatheredCount > 0)
        FramerAddGathered(Framer);
    const ULONG Taken = Framer->Remaining < Length ? Framer->Remaining : Length;

    FramerAdd(Framer, Data, Taken);
    return Taken;
}

ULONG PppFramerIndicateChar(PPP_FRAMER* Framer, UCHAR Byte)
{
    if (Framer->State == FRAMER_PAYLOAD) {
        // Converted together: by itself each byte would wait for the one before it.
        Framer->Gathered[Framer->GatheredCount++] = Byte;
        if (Framer->GatheredCount == sizeof(Framer->Gathered) || Framer->GatheredCount == Framer->Remaining)
            FramerAddGathered(Framer);
        return 1;
    }
    switch (Framer->State) {
    case FRAMER_DELIVER:
        if (!PppFramerDeliver(Framer))
            return 0;
        [[fallthrough]];
    case FRAMER_HUNT:
    case FRAMER_RESYNC:
        FramerHunt(Framer, Byte);
        break;
    case FRAMER_HEADER:
        *Framer->OutPtr++ = Byte;
        if (--Framer->Remaining == 0)
            FramerHeaderDone(Framer);
        break;
    default:
        KASSERT(0);
    }
    return 1;
}

ULONG PppFramerIndicateData(PPP_FRAMER* Framer, UCHAR* Data, ULONG Length)
{
    ULONG Consumed = 0;

    while (Consumed < Length) {
        const ULONG Taken = Framer->State == FRAMER_PAYLOAD ? FramerPayload(Framer, Data + Consumed, Length - Consumed)
                                                            : PppFramerIndicateChar(Framer, Data[Consumed]);

        if (Taken == 0)
            break;
        Consumed += Taken;
    }
    return Consumed;
}

// ---- De-framer

VOID PppDeFramerInit(PPP_DEFRAMER* DeFramer, DEVICE* Dev)
{
    DeFramer->Dev = Dev;
    DeFramer->Sequence = 0;
    DeFramer->State = DEFRAMER_IN_FRAME;
    DeFramer->EndPtr = DeFramer->Frame + sizeof(DeFramer->Frame);
    DeFramer->Count = 0;
    PppDeFramerStartFrame(DeFramer);
}

VOID PppDeFramerStartFrame(PPP_DEFRAMER* DeFramer)
{
    const ULONG Word = (DeFramer->Sequence & SEQUENCE_MASK) << SEQUENCE_SHIFT;

    DeFramer->WritePtr = DeFramer->Frame + PPP_HEADER_SIZE;
    DeFramer->Frame[0] = MAGIC_LO;
    DeFramer->Frame[1] = MAGIC_HI;
    DeFramer->Frame[2] = (UCHAR)(Word >> 8);
    DeFramer->Frame[3] = (UCHAR)Word;
    DeFramer->Sequence++;
    KASSERT(DeFramer->Count == 0);
    DeFramer->Count = 0;
}

// The flag that ends the hunt starts a frame once more, so the number of the discarded one is never sent.
static VOID DeFramerDiscard(PPP_DEFRAMER* DeFramer)
{
    TRACE(TRC_ERROR, "%P:%S:PppDeFramerSendChar PPP Frame to long, discard it\n", PORT_NAME(DeFramer->Dev));
    DeFramer->Sequence--;
    PppDeFramerStartFrame(DeFramer);
    DeFramer->State = DEFRAMER_HUNT;
}

static VOID DeFramerFoundFlag(PPP_DEFRAMER* DeFramer)
{
    PppDeFramerStartFrame(DeFramer);
    DeFramer->State = DEFRAMER_IN_FRAME;
}

// DeFramerStore counts with them.
static_assert(DEFRAMER_IN_FRAME == 1 && DEFRAMER_ESCAPE == 2);

// A byte of the frame, or the escape before one; without a branch, as which of them it is cannot be foreseen.
static inline VOID DeFramerStore(PPP_DEFRAMER* DeFramer, UCHAR Byte)
{
    const ULONG State = DeFramer->State;
    const ULONG Escaped = State / DEFRAMER_ESCAPE;
    const ULONG Skipped = State & (Byte == PPP_ESCAPE);

    *DeFramer->WritePtr = (UCHAR)(Byte ^ Escaped * PPP_ESCAPE_XOR);
    DeFramer->WritePtr += 1 - Skipped;
    DeFramer->Count += 1 - Skipped;
    DeFramer->State = DEFRAMER_IN_FRAME + Skipped;
    if (DeFramer->WritePtr == DeFramer->EndPtr)
        DeFramerDiscard(DeFramer);
}

BOOLEAN PppDeFramerSubmitData(PPP_DEFRAMER* DeFramer)
{
    DEVICE* Dev = DeFramer->Dev;
    UCHAR* Buffer;
    ULONG Capacity;
    USB_PACKET* Packet;

    if (!GetWriteBuffer(Dev, &Buffer, &Capacity, &Packet))
        return FALSE;
    if (!SndReady(Dev)) {
        ReturnWriteBuffer(Dev, Buffer, Packet);
        return FALSE;
    }
    const ULONG Length = Capacity < DeFramer->Count ? Capacity : DeFramer->Count;
    RtlCopyMemory(Buffer, DeFramer->WritePtr, Length);
    if (SubmitWriteBuffer(Dev, Buffer, Length, Packet) == STATUS_UNSUCCESSFUL)
        return FALSE;
    DeFramer->WritePtr += Length;
    DeFramer->Count -= Length;
    if (DeFramer->Count == 0)
        return TRUE;
    TRACE(TRC_ERROR, "%P:%S:Incomplete write operation Count:%d, LengthBuffer:%d\n", PORT_NAME(Dev), DeFramer->Count, Capacity);
    return FALSE;
}

static VOID DeFramerEndFrame(PPP_DEFRAMER* DeFramer) _Requires_lock_held_(DeviceLock)
{
    const ULONG Length = DeFramer->Count + PPP_HEADER_SIZE;

    TRACE(TRC_PPP, "%P:%S:PppDeFramerSendChar: DeFramer->Count: %d\n", PORT_NAME(DeFramer->Dev), DeFramer->Count);
    if (DeFramer->Count > PPP_DEVICE_FRAME_LIMIT) {
        // Its length could not be stated. The flag that ended it begins the next frame.
        DeFramer->Count = 0;
        DeFramerDiscard(DeFramer);
        DeFramerFoundFlag(DeFramer);
        return;
    }
    DeFramer->Frame[2] |= (UCHAR)(Length >> 8);
    DeFramer->Frame[3] |= (UCHAR)Length;
    DeFramer->Count = Length;
    DeFramer->WritePtr = DeFramer->Frame;
    if (PppDeFramerSubmitData(DeFramer))
        PppDeFramerStartFrame(DeFramer);
    else
        DeFramer->State = DEFRAMER_SEND;
}

// A flag, or a byte that meets no open frame. Out of the way of the many others.
[[gnu::noinline]] static BOOLEAN DeFramerOtherChar(PPP_DEFRAMER* DeFramer, UCHAR Byte) _Requires_lock_held_(DeviceLock)
{
    switch (DeFramer->State) {
    case DEFRAMER_HUNT:
        if (Byte == PPP_FLAG)
            DeFramerFoundFlag(DeFramer);
        return TRUE;
    case DEFRAMER_SEND:
        if (!PppDeFramerSubmitData(DeFramer))
            return FALSE;
        PppDeFramerStartFrame(DeFramer);
        DeFramer->State = DEFRAMER_IN_FRAME;
        if (Byte != PPP_FLAG)
            DeFramerStore(DeFramer, Byte);
        return TRUE;
    case DEFRAMER_IN_FRAME:
        if (DeFramer->Count > 0)
            DeFramerEndFrame(DeFramer);
        return TRUE;
    default:
        KASSERT(0);
        return TRUE;
    }
}

BOOLEAN PppDeFramerSendChar(PPP_DEFRAMER* DeFramer, UCHAR Byte)
{
    const ULONG State = DeFramer->State;

    if (State - DEFRAMER_IN_FRAME > 1 || (Byte | (State & DEFRAMER_ESCAPE) << 8) == PPP_FLAG)
        return DeFramerOtherChar(DeFramer, Byte);
    DeFramerStore(DeFramer, Byte);
    return TRUE;
}

// Copies bytes to *Out up to a flag or End, without a branch on what is escaped. *Escaped: the last one was an escape.
static inline const UCHAR* CopyUnescaped(UCHAR** Out, const UCHAR* In, const UCHAR* End, ULONG* Escaped)
{
    UCHAR* Place = *Out;
    ULONG After = *Escaped;

    // The flag first: it is rare, where the escapes may not be.
    for (; In < End && (*In != PPP_FLAG || After); In++) {
        *Place = (UCHAR)(*In ^ After * PPP_ESCAPE_XOR);
        After = !After & (*In == PPP_ESCAPE);
        Place += !After;
    }
    *Out = Place;
    *Escaped = After;
    return In;
}

// The byte that would fill the frame is left to PppDeFramerSendChar.
static ULONG DeFramerStoreBytes(PPP_DEFRAMER* DeFramer, const UCHAR* Data, ULONG Length)
{
    const ULONG Room = (ULONG)(DeFramer->EndPtr - DeFramer->WritePtr) - 1;
    const UCHAR* In = Data;
    const UCHAR* End = Data + (Length < Room ? Length : Room);
    UCHAR* Out = DeFramer->WritePtr;
    ULONG Escaped = DeFramer->State == DEFRAMER_ESCAPE;

    while (In < End) {
        if (!Escaped && (SIZE_T)(End - In) >= sizeof(SCAN_WORD) && CopyPlainWord(Out, In)) {
            Out += sizeof(SCAN_WORD);
            In += sizeof(SCAN_WORD);
            continue;
        }
        const UCHAR* Stop = (SIZE_T)(End - In) >= NEAR_BYTES ? In + NEAR_BYTES : End;

        In = CopyUnescaped(&Out, In, Stop, &Escaped);
        if (In < Stop)
            break;
    }
    DeFramer->Count += (ULONG)(Out - DeFramer->WritePtr);
    DeFramer->WritePtr = Out;
    DeFramer->State = Escaped ? DEFRAMER_ESCAPE : DEFRAMER_IN_FRAME;
    return (ULONG)(In - Data);
}

ULONG PppDeFramerSendData(PPP_DEFRAMER* DeFramer, const UCHAR* Data, ULONG Length)
{
    if (DeFramer->State == DEFRAMER_IN_FRAME || DeFramer->State == DEFRAMER_ESCAPE)
        return DeFramerStoreBytes(DeFramer, Data, Length);
    return 0;
}

VOID PppDeFramerSubmitBuffer(PPP_DEFRAMER* DeFramer)
{
    if (DeFramer->State != DEFRAMER_SEND || !PppDeFramerSubmitData(DeFramer))
        return;
    TRACE(TRC_PPP, "%P:%S:PppDeFramerSubmitBuffer PppDeFramerSubmitData true\n", PORT_NAME(DeFramer->Dev));
    PppDeFramerStartFrame(DeFramer);
    DeFramer->State = DEFRAMER_IN_FRAME;
}
