// Strings of the run-time library.
#include <wdm.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "kernel/rtl_text.h"

using nt::viewOf;

namespace {

constexpr ULONG stringTag = 'grtS';
constexpr std::size_t maxStringBytes = 0xfffe;

int digitOf(WCHAR c) {
    if (c >= u'0' && c <= u'9') {
        return c - u'0';
    }
    WCHAR upper = nt::upcase(c);
    return upper >= u'A' && upper <= u'Z' ? upper - u'A' + 10 : 99;
}

NTSTATUS append(PUNICODE_STRING destination, std::u16string_view text) {
    std::size_t bytes = text.size() * sizeof(WCHAR);
    if (destination->Length + bytes > destination->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (bytes != 0) {
        RtlMoveMemory(reinterpret_cast<PUCHAR>(destination->Buffer) + destination->Length, text.data(), bytes);
    }
    destination->Length = static_cast<USHORT>(destination->Length + bytes);
    if (destination->Length + sizeof(WCHAR) <= destination->MaximumLength) {
        destination->Buffer[destination->Length / sizeof(WCHAR)] = 0;
    }
    return STATUS_SUCCESS;
}

}  // namespace

extern "C" {

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    std::size_t bytes = SourceString ? std::u16string_view(SourceString).size() * sizeof(WCHAR) : 0;
    bytes = std::min(bytes, maxStringBytes - sizeof(WCHAR));
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = SourceString ? static_cast<USHORT>(bytes + sizeof(WCHAR)) : 0;
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
    std::size_t bytes = SourceString ? std::min(std::string_view(SourceString).size(), maxStringBytes) : 0;
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = SourceString ? static_cast<USHORT>(bytes + 1) : 0;
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
}

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
    DestinationString->Length = 0;
    if (SourceString) {
        std::u16string_view text = viewOf(SourceString);
        append(DestinationString, text.substr(0, DestinationString->MaximumLength / sizeof(WCHAR)));
    }
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
    return Source ? append(Destination, Source) : STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    return append(Destination, viewOf(Source));
}

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    std::u16string_view a = viewOf(String1);
    std::u16string_view b = viewOf(String2);
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        LONG x = CaseInSensitive ? nt::upcase(a[i]) : a[i];
        LONG y = CaseInSensitive ? nt::upcase(b[i]) : b[i];
        if (x != y) {
            return x - y;
        }
    }
    return static_cast<LONG>(a.size()) - static_cast<LONG>(b.size());
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    return RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    UNICODE_STRING head = *String2;
    if (head.Length < String1->Length) {
        return FALSE;
    }
    head.Length = String1->Length;
    return RtlEqualUnicodeString(String1, &head, CaseInSensitive);
}

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter) { return nt::upcase(SourceCharacter); }

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
    if (UnicodeString->Buffer) {
        ExFreePool(UnicodeString->Buffer);
        *UnicodeString = {};
    }
}

VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString) {
    if (AnsiString->Buffer) {
        ExFreePool(AnsiString->Buffer);
        *AnsiString = {};
    }
}

ULONG NTAPI RtlUnicodeStringToAnsiSize(PCUNICODE_STRING UnicodeString) {
    return UnicodeString->Length / sizeof(WCHAR) + 1;
}

ULONG NTAPI RtlAnsiStringToUnicodeSize(PCANSI_STRING AnsiString) {
    return (AnsiString->Length + 1) * static_cast<ULONG>(sizeof(WCHAR));
}

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                            BOOLEAN AllocateDestinationString) {
    ULONG bytes = RtlAnsiStringToUnicodeSize(SourceString);
    if (bytes > maxStringBytes) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (AllocateDestinationString) {
        DestinationString->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, stringTag));
        if (!DestinationString->Buffer) {
            return STATUS_NO_MEMORY;
        }
        DestinationString->MaximumLength = static_cast<USHORT>(bytes);
    } else if (bytes > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < SourceString->Length; ++i) {
        DestinationString->Buffer[i] = static_cast<UCHAR>(SourceString->Buffer[i]);
    }
    DestinationString->Buffer[SourceString->Length] = 0;
    DestinationString->Length = static_cast<USHORT>(bytes - sizeof(WCHAR));
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                            BOOLEAN AllocateDestinationString) {
    ULONG bytes = RtlUnicodeStringToAnsiSize(SourceString);
    if (AllocateDestinationString) {
        DestinationString->Buffer = static_cast<PCHAR>(ExAllocatePoolWithTag(PagedPool, bytes, stringTag));
        if (!DestinationString->Buffer) {
            return STATUS_NO_MEMORY;
        }
        DestinationString->MaximumLength = static_cast<USHORT>(bytes);
    } else if (bytes > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    std::size_t length = 0;
    for (WCHAR c : viewOf(SourceString)) {
        DestinationString->Buffer[length++] = static_cast<CHAR>(c < 0x100 ? c : '?');
    }
    DestinationString->Buffer[length] = 0;
    DestinationString->Length = static_cast<USHORT>(length);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String) {
    if (Base == 0) {
        Base = 10;
    }
    if (Base != 2 && Base != 8 && Base != 10 && Base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    WCHAR digits[33];
    std::size_t at = RTL_NUMBER_OF(digits);
    do {
        ULONG digit = Value % Base;
        digits[--at] = static_cast<WCHAR>(digit < 10 ? u'0' + digit : u'A' + digit - 10);
        Value /= Base;
    } while (Value != 0);
    std::u16string_view text(digits + at, RTL_NUMBER_OF(digits) - at);
    if (text.size() * sizeof(WCHAR) > String->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    String->Length = 0;
    return append(String, text);
}

NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value) {
    std::u16string_view text = viewOf(String);
    while (!text.empty() && text.front() <= u' ') {
        text.remove_prefix(1);
    }
    bool minus = text.starts_with(u'-');
    if (minus || text.starts_with(u'+')) {
        text.remove_prefix(1);
    }
    if (Base == 0) {
        Base = text.starts_with(u"0x") ? 16 : text.starts_with(u"0o") ? 8 : text.starts_with(u"0b") ? 2 : 10;
        text.remove_prefix(Base == 10 ? 0 : 2);
    }
    if (Base != 2 && Base != 8 && Base != 10 && Base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG number = 0;
    for (WCHAR c : text) {
        if (static_cast<ULONG>(digitOf(c)) >= Base) {
            break;
        }
        number = number * Base + static_cast<ULONG>(digitOf(c));
    }
    *Value = minus ? 0 - number : number;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlStringFromGUID(const GUID* Guid, PUNICODE_STRING GuidString) {
    constexpr USHORT bytes = 39 * sizeof(WCHAR);
    GuidString->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, stringTag));
    if (!GuidString->Buffer) {
        return STATUS_NO_MEMORY;
    }
    char text[40];
    const UCHAR* d = Guid->Data4;
    std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", Guid->Data1, Guid->Data2,
                  Guid->Data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
    for (int i = 0; i < 39; ++i) {
        GuidString->Buffer[i] = static_cast<UCHAR>(text[i]);
    }
    GuidString->Length = bytes - sizeof(WCHAR);
    GuidString->MaximumLength = bytes;
    return STATUS_SUCCESS;
}

SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length) {
    auto a = static_cast<const UCHAR*>(Source1);
    return static_cast<SIZE_T>(std::mismatch(a, a + Length, static_cast<const UCHAR*>(Source2)).first - a);
}

}  // extern "C"
