// Boot, drivers, stop.
#include "kernel/executive.h"

#include <algorithm>
#include <stdexcept>

#include "kernel/cm_store.h"
#include "kernel/io_internal.h"
#include "kernel/ob_names.h"
#include "kernel/pnp.h"
#include "kernel/pool.h"
#include "kernel/power.h"
#include "kernel/rtl_text.h"
#include "kernel/verifier.h"
#include "kernel/work.h"

namespace nt {

namespace {

System* theSystem = nullptr;
Executive* theExecutive = nullptr;

const std::string servicesKey = "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\";

UNICODE_STRING stringOf(std::u16string& text) {
    auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, static_cast<USHORT>(bytes + sizeof(WCHAR)), text.data()};
}

// What a major function does that the driver has not taken.
NTSTATUS NTAPI invalidRequest(PDEVICE_OBJECT, PIRP irp) {
    if (IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_POWER) {
        PoStartNextPowerIrp(irp);
    }
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

void prepareDriver(Driver& driver, std::string_view service, PDRIVER_INITIALIZE entry) {
    driver.service = service;
    driver.serviceName = toUtf16(service);
    driver.name = u"\\Driver\\" + driver.serviceName;
    driver.serviceKey = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + driver.serviceName;
    driver.object.Type = IO_TYPE_DRIVER;
    driver.object.Size = sizeof(DRIVER_OBJECT);
    driver.object.DriverExtension = &driver.extension;
    driver.object.DriverName = stringOf(driver.name);
    driver.object.DriverInit = entry;
    driver.extension.DriverObject = &driver.object;
    driver.extension.ServiceKeyName = stringOf(driver.serviceName);
    std::fill(std::begin(driver.object.MajorFunction), std::end(driver.object.MajorFunction), invalidRequest);
}

}  // namespace

System::System(const Options& o) : options(o), names(std::make_unique<Namespace>()), pnp(std::make_unique<PnpManager>()) {}
System::~System() = default;

System& system() { return *theSystem; }
System* systemOrNull() { return theSystem; }
void setSystem(System* system) { theSystem = system; }

PDRIVER_OBJECT findDriver(std::string_view service) {
    System& sys = system();
    std::lock_guard guard(sys.driverLock);
    std::u16string wanted = toUtf16(service);
    for (const auto& driver : sys.drivers) {
        if (equalIgnoringCase(driver->serviceName, wanted)) {
            return &driver->object;
        }
    }
    return nullptr;
}

std::string serviceOf(PDRIVER_OBJECT driver) { return CONTAINING_RECORD(driver, Driver, object)->service; }

struct Executive::State {
    explicit State(const Options& options) : system(options) {}
    System system;
    bool running = false;
};

Executive::Executive(const Options& options) : state_(std::make_unique<State>(options)) {
    if (theExecutive) {
        throw std::logic_error("an executive is running already");
    }
    System& sys = state_->system;
    if (!options.registryFile.empty()) {
        sys.registry.open(options.registryFile);
        sys.registry.save();
    }
    startCore({options.mode == Mode::simulated, options.seed, options.verifier});
    setSystem(&sys);
    theExecutive = this;
    state_->running = true;
    startIrps();
    sys.pnp->start();
}

Executive::~Executive() {
    if (state_->running) {
        stop();
    }
}

Executive* Executive::current() { return theExecutive; }

LeakReport Executive::stop() {
    LeakReport report;
    if (!state_->running) {
        return report;
    }
    state_->running = false;
    System& sys = state_->system;
    auto add = [&](std::vector<std::string> lines) {
        report.lines.insert(report.lines.end(), lines.begin(), lines.end());
    };
    wakeSystem();
    KeFlushQueuedDpcs();
    flushWork();
    sys.pnp->settle();
    sys.pnp->stop();
    flushWork();
    KeFlushQueuedDpcs();
    while (!sys.drivers.empty()) {
        Driver& driver = *sys.drivers.back();
        if (driver.object.DriverUnload && !driver.object.DeviceObject) {
            driver.object.DriverUnload(&driver.object);
        }
        flushWork();
        add(leftDevices(driver));
        sys.drivers.pop_back();
    }
    add(sys.names->leftLinks());
    for (const std::string& link : sys.pnp->enabledInterfaces()) {
        report.lines.push_back("device interface enabled: " + link);
    }
    add(sys.registry.store().openHandles());
    emptyIoCaches();
    add(stopCore());
    setSystem(nullptr);
    theExecutive = nullptr;
    try {
        sys.registry.save();
    } catch (const RegistryError& error) {
        report.lines.push_back(error.what());
    }
    return report;
}

NTSTATUS Executive::loadDriver(std::string_view service, PDRIVER_INITIALIZE entry) {
    System& sys = state_->system;
    if (findDriver(service)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    auto owned = std::make_unique<Driver>();
    Driver& driver = *owned;
    prepareDriver(driver, service, entry);
    sys.registry.createKey(servicesKey + std::string(service));
    {
        std::lock_guard guard(sys.driverLock);
        sys.drivers.push_back(std::move(owned));
    }
    UNICODE_STRING path = stringOf(driver.serviceKey);
    verifier::RoutineFrame frame = verifier::enterRoutine();
    NTSTATUS status = entry(&driver.object, &path);
    verifier::leaveRoutine(frame, "DriverEntry", nullptr);
    if (!NT_SUCCESS(status)) {
        std::lock_guard guard(sys.driverLock);
        std::erase_if(sys.drivers, [&](const auto& other) { return other.get() == &driver; });
        return status;
    }
    for (PDEVICE_OBJECT device = driver.object.DeviceObject; device; device = device->NextDevice) {
        device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    }
    return status;
}

NTSTATUS Executive::unloadDriver(std::string_view service) {
    System& sys = state_->system;
    settle();
    flushWork();
    PDRIVER_OBJECT object = findDriver(service);
    if (!object) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (object->DeviceObject || !object->DriverUnload) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    object->DriverUnload(object);
    std::lock_guard guard(sys.driverLock);
    std::erase_if(sys.drivers, [&](const auto& driver) { return &driver->object == object; });
    return STATUS_SUCCESS;
}

void Executive::bindDriver(std::string_view id, std::string_view service, std::string_view className,
                           std::string_view classGuid) {
    state_->system.pnp->bind(id, service, className, classGuid);
}

NTSTATUS Executive::addRootDevice(std::string_view service, std::string_view instanceId) {
    return state_->system.pnp->addRootDevice(service, instanceId);
}

Registry& Executive::registry() { return state_->system.registry; }

void Executive::settle() { state_->system.pnp->settle(); }

std::vector<DeviceNode> Executive::devices() { return state_->system.pnp->devices(); }

std::vector<std::string> Executive::enabledInterfaces() { return state_->system.pnp->enabledInterfaces(); }

std::vector<ErrorLogEntry> Executive::errorLog() {
    std::lock_guard guard(state_->system.sinkLock);
    return state_->system.errorLog;
}

PDEVICE_OBJECT Executive::lookUp(std::string_view name) {
    PDEVICE_OBJECT device = nullptr;
    if (!NT_SUCCESS(state_->system.names->lookUp(toUtf16(name), false, &device, nullptr))) {
        return nullptr;
    }
    dereferenceDevice(device);
    return device;
}

NTSTATUS Executive::queryStop(std::string_view path) { return state_->system.pnp->onDevice(path, &PnpManager::queryStop); }

NTSTATUS Executive::stopDevice(std::string_view path) {
    return state_->system.pnp->onDevice(path, &PnpManager::stopDevice);
}

NTSTATUS Executive::cancelStop(std::string_view path) {
    return state_->system.pnp->onDevice(path, &PnpManager::cancelStop);
}

NTSTATUS Executive::startDevice(std::string_view path) {
    return state_->system.pnp->onDevice(path, &PnpManager::startAgain);
}

NTSTATUS Executive::queryRemove(std::string_view path) {
    return state_->system.pnp->onDevice(path, &PnpManager::queryRemove);
}

NTSTATUS Executive::removeDevice(std::string_view path) {
    return state_->system.pnp->onDevice(path, &PnpManager::removeDevice);
}

NTSTATUS Executive::cancelRemove(std::string_view path) {
    return state_->system.pnp->onDevice(path, &PnpManager::cancelRemove);
}

NTSTATUS Executive::restart(std::string_view path) { return state_->system.pnp->onDevice(path, &PnpManager::restart); }

}  // namespace nt
