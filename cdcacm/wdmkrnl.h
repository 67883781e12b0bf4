// Driver entry and the small services every module stands on: tracked memory, record tags, timer
// objects and the discipline around the device spin lock.
#pragma once

#include "trace.h"

struct DEVICE;

// Stand for the Lock and the Mutex of the one DEVICE that a routine works on. Only annotations name
// them; nobody locks them.
inline KSPIN_LOCK DeviceLock;
inline KMUTEX DeviceMutex;

constexpr ULONG Tag4(CHAR A, CHAR B, CHAR C, CHAR D)
{
    return (ULONG)(UCHAR)A | (ULONG)(UCHAR)B << 8 | (ULONG)(UCHAR)C << 16 | (ULONG)(UCHAR)D << 24;
}

enum : ULONG {
    MEMHD_MAGIC = Tag4('K', 'M', 'e', 'm'),
    DEVICE_TAG = Tag4('D', 'e', 'v', 'O'),
    PORT_OBJ_TAG = Tag4('P', 'r', 't', 'O'),
    SER_PORT_TAG = Tag4('S', 'P', 'O', 'R'),
    USB_PACKET_TAG = Tag4('U', 'p', 'k', 't'),
    USB_PACKET_POOL_TAG = Tag4('U', 'p', 'k', 'P'),
};
static_assert(MEMHD_MAGIC == 0x6D654D4B);

#define DEVICE_TAG_FIELD Tag
#define PORT_OBJ_TAG_FIELD Tag
#define SER_PORT_TAG_FIELD Tag
#define USB_PACKET_TAG_FIELD PoolTag
#define USB_PACKET_POOL_TAG_FIELD PoolTag

// True when the pointer is not null and the record carries the tag of its type.
#define PTRVALID(Pointer, Type) ((Pointer) != NULL && (Pointer)->Type##_TAG_FIELD == Type##_TAG)

#define IRQL_EQ_PASSIVE() (KeGetCurrentIrql() == PASSIVE_LEVEL)

// A word written under one lock and read elsewhere without it.
template <class T> inline T LoadShared(const volatile T* Word) { return __atomic_load_n(Word, __ATOMIC_ACQUIRE); }
template <class T> inline VOID StoreShared(T* Word, T Value) { __atomic_store_n(Word, Value, __ATOMIC_RELEASE); }

// Milliseconds to the platform's relative 100 ns units.
inline LARGE_INTEGER RelativeMs(ULONG TimeMs)
{
    LARGE_INTEGER Due;
    Due.QuadPart = (LONGLONG)TimeMs * -10000;
    return Due;
}

// Header of a tracked allocation; the caller's block follows directly.
struct MEMHD {
    ULONG Magic;   // MEMHD_MAGIC
    ULONG Size;    // bytes the caller asked for
};
static_assert(sizeof(MEMHD) == 8);

extern ULONG MemoryCounter;       // bytes in live tracked blocks (memory lock)
extern ULONG ContMemoryCounter;   // bytes in physically contiguous blocks; the driver makes none

// Non-paged pool, counted in MemoryCounter. Null when there is no memory or the size overflows.
VOID* MemAlloc(ULONG NumberOfBytes, ULONG PoolTag) _IRQL_requires_max_(DISPATCH_LEVEL);
// Fills the block with 0xEE and frees it. Null or a foreign block only asserts and stays untouched.
VOID MemFree(VOID* Memory) _IRQL_requires_max_(DISPATCH_LEVEL);

struct TIMER_OBJ;
typedef VOID TIMER_OBJ_CALLBACK(TIMER_OBJ* Timer, VOID* Context);   // at DISPATCH_LEVEL

// One-shot timer; a callback that wants to run again arms it again.
struct TIMER_OBJ {
    TIMER_OBJ_CALLBACK* Callback;
    VOID* Context;
    LARGE_INTEGER DueTime;   // relative, 100 ns units
    KTIMER Timer;
    KDPC Dpc;                // TimerObjDpc, context the timer object
};

VOID InitTimerObj(TIMER_OBJ* Timer, TIMER_OBJ_CALLBACK* Callback, VOID* Context, ULONG PeriodMs);
KDEFERRED_ROUTINE TimerObjDpc;

// Arm for one period from now; TRUE when it was already queued (and is moved).
inline BOOLEAN ArmTimerObj(TIMER_OBJ* Timer) { return KeSetTimer(&Timer->Timer, Timer->DueTime, &Timer->Dpc); }
// TRUE when a queued timer was removed. A callback that already runs is not waited for.
inline BOOLEAN CancelTimerObj(TIMER_OBJ* Timer) { return KeCancelTimer(&Timer->Timer); }

// The device spin lock. Owner is any expression of type DEVICE*, spelled as the caller's text has it
// in its assertions; OldIrql is a KIRQL variable.
#define ACQUIRE(Owner, OldIrql)                     \
    do {                                            \
        KeAcquireSpinLock(&(Owner)->Lock, &(OldIrql)); \
        _Analysis_assume_lock_acquired_(DeviceLock); \
        ++(Owner)->CheckLock;                       \
        KASSERT((Owner)->CheckLock==1);             \
    } while (0)

#define RELEASE(Owner, OldIrql)                     \
    do {                                            \
        --(Owner)->CheckLock;                       \
        KASSERT((Owner)->CheckLock==0);             \
        _Analysis_assume_lock_released_(DeviceLock); \
        KeReleaseSpinLock(&(Owner)->Lock, (OldIrql)); \
    } while (0)

// Driver-wide state, set up by DriverEntry.
enum : ULONG { REGISTRY_PATH_UNITS = 260 };
extern WCHAR RegistryPath[REGISTRY_PATH_UNITS];   // the service key; cut to 259 units and a terminator
extern LIST_ENTRY DeviceList;                     // of DEVICE by DeviceListEntry (DeviceListMutex)
extern KMUTEX DeviceListMutex;                    // outermost lock of the driver

enum : ULONG { DRIVER_VERSION_MAJOR = 4, DRIVER_VERSION_MINOR = 45 };

extern "C" DRIVER_INITIALIZE DriverEntry;
DRIVER_UNLOAD DriverUnload;
