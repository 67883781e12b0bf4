// The converters of framing mode: RFC 1662 framing towards the host, the device's own frames towards
// the device. Both run under Lock.
#pragma once

#include "fcs.h"
#include "wdmkrnl.h"

enum : ULONG {
    PPP_FLAG = 0x7E,
    PPP_ESCAPE = 0x7D,
    PPP_ESCAPE_XOR = 0x20,
    PPP_FRAMER_OUT_SIZE = 4108,      // flag, escaped frame and FCS, flag
    PPP_HEADER_SIZE = 4,
    PPP_DEFRAMER_LIMIT = 4102,       // frame bytes stored at most
    PPP_DEVICE_FRAME_LIMIT = 2043,   // frame bytes that the 11-bit length can state
};

// DEVICE.PppMode.
enum : ULONG { BYTE_MODE, FRAMING_REQUESTED, FRAMING, FRAMING_STOP_REQUESTED };

enum : ULONG { FRAMER_HUNT, FRAMER_HEADER, FRAMER_PAYLOAD, FRAMER_RESYNC, FRAMER_DELIVER };
enum : ULONG { DEFRAMER_HUNT, DEFRAMER_IN_FRAME, DEFRAMER_ESCAPE, DEFRAMER_SEND };

// What stands for one byte towards the host.
struct PPP_WRITTEN {
    UCHAR Bytes[2];
    USHORT Count;
};

struct PPP_FRAMER {
    DEVICE* Dev;
    ULONG State;          // FRAMER_*
    ULONG Remaining;      // bytes still expected, or still to deliver
    ULONG ExpectedSeq;    // compared on its low 5 bits
    UCHAR OutBuf[PPP_FRAMER_OUT_SIZE];
    UCHAR* OutPtr;
    UCHAR Header[PPP_HEADER_SIZE];
    USHORT Fcs;
    UCHAR EscapeMap[256]; // 1: escaped towards the host
    UCHAR MoreEscapes;    // private, as what follows: the map holds more than flag and escape
    PPP_WRITTEN Written[256];   // EscapeMap, worked out
    UCHAR GatheredCount;
    UCHAR Gathered[64];   // payload that came byte by byte; not in OutBuf, Fcs and Remaining yet
};

struct PPP_DEFRAMER {
    DEVICE* Dev;
    ULONG State;          // DEFRAMER_*
    UCHAR Frame[PPP_HEADER_SIZE + PPP_DEFRAMER_LIMIT];
    UCHAR* WritePtr;
    UCHAR* EndPtr;
    ULONG Count;          // frame bytes stored; while sending, bytes to send
    ULONG Sequence;       // its low 5 bits go into the header
};

VOID PppFramerInit(PPP_FRAMER* Framer, DEVICE* Dev);
VOID PppFramerSetSpecialChars(PPP_FRAMER* Framer, const UCHAR* Bytes, ULONG Length);
ULONG PppFramerIndicateData(PPP_FRAMER* Framer, UCHAR* Data, ULONG Length) _Requires_lock_held_(DeviceLock);   // bytes consumed
ULONG PppFramerIndicateChar(PPP_FRAMER* Framer, UCHAR Byte) _Requires_lock_held_(DeviceLock);                  // 1 consumed
VOID PppFramerPutChar(PPP_FRAMER* Framer, UCHAR Byte);
// Offer what a full receive ring left of a finished frame; TRUE when nothing is left.
BOOLEAN PppFramerDeliver(PPP_FRAMER* Framer) _Requires_lock_held_(DeviceLock);

VOID PppDeFramerInit(PPP_DEFRAMER* DeFramer, DEVICE* Dev);
VOID PppDeFramerStartFrame(PPP_DEFRAMER* DeFramer);
BOOLEAN PppDeFramerSendChar(PPP_DEFRAMER* DeFramer, UCHAR Byte) _Requires_lock_held_(DeviceLock);
// The same for the first bytes of Data as far as they only add to the frame: up to the next flag, and not the byte that
// makes the frame too long. Bytes consumed, which may be 0.
ULONG PppDeFramerSendData(PPP_DEFRAMER* DeFramer, const UCHAR* Data, ULONG Length) _Requires_lock_held_(DeviceLock);
VOID PppDeFramerSubmitBuffer(PPP_DEFRAMER* DeFramer) _Requires_lock_held_(DeviceLock);
BOOLEAN PppDeFramerSubmitData(PPP_DEFRAMER* DeFramer) _Requires_lock_held_(DeviceLock);
