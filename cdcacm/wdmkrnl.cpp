// Driver load and unload, tracked memory and timer objects.
#include "pnpadd.h"
#include "wdmpwr.h"

// Precedes the header so that the caller's block keeps the pool's own alignment.
enum : ULONG { MEMHD_PAD = 2 * sizeof(VOID*) - sizeof(MEMHD), MEMHD_ROOM = MEMHD_PAD + sizeof(MEMHD) };

enum : UCHAR { FREED_FILL = 0xEE };

static KSPIN_LOCK MemoryLock;
ULONG MemoryCounter;
ULONG ContMemoryCounter;

WCHAR RegistryPath[REGISTRY_PATH_UNITS];
LIST_ENTRY DeviceList;
KMUTEX DeviceListMutex;

VOID* MemAlloc(ULONG NumberOfBytes, ULONG PoolTag)
{
    KIRQL OldIrql;

    KASSERT(NumberOfBytes!=0);
    if (NumberOfBytes > MAXULONG - MEMHD_ROOM)
        return NULL;
    UCHAR* Block = (UCHAR*)ExAllocatePoolWithTag(NonPagedPool, (SIZE_T)NumberOfBytes + MEMHD_ROOM, PoolTag);
    if (Block == NULL)
        return NULL;
    MEMHD* hd = (MEMHD*)(Block + MEMHD_PAD);
    hd->Magic = MEMHD_MAGIC;
    hd->Size = NumberOfBytes;
    KeAcquireSpinLock(&MemoryLock, &OldIrql);
    MemoryCounter += NumberOfBytes;
    KeReleaseSpinLock(&MemoryLock, OldIrql);
    return hd + 1;
}

VOID MemFree(VOID* Memory)
{
    KIRQL OldIrql;

    KASSERT(Memory!=NULL);
    if (Memory == NULL)
        return;
    MEMHD* hd = (MEMHD*)Memory - 1;
    KASSERT(hd->Magic==MEMHD_MAGIC);
    if (hd->Magic != MEMHD_MAGIC)
        return;
    RtlFillMemory(Memory, hd->Size, FREED_FILL);
    KeAcquireSpinLock(&MemoryLock, &OldIrql);
    MemoryCounter -= hd->Size;
    KeReleaseSpinLock(&MemoryLock, OldIrql);
    ExFreePool((UCHAR*)hd - MEMHD_PAD);
}

VOID InitTimerObj(TIMER_OBJ* Timer, TIMER_OBJ_CALLBACK* Callback, VOID* Context, ULONG PeriodMs)
{
    Timer->Callback = Callback;
    Timer->Context = Context;
    Timer->DueTime = RelativeMs(PeriodMs);
    KeInitializeTimer(&Timer->Timer);
    KeInitializeDpc(&Timer->Dpc, TimerObjDpc, Timer);
}

VOID TimerObjDpc(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2)
{
    TIMER_OBJ* Timer = (TIMER_OBJ*)DeferredContext;

    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);
    Timer->Callback(Timer, Timer->Context);
}

// A longer path is cut; the buffer stays terminated for the opens that read it again.
static VOID KeepRegistryPath(const UNICODE_STRING* Path)
{
    ULONG Units = Path->Length / sizeof(WCHAR);

    if (Units > REGISTRY_PATH_UNITS - 1)
        Units = REGISTRY_PATH_UNITS - 1;
    RtlZeroMemory(RegistryPath, sizeof(RegistryPath));
    RtlCopyMemory(RegistryPath, Path->Buffer, Units * sizeof(WCHAR));
}

static VOID InstallEntryPoints(PDRIVER_OBJECT DriverObject)
{
    DriverObject->MajorFunction[IRP_MJ_CREATE] = DispatchCreate;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = DispatchCleanup;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = DispatchClose;
    DriverObject->MajorFunction[IRP_MJ_READ] = DispatchRead;
    DriverObject->MajorFunction[IRP_MJ_WRITE] = DispatchWrite;
    DriverObject->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = DispatchFlush;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternalDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = DispatchSystemControl;
    DriverObject->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    DriverObject->DriverExtension->AddDevice = PnPAddDevice;
    DriverObject->DriverUnload = DriverUnload;
}

NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING Path)
{
    HANDLE Key;

    KeInitializeSpinLock(&MemoryLock);
    TraceInit();
    // Loaded again in the same address space, it starts as it did the first time.
    MemoryCounter = 0;
    ContMemoryCounter = 0;
    TraceSetMask(TRACE_MASK_UNREAD);
    KeepRegistryPath(Path);

    NTSTATUS Status = OpenKey(&Key, RegistryPath);
    if (NT_SUCCESS(Status)) {
        TraceSetMask(ReadCfgParam(Key, CFG_TRACE_MASK));
        ZwClose(Key);
    } else {
        TRACE(TRC_ERROR, "%P:Open of Software key failed\n");
        TraceSetMask(TRACE_MASK_NO_KEY);
    }
    TRACE(TRC_PROGRESS, "%P:DriverEntry[ V.%u.%u\n", DRIVER_VERSION_MAJOR, DRIVER_VERSION_MINOR);
    TRACE(TRC_PROGRESS, "%P:%S\n", RegistryPath);
    if (!NT_SUCCESS(Status))
        TRACE(TRC_ERROR, "%P:DriverEntry: read configuration failed. %D\n", Status);

    InitDeviceList();
    InstallEntryPoints(DriverObject);
    return STATUS_SUCCESS;
}

VOID DriverUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    TRACE(TRC_PROGRESS, "%P:[DriverUnload\n");
    if (MemoryCounter != 0 || ContMemoryCounter != 0)
        TRACE(TRC_ERROR, "%P:Memory Log:\n  MemoryCounter:      %i\n  ContMemoryCounter:  %i\n", MemoryCounter, ContMemoryCounter);
    TRACE(TRC_PROGRESS, "%P:]DriverUnload\n");
}
