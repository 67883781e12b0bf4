// The power manager against a bus whose children the test plugs and unplugs: order, refusal, failure, arrival and removal in between.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/power.h"
#include "kernel/thread.h"
#include "tests/kernel_bus.h"
#include "tests/kernel_core.h"

namespace {

using namespace test;

std::string stateText(SYSTEM_POWER_STATE state) {
    static const char* const names[] = {"?", "S0", "S1", "S2", "S3", "S4", "off"};
    return names[state];
}

class KernelPower : public BusMachine {
protected:
    KernelPower() {
        world_.onPower = [this](PDEVICE_OBJECT device, PIRP irp, NTSTATUS& status) { return onPower(device, irp, status); };
    }
    // The machine still runs down after this part of the fixture is gone.
    ~KernelPower() override { world_.onPower = nullptr; }

    // Notes what reaches the function drivers and the bus; the devices below hear it after them.
    bool onPower(PDEVICE_OBJECT device, PIRP irp, NTSTATUS& status) {
        const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
        const std::string who = nameOf(device);
        const bool child = extensionOf(device).kind == childKind;
        if (location->MinorFunction == IRP_MN_WAIT_WAKE && child) {
            IoMarkIrpPending(irp);
            PoStartNextPowerIrp(irp);
            waitWake_ = irp;
            status = STATUS_PENDING;
            return true;
        }
        if (child || location->MinorFunction == IRP_MN_WAIT_WAKE) return false;
        EXPECT_EQ(location->Parameters.Power.Type, SystemPowerState);
        const bool query = location->MinorFunction == IRP_MN_QUERY_POWER;
        world_.log.push_back(who + (query ? "?" : ":") + stateText(location->Parameters.Power.State.SystemState));
        if (who == "two" && !query && whenTwoGoesDown) std::exchange(whenTwoGoesDown, nullptr)();
        if (!query) action = location->Parameters.Power.ShutdownType;
        if (who == (query ? refuses : fails)) {
            status = completePower(irp, query ? STATUS_DEVICE_BUSY : STATUS_DEVICE_POWER_FAILURE);
            return true;
        }
        if (query || who != answersLater) return false;
        IoMarkIrpPending(irp);
        later_ = nt::Thread("later", [this, irp] {
            delay(50 * ms);
            world_.log.push_back(answersLater + " done");
            completePower(irp, STATUS_SUCCESS);
        });
        status = STATUS_PENDING;
        return true;
    }

    Child& plugTwo() {
        Child& one = plug(u"one");
        plug(u"two");
        log();
        return one;
    }
    void askForWake(Child& child, SYSTEM_POWER_STATE deepest) {
        const POWER_STATE state{.SystemState = deepest};
        EXPECT_EQ(PoRequestPowerIrp(child.pdo, IRP_MN_WAIT_WAKE, state, nullptr, nullptr, nullptr), STATUS_PENDING);
    }
    void endWaitWake(NTSTATUS status) { complete(std::exchange(waitWake_, nullptr), status); }
    nt::PowerNode powerOf(const std::string& instance) {
        for (const auto& node : nt::powerNodes()) {
            if (node.instancePath == pathOf(instance)) return node;
        }
        return {};
    }

    std::string refuses, fails, answersLater;
    POWER_ACTION action = PowerActionNone;
    std::function<void()> whenTwoGoesDown;

private:
    PIRP waitWake_ = nullptr;
    nt::Thread later_;
};

TEST_F(KernelPower, TheLastToArriveGoesDownFirstAndComesUpLast) {
    plugTwo();
    const std::pair<SYSTEM_POWER_STATE, POWER_ACTION> table[] = {{PowerSystemSleeping1, PowerActionSleep},
                                                                 {PowerSystemSleeping2, PowerActionSleep},
                                                                 {PowerSystemSleeping3, PowerActionSleep},
                                                                 {PowerSystemHibernate, PowerActionHibernate},
                                                                 {PowerSystemShutdown, PowerActionShutdown}};
    for (const auto& [state, told] : table) {
        const std::string s = stateText(state);
        SCOPED_TRACE(s);
        EXPECT_EQ(nt::sleepSystem(state), STATUS_SUCCESS);
        EXPECT_EQ(log(), "two?" + s + " one?" + s + " bus?" + s + " two:" + s + " one:" + s + " bus:" + s);
        EXPECT_EQ(action, told);
        EXPECT_EQ(nt::systemState(), state);
        EXPECT_EQ(nt::sleepSystem(PowerSystemSleeping3), STATUS_INVALID_DEVICE_STATE) << "asleep already";
        nt::wakeSystem();
        EXPECT_EQ(log(), "bus:S0 one:S0 two:S0");
        EXPECT_EQ(nt::systemState(), PowerSystemWorking);
    }
    nt::wakeSystem();
    for (const auto state : {PowerSystemUnspecified, PowerSystemWorking, PowerSystemMaximum}) {
        EXPECT_EQ(nt::sleepSystem(state), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(log(), "") << "nobody is told what does not change";
}

// A refused query wakes those who were asked; a stack that fails does not hold up the others.
TEST_F(KernelPower, WhoRefusesAndWhoFails) {
    plug(u"one");
    plug(u"two");
    plug(u"three");
    log();
    refuses = "two";
    EXPECT_EQ(nt::sleepSystem(PowerSystemSleeping3), STATUS_DEVICE_BUSY);
    EXPECT_EQ(log(), "three?S3 two?S3 two:S0 three:S0");
    EXPECT_EQ(nt::systemState(), PowerSystemWorking);
    refuses.clear();
    fails = "two";
    EXPECT_EQ(nt::sleepSystem(PowerSystemSleeping3), STATUS_DEVICE_POWER_FAILURE);
    EXPECT_EQ(log(), "three?S3 two?S3 one?S3 bus?S3 three:S3 two:S3 one:S3 bus:S3");
    EXPECT_EQ(nt::systemState(), PowerSystemSleeping3);
    nt::wakeSystem();
    EXPECT_EQ(log(), "bus:S0 one:S0 two:S0 three:S0");
}

TEST_F(KernelPower, TheNextIsToldWhenTheLastHasAnswered) {
    plugTwo();
    answersLater = "two";
    EXPECT_EQ(nt::sleepSystem(PowerSystemSleeping3), STATUS_SUCCESS);
    EXPECT_EQ(log(), "two?S3 one?S3 bus?S3 two:S3 two done one:S3 bus:S3");
    answersLater = "bus";
    nt::wakeSystem();
    EXPECT_EQ(log(), "bus:S0 bus done one:S0 two:S0");
}

// One is reported as gone from within a driver that is just being told, one when all are asleep.
TEST_F(KernelPower, WhoComesAndGoesInBetweenDoesSoAtTheWake) {
    Child& one = plugTwo();
    Child& zero = plug(u"zero");
    log();
    whenTwoGoesDown = [&] { unplug(one); };
    ASSERT_EQ(nt::sleepSystem(PowerSystemSleeping3), STATUS_SUCCESS);
    exec_.settle();
    EXPECT_EQ(log(), "zero?S3 two?S3 one?S3 bus?S3 zero:S3 two:S3 one:S3 bus:S3");
    unplug(zero);
    plug(u"three");
    EXPECT_EQ(log(), "");
    EXPECT_EQ(exec_.restart(pathOf("two")), STATUS_INVALID_DEVICE_STATE) << "a driver might keep it until the wake";
    nt::wakeSystem();
    EXPECT_EQ(log(), "bus:S0 one:S0 two:S0 zero:S0 surprise remove surprise remove add start capabilities");
    EXPECT_EQ(nt::sleepSystem(PowerSystemSleeping3), STATUS_SUCCESS);
    EXPECT_EQ(log(), "three?S3 two?S3 bus?S3 three:S3 two:S3 bus:S3");
}

TEST_F(KernelPower, ADeviceWakesTheSystemIfItMay) {
    const struct {
        SYSTEM_POWER_STATE deepest, state;
        NTSTATUS status;
        bool wakes;
    } table[] = {
        {PowerSystemSleeping3, PowerSystemSleeping1, STATUS_SUCCESS, true},
        {PowerSystemSleeping3, PowerSystemSleeping3, STATUS_SUCCESS, true},
        {PowerSystemSleeping3, PowerSystemHibernate, STATUS_SUCCESS, false},
        {PowerSystemSleeping1, PowerSystemSleeping3, STATUS_SUCCESS, false},
        {PowerSystemHibernate, PowerSystemHibernate, STATUS_SUCCESS, true},
        {PowerSystemShutdown, PowerSystemShutdown, STATUS_SUCCESS, false},
        {PowerSystemSleeping3, PowerSystemSleeping3, STATUS_CANCELLED, false},
    };
    Child& one = plug(u"one");
    for (const auto& item : table) {
        SCOPED_TRACE(stateText(item.deepest) + " in " + stateText(item.state));
        askForWake(one, item.deepest);
        EXPECT_TRUE(powerOf("one").waitWake);
        ASSERT_EQ(nt::sleepSystem(item.state), STATUS_SUCCESS);
        endWaitWake(item.status);
        exec_.settle();
        EXPECT_FALSE(powerOf("one").waitWake);
        EXPECT_EQ(nt::systemState(), item.wakes ? PowerSystemWorking : item.state);
        nt::wakeSystem();
    }
    askForWake(one, PowerSystemSleeping3);
    endWaitWake(STATUS_SUCCESS);
    log();
    exec_.settle();
    EXPECT_EQ(log(), "") << "awake already";
}

TEST_F(KernelPower, AWakeOnTheWayDownFollowsIt) {
    askForWake(plugTwo(), PowerSystemSleeping3);
    whenTwoGoesDown = [&] { endWaitWake(STATUS_SUCCESS); };
    EXPECT_EQ(nt::sleepSystem(PowerSystemSleeping3), STATUS_SUCCESS);
    exec_.settle();
    EXPECT_EQ(log(), "two?S3 one?S3 bus?S3 two:S3 one:S3 bus:S3 bus:S0 one:S0 two:S0");
}

TEST_F(KernelPower, TheStateOfAStackIsTheLowestReported) {
    Child& one = plug(u"one");
    const auto report = [](PDEVICE_OBJECT device, DEVICE_POWER_STATE state) {
        PoSetPowerState(device, DevicePowerState, {.DeviceState = state});
    };
    report(one.pdo, PowerDeviceD2);
    EXPECT_EQ(powerOf("one").deviceState, PowerDeviceD2);
    report(one.pdo->AttachedDevice, PowerDeviceD3);
    EXPECT_EQ(powerOf("one").deviceState, PowerDeviceD3);
    report(one.pdo, PowerDeviceD0);
    report(one.pdo->AttachedDevice, PowerDeviceD0);
    EXPECT_EQ(powerOf("one").deviceState, PowerDeviceD0);
}

// One request of a kind at a time in a stack, in the order they were asked for; a wait-wake does not count. A pagable stack
// gets them at PASSIVE_LEVEL.
TEST_F(KernelPower, RequestsOfAStackTakeTurns) {
    Child& one = plug(u"one");
    one.pdo->AttachedDevice->Flags |= DO_POWER_PAGABLE;
    askForWake(one, PowerSystemSleeping3);
    std::vector<PIRP> held;
    std::vector<DEVICE_POWER_STATE> top, bottom, ended;
    world_.onPower = [&](PDEVICE_OBJECT device, PIRP irp, NTSTATUS& status) {
        const auto& power = IoGetCurrentIrpStackLocation(irp)->Parameters.Power;
        if (power.Type != DevicePowerState) return false;
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        const bool child = extensionOf(device).kind == childKind;
        (child ? bottom : top).push_back(power.State.DeviceState);
        if (!child) return false;
        held.push_back(irp);
        IoMarkIrpPending(irp);
        PoStartNextPowerIrp(irp);
        status = STATUS_PENDING;
        return true;
    };
    const auto done = [](PDEVICE_OBJECT, UCHAR minor, POWER_STATE state, PVOID context, PIO_STATUS_BLOCK block) {
        EXPECT_EQ(minor, IRP_MN_SET_POWER);
        EXPECT_EQ(block->Status, STATUS_SUCCESS);
        static_cast<std::vector<DEVICE_POWER_STATE>*>(context)->push_back(state.DeviceState);
    };
    const std::vector<DEVICE_POWER_STATE> asked = {PowerDeviceD2, PowerDeviceD0, PowerDeviceD3};
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    for (const auto deviceState : asked) {
        const POWER_STATE state{.DeviceState = deviceState};
        EXPECT_EQ(PoRequestPowerIrp(one.pdo, IRP_MN_SET_POWER, state, done, &ended, nullptr), STATUS_PENDING);
    }
    KeLowerIrql(irql);
    for (unsigned i = 0; i < asked.size(); ++i) {
        delay(1 * ms);
        ASSERT_EQ(bottom.size(), i + 1);
        EXPECT_EQ(ended.size(), i);
        // A request for the system's state does not wait for the device's.
        EXPECT_EQ(nt::sleepSystem(PowerSystemSleeping1), STATUS_SUCCESS);
        nt::wakeSystem();
        complete(held.back(), STATUS_SUCCESS);
    }
    EXPECT_EQ(top, asked);
    EXPECT_EQ(bottom, asked);
    EXPECT_EQ(ended, asked);
    endWaitWake(STATUS_CANCELLED);
}

TEST_F(KernelPower, ItMayEndAsleep) {
    Child& one = plug(u"one");
    ASSERT_EQ(nt::sleepSystem(PowerSystemShutdown), STATUS_SUCCESS);
    plug(u"two");
    unplug(one);
}

// A timer of somebody's is all that keeps such a run from its end.
TEST_F(KernelPower, AStackThatNeverAnswersIsNamed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    plug(u"one");
    world_.onPower = [](PDEVICE_OBJECT device, PIRP irp, NTSTATUS& status) {
        if (extensionOf(device).kind != functionKind || IoGetCurrentIrpStackLocation(irp)->MinorFunction == IRP_MN_QUERY_POWER) return false;
        IoMarkIrpPending(irp);
        status = STATUS_PENDING;
        return true;
    };
    EXPECT_DEATH(nt::sleepSystem(PowerSystemSleeping3), "P7.*TEST.Thing.one");
    world_.onPower = nullptr;
}

}  // namespace
