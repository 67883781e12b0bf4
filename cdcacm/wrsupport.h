// What the serial engine asks of the send path, and the request tick's start and stop.
#pragma once

#include "usbpckt.h"

// A free bulk OUT packet's buffer and its capacity, or FALSE: sending is not allowed now or no packet is free.
BOOLEAN GetWriteBuffer(DEVICE* Dev, UCHAR** Buffer, ULONG* MaxLength, USB_PACKET** Packet) _Requires_lock_held_(DeviceLock);
VOID ReturnWriteBuffer(DEVICE* Dev, UCHAR* Buffer, USB_PACKET* Packet) _Requires_lock_held_(DeviceLock);
// Byte mode: without Lock. Framing: with Lock. STATUS_UNSUCCESSFUL: refused, the packet is home and nothing was sent.
NTSTATUS SubmitWriteBuffer(DEVICE* Dev, UCHAR* Buffer, ULONG Length, USB_PACKET* Packet) _IRQL_requires_max_(DISPATCH_LEVEL);

VOID StartWrTimer(DEVICE* Dev) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(DISPATCH_LEVEL);
// Stops the request tick and waits at most a second until no tick runs.
VOID PwrSetDevicePowerState(DEVICE* Dev) _Requires_lock_not_held_(DeviceLock) _IRQL_requires_max_(PASSIVE_LEVEL);
