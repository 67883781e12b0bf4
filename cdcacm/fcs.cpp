// FCS-16, sixteen bytes a step.
//
// Slice[0] is the usual table of a byte's share. Slice[N] is the share of a byte that N more bytes follow, so the shares of
// sixteen bytes are looked up without waiting for each other; the FCS so far lies over the first two.
#include "fcs.h"

enum : ULONG { FCS_SLICES = 16 };

struct FCS_TABLE {
    USHORT Slice[FCS_SLICES][256];
};

static constexpr FCS_TABLE MakeFcsTable()
{
    FCS_TABLE Table = {};

    for (ULONG Byte = 0; Byte < 256; Byte++) {
        ULONG Fcs = Byte;

        for (ULONG Bit = 0; Bit < 8; Bit++)
            Fcs = Fcs & 1 ? Fcs >> 1 ^ 0x8408 : Fcs >> 1;
        Table.Slice[0][Byte] = (USHORT)Fcs;
    }
    for (ULONG N = 1; N < FCS_SLICES; N++) {
        for (ULONG Byte = 0; Byte < 256; Byte++) {
            const ULONG Before = Table.Slice[N - 1][Byte];

            Table.Slice[N][Byte] = (USHORT)(Before >> 8 ^ Table.Slice[0][Before & 0xFF]);
        }
    }
    return Table;
}

static constexpr FCS_TABLE FcsTable = MakeFcsTable();
static_assert(FcsTable.Slice[0][0] == 0 && FcsTable.Slice[0][1] == 0x1189 && FcsTable.Slice[0][255] == 0x0F78);

USHORT CalcFcs16(USHORT Fcs, const UCHAR* Bytes, ULONG Length)
{
    const auto& Slice = FcsTable.Slice;

    for (; Length >= FCS_SLICES; Length -= FCS_SLICES, Bytes += FCS_SLICES) {
        const ULONG Later = Slice[13][Bytes[2]] ^ Slice[12][Bytes[3]] ^ Slice[11][Bytes[4]] ^ Slice[10][Bytes[5]] ^
                            Slice[9][Bytes[6]] ^ Slice[8][Bytes[7]] ^ Slice[7][Bytes[8]] ^ Slice[6][Bytes[9]] ^
                            Slice[5][Bytes[10]] ^ Slice[4][Bytes[11]] ^ Slice[3][Bytes[12]] ^ Slice[2][Bytes[13]] ^
                            Slice[1][Bytes[14]] ^ Slice[0][Bytes[15]];

        Fcs = (USHORT)(Later ^ Slice[15][(Fcs ^ Bytes[0]) & 0xFF] ^ Slice[14][Fcs >> 8 ^ Bytes[1]]);
    }
    for (; Length > 0; Length--)
        Fcs = (USHORT)(Fcs >> 8 ^ Slice[0][(Fcs ^ *Bytes++) & 0xFF]);
    return Fcs;
}
