// The system's power manager: sleep, shutdown and wake of the whole machine.
//
// Stacks are told one after the other and each ends its request before the next one is told: on the way down children before parents
// and the last to arrive first, on the way up the other way round. The threads of applications are not frozen: their requests
// reach the drivers in any state.
#pragma once

#include <wdm.h>

#include <string>
#include <vector>

namespace nt {

// Asks every stack (QUERY_POWER), then tells it (SET_POWER of the system state), and returns when every stack has ended its request.
// A refused query ends it: those asked are told S0 again, and the refusal is returned. A stack that fails to go down does not hold the
// others up; the first such failure is returned and the system sleeps. STATUS_INVALID_PARAMETER for a state that is no way down,
// STATUS_INVALID_DEVICE_STATE while the system sleeps already. PASSIVE_LEVEL, a thread of the executive, no lock held.
NTSTATUS sleepSystem(SYSTEM_POWER_STATE state);
// Tells every stack S0 and returns when each has ended its request. Then arrives and departs what did so in the meantime.
// Does nothing while the system works. PASSIVE_LEVEL, a thread of the executive, no lock held.
void wakeSystem();
// As it is between two transitions; while one is under way the state it started from. Any IRQL.
SYSTEM_POWER_STATE systemState();

// One device as the power manager sees it.
struct PowerNode {
    std::string instancePath;
    DEVICE_POWER_STATE deviceState = PowerDeviceUnspecified;  // the lowest a driver of the stack has reported (PoSetPowerState)
    bool waitWake = false;                                    // a wait-wake is outstanding; its success wakes the system, too
};
// Every device that has not left. PASSIVE_LEVEL.
std::vector<PowerNode> powerNodes();

}  // namespace nt
