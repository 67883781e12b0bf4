// The running executive as its own parts see it. Not for drivers, not for applications.
#pragma once

#include <wdm.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/core.h"
#include "kernel/executive.h"
#include "kernel/registry.h"

namespace nt {

class Namespace;
class PnpManager;
struct Driver;

struct System {
    explicit System(const Options& o);
    ~System();

    const Options options;
    Registry registry;
    std::unique_ptr<Namespace> names;
    std::unique_ptr<PnpManager> pnp;

    // Written by the power manager only. The target changes before the first stack is told, the state after the last has ended.
    std::atomic<SYSTEM_POWER_STATE> powerTarget{PowerSystemWorking};
    std::atomic<SYSTEM_POWER_STATE> powerState{PowerSystemWorking};

    std::mutex sinkLock;  // one text, one log entry at a time
    std::vector<ErrorLogEntry> errorLog;  // guarded by sinkLock

    std::mutex driverLock;
    std::vector<std::unique_ptr<Driver>> drivers;  // in order of loading; guarded by driverLock
};

// The one that runs. Boot sets it before anything else runs, stop clears it after everything else has ended.
System& system();
System* systemOrNull();
void setSystem(System* system);

// What the loader keeps of a driver. The driver object itself is one of the platform's records.
struct Driver {
    DRIVER_OBJECT object{};
    DRIVER_EXTENSION extension{};
    std::string service;
    std::u16string name;         // \Driver\service
    std::u16string serviceKey;   // \Registry\Machine\System\CurrentControlSet\Services\service
    std::u16string serviceName;  // service
};

// The driver object of a service, or null.
PDRIVER_OBJECT findDriver(std::string_view service);
std::string serviceOf(PDRIVER_OBJECT driver);

}  // namespace nt
