// Device objects: made with their extension in one block, stacked on each other, counted.
//
// A device is alive from IoCreateDevice to IoDeleteDevice. Deleting takes its name away and forbids new opens and attachments at
// once; the block stays until the last file, work item and reference has gone, so late users find their extension.
#include <algorithm>
#include <new>

#include "kernel/faults.h"
#include "kernel/io_internal.h"
#include "kernel/ob_names.h"
#include "kernel/pnp.h"
#include "kernel/pool.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr ULONG deviceTag = 'iveD';

// Guards every AttachedDevice and attachedTo, and the lists of drivers' devices.
TinyLock attachmentLock;

struct Block {
    DEVICE_OBJECT object;
    _DEVOBJ_EXTENSION mine;
    alignas(16) UCHAR extension[];
};

Block* blockOf(PDEVICE_OBJECT device) { return CONTAINING_RECORD(device, Block, object); }

void unlinkFromDriver(PDEVICE_OBJECT device) {
    TinyGuard guard(attachmentLock);
    for (PDEVICE_OBJECT* slot = &device->DriverObject->DeviceObject; *slot; slot = &(*slot)->NextDevice) {
        if (*slot == device) {
            *slot = device->NextDevice;
            return;
        }
    }
}

// Written under the lock, but read without it where the lock would cost.
void setAttached(PDEVICE_OBJECT lower, PDEVICE_OBJECT upper) {
    __atomic_store_n(&lower->AttachedDevice, upper, __ATOMIC_RELEASE);
}

void freeDevice(PDEVICE_OBJECT device) {
    unlinkFromDriver(device);
    delete device->DeviceObjectExtension->name;
    blockOf(device)->mine.~_DEVOBJ_EXTENSION();
    ExFreePoolWithTag(blockOf(device), deviceTag);
}

}  // namespace

void referenceDevice(PDEVICE_OBJECT device) {
    LONG before = device->DeviceObjectExtension->references.fetch_add(1, std::memory_order_relaxed);
    if (before <= 0) {
        verifier::stop("M8", "ObReferenceObject", device, "device object referenced after its last reference was gone");
    }
}

void dereferenceDevice(PDEVICE_OBJECT device) {
    LONG before = device->DeviceObjectExtension->references.fetch_sub(1, std::memory_order_acq_rel);
    if (before <= 0) {
        verifier::stop("M8", "ObDereferenceObject", device, "device object dereferenced more often than referenced");
    }
    if (before == 1) {
        freeDevice(device);
    }
}

void countHandle(PDEVICE_OBJECT device) {
    device->DeviceObjectExtension->handles.fetch_add(1, std::memory_order_relaxed);
    InterlockedIncrement(&device->ReferenceCount);
}

void discountHandle(PDEVICE_OBJECT device) {
    InterlockedDecrement(&device->ReferenceCount);
    if (device->DeviceObjectExtension->handles.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        system().pnp->handleClosed();
    }
}

std::string deviceName(PDEVICE_OBJECT device) {
    const std::u16string* name = device->DeviceObjectExtension->name;
    return name ? toUtf8(*name) : std::string();
}

LONG handlesOnStack(PDEVICE_OBJECT device) {
    TinyGuard guard(attachmentLock);
    LONG count = 0;
    for (; device; device = device->AttachedDevice) {
        count += device->DeviceObjectExtension->handles.load(std::memory_order_acquire);
    }
    return count;
}

void setLeaving(PDEVICE_OBJECT device, bool leaving) {
    TinyGuard guard(attachmentLock);
    for (; device; device = device->AttachedDevice) {
        device->DeviceObjectExtension->leaving = leaving;
    }
}

PDEVICE_OBJECT topOfStack(PDEVICE_OBJECT device) {
    TinyGuard guard(attachmentLock);
    while (device->AttachedDevice) {
        device = device->AttachedDevice;
    }
    referenceDevice(device);
    return device;
}

PDEVICE_OBJECT bottomOfStack(PDEVICE_OBJECT device) {
    TinyGuard guard(attachmentLock);
    while (PDEVICE_OBJECT lower = device->DeviceObjectExtension->attachedTo) {
        device = lower;
    }
    referenceDevice(device);
    return device;
}

DEVICE_POWER_STATE stackPowerState(PDEVICE_OBJECT device) {
    TinyGuard guard(attachmentLock);
    DEVICE_POWER_STATE lowest = PowerDeviceUnspecified;
    for (; device; device = device->AttachedDevice) {
        lowest = std::max(lowest, device->DeviceObjectExtension->powerState.load());
    }
    return lowest;
}

std::vector<std::string> leftDevices(Driver& driver) {
    std::vector<std::string> lines;
    while (PDEVICE_OBJECT device = driver.object.DeviceObject) {
        auto& mine = *device->DeviceObjectExtension;
        lines.push_back("device object " + (mine.name ? toUtf8(*mine.name) : std::string("without a name")) + " of " +
                        driver.service + ": " + std::to_string(mine.references.load()) + " references, " +
                        std::to_string(mine.handles.load()) + " open files" +
                        (mine.deletePending ? ", deleted" : ", not deleted"));
        system().names->removeDevice(device);
        freeDevice(device);
    }
    return lines;
}

}  // namespace nt

using namespace nt;

extern "C" {

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                              DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                              PDEVICE_OBJECT* DeviceObject) {
    verifier::checkIrqlMax("IoCreateDevice", PASSIVE_LEVEL);
    *DeviceObject = nullptr;
    if (faults::hit(faults::Kind::objectCreate)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    void* memory = ExAllocatePoolWithTag(NonPagedPool, sizeof(Block) + DeviceExtensionSize, deviceTag);
    if (!memory) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(memory, sizeof(Block) + DeviceExtensionSize);
    Block* block = new (memory) Block{};
    PDEVICE_OBJECT device = &block->object;
    block->mine.device = device;
    block->mine.references = 1;
    block->mine.powerState = PowerDeviceD0;
    device->Type = IO_TYPE_DEVICE;
    device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + DeviceExtensionSize);
    device->DriverObject = DriverObject;
    device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0);
    device->Characteristics = DeviceCharacteristics;
    device->DeviceType = DeviceType;
    device->DeviceExtension = DeviceExtensionSize != 0 ? block->extension : nullptr;
    device->StackSize = 1;
    device->DeviceObjectExtension = &block->mine;
    KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);
    if (DeviceName && DeviceName->Length != 0) {
        block->mine.name = new std::u16string(viewOf(DeviceName));
    }
    {
        TinyGuard guard(attachmentLock);
        device->NextDevice = DriverObject->DeviceObject;
        DriverObject->DeviceObject = device;
    }
    if (block->mine.name) {
        NTSTATUS status = system().names->addDevice(*block->mine.name, device);
        if (!NT_SUCCESS(status)) {
            freeDevice(device);
            return status;
        }
    }
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
    verifier::checkIrqlMax("IoDeleteDevice", PASSIVE_LEVEL);
    auto& mine = *DeviceObject->DeviceObjectExtension;
    if (mine.deletePending.exchange(true)) {
        verifier::stop("M2", "IoDeleteDevice", DeviceObject, "device object deleted twice");
    }
    {
        // A PDO may go while a function driver above it has yet to detach; the attachment keeps the memory.
        TinyGuard guard(attachmentLock);
        if (verifying() && mine.attachedTo) {
            verifier::stop("P3", "IoDeleteDevice", DeviceObject, "device deleted before it was detached");
        }
    }
    if (mine.name) {
        system().names->removeDevice(DeviceObject);
    }
    dereferenceDevice(DeviceObject);
}

PDEVICE_OBJECT NTAPI IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice) {
    if (faults::hit(faults::Kind::objectCreate)) {
        return nullptr;
    }
    TinyGuard guard(attachmentLock);
    PDEVICE_OBJECT top = TargetDevice;
    while (top->AttachedDevice) {
        top = top->AttachedDevice;
    }
    if (top->DeviceObjectExtension->deletePending || (top->Flags & DO_DEVICE_INITIALIZING)) {
        return nullptr;
    }
    referenceDevice(top);
    setAttached(top, SourceDevice);
    SourceDevice->DeviceObjectExtension->attachedTo = top;
    SourceDevice->StackSize = static_cast<CCHAR>(top->StackSize + 1);
    SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    return top;
}

VOID NTAPI IoDetachDevice(PDEVICE_OBJECT TargetDevice) {
    {
        TinyGuard guard(attachmentLock);
        PDEVICE_OBJECT upper = TargetDevice->AttachedDevice;
        if (!upper) {
            verifier::stop("P3", "IoDetachDevice", TargetDevice, "nothing is attached to this device");
        }
        upper->DeviceObjectExtension->attachedTo = nullptr;
        setAttached(TargetDevice, nullptr);
    }
    dereferenceDevice(TargetDevice);
}

PDEVICE_OBJECT NTAPI IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject) {
    TinyGuard guard(attachmentLock);
    while (DeviceObject->AttachedDevice) {
        DeviceObject = DeviceObject->AttachedDevice;
    }
    return DeviceObject;
}

PDEVICE_OBJECT NTAPI IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject) { return topOfStack(DeviceObject); }

}  // extern "C"
