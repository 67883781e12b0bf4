// System sleep and wake.
//
//   S0 --QUERY_POWER to all, then SET_POWER Sx--> Sx --SET_POWER S0--> S0
//   a query refused: SET_POWER S0 to those asked --> S0
//   Sx --wait-wake ended with success, and x is no deeper than it said--> S0
//
// It runs on the PnP manager's thread: no device arrives or departs between two stacks of one transition, and a wake asked for
// on the way down follows it. A stack answers within a time the platform grants it; then the verifier stops, or the others go on.
#include "kernel/power.h"

#include <memory>

#include "kernel/io_internal.h"
#include "kernel/pnp.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr LONGLONG answerTimeoutMs = 10 * 60 * 1000;

const char* nameOf(SYSTEM_POWER_STATE state) {
    static const char* const names[] = {"unspecified", "S0", "S1", "S2", "S3", "S4", "shutdown"};
    return names[state];
}

POWER_ACTION actionFor(SYSTEM_POWER_STATE state) {
    switch (state) {
    case PowerSystemWorking: return PowerActionNone;
    case PowerSystemHibernate: return PowerActionHibernate;
    case PowerSystemShutdown: return PowerActionShutdown;
    default: return PowerActionSleep;
    }
}

// Shared with a request that may end after nobody waits for it any more.
struct Answer {
    KEVENT ended;
    NTSTATUS status = STATUS_IO_TIMEOUT;
};

VOID NTAPI answered(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK status) {
    std::unique_ptr<std::shared_ptr<Answer>> answer(static_cast<std::shared_ptr<Answer>*>(context));
    (*answer)->status = status->Status;
    KeSetEvent(&(*answer)->ended, IO_NO_INCREMENT, FALSE);
}

NTSTATUS tell(DeviceNodeRecord& node, UCHAR minor, SYSTEM_POWER_STATE state) {
    auto answer = std::make_shared<Answer>();
    KeInitializeEvent(&answer->ended, NotificationEvent, FALSE);
    auto kept = std::make_unique<std::shared_ptr<Answer>>(answer);
    PowerRequest request;
    request.minor = minor;
    request.type = SystemPowerState;
    request.state.SystemState = state;
    request.action = actionFor(state);
    request.complete = answered;
    request.context = kept.get();
    request.mayFail = false;
    PIRP irp;
    NTSTATUS status = requestPower(node.pdo, request, &irp);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    kept.release();
    LARGE_INTEGER timeout;
    timeout.QuadPart = -answerTimeoutMs * 10'000;
    if (KeWaitForSingleObject(&answer->ended, ::Executive, KernelMode, FALSE, &timeout) == STATUS_TIMEOUT) {
        if (verifying()) {
            verifier::stop("P7", "IRP_MJ_POWER", irp, "the stack of %s has not answered %s for %s in 10 minutes",
                           toUtf8(node.instancePath).c_str(), minor == IRP_MN_QUERY_POWER ? "QUERY_POWER" : "SET_POWER", nameOf(state));
        }
        return STATUS_IO_TIMEOUT;
    }
    return answer->status;
}

NTSTATUS setState(DeviceNodeRecord& node, SYSTEM_POWER_STATE state) {
    node.systemState = state;
    return tell(node, IRP_MN_SET_POWER, state);
}

NTSTATUS goDown(SYSTEM_POWER_STATE state) {
    System& sys = system();
    if (sys.powerState != PowerSystemWorking) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    const std::vector<DeviceNodeRecord*> nodes = sys.pnp->poweredNodes();
    for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) {
        NTSTATUS status = tell(**node, IRP_MN_QUERY_POWER, state);
        if (!NT_SUCCESS(status)) {
            for (auto asked = node + 1; asked != nodes.rbegin();) {
                setState(**--asked, PowerSystemWorking);
            }
            return status;
        }
    }
    sys.powerTarget = state;
    NTSTATUS first = STATUS_SUCCESS;
    for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) {
        NTSTATUS status = setState(**node, state);
        if (NT_SUCCESS(first) && !NT_SUCCESS(status)) {
            first = status;
        }
    }
    sys.powerState = state;
    return first;
}

NTSTATUS goUp() {
    System& sys = system();
    if (sys.powerState == PowerSystemWorking) {
        return STATUS_SUCCESS;
    }
    sys.powerTarget = PowerSystemWorking;
    for (DeviceNodeRecord* node : sys.pnp->poweredNodes()) {
        if (node->systemState != PowerSystemWorking) {
            setState(*node, PowerSystemWorking);
        }
    }
    sys.powerState = PowerSystemWorking;
    sys.pnp->enumerateHeldBack();
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS sleepSystem(SYSTEM_POWER_STATE state) {
    if (state < PowerSystemSleeping1 || state >= PowerSystemMaximum) {
        return STATUS_INVALID_PARAMETER;
    }
    return system().pnp->call([state] { return goDown(state); });
}

void wakeSystem() { system().pnp->call(goUp); }

SYSTEM_POWER_STATE systemState() { return system().powerState; }

std::vector<PowerNode> powerNodes() { return system().pnp->powerNodes(); }

void deviceWoke(SYSTEM_POWER_STATE deepest) {
    System* sys = systemOrNull();
    if (!sys) {
        return;
    }
    SYSTEM_POWER_STATE target = sys->powerTarget;
    if (target != PowerSystemWorking && target != PowerSystemShutdown && target <= deepest) {
        sys->pnp->post([] { goUp(); });
    }
}

std::vector<DeviceNodeRecord*> PnpManager::poweredNodes() {
    std::vector<DeviceNodeRecord*> powered;
    for (const auto& node : nodes_) {
        if (node->driverAdded && !node->gone) {
            powered.push_back(node.get());
        }
    }
    return powered;
}

std::vector<PowerNode> PnpManager::powerNodes() {
    std::lock_guard guard(lock_);
    std::vector<PowerNode> found;
    for (const auto& node : nodes_) {
        if (!node->gone) {
            bool waits = node->pdo->DeviceObjectExtension->waitWakes.load() != 0;
            found.push_back({toUtf8(node->instancePath), stackPowerState(node->pdo), waits});
        }
    }
    return found;
}

}  // namespace nt
