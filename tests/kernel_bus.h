// A bus whose children a test plugs and unplugs, and a function driver that notes what it is sent.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kernel/executive.h"
#include "kernel/rtl_text.h"

namespace test {

inline const std::string portsClass = "{4D36E978-E325-11CE-BFC1-08002BE10318}";

struct Child {
    std::u16string instance;
    PDEVICE_OBJECT pdo = nullptr;
    bool present = true;
};

struct World {
    PDRIVER_OBJECT busDriver = nullptr;
    PDEVICE_OBJECT busPdo = nullptr, busFdo = nullptr;
    PDEVICE_OBJECT latestLower = nullptr;  // below the latest function driver, null once that is gone
    std::vector<std::unique_ptr<Child>> children;
    std::vector<std::string> log;
    NTSTATUS addStatus = STATUS_SUCCESS;
    NTSTATUS startStatus = STATUS_SUCCESS;
    NTSTATUS queryStatus = STATUS_SUCCESS;
    std::function<void()> onStart;
    // Sees every power request first; true: it has seen to the request. Otherwise it goes down and the bus lets it succeed.
    std::function<bool(PDEVICE_OBJECT device, PIRP irp, NTSTATUS& status)> onPower;
};

inline World* world = nullptr;

// First word of every extension.
enum Kind : ULONG { busKind = 1, childKind, functionKind };
struct Extension {
    ULONG kind;
    PDEVICE_OBJECT lower, pdo;
    Child* child;
};

inline Extension& extensionOf(PDEVICE_OBJECT device) { return *static_cast<Extension*>(device->DeviceExtension); }

inline NTSTATUS complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

inline NTSTATUS passDown(PDEVICE_OBJECT device, PIRP irp) {
    PDEVICE_OBJECT lower = extensionOf(device).lower;
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(lower, irp);
}

inline NTSTATUS setEvent(PDEVICE_OBJECT, PIRP, PVOID event) {
    KeSetEvent(static_cast<PKEVENT>(event), 0, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

inline PWSTR poolText(std::u16string text) {
    text += u'\0';
    auto copy = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, (text.size() + 1) * sizeof(WCHAR), 'tseT'));
    std::copy_n(text.c_str(), text.size() + 1, copy);
    return copy;
}

inline NTSTATUS busPnp(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    if (location->MinorFunction == IRP_MN_QUERY_DEVICE_RELATIONS) {
        auto relations = static_cast<PDEVICE_RELATIONS>(
            ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS) + world->children.size() * sizeof(PVOID), 'tseT'));
        relations->Count = 0;
        for (const auto& child : world->children) {
            if (child->present) {
                ObReferenceObject(child->pdo);
                relations->Objects[relations->Count++] = child->pdo;
            }
        }
        irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
        irp->IoStatus.Status = STATUS_SUCCESS;
    } else if (location->MinorFunction == IRP_MN_REMOVE_DEVICE) {
        PDEVICE_OBJECT lower = extensionOf(device).lower;
        for (const auto& child : world->children) {
            if (child->pdo) {
                IoDeleteDevice(child->pdo);
            }
        }
        NTSTATUS status = passDown(device, irp);
        IoDetachDevice(lower);
        IoDeleteDevice(device);
        return status;
    }
    return passDown(device, irp);
}

inline NTSTATUS childPnp(PDEVICE_OBJECT device, PIRP irp) {
    Child& child = *extensionOf(device).child;
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    switch (location->MinorFunction) {
    case IRP_MN_QUERY_ID:
        irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(
            location->Parameters.QueryId.IdType == BusQueryInstanceID       ? poolText(child.instance)
            : location->Parameters.QueryId.IdType == BusQueryCompatibleIDs ? poolText(u"TEST\\Compatible")
                                                                            : poolText(u"TEST\\Thing"));
        return complete(irp, STATUS_SUCCESS);
    case IRP_MN_QUERY_CAPABILITIES:
        location->Parameters.DeviceCapabilities.Capabilities->UniqueID = 1;
        break;
    case IRP_MN_REMOVE_DEVICE:
        complete(irp, STATUS_SUCCESS);
        if (!child.present) {
            child.pdo = nullptr;
            IoDeleteDevice(device);
        }
        return STATUS_SUCCESS;
    case IRP_MN_QUERY_DEVICE_RELATIONS:
    case IRP_MN_QUERY_PNP_DEVICE_STATE:
        return complete(irp, irp->IoStatus.Status);
    default:
        break;
    }
    return complete(irp, STATUS_SUCCESS);
}

inline NTSTATUS functionPnp(PDEVICE_OBJECT device, PIRP irp) {
    static const std::map<UCHAR, const char*> names = {
        {IRP_MN_START_DEVICE, "start"}, {IRP_MN_QUERY_REMOVE_DEVICE, "queryRemove"}, {IRP_MN_REMOVE_DEVICE, "remove"},
        {IRP_MN_CANCEL_REMOVE_DEVICE, "cancelRemove"}, {IRP_MN_STOP_DEVICE, "stop"}, {IRP_MN_QUERY_STOP_DEVICE, "queryStop"},
        {IRP_MN_CANCEL_STOP_DEVICE, "cancelStop"}, {IRP_MN_SURPRISE_REMOVAL, "surprise"}, {IRP_MN_QUERY_CAPABILITIES, "capabilities"}};
    UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    PDEVICE_OBJECT lower = extensionOf(device).lower;
    if (names.contains(minor)) world->log.push_back(names.at(minor));
    if (minor == IRP_MN_START_DEVICE) {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, setEvent, &event, TRUE, TRUE, TRUE);
        IoCallDriver(lower, irp);
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        if (world->onStart) {
            world->onStart();
        }
        return complete(irp, NT_SUCCESS(world->startStatus) ? irp->IoStatus.Status : world->startStatus);
    }
    if ((minor == IRP_MN_QUERY_REMOVE_DEVICE || minor == IRP_MN_QUERY_STOP_DEVICE) && !NT_SUCCESS(world->queryStatus)) {
        return complete(irp, world->queryStatus);
    }
    if (minor == IRP_MN_REMOVE_DEVICE && world->latestLower == lower) world->latestLower = nullptr;
    NTSTATUS status = passDown(device, irp);
    if (minor == IRP_MN_REMOVE_DEVICE) {
        IoDetachDevice(lower);
        IoDeleteDevice(device);
    }
    return status;
}

inline NTSTATUS pnp(PDEVICE_OBJECT device, PIRP irp) {
    constexpr PDRIVER_DISPATCH byKind[] = {busPnp, childPnp, functionPnp};
    return byKind[extensionOf(device).kind - busKind](device, irp);
}

// "bus", or what the test called the child.
inline std::string nameOf(PDEVICE_OBJECT device) {
    const Extension& extension = extensionOf(device);
    if (extension.kind == busKind) return "bus";
    return nt::toUtf8((extension.kind == childKind ? extension : extensionOf(extension.pdo)).child->instance);
}

inline NTSTATUS completePower(PIRP irp, NTSTATUS status) {
    PoStartNextPowerIrp(irp);
    return complete(irp, status);
}

inline NTSTATUS power(PDEVICE_OBJECT device, PIRP irp) {
    NTSTATUS status = STATUS_SUCCESS;
    if (world->onPower && world->onPower(device, irp, status)) return status;
    if (extensionOf(device).kind == childKind) return completePower(irp, STATUS_SUCCESS);
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(extensionOf(device).lower, irp);
}

inline NTSTATUS succeed(PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_SUCCESS); }

inline NTSTATUS attach(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo, Kind kind, PDEVICE_OBJECT* device) {
    NTSTATUS status = IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(*device, pdo);
    extensionOf(*device) = {kind, lower, pdo, nullptr};
    (*device)->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

inline NTSTATUS addBus(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    world->busDriver = driver;
    world->busPdo = pdo;
    return attach(driver, pdo, busKind, &world->busFdo);
}

inline NTSTATUS addFunction(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    world->log.push_back("add");
    if (!NT_SUCCESS(world->addStatus)) {
        return world->addStatus;
    }
    PDEVICE_OBJECT device;
    const NTSTATUS status = attach(driver, pdo, functionKind, &device);
    if (NT_SUCCESS(status)) world->latestLower = extensionOf(device).lower;
    return status;
}

template <PDRIVER_ADD_DEVICE Add>
NTSTATUS entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->DriverExtension->AddDevice = Add;
    driver->MajorFunction[IRP_MJ_PNP] = pnp;
    driver->MajorFunction[IRP_MJ_POWER] = power;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = passDown;
    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
        driver->MajorFunction[major] = succeed;
    }
    return STATUS_SUCCESS;
}

// The machine with its bus, in the simulated mode. Children are known by their instance.
class BusMachine : public testing::Test {
protected:
    explicit BusMachine(std::uint64_t seed = 7) : exec_({.mode = nt::Mode::simulated, .seed = seed}) {
        world = &world_;
        exec_.loadDriver("bus", entry<addBus>);
        exec_.loadDriver("fn", entry<addFunction>);
        exec_.bindDriver("test\\compatible", "fn", "Ports", portsClass);
        EXPECT_EQ(exec_.addRootDevice("bus"), STATUS_SUCCESS);
    }
    ~BusMachine() override {
        for (const std::string& line : exec_.stop().lines) {
            ADD_FAILURE() << "left: " << line;
        }
    }

    Child& plug(std::u16string instance) {
        world_.children.push_back(std::make_unique<Child>(Child{std::move(instance)}));
        Child& child = *world_.children.back();
        EXPECT_EQ(IoCreateDevice(world_.busDriver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &child.pdo), 0);
        extensionOf(child.pdo) = {childKind, nullptr, nullptr, &child};
        child.pdo->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        IoInvalidateDeviceRelations(world_.busPdo, BusRelations);
        exec_.settle();
        return child;
    }
    void unplug(Child& child) {
        child.present = false;
        IoInvalidateDeviceRelations(world_.busPdo, BusRelations);
    }
    std::string log() {
        std::string all;
        for (const std::string& word : world_.log) {
            all += (all.empty() ? "" : " ") + word;
        }
        world_.log.clear();
        return all;
    }
    static std::string pathOf(const std::string& instance) { return "TEST\\Thing\\" + instance; }
    nt::DeviceNode node(const std::string& instance) {
        for (const nt::DeviceNode& device : exec_.devices()) {
            if (device.instancePath == pathOf(instance)) {
                return device;
            }
        }
        return {};
    }

    nt::Executive exec_;
    World world_;
};

}  // namespace test
