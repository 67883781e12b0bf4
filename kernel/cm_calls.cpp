// The registry as drivers use it: Zw calls on handles, Rtl calls on paths. As on the platform a driver's handle is not held
// to the access it was opened with.
#include <algorithm>
#include <cstring>

#include "kernel/cm_store.h"
#include "kernel/faults.h"
#include "kernel/pnp.h"
#include "kernel/rtl_text.h"
#include "kernel/system.h"
#include "kernel/thread.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr NTSTATUS noResources = STATUS_INSUFFICIENT_RESOURCES;

RegistryStore& store() { return nt::system().registry.store(); }

// Every registry call comes through here first.
bool refused(const char* call) {
    verifier::checkIrqlMax(call, PASSIVE_LEVEL);
    return faults::hit(faults::Kind::registry);
}

// Key and rest of the path the attributes name; lock held.
NTSTATUS locate(POBJECT_ATTRIBUTES attributes, RegKeyPtr& from, RegPath& path) {
    std::u16string_view name = viewOf(attributes->ObjectName);
    if (!attributes->RootDirectory) {
        from = store().root;
        return splitRegPath(name, path) ? STATUS_SUCCESS : STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    from = store().keyOf(attributes->RootDirectory);
    if (!from) {
        return STATUS_INVALID_HANDLE;
    }
    if (from->deleted) {
        return STATUS_KEY_DELETED;
    }
    path.clear();
    while (!name.empty()) {
        std::u16string_view part = name.substr(0, name.find(u'\\'));
        if (!validRegKeyName(part)) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        path.emplace_back(part);
        name.remove_prefix(std::min(name.size(), part.size() + 1));
    }
    return STATUS_SUCCESS;
}

std::size_t depthOf(const RegKey& key) {
    std::size_t depth = 0;
    for (const RegKey* k = &key; k->parent; k = k->parent) {
        ++depth;
    }
    return depth;
}

// Live key of a handle; lock held.
NTSTATUS keyOfHandle(HANDLE handle, RegKeyPtr& key) {
    key = store().keyOf(handle);
    if (!key) {
        return STATUS_INVALID_HANDLE;
    }
    return key->deleted ? STATUS_KEY_DELETED : STATUS_SUCCESS;
}

// Copies a record made of a fixed head and a tail, as far as there is room, and says how much it takes.
NTSTATUS giveRecord(const void* head, std::size_t headSize, const void* tail, std::size_t tailSize, PVOID buffer,
                    ULONG length, PULONG resultLength) {
    *resultLength = static_cast<ULONG>(headSize + tailSize);
    if (length < headSize) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, head, headSize);
    std::size_t fits = std::min<std::size_t>(length - headSize, tailSize);
    if (fits != 0) {
        std::memcpy(static_cast<char*>(buffer) + headSize, tail, fits);
    }
    return fits == tailSize ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS giveValue(const RegNamedValue& slot, KEY_VALUE_INFORMATION_CLASS kind, PVOID buffer, ULONG length,
                   PULONG resultLength) {
    const auto& data = slot.value.data;
    ULONG nameBytes = static_cast<ULONG>(slot.name.size() * sizeof(WCHAR));
    if (kind == KeyValuePartialInformation) {
        ULONG head[3] = {0, slot.value.type, static_cast<ULONG>(data.size())};
        return giveRecord(head, sizeof head, data.data(), data.size(), buffer, length, resultLength);
    }
    if (kind == KeyValueBasicInformation) {
        ULONG head[3] = {0, slot.value.type, nameBytes};
        return giveRecord(head, sizeof head, slot.name.data(), nameBytes, buffer, length, resultLength);
    }
    if (kind == KeyValueFullInformation) {
        std::string tail(reinterpret_cast<const char*>(slot.name.data()), nameBytes);
        tail.resize((tail.size() + 3) & ~std::size_t{3});
        ULONG head[5] = {0, slot.value.type, static_cast<ULONG>(20 + tail.size()), static_cast<ULONG>(data.size()),
                         nameBytes};
        tail.append(data.begin(), data.end());
        return giveRecord(head, sizeof head, tail.data(), tail.size(), buffer, length, resultLength);
    }
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS setValue(const RegKeyPtr& key, std::u16string_view name, ULONG type, PVOID data, ULONG size) {
    if (!validRegValueName(name)) {
        return STATUS_INVALID_PARAMETER;
    }
    RegistryValue value{type, {}};
    if (size != 0) {
        value.data.assign(static_cast<UCHAR*>(data), static_cast<UCHAR*>(data) + size);
    }
    store().setValue(key, name, std::move(value));
    return STATUS_SUCCESS;
}

// The key an Rtl call means, made when `create` is set; lock held.
NTSTATUS keyOfPath(ULONG relativeTo, PCWSTR text, bool create, RegKeyPtr& key) {
    if (relativeTo & RTL_REGISTRY_HANDLE) {
        return keyOfHandle(const_cast<WCHAR*>(text), key);
    }
    std::u16string full;
    std::u16string_view path = text ? std::u16string_view(text) : std::u16string_view();
    switch (relativeTo) {
    case RTL_REGISTRY_ABSOLUTE:
        break;
    case RTL_REGISTRY_SERVICES:
        full = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services";
        break;
    case RTL_REGISTRY_CONTROL:
        full = u"\\Registry\\Machine\\System\\CurrentControlSet\\Control";
        break;
    case RTL_REGISTRY_WINDOWS_NT:
        full = u"\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion";
        break;
    case RTL_REGISTRY_DEVICEMAP:
        full = u"\\Registry\\Machine\\Hardware\\DeviceMap";
        break;
    default:
        return STATUS_INVALID_PARAMETER;
    }
    if (!full.empty() && !path.empty() && path.front() != u'\\') {
        full += u'\\';
    }
    full += path;
    RegPath parts;
    if (!splitRegPath(full, parts)) {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    key = create ? store().findOrCreate(store().root, parts) : store().find(store().root, parts);
    return key ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

}  // namespace

}  // namespace nt

using namespace nt;

extern "C" {

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK, POBJECT_ATTRIBUTES ObjectAttributes) {
    if (refused("ZwOpenKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr from;
    RegPath path;
    NTSTATUS status = locate(ObjectAttributes, from, path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RegKeyPtr key = store().find(from, path);
    if (!key) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *KeyHandle = store().openHandle(key);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK, POBJECT_ATTRIBUTES ObjectAttributes, ULONG, PUNICODE_STRING,
                           ULONG, PULONG Disposition) {
    if (refused("ZwCreateKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr from;
    RegPath path;
    NTSTATUS status = locate(ObjectAttributes, from, path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RegKeyPtr key = store().find(from, path);
    if (Disposition) {
        *Disposition = key ? REG_OPENED_EXISTING_KEY : REG_CREATED_NEW_KEY;
    }
    if (!key) {
        RegKeyPtr parent = store().find(from, RegPath(path.begin(), path.end() - 1));
        if (!parent) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        if (depthOf(*parent) >= regMaxDepth) {
            return STATUS_INVALID_PARAMETER;
        }
        key = store().findOrCreate(parent, {path.back()});
    }
    *KeyHandle = store().openHandle(key);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwClose(HANDLE Handle) {
    verifier::checkIrqlMax("ZwClose", PASSIVE_LEVEL);
    {
        std::lock_guard guard(store().lock);
        if (store().handles.erase(reinterpret_cast<std::uintptr_t>(Handle) >> 2) != 0) {
            return STATUS_SUCCESS;
        }
    }
    return closeThreadHandle(Handle) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

NTSTATUS NTAPI IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType, ACCESS_MASK,
                                       PHANDLE DevInstRegKey) {
    *DevInstRegKey = nullptr;
    if (refused("IoOpenDeviceRegistryKey")) {
        return noResources;
    }
    std::u16string path;
    NTSTATUS status = STATUS_INVALID_PARAMETER;
    if (DevInstKeyType == PLUGPLAY_REGKEY_DEVICE) {
        status = nt::system().pnp->instancePathOf(DeviceObject, path);
        path = u"HKLM\\SYSTEM\\CurrentControlSet\\Enum\\" + path + u"\\Device Parameters";
    } else if (DevInstKeyType == PLUGPLAY_REGKEY_DRIVER) {
        status = nt::system().pnp->property(DeviceObject, DevicePropertyDriverKeyName, path);
        path = u"HKLM\\SYSTEM\\CurrentControlSet\\Control\\Class\\" + path.substr(0, path.find(u'\0'));
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RegPath parts;
    if (!splitRegPath(path, parts)) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::lock_guard guard(store().lock);
    *DevInstRegKey = store().openHandle(store().findOrCreate(store().root, parts));
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwDeleteKey(HANDLE KeyHandle) {
    if (refused("ZwDeleteKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    NTSTATUS status = keyOfHandle(KeyHandle, key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!key->children.empty() || depthOf(*key) < 2) {
        return STATUS_CANNOT_DELETE;
    }
    store().remove(key);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwFlushKey(HANDLE KeyHandle) {
    if (refused("ZwFlushKey")) {
        return noResources;
    }
    {
        std::lock_guard guard(store().lock);
        RegKeyPtr key;
        NTSTATUS status = keyOfHandle(KeyHandle, key);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    try {
        nt::system().registry.save();
    } catch (const RegistryError&) {
        return STATUS_REGISTRY_IO_FAILED;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwEnumerateKey(HANDLE KeyHandle, ULONG Index, KEY_INFORMATION_CLASS Class, PVOID KeyInformation,
                              ULONG Length, PULONG ResultLength) {
    if (refused("ZwEnumerateKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    NTSTATUS status = keyOfHandle(KeyHandle, key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Index >= key->children.size()) {
        return STATUS_NO_MORE_ENTRIES;
    }
    if (Class != KeyBasicInformation) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::u16string& name = std::next(key->children.begin(), Index)->second->name;
    struct {
        LARGE_INTEGER time;
        ULONG title, nameLength;
    } head = {{}, 0, static_cast<ULONG>(name.size() * sizeof(WCHAR))};
    return giveRecord(&head, sizeof head, name.data(), head.nameLength, KeyInformation, Length, ResultLength);
}

NTSTATUS NTAPI ZwEnumerateValueKey(HANDLE KeyHandle, ULONG Index, KEY_VALUE_INFORMATION_CLASS Class,
                                   PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
    if (refused("ZwEnumerateValueKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    NTSTATUS status = keyOfHandle(KeyHandle, key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Index >= key->values.size()) {
        return STATUS_NO_MORE_ENTRIES;
    }
    return giveValue(std::next(key->values.begin(), Index)->second, Class, KeyValueInformation, Length, ResultLength);
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, KEY_VALUE_INFORMATION_CLASS Class,
                               PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
    if (refused("ZwQueryValueKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    NTSTATUS status = keyOfHandle(KeyHandle, key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const RegNamedValue* slot = store().value(key, viewOf(ValueName));
    if (!slot) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return giveValue(*slot, Class, KeyValueInformation, Length, ResultLength);
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG, ULONG Type, PVOID Data,
                             ULONG DataSize) {
    if (refused("ZwSetValueKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    NTSTATUS status = keyOfHandle(KeyHandle, key);
    return NT_SUCCESS(status) ? setValue(key, viewOf(ValueName), Type, Data, DataSize) : status;
}

NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName) {
    if (refused("ZwDeleteValueKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    NTSTATUS status = keyOfHandle(KeyHandle, key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return store().removeValue(key, viewOf(ValueName)) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS NTAPI RtlWriteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName, ULONG ValueType, PVOID ValueData,
                                     ULONG ValueLength) {
    if (refused("RtlWriteRegistryValue")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    NTSTATUS status = keyOfPath(RelativeTo, Path, true, key);
    return NT_SUCCESS(status) ? setValue(key, ValueName, ValueType, ValueData, ValueLength) : status;
}

NTSTATUS NTAPI RtlDeleteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName) {
    if (refused("RtlDeleteRegistryValue")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    NTSTATUS status = keyOfPath(RelativeTo, Path, false, key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return store().removeValue(key, ValueName) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS NTAPI RtlCheckRegistryKey(ULONG RelativeTo, PWSTR Path) {
    if (refused("RtlCheckRegistryKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    return keyOfPath(RelativeTo, Path, false, key);
}

NTSTATUS NTAPI RtlCreateRegistryKey(ULONG RelativeTo, PWSTR Path) {
    if (refused("RtlCreateRegistryKey")) {
        return noResources;
    }
    std::lock_guard guard(store().lock);
    RegKeyPtr key;
    return keyOfPath(RelativeTo, Path, true, key);
}

}  // extern "C"
