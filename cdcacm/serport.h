// The serial engine of one COM port: two byte rings between the entry points and the USB paths, two
// request queues and the settings that applications steer it with.
#pragma once

#include "squeue.h"

struct PORT_OBJ;

// A byte ring. Full and Empty are flags of their own: a ring whose storage is gone has neither.
struct CIRC_BUF {
    UCHAR* Storage;    // Size + 1 bytes, tag "crc0"; null if the allocation failed
    ULONG Size;        // capacity in bytes
    ULONG Count;       // bytes held
    UCHAR* Start;
    UCHAR* End;        // one past the storage
    UCHAR* ReadPtr;
    UCHAR* WritePtr;
    ULONG Full;
    ULONG Empty;
};

// Set by the serial controls; kept from one opening to the next. All under Lock.
struct SERIAL_SETTINGS {
    ULONG BaudRate;
    ULONG ReadIntervalTimeout;            // ms
    ULONG ReadTotalTimeoutConstant;       // ms
    ULONG ReadTotalTimeoutMultiplier;     // ms per byte
    ULONG WriteTotalTimeoutConstant;      // ms
    ULONG WriteTotalTimeoutMultiplier;    // ms per byte
    ULONG ControlHandShake;
    ULONG FlowReplace;
    ULONG XoffLimit;
    ULONG XonLimit;
    ULONG InQueueSize;                    // bytes, as asked for
    ULONG OutQueueSize;                   // bytes, as asked for
    UCHAR Parity;
    UCHAR StopBits;
    UCHAR WordLength;
    UCHAR EofChar;                        // the six characters lie as in SERIAL_CHARS; 0 is off
    UCHAR ErrorChar;
    UCHAR BreakChar;
    UCHAR EventChar;
    UCHAR XonChar;
    UCHAR XoffChar;
    ULONG WaitMask;                       // SERIAL_EV_*
    ULONG ReceivedCount;                  // bytes of completed reads
    ULONG TransmittedCount;               // bytes of completed writes
    ULONG FrameErrorCount;
    ULONG SerialOverrunErrorCount;
    ULONG BufferOverrunErrorCount;
    ULONG ParityErrorCount;
};
static_assert(FIELD_OFFSET(SERIAL_SETTINGS, XoffChar) - FIELD_OFFSET(SERIAL_SETTINGS, EofChar) == 5);

// One tracked allocation, tag "spr0". All under the Lock of its DEVICE.
struct SER_PORT {
    DEVICE* WrContext;
    PORT_OBJ* Port;
    SQUEUE SndQueue;
    SQUEUE RcvQueue;
    CIRC_BUF CircSendBuf;
    CIRC_BUF CircRcvBuf;
    SERIAL_SETTINGS Settings;
    ULONG SendStopped;     // 1 while sending out of the send ring is held
    UCHAR PendingChar;     // framing mode: a byte the de-framer has not accepted yet
    UCHAR CharPending;
    ULONG Tag;             // "SPOR"
    ULONG RingGeneration;  // private: moves when the send ring is reset or replaced
};

// Byte rings: leaf units. FALSE leaves every field zero.
BOOLEAN CircBufInit(CIRC_BUF* Ring, ULONG Size);
VOID CircBufFree(CIRC_BUF* Ring);
VOID CircBufReset(CIRC_BUF* Ring);
ULONG CircBufWrite(CIRC_BUF* Ring, const UCHAR* Source, ULONG Length);
ULONG CircBufRead(CIRC_BUF* Ring, UCHAR* Target, ULONG Length);
// The bytes to be read next that lie in one piece, and the end of reading Length of them in place.
ULONG CircBufPeek(const CIRC_BUF* Ring, const UCHAR** Bytes);
VOID CircBufSkip(CIRC_BUF* Ring, ULONG Length);
// Puts bytes just read back in front of ReadPtr. FALSE, nothing changed, when they no longer fit.
BOOLEAN CircBufUnread(CIRC_BUF* Ring, const UCHAR* Source, ULONG Length);

// Creation and deletion at PASSIVE_LEVEL; *NewPort is null on failure.
NTSTATUS AddPort(SER_PORT** NewPort, DEVICE* Dev, ULONG RcvSize, ULONG SndSize, ULONG TickMs, PORT_OBJ* Port);
VOID SerPortInit(SER_PORT* SerPort, ULONG TickMs);
VOID SerPortSetDefaults(SER_PORT* SerPort);
VOID DeleteSerPort(SER_PORT* SerPort);   // takes Lock to end what is queued

// Status of the queueing; the request may be completed, and gone, on return. Takes Lock.
NTSTATUS SendRequest(SER_PORT* SerPort, SER_REQUEST* Request) _IRQL_requires_max_(DISPATCH_LEVEL) _Requires_lock_not_held_(DeviceLock);
// Moves bytes from the send ring to the send path until either gives out. Takes Lock.
VOID SerPortSend(SER_PORT* SerPort, BOOLEAN Force) _IRQL_requires_max_(DISPATCH_LEVEL) _Requires_lock_not_held_(DeviceLock);
VOID SerPortStopSend(SER_PORT* SerPort, ULONG Stop) _IRQL_requires_max_(DISPATCH_LEVEL) _Requires_lock_not_held_(DeviceLock);
// Bytes the receive ring took; the caller keeps the rest and offers it again.
ULONG IndicateReadBuffer(SER_PORT* SerPort, UCHAR* Data, ULONG Length) _Requires_lock_held_(DeviceLock);
VOID SetRcvBufferSize(SER_PORT* SerPort, ULONG Size) _Requires_lock_held_(DeviceLock);
VOID SetSendBufferSize(SER_PORT* SerPort, ULONG Size) _Requires_lock_held_(DeviceLock);
// Empties the send ring: the bytes of a chunk that is just being handed over are not put back.
VOID ResetSendRing(SER_PORT* SerPort) _Requires_lock_held_(DeviceLock);
