// The PnP manager against a bus whose children the test plugs and unplugs.
#include <gtest/gtest.h>

#include <string>

#include "kernel/file.h"
#include "tests/kernel_bus.h"

namespace {

using namespace test;

const std::string enumKey = "HKLM\\SYSTEM\\CurrentControlSet\\Enum\\";

class KernelPnp : public BusMachine {
protected:
    ~KernelPnp() override { RtlFreeUnicodeString(&link_); }

    // Gives the stack a name by which it can be opened.
    std::string enableInterface(Child& child) {
        const GUID guid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
        EXPECT_EQ(IoRegisterDeviceInterface(child.pdo, &guid, nullptr, &link_), STATUS_SUCCESS);
        EXPECT_EQ(IoSetDeviceInterfaceState(&link_, TRUE), STATUS_SUCCESS);
        return exec_.enabledInterfaces().at(0);
    }

    const std::string path = pathOf("one");
    UNICODE_STRING link_{};
};

TEST_F(KernelPnp, ADeviceArrivesAndLeavesInOrder) {
    Child& child = plug(u"one");
    EXPECT_EQ(log(), "add start capabilities");
    EXPECT_EQ(node("one").state, nt::DeviceState::started);
    EXPECT_EQ(node("one").driverKey, portsClass + "\\0000");
    ULONG length = 0;
    WCHAR text[60];
    EXPECT_EQ(IoGetDeviceProperty(child.pdo, DevicePropertyDriverKeyName, 20, text, &length), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, (portsClass.size() + 6) * sizeof(WCHAR));
    EXPECT_EQ(IoGetDeviceProperty(child.pdo, DevicePropertyDriverKeyName, sizeof text, text, &length), STATUS_SUCCESS);
    EXPECT_EQ(nt::toUtf8(text), portsClass + "\\0000");
    unplug(child);
    exec_.settle();
    EXPECT_EQ(log(), "surprise remove");
    EXPECT_EQ(child.pdo, nullptr);
}

TEST_F(KernelPnp, NamesAreFirstFreeFromCom3AndStayWithTheirDevice) {
    Child& one = plug(u"one");
    plug(u"two");
    EXPECT_EQ(node("one").portName + node("two").portName, "COM3COM4");
    unplug(one);
    exec_.settle();
    exec_.registry().setString(enumKey + "TEST\\Thing\\named\\Device Parameters", "PortName", "COM6");
    plug(u"named");
    plug(u"three");
    plug(u"four");
    EXPECT_EQ(node("named").portName + node("three").portName + node("four").portName, "COM6COM5COM7");
    plug(u"one");
    EXPECT_EQ(node("one").portName, "COM3");
    EXPECT_EQ(node("one").driverKey, portsClass + "\\0000");
    EXPECT_EQ(node("four").driverKey, portsClass + "\\0004");
}

TEST_F(KernelPnp, RemovalWaitsForTheLastHandleOnTheStack) {
    Child& child = plug(u"one");
    nt::File file;
    ASSERT_EQ(file.open(enableInterface(child)), STATUS_SUCCESS);
    EXPECT_EQ(IoSetDeviceInterfaceState(&link_, TRUE), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(exec_.queryRemove("test\\thing\\ONE"), STATUS_DEVICE_BUSY);
    EXPECT_EQ(log(), "add start capabilities queryRemove cancelRemove");
    unplug(child);
    exec_.settle();
    EXPECT_EQ(log(), "surprise");
    // The same device comes back while its former self still waits.
    plug(u"one");
    EXPECT_EQ(log(), "add start capabilities");
    file.close();
    exec_.settle();
    EXPECT_EQ(log(), "remove");
    EXPECT_EQ(node("one").state, nt::DeviceState::started);
    EXPECT_EQ(IoSetDeviceInterfaceState(&link_, FALSE), STATUS_SUCCESS);
}

// Whoever opens the stack once its removal has been agreed to holds the removal up; whoever comes later finds nothing.
TEST_F(KernelPnp, AHandleOpenedAfterTheQuestionHoldsTheRemovalBack) {
    Child& child = plug(u"one");
    const std::string name = enableInterface(child);
    EXPECT_EQ(exec_.queryRemove(path), STATUS_SUCCESS);
    nt::File file;
    ASSERT_EQ(file.open(name), STATUS_SUCCESS);
    log();
    EXPECT_EQ(exec_.removeDevice(path), STATUS_DEVICE_BUSY);
    EXPECT_EQ(log(), "cancelRemove");
    unplug(child);
    exec_.settle();
    EXPECT_EQ(log(), "surprise");
    nt::File late;
    EXPECT_EQ(late.open(name), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(log(), "");
    file.close();
    exec_.settle();
    EXPECT_EQ(log(), "remove");
}

// A device that does not start again is removed when its files are closed, and not before.
TEST_F(KernelPnp, ARestartThatFailsUnderAnOpenFile) {
    Child& child = plug(u"one");
    const std::string name = enableInterface(child);
    for (const bool unplugged : {false, true}) {
        nt::File file;
        ASSERT_EQ(file.open(name), STATUS_SUCCESS);
        EXPECT_EQ(exec_.queryStop(path), STATUS_SUCCESS);
        EXPECT_EQ(exec_.stopDevice(path), STATUS_SUCCESS);
        log();
        world_.startStatus = STATUS_DEVICE_DATA_ERROR;
        EXPECT_EQ(exec_.startDevice(path), STATUS_DEVICE_DATA_ERROR);
        world_.startStatus = STATUS_SUCCESS;
        EXPECT_EQ(log(), "start surprise");
        EXPECT_EQ(exec_.startDevice(path), STATUS_INVALID_DEVICE_STATE);
        if (unplugged) unplug(child);
        exec_.settle();
        EXPECT_EQ(log(), "");
        file.close();
        exec_.settle();
        EXPECT_EQ(log(), "remove");
        if (unplugged) break;
        EXPECT_EQ(exec_.startDevice(path), STATUS_SUCCESS);
        EXPECT_EQ(IoSetDeviceInterfaceState(&link_, TRUE), STATUS_SUCCESS);
    }
}

TEST_F(KernelPnp, AFailureToAddOrStartLeavesNothingAndTheNextTryWorks) {
    world_.addStatus = STATUS_UNSUCCESSFUL;
    plug(u"one");
    EXPECT_EQ(log(), "add");
    world_.addStatus = STATUS_SUCCESS;
    world_.startStatus = STATUS_DEVICE_DATA_ERROR;
    EXPECT_EQ(exec_.restart(path), STATUS_DEVICE_DATA_ERROR);
    EXPECT_EQ(log(), "add start remove");
    EXPECT_EQ(node("one").state, nt::DeviceState::startFailed);
    world_.startStatus = STATUS_SUCCESS;
    EXPECT_EQ(exec_.startDevice(path), STATUS_SUCCESS);
    EXPECT_EQ(log(), "add start capabilities");
}

TEST_F(KernelPnp, UnpluggedWhileItStarts) {
    world_.onStart = [this] { unplug(*world_.children[0]); };
    plug(u"one");
    EXPECT_EQ(log(), "add start capabilities surprise remove");
    EXPECT_EQ(node("one").pdo, nullptr);
    world_.onStart = nullptr;
}

TEST_F(KernelPnp, StepsByHandFollowTheStates) {
    plug(u"one");
    log();
    EXPECT_EQ(exec_.stopDevice(path), STATUS_INVALID_DEVICE_STATE);
    world_.queryStatus = STATUS_UNSUCCESSFUL;
    EXPECT_EQ(exec_.queryStop(path), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(log(), "queryStop cancelStop");
    world_.queryStatus = STATUS_SUCCESS;
    EXPECT_EQ(exec_.queryStop(path), STATUS_SUCCESS);
    EXPECT_EQ(exec_.queryRemove(path), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(exec_.stopDevice(path), STATUS_SUCCESS);
    EXPECT_EQ(exec_.startDevice(path), STATUS_SUCCESS);
    EXPECT_EQ(exec_.queryRemove(path), STATUS_SUCCESS);
    EXPECT_EQ(exec_.cancelRemove(path), STATUS_SUCCESS);
    EXPECT_EQ(log(), "queryStop stop start capabilities queryRemove cancelRemove");
    EXPECT_EQ(exec_.restart(path), STATUS_SUCCESS);
    EXPECT_EQ(log(), "queryRemove remove add start capabilities");
    EXPECT_EQ(exec_.queryStop(pathOf("none")), STATUS_NO_SUCH_DEVICE);
}

}  // namespace
