// Trace output. One buffer, one lock: a line is formatted and handed to the debugger's output as a
// whole while the trace lock is held, so lines of several processors never mix. Nothing in here may
// trace, assert or allocate while it holds that lock.
#include "trace.h"

ULONG TraceMask = TRACE_MASK_UNREAD;

static KSPIN_LOCK TraceLock;
static CHAR TraceBuffer[TRACE_BUFFER_SIZE] _Guarded_by_(TraceLock);

enum : ULONG {
    DUMP_LINE_BYTES = 16,
    DUMP_HEX_COLUMN = 6,
    DUMP_TEXT_COLUMN = 59,
    DUMP_LINE_SIZE = 80,
};
static_assert(DUMP_TEXT_COLUMN + DUMP_LINE_BYTES + 2 <= DUMP_LINE_SIZE && (ULONG)DUMP_LINE_SIZE <= (ULONG)TRACE_BUFFER_SIZE);

// Where the next character goes. Once Out stands on the last byte it stays there.
struct WRITER {
    CHAR* Out;
    CHAR* End;   // one past the buffer
};

// What stood between the percent sign and the conversion character.
struct DIRECTIVE {
    ULONG Flags;
    LONG Width;       // -1: none
    LONG Precision;   // -1: none
    CHAR Size;        // 'h', 'l', 'L' or 0
};

struct ARGUMENTS {
    va_list List;
};

static const CHAR UpperDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
static const CHAR LowerDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";

static BOOLEAN IsFullOutput(const WRITER* Writer) { return Writer->Out >= Writer->End - 1; }

static VOID Put(WRITER* Writer, CHAR Character)
{
    *Writer->Out = Character;
    if (!IsFullOutput(Writer))
        ++Writer->Out;
}

static VOID Pad(WRITER* Writer, LONG Count, CHAR Character)
{
    for (; Count > 0 && !IsFullOutput(Writer); --Count)
        Put(Writer, Character);
}

VOID TraceInit() { KeInitializeSpinLock(&TraceLock); }

VOID TraceSetMask(ULONG Mask) { __atomic_store_n(&TraceMask, Mask, __ATOMIC_RELAXED); }

VOID TraceOut(const CHAR* Text) { DbgPrint("%s", Text); }

VOID TracePrint(const CHAR* Format, ...)
{
    va_list Arguments;
    KIRQL OldIrql;

    va_start(Arguments, Format);
    KeAcquireSpinLock(&TraceLock, &OldIrql);
    TraceFormat(TraceBuffer, TraceBuffer + TRACE_BUFFER_SIZE, Format, Arguments);
    TraceOut(TraceBuffer);
    KeReleaseSpinLock(&TraceLock, OldIrql);
    va_end(Arguments);
}

// Lays out one line of the dump; Count is 1 to 16.
static VOID FormatDumpLine(CHAR* Line, const UCHAR* Bytes, ULONG Offset, ULONG Count)
{
    RtlFillMemory(Line, DUMP_LINE_SIZE, ' ');
    for (ULONG Digit = 0; Digit < 4; ++Digit)
        Line[Digit] = UpperDigits[(Offset >> (12 - 4 * Digit)) & 0xF];
    Line[4] = ':';
    for (ULONG Index = 0; Index < Count; ++Index) {
        CHAR* Hex = Line + DUMP_HEX_COLUMN + 3 * Index + Index / 4;
        Hex[0] = UpperDigits[Bytes[Index] >> 4];
        Hex[1] = UpperDigits[Bytes[Index] & 0xF];
        Line[DUMP_TEXT_COLUMN + Index] = Bytes[Index] >= 32 && Bytes[Index] <= 127 ? (CHAR)Bytes[Index] : '.';
    }
    Line[DUMP_TEXT_COLUMN + Count] = '\n';
    Line[DUMP_TEXT_COLUMN + Count + 1] = '\0';
}

VOID TraceDump(const VOID* Data, ULONG Length)
{
    const UCHAR* Bytes = (const UCHAR*)Data;
    KIRQL OldIrql;

    KeAcquireSpinLock(&TraceLock, &OldIrql);
    if (Length == 0)
        TraceOut("<<NULL>>");
    ULONG Offset = 0;
    while (Offset < Length) {
        ULONG Count = Length - Offset < DUMP_LINE_BYTES ? Length - Offset : (ULONG)DUMP_LINE_BYTES;
        FormatDumpLine(TraceBuffer, Bytes + Offset, Offset, Count);
        TraceOut(TraceBuffer);
        Offset += Count;
    }
    KeReleaseSpinLock(&TraceLock, OldIrql);
}

VOID TraceDumpLimited(const VOID* Data, ULONG Length)
{
    TraceDump(Data, Length < TRACE_DUMP_LIMIT ? Length : (ULONG)TRACE_DUMP_LIMIT);
    if (Length > TRACE_DUMP_LIMIT)
        TracePrint("...\n");
}

VOID TraceSetName(WCHAR* Name, ULONG Capacity, const WCHAR* Text)
{
    ULONG Index = 0;
    KIRQL OldIrql;

    KeAcquireSpinLock(&TraceLock, &OldIrql);
    while (Index < Capacity - 1 && Text[Index] != 0) {
        Name[Index] = Text[Index];
        ++Index;
    }
    Name[Index] = 0;
    KeReleaseSpinLock(&TraceLock, OldIrql);
}

CHAR* TraceNumber(CHAR* Output, CHAR* OutputEnd, ULONGLONG Value, ULONG Base, LONG Width, LONG Precision, ULONG Flags)
{
    WRITER Writer = {Output, OutputEnd};
    const CHAR* Table = Flags & TRN_UPPER ? UpperDigits : LowerDigits;
    CHAR Digits[64];
    LONG Count = 0;
    CHAR Sign = 0;
    LONG Prefix = 0;

    if (Base < 2 || Base > 36)
        return Output;
    if (Flags & TRN_LEFT)
        Flags &= ~(ULONG)TRN_ZERO;
    if (Flags & TRN_SIGNED) {
        if ((LONGLONG)Value < 0) {
            Sign = '-';
            Value = 0 - Value;
        } else if (Flags & TRN_PLUS) {
            Sign = '+';
        } else if (Flags & TRN_SPACE) {
            Sign = ' ';
        }
    }
    if (Flags & TRN_ALTERNATE)
        Prefix = Base == 16 ? 2 : Base == 8 ? 1 : 0;
    do {
        Digits[Count++] = Table[Value % Base];
        Value /= Base;
    } while (Value != 0);
    if (Precision < Count)
        Precision = Count;

    LONG Padding = Width - Precision - Prefix - (Sign ? 1 : 0);
    if (!(Flags & (TRN_LEFT | TRN_ZERO)))
        Pad(&Writer, Padding, ' ');
    if (Sign)
        Put(&Writer, Sign);
    if (Prefix > 0)
        Put(&Writer, '0');
    if (Prefix > 1)
        Put(&Writer, Flags & TRN_UPPER ? 'X' : 'x');
    if (Flags & TRN_ZERO)
        Pad(&Writer, Padding, '0');
    Pad(&Writer, Precision - Count, '0');
    while (Count > 0)
        Put(&Writer, Digits[--Count]);
    if (Flags & TRN_LEFT)
        Pad(&Writer, Padding, ' ');
    return Writer.Out;
}

// A terminated string of bytes or of 16-bit units, each by its low byte. Reads no further than the
// output can take.
template <class UNIT> static VOID PutText(WRITER* Writer, const UNIT* Text, const DIRECTIVE* Directive)
{
    LONG Limit = (LONG)(Writer->End - Writer->Out);
    LONG Length = 0;

    if (Limit < Directive->Width)
        Limit = Directive->Width;
    if (Directive->Precision >= 0 && Limit > Directive->Precision)
        Limit = Directive->Precision;
    while (Length < Limit && Text[Length] != 0)
        ++Length;

    if (!(Directive->Flags & TRN_LEFT))
        Pad(Writer, Directive->Width - Length, ' ');
    for (LONG Index = 0; Index < Length && !IsFullOutput(Writer); ++Index)
        Put(Writer, (CHAR)Text[Index]);
    if (Directive->Flags & TRN_LEFT)
        Pad(Writer, Directive->Width - Length, ' ');
}

static VOID PutCounted(WRITER* Writer, const UNICODE_STRING* Text)
{
    ULONG Units = Text->Buffer != NULL ? Text->Length / sizeof(WCHAR) : 0;

    for (ULONG Index = 0; Index < Units && !IsFullOutput(Writer); ++Index)
        Put(Writer, (CHAR)Text->Buffer[Index]);
}

// Digits at *Format, which is moved past them; cut where no output could follow.
static LONG ReadNumber(const CHAR** Format)
{
    LONG Value = 0;

    for (; **Format >= '0' && **Format <= '9'; ++*Format) {
        if (Value < (LONG)TRACE_BUFFER_SIZE)
            Value = Value * 10 + (**Format - '0');
    }
    return Value;
}

static ULONG FlagOf(CHAR Character)
{
    switch (Character) {
    case '-': return TRN_LEFT;
    case '+': return TRN_PLUS;
    case ' ': return TRN_SPACE;
    case '#': return TRN_ALTERNATE;
    case '0': return TRN_ZERO;
    default: return 0;
    }
}

// Flags, width, precision and size; returns the position of the conversion character.
static const CHAR* ReadDirective(const CHAR* Format, ARGUMENTS* Arguments, DIRECTIVE* Directive)
{
    *Directive = {0, -1, -1, 0};
    for (ULONG Flag; (Flag = FlagOf(*Format)) != 0; ++Format)
        Directive->Flags |= Flag;
    if (*Format == '*') {
        ++Format;
        Directive->Width = va_arg(Arguments->List, LONG);
        if (Directive->Width < 0) {
            Directive->Flags |= TRN_LEFT;
            Directive->Width = Directive->Width < -MAXLONG ? MAXLONG : -Directive->Width;
        }
    } else if (*Format >= '0' && *Format <= '9') {
        Directive->Width = ReadNumber(&Format);
    }
    if (*Format == '.') {
        ++Format;
        if (*Format == '*') {
            ++Format;
            Directive->Precision = va_arg(Arguments->List, LONG);
            if (Directive->Precision < 0)
                Directive->Precision = 0;
        } else {
            Directive->Precision = ReadNumber(&Format);
        }
    }
    if (*Format == 'h' || *Format == 'l' || *Format == 'L')
        Directive->Size = *Format++;
    return Format;
}

static VOID PutNumber(WRITER* Writer, ARGUMENTS* Arguments, const DIRECTIVE* Directive, ULONG Base, ULONG MoreFlags)
{
    ULONG Argument = va_arg(Arguments->List, ULONG);
    ULONGLONG Value;

    if (MoreFlags & TRN_SIGNED)
        Value = (ULONGLONG)(LONGLONG)(Directive->Size == 'h' ? (LONG)(SHORT)Argument : (LONG)Argument);
    else
        Value = Directive->Size == 'h' ? (USHORT)Argument : Argument;
    Writer->Out = TraceNumber(Writer->Out, Writer->End, Value, Base, Directive->Width, Directive->Precision,
                              Directive->Flags | MoreFlags);
}

// Fixed upper-case hexadecimal; what the caller gave as flags, width and precision does not count.
static VOID PutFixedHex(WRITER* Writer, ARGUMENTS* Arguments, const DIRECTIVE* Directive, LONG Width)
{
    DIRECTIVE Fixed = {TRN_ZERO, Width, -1, Directive->Size};

    PutNumber(Writer, Arguments, &Fixed, 16, TRN_UPPER);
}

static VOID PutPointer(WRITER* Writer, ARGUMENTS* Arguments, const DIRECTIVE* Directive)
{
    ULONG_PTR Value = (ULONG_PTR)va_arg(Arguments->List, VOID*);
    BOOLEAN HasWidth = Directive->Width >= 0;

    Writer->Out = TraceNumber(Writer->Out, Writer->End, Value, 16, HasWidth ? Directive->Width : 8, Directive->Precision,
                              HasWidth ? Directive->Flags : Directive->Flags | TRN_ZERO);
}

// The directives whose argument is a pointer, and those without one. FALSE: none of these.
static BOOLEAN PutOther(WRITER* Writer, CHAR Conversion, ARGUMENTS* Arguments, const DIRECTIVE* Directive)
{
    static const DIRECTIVE Plain = {0, -1, -1, 0};

    switch (Conversion) {
    case 's':
        if (const CHAR* Text = va_arg(Arguments->List, const CHAR*))
            PutText(Writer, Text, Directive);
        else
            PutText(Writer, "<NULL>", Directive);
        return TRUE;
    case 'S':
        if (const WCHAR* Text = va_arg(Arguments->List, const WCHAR*))
            PutText(Writer, Text, Directive);
        else
            PutText(Writer, "<NULL>", Directive);
        return TRUE;
    case 'U':
        if (const UNICODE_STRING* Text = va_arg(Arguments->List, const UNICODE_STRING*))
            PutCounted(Writer, Text);
        else
            PutText(Writer, "<NULL>", &Plain);
        return TRUE;
    case 'P': PutText(Writer, "ACM", &Plain); return TRUE;
    case 'p': PutPointer(Writer, Arguments, Directive); return TRUE;
    case '%': Put(Writer, '%'); return TRUE;
    default: return FALSE;
    }
}

static VOID PutConversion(WRITER* Writer, CHAR Conversion, ARGUMENTS* Arguments, const DIRECTIVE* Directive)
{
    switch (Conversion) {
    case 'c':
    case 'C': {
        CHAR Character = (CHAR)va_arg(Arguments->List, ULONG);
        if (!(Directive->Flags & TRN_LEFT))
            Pad(Writer, Directive->Width - 1, ' ');
        Put(Writer, Character);
        if (Directive->Flags & TRN_LEFT)
            Pad(Writer, Directive->Width - 1, ' ');
        break;
    }
    case 'B': PutFixedHex(Writer, Arguments, Directive, 2); break;
    case 'W': PutFixedHex(Writer, Arguments, Directive, 4); break;
    case 'D': PutFixedHex(Writer, Arguments, Directive, 8); break;
    case 'Q': PutFixedHex(Writer, Arguments, Directive, 16); break;
    case 'X': PutNumber(Writer, Arguments, Directive, 16, TRN_UPPER); break;
    case 'x': PutNumber(Writer, Arguments, Directive, 16, 0); break;
    case 'o': PutNumber(Writer, Arguments, Directive, 8, 0); break;
    case 'd':
    case 'i': PutNumber(Writer, Arguments, Directive, 10, TRN_SIGNED); break;
    case 'u': PutNumber(Writer, Arguments, Directive, 10, 0); break;
    default:
        if (!PutOther(Writer, Conversion, Arguments, Directive)) {
            Put(Writer, '%');
            if (Conversion != '\0')
                Put(Writer, Conversion);
        }
    }
}

VOID TraceFormat(CHAR* Output, CHAR* OutputEnd, const CHAR* Format, va_list Arguments)
{
    WRITER Writer = {Output, OutputEnd};
    ARGUMENTS Copy;
    DIRECTIVE Directive;

    va_copy(Copy.List, Arguments);
    while (*Format != '\0') {
        if (*Format != '%') {
            Put(&Writer, *Format++);
            continue;
        }
        Format = ReadDirective(Format + 1, &Copy, &Directive);
        PutConversion(&Writer, *Format, &Copy, &Directive);
        if (*Format != '\0')
            ++Format;
    }
    va_end(Copy.List);
    *Writer.Out = '\0';
}
