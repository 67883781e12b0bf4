// Pool memory, and the memory and string services drivers use with it.
#ifndef NT_EX_H
#define NT_EX_H

#include <cstring>

#include "ke.h"

typedef enum _POOL_TYPE { NonPagedPool, PagedPool, NonPagedPoolCacheAligned = 4, NonPagedPoolNx = 512 } POOL_TYPE;

typedef struct _FAST_MUTEX {
    KMUTEX Mutex;
} FAST_MUTEX, *PFAST_MUTEX;

extern "C" {

// Null when there is no memory. Paged pool: IRQL <= APC_LEVEL, else <= DISPATCH_LEVEL.
PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
VOID NTAPI ExFreePool(PVOID P);
VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);

FORCEINLINE PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, 0x656e6f4e);
}

VOID NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime);

PLIST_ENTRY NTAPI ExInterlockedInsertTailList(PLIST_ENTRY Head, PLIST_ENTRY Entry, PKSPIN_LOCK Lock);
PLIST_ENTRY NTAPI ExInterlockedRemoveHeadList(PLIST_ENTRY Head, PKSPIN_LOCK Lock);

SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);

}  // extern "C"

#define RtlCopyMemory(destination, source, length) memcpy((destination), (source), (length))
#define RtlMoveMemory(destination, source, length) memmove((destination), (source), (length))
#define RtlZeroMemory(destination, length) memset((destination), 0, (length))
#define RtlFillMemory(destination, length, fill) memset((destination), (fill), (length))
#define RtlEqualMemory(a, b, length) (!memcmp((a), (b), (length)))

#define PAGE_SIZE 4096
#define ROUND_TO_PAGES(size) (((ULONG_PTR)(size) + PAGE_SIZE - 1) & ~(ULONG_PTR)(PAGE_SIZE - 1))

// Assertions of drivers trace; this one stops.
extern "C" VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PCHAR Message);
extern "C" ULONG DbgPrint(PCSTR Format, ...) __attribute__((format(printf, 1, 2)));

#define PAGED_CODE()

#endif
