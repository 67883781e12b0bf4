// The platform's base types. LONG and ULONG are 32 bits wide here as there; pointers are the host's.
#ifndef NT_NTDEF_H
#define NT_NTDEF_H

#include <cstddef>
#include <cstdint>

#include "driverspecs.h"

#define NTAPI
#define NTSYSAPI
#define NTKERNELAPI
#define NTHALAPI
#define DECLSPEC_IMPORT
#define FASTCALL
#define CONST const
#define IN
#define OUT
#define OPTIONAL
#define FORCEINLINE static inline
#define DECLSPEC_NORETURN [[noreturn]]

using VOID = void;
typedef void* PVOID;
typedef char CHAR, CCHAR;
typedef CHAR *PCHAR, *PSTR;
typedef const CHAR *PCSTR, *LPCSTR, *PCSZ;
typedef signed char SCHAR;
typedef unsigned char UCHAR, *PUCHAR;
typedef UCHAR BOOLEAN, *PBOOLEAN;
typedef int16_t SHORT, CSHORT, *PSHORT;
typedef uint16_t USHORT, *PUSHORT;
typedef int32_t LONG, *PLONG;
typedef uint32_t ULONG, *PULONG;
typedef int32_t INT;
typedef uint32_t UINT;
typedef int64_t LONGLONG, *PLONGLONG, LONG64, INT64;
typedef uint64_t ULONGLONG, *PULONGLONG, ULONG64, UINT64;
typedef intptr_t LONG_PTR, INT_PTR, *PLONG_PTR;
typedef uintptr_t ULONG_PTR, UINT_PTR, *PULONG_PTR;
typedef ULONG_PTR SIZE_T, *PSIZE_T;
typedef char16_t WCHAR, *PWCHAR, *PWSTR;
typedef const WCHAR *PCWSTR, *LPCWSTR, *PCWCH;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef PVOID HANDLE;
typedef HANDLE* PHANDLE;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef ULONG LCID;
typedef UCHAR KIRQL, *PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG_PTR KAFFINITY;

#define FALSE 0
#define TRUE 1
#ifndef NULL
#define NULL nullptr
#endif

#define MAXUCHAR 0xff
#define MAXUSHORT 0xffff
#define MAXULONG 0xffffffffu
#define MAXLONG 0x7fffffff
#define MINLONG ((LONG)0x80000000u)
#define MAXLONGLONG 0x7fffffffffffffffll
#define UNICODE_NULL ((WCHAR)0)
#define ANSI_NULL ((CHAR)0)

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef LARGE_INTEGER PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

// Length and MaximumLength count bytes, without and with room to spare.
typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING;
typedef const ANSI_STRING* PCANSI_STRING;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *LPGUID;
typedef const GUID* LPCGUID;

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_INHERIT 0x00000002
#define OBJ_PERMANENT 0x00000010
#define OBJ_EXCLUSIVE 0x00000020
#define OBJ_CASE_INSENSITIVE 0x00000040
#define OBJ_OPENIF 0x00000080
#define OBJ_OPENLINK 0x00000100
#define OBJ_KERNEL_HANDLE 0x00000200
#define OBJ_FORCE_ACCESS_CHECK 0x00000400

FORCEINLINE VOID InitializeObjectAttributes(POBJECT_ATTRIBUTES Attributes, PUNICODE_STRING Name, ULONG Flags,
                                            HANDLE Root, PVOID SecurityDescriptor) {
    Attributes->Length = sizeof(OBJECT_ATTRIBUTES);
    Attributes->RootDirectory = Root;
    Attributes->ObjectName = Name;
    Attributes->Attributes = Flags;
    Attributes->SecurityDescriptor = SecurityDescriptor;
    Attributes->SecurityQualityOfService = NULL;
}

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field) ((type*)((char*)(address) - offsetof(type, field)))
#define RTL_NUMBER_OF(array) (sizeof(array) / sizeof((array)[0]))
#define ARRAYSIZE(array) RTL_NUMBER_OF(array)
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)0)->field))
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define C_ASSERT(e) static_assert(e)
constexpr PWSTR NtLiteralBuffer(PCWSTR Text) { return const_cast<PWSTR>(Text); }
constexpr PCHAR NtLiteralBuffer(PCSTR Text) { return const_cast<PCHAR>(Text); }
#define RTL_CONSTANT_STRING(s) {(USHORT)(sizeof(s) - sizeof((s)[0])), (USHORT)sizeof(s), NtLiteralBuffer(s)}
#define NT_SUCCESS(status) (((NTSTATUS)(status)) >= 0)
#define NT_INFORMATION(status) ((((ULONG)(status)) >> 30) == 1)
#define NT_WARNING(status) ((((ULONG)(status)) >> 30) == 2)
#define NT_ERROR(status) ((((ULONG)(status)) >> 30) == 3)

static_assert(sizeof(LONG) == 4 && sizeof(ULONG) == 4 && sizeof(WCHAR) == 2 && sizeof(LARGE_INTEGER) == 8);
static_assert(sizeof(GUID) == 16);

#endif
