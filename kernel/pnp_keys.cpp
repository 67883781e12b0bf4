// What the PnP manager writes down: ids, keys in the registry, COM names, device interfaces.
#include <algorithm>
#include <cstdio>

#include "kernel/cm_text.h"
#include "kernel/faults.h"
#include "kernel/io_internal.h"
#include "kernel/ob_names.h"
#include "kernel/pnp.h"
#include "kernel/rtl_text.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

const std::string enumKey = "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Enum\\";
const std::string classKey = "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\";
const std::string arbiterKey = "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\COM Name Arbiter";
constexpr const char* portsClass = "Ports";
constexpr unsigned firstPort = 3;
constexpr unsigned lastPort = 256;

std::string keyOf(const DeviceNodeRecord& node) { return enumKey + toUtf8(node.instancePath); }

std::vector<std::u16string> splitMulti(const WCHAR* text) {
    std::vector<std::u16string> parts;
    while (*text) {
        parts.emplace_back(text);
        text += parts.back().size() + 1;
    }
    return parts;
}

std::vector<std::string> toUtf8(const std::vector<std::u16string>& texts) {
    std::vector<std::string> result;
    for (const std::u16string& text : texts) {
        result.push_back(nt::toUtf8(text));
    }
    return result;
}

std::u16string joinMulti(const std::vector<std::u16string>& texts) {
    std::u16string joined;
    for (const std::u16string& text : texts) {
        joined += text;
        joined += u'\0';
    }
    joined += u'\0';
    return joined;
}

// An id may become a key's name: no backslash beyond those of a device id, nothing a .reg text could not carry.
bool usableId(std::u16string_view id, bool deviceId) {
    if (deviceId) {
        std::size_t cut = id.find(u'\\');
        return cut != std::u16string_view::npos && validRegKeyName(id.substr(0, cut)) &&
               validRegKeyName(id.substr(cut + 1));
    }
    return validRegKeyName(id);
}

// A name two devices on different buses never share, for those whose bus does not promise a unique one.
std::u16string busPrefix(const DeviceNodeRecord* parent) {
    std::uint32_t hash = 0x811c9dc5;
    for (char16_t c : parent ? parent->instancePath : std::u16string()) {
        hash = (hash ^ upcase(c)) * 0x01000193;
    }
    char text[24];
    std::snprintf(text, sizeof text, "1&%x&0&", hash);
    return toUtf16(text);
}

// The COM names taken, one bit each; COM1 is the lowest bit of the first byte.
class PortNames {
public:
    explicit PortNames(Registry& registry) : registry_(registry), taken_(lastPort / 8) {
        if (auto stored = registry.value(arbiterKey, "ComDB")) {
            std::copy_n(stored->data.begin(), std::min(stored->data.size(), taken_.size()), taken_.begin());
        }
    }
    void take(unsigned number) {
        if (number >= 1 && number <= lastPort) {
            taken_[(number - 1) / 8] |= static_cast<std::uint8_t>(1 << (number - 1) % 8);
            registry_.setValue(arbiterKey, "ComDB", {REG_BINARY, taken_});
        }
    }
    // 0 when all are taken.
    unsigned firstFree() const {
        for (unsigned number = firstPort; number <= lastPort; ++number) {
            if (!(taken_[(number - 1) / 8] >> (number - 1) % 8 & 1)) {
                return number;
            }
        }
        return 0;
    }

private:
    Registry& registry_;
    std::vector<std::uint8_t> taken_;
};

unsigned portNumber(const std::string& name) {
    unsigned number = 0;
    char rest = 0;
    return std::sscanf(name.c_str(), "COM%u%c", &number, &rest) == 1 ? number : 0;
}

// The executive's own devices: PDOs of drivers that sit on no bus.
NTSTATUS NTAPI rootDispatch(PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    if (location->MajorFunction == IRP_MJ_POWER) {
        PoStartNextPowerIrp(irp);
        if (location->MinorFunction == IRP_MN_SET_POWER || location->MinorFunction == IRP_MN_QUERY_POWER) {
            status = STATUS_SUCCESS;
        }
    } else if (location->MajorFunction == IRP_MJ_PNP) {
        bool state = location->MinorFunction <= IRP_MN_CANCEL_STOP_DEVICE;
        if (state || location->MinorFunction == IRP_MN_SURPRISE_REMOVAL ||
            location->MinorFunction == IRP_MN_QUERY_CAPABILITIES) {
            status = STATUS_SUCCESS;
        }
    } else {
        status = STATUS_INVALID_DEVICE_REQUEST;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI rootEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->MajorFunction[IRP_MJ_PNP] = rootDispatch;
    driver->MajorFunction[IRP_MJ_POWER] = rootDispatch;
    return STATUS_SUCCESS;
}

constexpr const char* rootService = "PnpManager";

}  // namespace

NTSTATUS PnpManager::addRootNode(std::string_view service, std::string_view instanceId) {
    if (!findDriver(service)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (!findDriver(rootService)) {
        Executive::current()->loadDriver(rootService, rootEntry);
    }
    auto owned = std::make_unique<DeviceNodeRecord>();
    DeviceNodeRecord& node = *owned;
    node.deviceId = u"ROOT\\" + upcase(toUtf16(service));
    node.instancePath = node.deviceId + u"\\" + toUtf16(instanceId);
    node.hardwareIds = {node.deviceId};
    if (find(toUtf8(node.instancePath))) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    {
        faults::Off noFaults;
        NTSTATUS status = IoCreateDevice(findDriver(rootService), 0, nullptr, FILE_DEVICE_CONTROLLER, 0, FALSE, &node.pdo);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    node.pdo->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    referenceDevice(node.pdo);
    std::u16string id = upcase(node.deviceId);
    {
        std::lock_guard guard(lock_);
        node.pdo->DeviceObjectExtension->node = &node;
        bindings_.try_emplace(id, Binding{std::string(service), "System", "{4D36E97D-E325-11CE-BFC1-08002BE10318}"});
        nodes_.push_back(std::move(owned));
    }
    return bringUp(node);
}

NTSTATUS PnpManager::addRootDevice(std::string_view service, std::string_view instanceId) {
    return call([&] { return addRootNode(service, instanceId); });
}

void PnpManager::bind(std::string_view id, std::string_view service, std::string_view className,
                      std::string_view classGuid) {
    std::lock_guard guard(lock_);
    bindings_[upcase(toUtf16(id))] = {std::string(service), std::string(className), std::string(classGuid)};
}

// Ids and keys --------------------------------------------------------------------------------------------------------

NTSTATUS PnpManager::readIds(DeviceNodeRecord& node) {
    std::u16string instanceId;
    for (BUS_QUERY_ID_TYPE type : {BusQueryDeviceID, BusQueryHardwareIDs, BusQueryCompatibleIDs, BusQueryInstanceID}) {
        IO_STACK_LOCATION location{};
        location.MinorFunction = IRP_MN_QUERY_ID;
        location.Parameters.QueryId.IdType = type;
        ULONG_PTR information = 0;
        NTSTATUS status = sendPnp(node.pdo, location, &information);
        auto text = reinterpret_cast<PWSTR>(information);
        if (!NT_SUCCESS(status) || !text) {
            if (type == BusQueryDeviceID || type == BusQueryInstanceID) {
                return STATUS_UNSUCCESSFUL;
            }
            continue;
        }
        switch (type) {
        case BusQueryDeviceID:
            node.deviceId = text;
            break;
        case BusQueryHardwareIDs:
            node.hardwareIds = splitMulti(text);
            break;
        case BusQueryCompatibleIDs:
            node.compatibleIds = splitMulti(text);
            break;
        default:
            instanceId = text;
            break;
        }
        ExFreePool(text);
    }
    DEVICE_CAPABILITIES capabilities{};
    if (!NT_SUCCESS(queryCapabilities(node, capabilities)) || !capabilities.UniqueID) {
        instanceId = busPrefix(node.parent) + instanceId;
    }
    if (!usableId(node.deviceId, true) || !usableId(instanceId, false)) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    node.instancePath = node.deviceId + u"\\" + instanceId;
    return STATUS_SUCCESS;
}

bool PnpManager::findBinding(DeviceNodeRecord& node) {
    std::string driverNumber;
    {
        std::lock_guard guard(lock_);
        const Binding* binding = nullptr;
        for (const auto* ids : {&node.hardwareIds, &node.compatibleIds}) {
            for (const std::u16string& id : *ids) {
                auto found = bindings_.find(upcase(id));
                if (!binding && found != bindings_.end()) {
                    binding = &found->second;
                }
            }
        }
        if (!binding) {
            return false;
        }
        node.service = binding->service;
        node.className = binding->className;
        node.classGuid = binding->classGuid;
    }
    Registry& registry = system().registry;
    std::string key = keyOf(node);
    std::string driverKey = registry.string(key, "Driver").value_or("");
    if (!driverKey.starts_with(node.classGuid + "\\")) {
        char number[16];
        unsigned next = 0;
        do {
            std::snprintf(number, sizeof number, "\\%04u", next++);
        } while (registry.keyExists(classKey + node.classGuid + number));
        driverKey = node.classGuid + number;
    }
    registry.createKey(classKey + driverKey);
    registry.setString(key, "Driver", driverKey);
    registry.setString(key, "Service", node.service);
    registry.setString(key, "Class", node.className);
    registry.setString(key, "ClassGUID", node.classGuid);
    std::lock_guard guard(lock_);
    node.driverKey = driverKey;
    return true;
}

void PnpManager::writeKeys(DeviceNodeRecord& node) {
    Registry& registry = system().registry;
    registry.createKey(keyOf(node) + "\\Device Parameters");
    registry.setMultiString(keyOf(node), "HardwareID", toUtf8(node.hardwareIds));
    if (!node.compatibleIds.empty()) {
        registry.setMultiString(keyOf(node), "CompatibleIDs", toUtf8(node.compatibleIds));
    }
}

// A device keeps the name it once got, also when another device has taken the same one by hand.
void PnpManager::choosePortName(DeviceNodeRecord& node) {
    if (node.className != portsClass) {
        return;
    }
    Registry& registry = system().registry;
    std::string key = keyOf(node) + "\\Device Parameters";
    PortNames names(registry);
    std::optional<std::string> name = registry.string(key, "PortName");
    unsigned number = name ? portNumber(*name) : names.firstFree();
    if (!name && number != 0) {
        registry.setString(key, "PortName", "COM" + std::to_string(number));
    }
    names.take(number);
}

std::vector<DeviceNode> PnpManager::devices() {
    std::vector<DeviceNode> list;
    std::lock_guard guard(lock_);
    for (const auto& node : nodes_) {
        DeviceNode device;
        device.instancePath = nt::toUtf8(node->instancePath);
        device.service = node->service;
        device.driverKey = node->driverKey;
        device.portName = system().registry.string(keyOf(*node) + "\\Device Parameters", "PortName").value_or("");
        device.state = node->state;
        device.pdo = node->pdo;
        list.push_back(std::move(device));
    }
    return list;
}

// What drivers ask ----------------------------------------------------------------------------------------------------

NTSTATUS PnpManager::instancePathOf(PDEVICE_OBJECT pdo, std::u16string& path) {
    std::lock_guard guard(lock_);
    DeviceNodeRecord* node = pdo->DeviceObjectExtension->node;
    if (!node) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    path = node->instancePath;
    return STATUS_SUCCESS;
}

NTSTATUS PnpManager::property(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, std::u16string& text) {
    std::lock_guard guard(lock_);
    DeviceNodeRecord* node = pdo->DeviceObjectExtension->node;
    if (!node) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const std::string* single = nullptr;
    switch (property) {
    case DevicePropertyHardwareID:
        text = joinMulti(node->hardwareIds);
        return STATUS_SUCCESS;
    case DevicePropertyCompatibleIDs:
        text = joinMulti(node->compatibleIds);
        return STATUS_SUCCESS;
    case DevicePropertyEnumeratorName:
        text = node->deviceId.substr(0, node->deviceId.find(u'\\')) + u'\0';
        return STATUS_SUCCESS;
    case DevicePropertyDriverKeyName:
        single = &node->driverKey;
        break;
    case DevicePropertyClassName:
        single = &node->className;
        break;
    case DevicePropertyClassGuid:
        single = &node->classGuid;
        break;
    default:
        return STATUS_INVALID_PARAMETER_2;
    }
    if (single->empty()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    text = toUtf16(*single) + u'\0';
    return STATUS_SUCCESS;
}

NTSTATUS PnpManager::registerInterface(PDEVICE_OBJECT pdo, const GUID& interfaceClass, std::u16string_view reference,
                                       std::u16string& link) {
    std::u16string path;
    NTSTATUS status = instancePathOf(pdo, path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    char guid[40];
    const UCHAR* d = interfaceClass.Data4;
    std::snprintf(guid, sizeof guid, "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", interfaceClass.Data1,
                  interfaceClass.Data2, interfaceClass.Data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
    link = u"\\??\\";
    for (char16_t c : path) {
        link += c == u'\\' ? u'#' : c;
    }
    link += u"#" + toUtf16(guid);
    if (!reference.empty()) {
        link += u'\\';
        link += reference;
    }
    std::lock_guard guard(lock_);
    interfaces_.try_emplace(upcase(link), Interface{link, path, false});
    return STATUS_SUCCESS;
}

NTSTATUS PnpManager::setInterfaceState(std::u16string_view link, bool enable) {
    std::lock_guard guard(lock_);
    auto found = interfaces_.find(upcase(link));
    if (found == interfaces_.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    Interface& interface = found->second;
    if (interface.enabled == enable) {
        return enable ? STATUS_OBJECT_NAME_EXISTS : STATUS_OBJECT_NAME_NOT_FOUND;
    }
    PDEVICE_OBJECT pdo = nullptr;
    for (const auto& node : nodes_) {
        if (!node->gone && equalIgnoringCase(node->instancePath, interface.instancePath)) {
            pdo = node->pdo;
        }
    }
    if (enable) {
        NTSTATUS status = pdo ? system().names->addDevice(interface.link, pdo) : STATUS_NO_SUCH_DEVICE;
        if (!NT_SUCCESS(status)) {
            return status;
        }
    } else {
        system().names->removeAlias(interface.link);
    }
    interface.enabled = enable;
    return STATUS_SUCCESS;
}

void PnpManager::disableInterfaces(const std::u16string& instancePath) {
    std::lock_guard guard(lock_);
    for (auto& [folded, interface] : interfaces_) {
        if (interface.enabled && equalIgnoringCase(interface.instancePath, instancePath)) {
            system().names->removeAlias(interface.link);
            interface.enabled = false;
        }
    }
}

std::vector<std::string> PnpManager::enabledInterfaces() {
    std::lock_guard guard(lock_);
    std::vector<std::string> links;
    for (const auto& [folded, interface] : interfaces_) {
        if (interface.enabled) {
            links.push_back(nt::toUtf8(interface.link));
        }
    }
    return links;
}

}  // namespace nt

using namespace nt;

extern "C" {

VOID NTAPI IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type) {
    verifier::checkIrqlMax("IoInvalidateDeviceRelations", DISPATCH_LEVEL);
    if (Type == BusRelations || Type == SingleBusRelations) {
        nt::system().pnp->invalidateRelations(DeviceObject);
    }
}

NTSTATUS NTAPI IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty,
                                   ULONG BufferLength, PVOID PropertyBuffer, PULONG ResultLength) {
    verifier::checkIrqlMax("IoGetDeviceProperty", PASSIVE_LEVEL);
    *ResultLength = 0;
    if (faults::hit(faults::Kind::registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::u16string text;
    NTSTATUS status = nt::system().pnp->property(DeviceObject, DeviceProperty, text);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *ResultLength = static_cast<ULONG>(text.size() * sizeof(WCHAR));
    if (*ResultLength > BufferLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    RtlCopyMemory(PropertyBuffer, text.data(), *ResultLength);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, const GUID* InterfaceClassGuid,
                                         PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName) {
    verifier::checkIrqlMax("IoRegisterDeviceInterface", PASSIVE_LEVEL);
    if (faults::hit(faults::Kind::objectCreate)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::u16string link;
    NTSTATUS status =
        nt::system().pnp->registerInterface(PhysicalDeviceObject, *InterfaceClassGuid, viewOf(ReferenceString), link);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto bytes = static_cast<USHORT>((link.size() + 1) * sizeof(WCHAR));
    auto buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, 'tnIP'));
    if (!buffer) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(buffer, link.c_str(), bytes);
    *SymbolicLinkName = {static_cast<USHORT>(bytes - sizeof(WCHAR)), bytes, buffer};
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable) {
    verifier::checkIrqlMax("IoSetDeviceInterfaceState", PASSIVE_LEVEL);
    if (Enable && faults::hit(faults::Kind::objectCreate)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return nt::system().pnp->setInterfaceState(viewOf(SymbolicLinkName), Enable != FALSE);
}

}  // extern "C"
