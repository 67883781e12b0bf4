#include "kernel/ob_names.h"

#include "kernel/faults.h"
#include "kernel/io_internal.h"
#include "kernel/rtl_text.h"
#include "kernel/system.h"
#include "kernel/verifier.h"

namespace nt {

namespace {

constexpr int maxLinks = 8;

// Every spelling of a name becomes one.
std::u16string fold(std::u16string_view name) {
    std::u16string folded = upcase(name);
    for (std::u16string_view prefix : {u"\\DOSDEVICES\\", u"\\GLOBAL??\\", u"\\\\.\\", u"\\\\?\\"}) {
        if (folded.starts_with(prefix)) {
            return u"\\??\\" + folded.substr(prefix.size());
        }
    }
    return folded;
}

// Names live directly in one of the two directories there are.
NTSTATUS checkName(std::u16string_view folded) {
    if (folded.empty() || folded.front() != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    for (std::u16string_view directory : {u"\\DEVICE\\", u"\\??\\"}) {
        if (folded.starts_with(directory)) {
            return folded.size() > directory.size() && folded.back() != u'\\' ? STATUS_SUCCESS
                                                                              : STATUS_OBJECT_NAME_INVALID;
        }
    }
    return STATUS_OBJECT_PATH_NOT_FOUND;
}

}  // namespace

NTSTATUS Namespace::add(Entry entry) {
    std::u16string folded = fold(entry.name);
    NTSTATUS status = checkName(folded);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    std::lock_guard guard(lock_);
    return entries_.emplace(std::move(folded), std::move(entry)).second ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
}

NTSTATUS Namespace::addDevice(std::u16string_view name, PDEVICE_OBJECT device) {
    return add({std::u16string(name), device, {}});
}

NTSTATUS Namespace::addLink(std::u16string_view name, std::u16string_view target) {
    return add({std::u16string(name), nullptr, std::u16string(target)});
}

NTSTATUS Namespace::removeLink(std::u16string_view name) {
    std::lock_guard guard(lock_);
    auto entry = entries_.find(fold(name));
    if (entry == entries_.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (entry->second.device) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    entries_.erase(entry);
    return STATUS_SUCCESS;
}

void Namespace::removeDevice(PDEVICE_OBJECT device) {
    std::lock_guard guard(lock_);
    std::erase_if(entries_, [&](const auto& entry) { return entry.second.device == device; });
}

void Namespace::removeAlias(std::u16string_view name) {
    std::lock_guard guard(lock_);
    entries_.erase(fold(name));
}

NTSTATUS Namespace::lookUp(std::u16string_view name, bool open, PDEVICE_OBJECT* device, std::u16string* rest) {
    std::lock_guard guard(lock_);
    std::u16string folded = fold(name);
    std::u16string tail;
    for (int links = 0; links <= maxLinks;) {
        auto entry = entries_.find(folded);
        if (entry == entries_.end()) {
            // Perhaps a name inside a device's own space: give up the last part.
            std::size_t cut = folded.rfind(u'\\');
            if (cut == std::u16string::npos || cut == 0) {
                return STATUS_OBJECT_NAME_NOT_FOUND;
            }
            tail = folded.substr(cut) + tail;
            folded.resize(cut);
        } else if (PDEVICE_OBJECT found = entry->second.device) {
            referenceDevice(found);
            if (open) {
                countHandle(found);
            }
            *device = found;
            if (rest) {
                *rest = tail;
            }
            return STATUS_SUCCESS;
        } else {
            folded = fold(entry->second.target);
            ++links;
        }
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

std::vector<std::string> Namespace::leftLinks() {
    std::lock_guard guard(lock_);
    std::vector<std::string> lines;
    for (const auto& [folded, entry] : entries_) {
        if (!entry.device) {
            lines.push_back("symbolic link " + toUtf8(entry.name) + " -> " + toUtf8(entry.target));
        }
    }
    return lines;
}

}  // namespace nt

using namespace nt;

extern "C" {

NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) {
    verifier::checkIrqlMax("IoCreateSymbolicLink", PASSIVE_LEVEL);
    if (faults::hit(faults::Kind::objectCreate)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return nt::system().names->addLink(viewOf(SymbolicLinkName), viewOf(DeviceName));
}

NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName) {
    verifier::checkIrqlMax("IoDeleteSymbolicLink", PASSIVE_LEVEL);
    return nt::system().names->removeLink(viewOf(SymbolicLinkName));
}

}  // extern "C"
