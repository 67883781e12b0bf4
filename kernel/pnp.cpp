// The PnP manager's thread and the life of a device:
//
//   reported by its bus -> ids, keys -> AddDevice -> START -> started -> QUERY_CAPABILITIES, its own children
//   started <-> stop pending -> stopped -> started            (QUERY_STOP, CANCEL_STOP, STOP, START)
//   started <-> remove pending -> removed -> added again      (QUERY_REMOVE, CANCEL_REMOVE, REMOVE, restart)
//   no longer reported -> SURPRISE_REMOVAL -> (no handle open on the stack) -> REMOVE -> forgotten
//   a START that fails -> REMOVE -> startFailed; with files open on the stack SURPRISE_REMOVAL first, and REMOVE when they are closed
//
// Everything happens on one thread, in the order it was asked for; the power manager (po_system.cpp) uses it too. While the system
// sleeps nothing arrives and nothing departs: buses that report a change are looked at when it wakes.
#include "kernel/pnp.h"

#include <algorithm>
#include <utility>

#include "kernel/io_internal.h"
#include "kernel/rtl_text.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constinit thread_local bool onManagerThread = false;

bool mustSucceed(UCHAR minor) { return minor == IRP_MN_REMOVE_DEVICE || minor == IRP_MN_SURPRISE_REMOVAL; }

}  // namespace

PnpManager::PnpManager() = default;
PnpManager::~PnpManager() = default;

void PnpManager::start() {
    thread_.start("pnp", [this] { run(); });
}

void PnpManager::run() {
    onManagerThread = true;
    for (;;) {
        std::uint32_t seen = wake_.load();
        std::function<void()> work;
        bool ending;
        {
            std::lock_guard guard(lock_);
            ending = ending_;
            if (!queue_.empty()) {
                work = std::move(queue_.front());
                queue_.pop_front();
            }
            busy_ = work != nullptr;
        }
        if (work) {
            work();
            continue;
        }
        if (ending) {
            return;
        }
        saveRegistry();
        idle_.fetch_add(1);
        wakeAll(idle_);
        parkOn(wake_, seen, "work for the PnP manager", true);
    }
}

void PnpManager::saveRegistry() {
    try {
        system().registry.save();
        std::lock_guard guard(lock_);
        saveError_.clear();
    } catch (const RegistryError& error) {
        std::lock_guard guard(lock_);
        saveError_ = error.what();
    }
}

std::string PnpManager::saveError() {
    std::lock_guard guard(lock_);
    return saveError_;
}

void PnpManager::post(std::function<void()> work) {
    {
        std::lock_guard guard(lock_);
        queue_.push_back(std::move(work));
    }
    wake_.fetch_add(1);
    wakeAll(wake_);
}

NTSTATUS PnpManager::call(std::function<NTSTATUS()> work) {
    if (onManagerThread) {
        return work();
    }
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    post([&] {
        status = work();
        KeSetEvent(&done, IO_NO_INCREMENT, FALSE);
    });
    KeWaitForSingleObject(&done, ::Executive, KernelMode, FALSE, nullptr);
    return status;
}

void PnpManager::settle() {
    for (;;) {
        std::uint32_t seen = idle_.load();
        {
            std::lock_guard guard(lock_);
            if (queue_.empty() && !busy_) {
                return;
            }
        }
        parkOn(idle_, seen, "the PnP manager to become idle");
    }
}

void PnpManager::stop() {
    call([this] {
        for (;;) {
            auto root = std::find_if(nodes_.begin(), nodes_.end(), [](const auto& node) { return !node->parent; });
            if (root == nodes_.end()) {
                return STATUS_SUCCESS;
            }
            DeviceNodeRecord& node = **root;
            removeChildren(node);
            queryLastRemove(node);
            PDEVICE_OBJECT pdo = node.pdo;
            referenceDevice(pdo);
            node.gone = true;
            finishRemoval(node);
            IoDeleteDevice(pdo);
            dereferenceDevice(pdo);
        }
    });
    {
        std::lock_guard guard(lock_);
        ending_ = true;
    }
    wake_.fetch_add(1);
    wakeAll(wake_);
    thread_.join();
}

// Sending ----------------------------------------------------------------------------------------------------------------

NTSTATUS PnpManager::sendPnp(PDEVICE_OBJECT device, IO_STACK_LOCATION& wanted, ULONG_PTR* information) {
    PDEVICE_OBJECT top = topOfStack(device);
    IrpRecord* record = allocateIrp(top->StackSize, false);
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (record) {
        record->irp.IoStatus.Status = STATUS_NOT_SUPPORTED;
        wanted.MajorFunction = IRP_MJ_PNP;
        *IoGetNextIrpStackLocation(&record->irp) = wanted;
        status = callAndWait(top, *record);
        if (information) {
            *information = record->irp.IoStatus.Information;
        }
        unpinIrp(*record);
    }
    dereferenceDevice(top);
    return status;
}

NTSTATUS PnpManager::send(DeviceNodeRecord& node, UCHAR minor) {
    IO_STACK_LOCATION location{};
    location.MinorFunction = minor;
    NTSTATUS status = sendPnp(node.pdo, location, nullptr);
    if (verifying() && mustSucceed(minor) && !NT_SUCCESS(status)) {
        verifier::stop("P1", "IRP_MJ_PNP", node.pdo, "minor %02x failed with %08x, which it may not", minor, status);
    }
    return status;
}

NTSTATUS PnpManager::queryCapabilities(DeviceNodeRecord& node, DEVICE_CAPABILITIES& capabilities) {
    capabilities = {};
    capabilities.Size = sizeof capabilities;
    capabilities.Version = 1;
    capabilities.Address = capabilities.UINumber = MAXULONG;
    IO_STACK_LOCATION location{};
    location.MinorFunction = IRP_MN_QUERY_CAPABILITIES;
    location.Parameters.DeviceCapabilities.Capabilities = &capabilities;
    return sendPnp(node.pdo, location, nullptr);
}

// Finding devices --------------------------------------------------------------------------------------------------------

void PnpManager::setState(DeviceNodeRecord& node, DeviceState state) {
    std::lock_guard guard(lock_);
    node.state = state;
}

DeviceNodeRecord* PnpManager::nodeOf(PDEVICE_OBJECT pdo) {
    auto node = std::find_if(nodes_.begin(), nodes_.end(), [&](const auto& n) { return n->pdo == pdo; });
    return node == nodes_.end() ? nullptr : node->get();
}

// The newest of that name that is still there.
DeviceNodeRecord* PnpManager::find(std::string_view instancePath) {
    std::u16string wanted = toUtf16(instancePath);
    DeviceNodeRecord* found = nullptr;
    for (const auto& node : nodes_) {
        if (!node->gone && equalIgnoringCase(node->instancePath, wanted)) {
            found = node.get();
        }
    }
    return found;
}

std::vector<DeviceNodeRecord*> PnpManager::childrenOf(const DeviceNodeRecord& node) {
    std::vector<DeviceNodeRecord*> children;
    for (const auto& other : nodes_) {
        if (other->parent == &node) {
            children.push_back(other.get());
        }
    }
    return children;
}

void PnpManager::invalidateRelations(PDEVICE_OBJECT pdo) {
    referenceDevice(pdo);
    post([this, pdo] {
        enumerate(pdo);
        dereferenceDevice(pdo);
    });
}

void PnpManager::enumerate(PDEVICE_OBJECT pdo) {
    DeviceNodeRecord* node = nodeOf(pdo);
    if (!node || node->gone || node->state != DeviceState::started) {
        return;
    }
    if (systemState() != PowerSystemWorking) {
        referenceDevice(pdo);
        heldBack_.push_back(pdo);
        return;
    }
    IO_STACK_LOCATION location{};
    location.MinorFunction = IRP_MN_QUERY_DEVICE_RELATIONS;
    location.Parameters.QueryDeviceRelations.Type = BusRelations;
    ULONG_PTR information = 0;
    NTSTATUS status = sendPnp(pdo, location, &information);
    auto relations = reinterpret_cast<PDEVICE_RELATIONS>(information);
    if (!NT_SUCCESS(status) || !relations) {
        return;
    }
    std::vector<PDEVICE_OBJECT> reported(relations->Objects, relations->Objects + relations->Count);
    ExFreePool(relations);
    for (DeviceNodeRecord* child : childrenOf(*node)) {
        if (!child->gone && std::find(reported.begin(), reported.end(), child->pdo) == reported.end()) {
            depart(*child);
        }
    }
    for (PDEVICE_OBJECT child : reported) {
        if (nodeOf(child)) {
            dereferenceDevice(child);
        } else {
            arrive(child, node);
        }
    }
}

void PnpManager::enumerateHeldBack() {
    for (PDEVICE_OBJECT pdo : std::exchange(heldBack_, {})) {
        enumerate(pdo);
        dereferenceDevice(pdo);
    }
}

void PnpManager::arrive(PDEVICE_OBJECT pdo, DeviceNodeRecord* parent) {
    auto owned = std::make_unique<DeviceNodeRecord>();
    DeviceNodeRecord& node = *owned;
    node.pdo = pdo;
    node.parent = parent;
    bool known = NT_SUCCESS(readIds(node));
    {
        std::lock_guard guard(lock_);
        pdo->DeviceObjectExtension->node = &node;
        pdo->Flags |= DO_BUS_ENUMERATED_DEVICE;
        nodes_.push_back(std::move(owned));
    }
    if (!known) {
        setState(node, DeviceState::startFailed);
        return;
    }
    bringUp(node);
}

NTSTATUS PnpManager::bringUp(DeviceNodeRecord& node) {
    setState(node, DeviceState::added);
    writeKeys(node);
    if (!findBinding(node)) {
        return STATUS_NO_SUCH_DEVICE;
    }
    PDRIVER_OBJECT driver = findDriver(node.service);
    if (!driver || !driver->DriverExtension->AddDevice) {
        return STATUS_NO_SUCH_DEVICE;
    }
    choosePortName(node);
    setLeaving(node.pdo, false);
    verifier::RoutineFrame frame = verifier::enterRoutine();
    NTSTATUS status = driver->DriverExtension->AddDevice(driver, node.pdo);
    verifier::leaveRoutine(frame, "AddDevice", node.pdo);
    if (!NT_SUCCESS(status)) {
        if (verifying() && node.pdo->AttachedDevice) {
            verifier::stop("P3", "AddDevice", node.pdo, "failed with %08x and left a device attached", status);
        }
        setState(node, DeviceState::startFailed);
        return status;
    }
    node.driverAdded = true;
    return startDevice(node);
}

NTSTATUS PnpManager::startDevice(DeviceNodeRecord& node) {
    NTSTATUS status = send(node, IRP_MN_START_DEVICE);
    if (!NT_SUCCESS(status)) {
        startFailed(node);
        return status;
    }
    setState(node, DeviceState::started);
    DEVICE_CAPABILITIES capabilities;
    queryCapabilities(node, capabilities);
    send(node, IRP_MN_QUERY_PNP_DEVICE_STATE);
    enumerate(node.pdo);
    return STATUS_SUCCESS;
}

void PnpManager::startFailed(DeviceNodeRecord& node) {
    setLeaving(node.pdo, true);
    if (handlesOnStack(node.pdo) != 0) {
        send(node, IRP_MN_SURPRISE_REMOVAL);
        setState(node, DeviceState::startFailed);
        awaitHandles(node);
        return;
    }
    send(node, IRP_MN_REMOVE_DEVICE);
    node.driverAdded = false;
    setState(node, DeviceState::startFailed);
}

// Removal ----------------------------------------------------------------------------------------------------------------

void PnpManager::depart(DeviceNodeRecord& node) {
    {
        std::lock_guard guard(lock_);
        node.gone = true;
    }
    for (DeviceNodeRecord* child : childrenOf(node)) {
        if (!child->gone) {
            depart(*child);
        }
    }
    // A device whose start failed under open files has been told.
    if (node.waitsForHandles) {
        return;
    }
    PDEVICE_OBJECT above = node.pdo->AttachedDevice;
    if (node.driverAdded) {
        send(node, IRP_MN_SURPRISE_REMOVAL);
        if (verifying() && node.pdo->AttachedDevice != above) {
            verifier::stop("P2", "IRP_MN_SURPRISE_REMOVAL", node.pdo, "a driver detached or attached its device");
        }
    }
    setState(node, DeviceState::surpriseRemoved);
    // In this order: whoever is not seen here is refused.
    setLeaving(node.pdo, true);
    if (handlesOnStack(node.pdo) != 0 || !childrenOf(node).empty()) {
        awaitHandles(node);
        return;
    }
    finishRemoval(node);
}

// REMOVE follows when the last file on the stack is closed.
void PnpManager::awaitHandles(DeviceNodeRecord& node) {
    node.waitsForHandles = true;
    waitingForHandles_.fetch_add(1);
    // A file closed in between has posted nothing.
    post([this] { removeWaiting(); });
}

void PnpManager::removeWaiting() {
    for (bool again = true; again;) {
        again = false;
        for (const auto& node : nodes_) {
            if (node->waitsForHandles && handlesOnStack(node->pdo) == 0 && childrenOf(*node).empty()) {
                node->waitsForHandles = false;
                waitingForHandles_.fetch_sub(1);
                finishRemoval(*node);
                again = true;
                break;
            }
        }
    }
}

void PnpManager::handleClosed() {
    if (waitingForHandles_.load() != 0) {
        post([this] { removeWaiting(); });
    }
}

bool PnpManager::hasOtherNode(const DeviceNodeRecord& node) {
    return std::any_of(nodes_.begin(), nodes_.end(), [&](const auto& other) {
        return other.get() != &node && !other->gone && equalIgnoringCase(other->instancePath, node.instancePath);
    });
}

void PnpManager::finishRemoval(DeviceNodeRecord& node) {
    send(node, IRP_MN_REMOVE_DEVICE);
    if (verifying() && node.pdo->AttachedDevice) {
        verifier::stop("P3", "IRP_MN_REMOVE_DEVICE", node.pdo, "a device is still attached after the removal");
    }
    node.driverAdded = false;
    setState(node, DeviceState::removed);
    if (!hasOtherNode(node)) {
        disableInterfaces(node.instancePath);
    }
    if (node.gone) {
        forget(node);
    }
}

void PnpManager::forget(DeviceNodeRecord& node) {
    PDEVICE_OBJECT pdo = node.pdo;
    {
        std::lock_guard guard(lock_);
        pdo->DeviceObjectExtension->node = nullptr;
        std::erase_if(nodes_, [&](const auto& other) { return other.get() == &node; });
    }
    dereferenceDevice(pdo);
}

// A device that did not come back to full power is not asked: its driver may keep the question until it does.
void PnpManager::queryLastRemove(DeviceNodeRecord& node) {
    if (node.driverAdded && node.state == DeviceState::started && stackPowerState(node.pdo) == PowerDeviceD0) {
        send(node, IRP_MN_QUERY_REMOVE_DEVICE);
    }
}

// Orderly removal of everything below, whatever handles are open: the caller goes away.
void PnpManager::removeChildren(DeviceNodeRecord& node) {
    for (DeviceNodeRecord* child : childrenOf(node)) {
        removeChildren(*child);
        queryLastRemove(*child);
        child->gone = true;
        finishRemoval(*child);
    }
}

// Steps by hand ----------------------------------------------------------------------------------------------------------

NTSTATUS PnpManager::onDevice(std::string_view instancePath, NTSTATUS (PnpManager::*step)(DeviceNodeRecord&)) {
    return call([&] {
        // A driver may hold the step up until its device has power again, which this thread would have to see to.
        if (systemState() != PowerSystemWorking) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        DeviceNodeRecord* node = find(instancePath);
        return node ? (this->*step)(*node) : STATUS_NO_SUCH_DEVICE;
    });
}

NTSTATUS PnpManager::queryStop(DeviceNodeRecord& node) {
    if (node.state != DeviceState::started || node.stopPending || node.removePending) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    NTSTATUS status = send(node, IRP_MN_QUERY_STOP_DEVICE);
    if (NT_SUCCESS(status)) {
        node.stopPending = true;
    } else {
        send(node, IRP_MN_CANCEL_STOP_DEVICE);
    }
    return status;
}

NTSTATUS PnpManager::stopDevice(DeviceNodeRecord& node) {
    if (!node.stopPending) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    node.stopPending = false;
    NTSTATUS status = send(node, IRP_MN_STOP_DEVICE);
    setState(node, DeviceState::stopped);
    return status;
}

NTSTATUS PnpManager::cancelStop(DeviceNodeRecord& node) {
    if (!node.stopPending) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    node.stopPending = false;
    return send(node, IRP_MN_CANCEL_STOP_DEVICE);
}

NTSTATUS PnpManager::startAgain(DeviceNodeRecord& node) {
    if (node.state == DeviceState::stopped) {
        return startDevice(node);
    }
    return node.driverAdded ? STATUS_INVALID_DEVICE_STATE : bringUp(node);
}

NTSTATUS PnpManager::queryRemove(DeviceNodeRecord& node) {
    if (node.state != DeviceState::started || node.stopPending || node.removePending) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    NTSTATUS status = send(node, IRP_MN_QUERY_REMOVE_DEVICE);
    if (NT_SUCCESS(status) && handlesOnStack(node.pdo) != 0) {
        status = STATUS_DEVICE_BUSY;
    }
    if (NT_ERROR(status) || NT_WARNING(status)) {
        send(node, IRP_MN_CANCEL_REMOVE_DEVICE);
        return status;
    }
    node.removePending = true;
    return status;
}

NTSTATUS PnpManager::removeDevice(DeviceNodeRecord& node) {
    if (!node.removePending) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    node.removePending = false;
    setLeaving(node.pdo, true);
    if (handlesOnStack(node.pdo) != 0) {
        setLeaving(node.pdo, false);
        send(node, IRP_MN_CANCEL_REMOVE_DEVICE);
        return STATUS_DEVICE_BUSY;
    }
    removeChildren(node);
    finishRemoval(node);
    return STATUS_SUCCESS;
}

NTSTATUS PnpManager::cancelRemove(DeviceNodeRecord& node) {
    if (!node.removePending) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    node.removePending = false;
    return send(node, IRP_MN_CANCEL_REMOVE_DEVICE);
}

NTSTATUS PnpManager::restart(DeviceNodeRecord& node) {
    if (node.state == DeviceState::started) {
        NTSTATUS status = queryRemove(node);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        status = removeDevice(node);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return startAgain(node);
}

}  // namespace nt
