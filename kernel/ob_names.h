// The object namespace: device names, symbolic links, and the links of device interfaces.
#pragma once

#include <wdm.h>

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace nt {

// \DosDevices\X, \GLOBAL??\X and \??\X are one name; case does not count.
class Namespace {
public:
    // STATUS_OBJECT_NAME_COLLISION when taken, STATUS_OBJECT_NAME_INVALID or STATUS_OBJECT_PATH_… for a name that cannot be.
    NTSTATUS addDevice(std::u16string_view name, PDEVICE_OBJECT device);
    NTSTATUS addLink(std::u16string_view name, std::u16string_view target);
    NTSTATUS removeLink(std::u16string_view name);
    // Every name the device has.
    void removeDevice(PDEVICE_OBJECT device);
    // One of the names a device has.
    void removeAlias(std::u16string_view name);

    // Follows links; the device comes back with a reference, and as one with an open handle when `open` is set. `rest` is what
    // follows the device's own name.
    NTSTATUS lookUp(std::u16string_view name, bool open, PDEVICE_OBJECT* device, std::u16string* rest);

    // Links somebody made and nobody removed, one line each.
    std::vector<std::string> leftLinks();

private:
    struct Entry {
        std::u16string name;
        PDEVICE_OBJECT device = nullptr;  // null for a link
        std::u16string target;
    };

    NTSTATUS add(Entry entry);

    std::mutex lock_;
    std::map<std::u16string, Entry> entries_;  // by folded name
};

}  // namespace nt
