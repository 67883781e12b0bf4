// The PnP manager: finds devices, binds them to drivers, and takes them through their states on a thread of its own.
#pragma once

#include <wdm.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/core.h"
#include "kernel/executive.h"
#include "kernel/power.h"
#include "kernel/thread.h"

namespace nt {

// One PDO the manager knows. Fields are written on the manager's thread under its lock; that thread reads them without.
struct DeviceNodeRecord {
    PDEVICE_OBJECT pdo = nullptr;  // holds a reference
    DeviceNodeRecord* parent = nullptr;  // null for a root device
    std::u16string deviceId;             // USB\VID_…
    std::u16string instancePath;         // deviceId\instance
    std::vector<std::u16string> hardwareIds;
    std::vector<std::u16string> compatibleIds;
    std::string service;
    std::string className;
    std::string classGuid;
    std::string driverKey;
    bool driverAdded = false;  // the stack has more than the PDO, or AddDevice succeeded
    bool gone = false;         // no longer reported by its bus
    bool waitsForHandles = false;
    bool stopPending = false;
    bool removePending = false;
    SYSTEM_POWER_STATE systemState = PowerSystemWorking;  // as its stack was last told; the manager's thread only
    DeviceState state = DeviceState::added;
};

class PnpManager {
public:
    PnpManager();
    ~PnpManager();

    void start();
    // Removes every device, children first, and ends the thread.
    void stop();

    // Any IRQL up to DISPATCH_LEVEL. Runs `work` on the manager's thread, in order; the second waits for it.
    void post(std::function<void()> work);
    NTSTATUS call(std::function<NTSTATUS()> work);
    void invalidateRelations(PDEVICE_OBJECT pdo);
    // A file on some stack has been closed.
    void handleClosed();
    void settle();

    void bind(std::string_view id, std::string_view service, std::string_view className, std::string_view classGuid);
    NTSTATUS addRootDevice(std::string_view service, std::string_view instanceId);
    NTSTATUS onDevice(std::string_view instancePath, NTSTATUS (PnpManager::*step)(DeviceNodeRecord&));
    std::vector<DeviceNode> devices();
    // What kept the registry from being written, "" when nothing did.
    std::string saveError();

    // The devices whose stacks hear of system power, in order of arrival: parents before children. The manager's thread only.
    std::vector<DeviceNodeRecord*> poweredNodes();
    // Looks at the buses that reported a change while the system slept. The manager's thread only.
    void enumerateHeldBack();
    std::vector<PowerNode> powerNodes();

    // Steps for onDevice.
    NTSTATUS queryStop(DeviceNodeRecord& node);
    NTSTATUS stopDevice(DeviceNodeRecord& node);
    NTSTATUS cancelStop(DeviceNodeRecord& node);
    NTSTATUS startAgain(DeviceNodeRecord& node);
    NTSTATUS queryRemove(DeviceNodeRecord& node);
    NTSTATUS removeDevice(DeviceNodeRecord& node);
    NTSTATUS cancelRemove(DeviceNodeRecord& node);
    NTSTATUS restart(DeviceNodeRecord& node);

    // What the platform's calls ask for a PDO; STATUS_INVALID_DEVICE_REQUEST when it is none of ours.
    NTSTATUS instancePathOf(PDEVICE_OBJECT pdo, std::u16string& path);
    NTSTATUS property(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, std::u16string& text);

    // Device interfaces.
    NTSTATUS registerInterface(PDEVICE_OBJECT pdo, const GUID& interfaceClass, std::u16string_view reference,
                               std::u16string& link);
    NTSTATUS setInterfaceState(std::u16string_view link, bool enable);
    std::vector<std::string> enabledInterfaces();

private:
    struct Binding {
        std::string service, className, classGuid;
    };
    struct Interface {
        std::u16string link;
        std::u16string instancePath;
        bool enabled = false;
    };

    void run();
    void enumerate(PDEVICE_OBJECT pdo);
    void arrive(PDEVICE_OBJECT pdo, DeviceNodeRecord* parent);
    void depart(DeviceNodeRecord& node);
    void finishRemoval(DeviceNodeRecord& node);
    void saveRegistry();
    NTSTATUS sendPnp(PDEVICE_OBJECT device, IO_STACK_LOCATION& location, ULONG_PTR* information);
    NTSTATUS queryCapabilities(DeviceNodeRecord& node, DEVICE_CAPABILITIES& capabilities);
    NTSTATUS addRootNode(std::string_view service, std::string_view instanceId);
    bool hasOtherNode(const DeviceNodeRecord& node);
    void startFailed(DeviceNodeRecord& node);
    void awaitHandles(DeviceNodeRecord& node);
    void removeWaiting();
    void forget(DeviceNodeRecord& node);
    NTSTATUS bringUp(DeviceNodeRecord& node);
    NTSTATUS startDevice(DeviceNodeRecord& node);
    void disableInterfaces(const std::u16string& instancePath);
    void setState(DeviceNodeRecord& node, DeviceState state);
    bool findBinding(DeviceNodeRecord& node);
    NTSTATUS readIds(DeviceNodeRecord& node);
    void writeKeys(DeviceNodeRecord& node);
    void choosePortName(DeviceNodeRecord& node);
    void removeChildren(DeviceNodeRecord& node);
    void queryLastRemove(DeviceNodeRecord& node);
    std::vector<DeviceNodeRecord*> childrenOf(const DeviceNodeRecord& node);
    NTSTATUS send(DeviceNodeRecord& node, UCHAR minor);
    DeviceNodeRecord* find(std::string_view instancePath);
    DeviceNodeRecord* nodeOf(PDEVICE_OBJECT pdo);

    Thread thread_;
    std::mutex lock_;
    std::vector<PDEVICE_OBJECT> heldBack_;  // buses to enumerate once the system works again, referenced; the thread's own
    // Guarded by lock_.
    std::deque<std::function<void()>> queue_;
    bool busy_ = false;
    bool ending_ = false;
    std::vector<std::unique_ptr<DeviceNodeRecord>> nodes_;
    std::map<std::u16string, Interface> interfaces_;  // by folded link

    std::map<std::u16string, Binding> bindings_;  // by folded id; guarded by lock_
    std::string saveError_;
    std::atomic<int> waitingForHandles_{0};
    ParkWord wake_{0};  // goes up with every post, and at the end
    ParkWord idle_{0};  // goes up whenever the queue has run empty
};

}  // namespace nt
