// FCS-16, the frame check sequence of PPP (RFC 1662): x^16 + x^12 + x^5 + 1, least significant bit first.
#pragma once

#include <ntplatform.h>

enum : ULONG { FCS_INIT = 0xFFFF, FCS_SIZE = 2 };

// The FCS over what Fcs covers and Length more bytes. Begins with FCS_INIT; its complement goes on the line, low byte first.
// A leaf unit: any IRQL.
USHORT CalcFcs16(USHORT Fcs, const UCHAR* Bytes, ULONG Length);
