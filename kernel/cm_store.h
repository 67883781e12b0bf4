// The registry's tree in memory and its handles. Everything is guarded by one lock that is never held across a scheduling point.
#pragma once

#include <wdm.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/cm_text.h"
#include "kernel/registry.h"

namespace nt {

using RegPath = std::vector<std::u16string>;

struct RegNamedValue {
    std::u16string name;
    RegistryValue value;
};

struct RegKey {
    std::u16string name;
    bool deleted = false;
    RegKey* parent = nullptr;  // null for the root, and for a deleted key
    std::map<std::u16string, std::shared_ptr<RegKey>> children;  // by name in upper case
    std::map<std::u16string, RegNamedValue> values;              // likewise
};

using RegKeyPtr = std::shared_ptr<RegKey>;

struct RegistryStore {
    mutable std::mutex lock;
    // All below guarded by lock.
    RegKeyPtr root;
    bool dirty = false;
    std::string file;
    std::map<std::uintptr_t, RegKeyPtr> handles;
    std::uintptr_t lastHandle = 0;

    RegistryStore();

    // All of these: lock held.
    RegKeyPtr find(const RegKeyPtr& from, const RegPath& path) const;
    RegKeyPtr findOrCreate(const RegKeyPtr& from, const RegPath& path);
    void remove(RegKeyPtr key);
    void setValue(const RegKeyPtr& key, std::u16string_view name, RegistryValue value);
    bool removeValue(const RegKeyPtr& key, std::u16string_view name);
    const RegNamedValue* value(const RegKeyPtr& key, std::u16string_view name) const;
    void apply(const std::vector<RegStep>& steps);
    // `lasting` leaves out what is made anew at every boot.
    std::string text(bool lasting) const;
    HANDLE openHandle(const RegKeyPtr& key);
    RegKeyPtr keyOf(HANDLE handle) const;

    // Lock not held: handles nobody closed, one line each.
    std::vector<std::string> openHandles() const;
};

// Full name of a key for messages; lock held.
std::string regKeyName(const RegKey& key);

}  // namespace nt
