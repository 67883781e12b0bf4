// Arrivals and the Plug and Play dialogue: names, configuration, the states a device goes through.
#include "tests/support/port.h"

#include <fstream>
#include <map>

#include "cdcacm/pnpadd.h"
#include "kernel/faults.h"

namespace {

using test::OpenPort;
using test::RigOptions;
using test::TestRig;

constexpr const char* deviceMap = "HKLM\\HARDWARE\\DEVICEMAP\\SERIALCOMM";
constexpr const char* deviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Enum\\USB\\VID_1209&PID_0001\\0001\\Device Parameters";
constexpr const char* serviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\qvcdcacm";
constexpr const char* deviceName = "\\Device\\qvcdcacm0";

DEVICE& recordOf(TestRig& rig) { return *static_cast<DEVICE*>(rig.executive().lookUp(deviceName)->DeviceExtension); }

// The handle outlives the removal; the name is the registry's of the moment the modem is back.
TEST(DriverArrival, name_changed_while_the_modem_is_away) {
    OpenPort port;
    auto& executive = port.rig.executive();
    const PDEVICE_OBJECT before = executive.lookUp(deviceName);
    port.rig.unplug();
    port.rig.settle();
    EXPECT_EQ(executive.lookUp("\\DosDevices\\COM3"), nullptr);
    EXPECT_TRUE(executive.registry().valueNames(deviceMap).empty());
    EXPECT_TRUE(executive.enabledInterfaces().empty());
    EXPECT_EQ(executive.lookUp(deviceName), before);
    executive.registry().setString(deviceKey, "PortName", "COM17");
    port.rig.replug();
    EXPECT_EQ(port.rig.statistics().openNotifications, 1u) << "the new arrival was not told";
    EXPECT_EQ(executive.lookUp("\\DosDevices\\COM3"), nullptr);
    EXPECT_EQ(executive.lookUp("\\DosDevices\\COM17"), before);
    EXPECT_EQ(executive.registry().string(deviceMap, deviceName), "COM17");
    EXPECT_EQ(executive.enabledInterfaces().size(), 1u);
    port.rig.run(100);
    port.write("on");
    port.rig.run(50);
    EXPECT_EQ(port.received(), "on");
}

// --- Plug and Play ----------------------------------------------------------------------------------------------------

using Step = NTSTATUS (nt::Executive::*)(std::string_view);

TEST(DriverArrival, states_of_the_dialogue) {
    const struct {
        const char* what;
        Step step;
        ULONG state;
        bool runs;    // the data paths
        bool holds;   // their reference
    } steps[] = {
        {"query stop", &nt::Executive::queryStop, PNP_STOP_PENDING, false, true},
        {"cancel stop", &nt::Executive::cancelStop, PNP_STARTED, true, true},
        {"query stop", &nt::Executive::queryStop, PNP_STOP_PENDING, false, true},
        {"stop", &nt::Executive::stopDevice, PNP_STOPPED, false, false},
        {"start", &nt::Executive::startDevice, PNP_STARTED, true, true},
        {"query stop again", &nt::Executive::queryStop, PNP_STOP_PENDING, false, true},
        {"cancel stop again", &nt::Executive::cancelStop, PNP_STARTED, true, true},
    };
    OpenPort port;
    // An armed wake request holds a reference as well; when it is armed depends on who comes first.
    const auto withoutWake = [](const DEVICE& device) { return device.Ref - (device.WakeIrp != nullptr ? 1 : 0); };
    const LONG before = withoutWake(recordOf(port.rig));
    for (const auto& item : steps) {
        SCOPED_TRACE(item.what);
        EXPECT_EQ((port.rig.executive().*item.step)(port.rig.instancePath()), STATUS_SUCCESS);
        port.rig.run(100);
        const DEVICE& device = recordOf(port.rig);
        EXPECT_EQ(device.PnpState, item.state);
        EXPECT_EQ(device.UsbDeviceEnabled, 1);
        EXPECT_EQ(port.rig.statistics().pending != 0, item.runs);
        EXPECT_EQ(device.DataPathRef, item.holds ? 1 : 0);
        EXPECT_EQ(withoutWake(device), before - (item.holds ? 0 : 1));
    }
}

TEST(DriverArrival, removal_may_be_called_off) {
    OpenPort port;
    port.file.close();
    EXPECT_EQ(port.rig.executive().queryRemove(port.rig.instancePath()), STATUS_SUCCESS);
    EXPECT_EQ(recordOf(port.rig).PnpState, PNP_REMOVE_PENDING + 0u);
    EXPECT_EQ(port.rig.executive().cancelRemove(port.rig.instancePath()), STATUS_SUCCESS);
    EXPECT_EQ(port.rig.open(port.file), STATUS_SUCCESS);
}

TEST(DriverArrival, capabilities_are_edited) {
    for (const bool wakes : {false, true}) {
        RigOptions options;
        options.port.wakeFromD2 = wakes;
        TestRig rig(options);
        EXPECT_EQ(recordOf(rig).Capabilities.SurpriseRemovalOK, 1u);
        EXPECT_EQ(recordOf(rig).WakeSupported, wakes ? 1 : 0);
    }
}

// --- Configuration ----------------------------------------------------------------------------------------------------

TEST(DriverArrival, settings_are_held_within_bounds) {
    const struct {
        const char* name;
        ULONG CFG::*field;
        std::uint32_t tooSmall, smallest, tooLarge, largest;
    } values[] = {
        {"RequestTimeout", &CFG::RequestTimeout, 0, 0, 0xFFFFFFFF, 0xFFFFFFFF},
        {"TimerInterval", &CFG::TimerInterval, 0, 1, 101, 100},
        {"ReadBufferSize", &CFG::ReadBufferSize, 63, 64, 128001, 128000},
        {"WriteBufferSize", &CFG::WriteBufferSize, 0, 64, 0xFFFFFFFF, 128000},
        {"ReadCircBufferSize", &CFG::ReadCircBufferSize, 255, 256, 128001, 128000},
        {"WriteCircBufferSize", &CFG::WriteCircBufferSize, 1, 256, 0x80000000, 128000},
        {"ReadBufferCount", &CFG::ReadBufferCount, 0, 1, 33, 32},
    };
    for (const bool large : {false, true}) {
        RigOptions options;
        for (const auto& value : values) options.deviceValues[value.name] = large ? value.tooLarge : value.tooSmall;
        TestRig rig(options);
        for (const auto& value : values) {
            EXPECT_EQ(recordOf(rig).Cfg.*value.field, large ? value.largest : value.smallest) << value.name;
            // What the user wrote stays.
            EXPECT_EQ(rig.executive().registry().dword(deviceKey, value.name), options.deviceValues[value.name]);
        }
    }
}

using Values = std::map<std::string, std::uint32_t>;

// The DWORDs that the installation writes from a section's AddReg where there are none yet.
Values installed(const std::string& section) {
    std::map<std::string, std::vector<std::string>> lines;
    std::ifstream file(INF_FILE);
    std::string line, at;
    while (std::getline(file, line)) {
        if (line.starts_with('[')) at = line.substr(1, line.find(']') - 1);
        else lines[at].push_back(line);
    }
    Values values;
    char name[64];
    unsigned long value;
    for (const std::string& setting : lines[section]) {
        if (std::sscanf(setting.c_str(), "AddReg = %63s", name) != 1) continue;
        for (const std::string& entry : lines[name]) {
            if (std::sscanf(entry.c_str(), "HKR,,%63[A-Za-z],0x00010003,%lu", name, &value) == 2) values[name] = value;
        }
    }
    return values;
}

TEST(DriverArrival, the_installation_writes_the_defaults) {
    TestRig rig;
    const auto written = [&](const char* key) {
        Values values;
        for (const std::string& name : rig.executive().registry().valueNames(key)) {
            const auto number = rig.executive().registry().dword(key, name);
            // What the driver found at the start is no setting.
            if (number && name != "UsbInterface" && name != "UsbConfig") values[name] = *number;
        }
        return values;
    };
    EXPECT_EQ(installed("Install.NT.HW"), written(deviceKey));
    EXPECT_EQ(installed("Service"), written(serviceKey));
}

// --- A deeper stack ---------------------------------------------------------------------------------------------------

// The requests of a port are made for the stack it was created on: a deeper one gets a port of its own, once the old
// one is closed.
TEST(DriverArrival, deeper_stack_is_refused_while_the_old_port_is_open) {
    OpenPort port;
    auto& executive = port.rig.executive();
    const std::string path = port.rig.instancePath();
    port.rig.unplug();
    port.rig.settle();
    // It is found without a driver, and then a filter stands on it.
    nt::faults::failNth(nt::faults::Kind::objectCreate, 2);
    port.rig.replug();
    nt::faults::clear();
    for (const auto& node : executive.devices()) {
        if (node.instancePath == path) node.pdo->StackSize = 2;
    }
    EXPECT_FALSE(NT_SUCCESS(executive.startDevice(path)));
    EXPECT_EQ(recordOf(port.rig).LowerDevObj, nullptr);
    EXPECT_EQ(port.control(IOCTL_SERIAL_SET_DTR), STATUS_UNSUCCESSFUL);
    port.file.close();
    EXPECT_TRUE(port.rig.until([&] { return executive.lookUp(deviceName) == nullptr; }));
    EXPECT_EQ(executive.startDevice(path), STATUS_SUCCESS);
    ASSERT_EQ(port.rig.open(port.file), STATUS_SUCCESS) << port.rig.trace();
    EXPECT_EQ(recordOf(port.rig).StackSize, 2);
    EXPECT_EQ(port.write("deeper"), STATUS_SUCCESS);
    port.rig.run(50);
    EXPECT_EQ(port.received(), "deeper");
}

}  // namespace
