// The executive as a whole: it boots, loads drivers, enumerates devices, and says what was left behind.
//
// One executive exists at a time. The thread that creates it becomes a processor of it, and so does every other thread
// while it runs kernel code; in the simulated mode all of them must have been started through the executive.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/registry.h"

namespace nt {

enum class Mode {
    real,       // threads run freely, monotonic clock
    simulated,  // one thread at a time, chosen by the seed; virtual clock
};

struct ErrorLogEntry {
    std::string driver;  // service name
    std::string device;  // name of the device object, or "" for a nameless one
    NTSTATUS errorCode = 0;
    NTSTATUS finalStatus = 0;
    ULONG uniqueErrorValue = 0;
    UCHAR majorFunction = 0;
    UCHAR retryCount = 0;
    std::vector<UCHAR> dumpData;
    std::vector<std::string> strings;
};

// Called with one whole DbgPrint text, at any IRQL, from any thread; calls do not overlap.
using DebugSink = void (*)(void* context, const char* text, std::size_t length);
// Called at up to DISPATCH_LEVEL; calls do not overlap.
using ErrorLogSink = void (*)(void* context, const ErrorLogEntry& entry);

struct Options {
    Mode mode = Mode::real;
    std::uint64_t seed = 0;
    bool verifier = true;
    std::string registryFile = {};  // "" = in memory only
    DebugSink debugSink = nullptr;
    void* debugContext = nullptr;
    ErrorLogSink errorLogSink = nullptr;
    void* errorLogContext = nullptr;
};

// What nobody gave back: one readable line for each pool tag, device object, link, interface, handle, key and timer.
struct LeakReport {
    std::vector<std::string> lines;
    bool clean() const { return lines.empty(); }
};

enum class DeviceState { added, started, stopped, startFailed, surpriseRemoved, removed };

struct DeviceNode {
    std::string instancePath;  // USB\VID_..&PID_..\serial, as under the Enum key
    std::string service;       // the function driver's, "" when nothing is bound
    std::string driverKey;     // {class guid}\0000, "" when nothing is bound
    std::string portName;      // COM3, "" for another class
    DeviceState state = DeviceState::added;
    PDEVICE_OBJECT pdo = nullptr;
};

class Executive {
public:
    // Throws RegistryError for a registry file that cannot be taken.
    explicit Executive(const Options& options);
    // Stops if stop() has not been called.
    ~Executive();
    Executive(const Executive&) = delete;
    Executive& operator=(const Executive&) = delete;

    // The one that is running, or null.
    static Executive* current();

    // Removes all devices, unloads all drivers, ends the executive's threads, saves the registry. Handles must have been
    // closed. Once only; everything else is over afterwards, except reading the registry and the error log.
    LeakReport stop();

    // Makes the driver object, its Services key if missing, and calls the entry point at PASSIVE_LEVEL.
    // The entry's own status, or STATUS_OBJECT_NAME_COLLISION when the service is loaded already.
    NTSTATUS loadDriver(std::string_view service, PDRIVER_INITIALIZE entry);
    // Calls DriverUnload. STATUS_INVALID_DEVICE_REQUEST while a device of the driver exists or when it has no such routine.
    NTSTATUS unloadDriver(std::string_view service);
    // What an INF does: devices with this hardware or compatible id belong to the service and the class from now on.
    // Class "Ports" devices get a COM name from the port-name arbiter.
    void bindDriver(std::string_view id, std::string_view service, std::string_view className, std::string_view classGuid);
    // A device with no bus above the executive's own: its PDO is made here, `service` gets AddDevice and START.
    // Returns when the device has started; the status of what failed otherwise.
    NTSTATUS addRootDevice(std::string_view service, std::string_view instanceId = "0000");

    Registry& registry();
    // Waits until the PnP manager has nothing left to do. PASSIVE_LEVEL.
    void settle();

    std::vector<DeviceNode> devices();
    std::vector<std::string> enabledInterfaces();  // symbolic link names
    std::vector<ErrorLogEntry> errorLog();
    // Device object of a name or link, not referenced; null when there is none.
    PDEVICE_OBJECT lookUp(std::string_view name);

    // Plug and Play by hand, run in order on the PnP manager's thread, back when done. STATUS_NO_SUCH_DEVICE for an unknown instance;
    // STATUS_INVALID_DEVICE_STATE for a step that does not fit the device's state. A removal that meets an open file on the stack is
    // called off with STATUS_DEVICE_BUSY, at the question or at the step itself.
    NTSTATUS queryStop(std::string_view instancePath);
    NTSTATUS stopDevice(std::string_view instancePath);
    NTSTATUS cancelStop(std::string_view instancePath);
    NTSTATUS startDevice(std::string_view instancePath);
    NTSTATUS queryRemove(std::string_view instancePath);
    NTSTATUS removeDevice(std::string_view instancePath);
    NTSTATUS cancelRemove(std::string_view instancePath);
    // Query-remove, remove, and enumerated anew.
    NTSTATUS restart(std::string_view instancePath);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace nt
