// The registry as host code uses it, and the file behind it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kernel/cm_store.h"
#include "kernel/rtl_text.h"

namespace nt {

RegistryStore::RegistryStore() : root(std::make_shared<RegKey>()) {
    findOrCreate(root, {u"MACHINE"});
    findOrCreate(root, {u"USER"});
    dirty = false;
}

RegKeyPtr RegistryStore::find(const RegKeyPtr& from, const RegPath& path) const {
    RegKeyPtr key = from;
    for (const std::u16string& part : path) {
        auto child = key->children.find(upcase(part));
        if (child == key->children.end()) {
            return nullptr;
        }
        key = child->second;
    }
    return key;
}

RegKeyPtr RegistryStore::findOrCreate(const RegKeyPtr& from, const RegPath& path) {
    RegKeyPtr key = from;
    for (const std::u16string& part : path) {
        RegKeyPtr& child = key->children[upcase(part)];
        if (!child) {
            child = std::make_shared<RegKey>();
            child->name = part;
            child->parent = key.get();
            dirty = true;
        }
        key = child;
    }
    return key;
}

// By value: the caller's may be the parent's own pointer, which goes first.
void RegistryStore::remove(RegKeyPtr key) {
    if (RegKey* parent = key->parent) {
        parent->children.erase(upcase(key->name));
    }
    key->deleted = true;
    key->parent = nullptr;
    key->values.clear();
    while (!key->children.empty()) {
        remove(key->children.begin()->second);
    }
    dirty = true;
}

void RegistryStore::setValue(const RegKeyPtr& key, std::u16string_view name, RegistryValue value) {
    auto [place, added] = key->values.try_emplace(upcase(name));
    RegNamedValue& slot = place->second;
    dirty = dirty || added || slot.name != name || !(slot.value == value);
    slot.name = name;
    slot.value = std::move(value);
}

bool RegistryStore::removeValue(const RegKeyPtr& key, std::u16string_view name) {
    bool gone = key->values.erase(upcase(name)) != 0;
    dirty = dirty || gone;
    return gone;
}

const RegNamedValue* RegistryStore::value(const RegKeyPtr& key, std::u16string_view name) const {
    auto slot = key->values.find(upcase(name));
    return slot == key->values.end() ? nullptr : &slot->second;
}

void RegistryStore::apply(const std::vector<RegStep>& steps) {
    for (const RegStep& step : steps) {
        RegKeyPtr key;
        switch (step.kind) {
        case RegStep::Kind::createKey:
            findOrCreate(root, step.path);
            break;
        case RegStep::Kind::deleteKey:
            key = find(root, step.path);
            if (key) {
                remove(key);
            }
            break;
        case RegStep::Kind::setValue:
            setValue(findOrCreate(root, step.path), step.name, step.value);
            break;
        case RegStep::Kind::deleteValue:
            key = find(root, step.path);
            if (key) {
                removeValue(key, step.name);
            }
            break;
        }
    }
}

namespace {

// What describes the running machine is made anew at every boot and has no place in a file.
bool madeAtBoot(const RegPath& path) { return path.size() == 2 && equalIgnoringCase(path[1], u"HARDWARE"); }

void appendKey(std::string& text, const RegKey& key, RegPath& path, bool lasting) {
    if (lasting && madeAtBoot(path)) {
        return;
    }
    // A key that only leads to others needs no line of its own.
    if (!key.values.empty() || (key.children.empty() && path.size() > 1)) {
        text += '\n';
        text += regKeyLine(path);
        for (const auto& [folded, slot] : key.values) {
            text += regValueLine(slot.name, slot.value);
        }
    }
    for (const auto& [folded, child] : key.children) {
        path.push_back(child->name);
        appendKey(text, *child, path, lasting);
        path.pop_back();
    }
}

std::string readFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        if (errno == ENOENT) {
            return {};
        }
        throw RegistryError(file + ": cannot be read: " + std::strerror(errno));
    }
    std::ostringstream text;
    if (in.peek() != std::ifstream::traits_type::eof()) {
        text << in.rdbuf();
    }
    if (in.bad()) {
        throw RegistryError(file + ": cannot be read");
    }
    return text.str();
}

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t done = ::write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(done));
    }
    return ::fsync(fd) == 0;
}

// A reader sees the old file or the new one, never half of it. A link stays a link.
void writeFile(const std::string& file, const std::string& text) {
    std::string target = file;
    if (char* real = ::realpath(file.c_str(), nullptr)) {
        target = real;
        std::free(real);
    }
    std::string temporary = target + ".new";
    auto fail = [&](const char* what) {
        std::string reason = std::strerror(errno);
        ::unlink(temporary.c_str());
        throw RegistryError(file + ": " + what + ": " + reason);
    };
    {
        Descriptor out(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (out.get() < 0 || !writeAll(out.get(), text)) {
            fail("cannot be written");
        }
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        fail("cannot be replaced");
    }
}

bool pathOf(std::string_view key, RegPath& path) { return splitRegPath(toUtf16(key), path); }

RegPath pathOrThrow(std::string_view key) {
    RegPath path;
    if (!pathOf(key, path)) {
        throw RegistryError(std::string(key) + ": not a registry key's path");
    }
    return path;
}

void appendUnits(std::vector<std::uint8_t>& data, std::u16string_view text) {
    for (char16_t c : text) {
        data.push_back(static_cast<std::uint8_t>(c));
        data.push_back(static_cast<std::uint8_t>(c >> 8));
    }
}

std::u16string unitsOf(const RegistryValue& value) {
    std::u16string text;
    for (std::size_t i = 0; i + 1 < value.data.size(); i += 2) {
        text += static_cast<char16_t>(value.data[i] | value.data[i + 1] << 8);
    }
    return text;
}

}  // namespace

std::string RegistryStore::text(bool lasting) const {
    std::string result(regHeader);
    result += '\n';
    for (const auto& [folded, child] : root->children) {
        RegPath path{child->name};
        appendKey(result, *child, path, lasting);
    }
    return result;
}

HANDLE RegistryStore::openHandle(const RegKeyPtr& key) {
    handles.emplace(++lastHandle, key);
    return reinterpret_cast<HANDLE>(lastHandle << 2);
}

RegKeyPtr RegistryStore::keyOf(HANDLE handle) const {
    auto slot = handles.find(reinterpret_cast<std::uintptr_t>(handle) >> 2);
    return slot == handles.end() ? nullptr : slot->second;
}

std::vector<std::string> RegistryStore::openHandles() const {
    std::lock_guard guard(lock);
    std::vector<std::string> lines;
    for (const auto& [number, key] : handles) {
        lines.push_back("registry handle open: " + regKeyName(*key));
    }
    return lines;
}

std::string regKeyName(const RegKey& key) {
    std::string name;
    for (const RegKey* k = &key; k->parent != nullptr; k = k->parent) {
        name = "\\" + toUtf8(k->name) + name;
    }
    return key.deleted ? toUtf8(key.name) + " (deleted)" : "\\Registry" + name;
}

Registry::Registry() : store_(std::make_unique<RegistryStore>()) {}
Registry::~Registry() = default;

void Registry::open(const std::string& file) {
    std::string text = readFile(file);
    std::vector<RegStep> steps;
    if (!text.empty()) {
        steps = parseRegText(text, file);
    }
    std::lock_guard guard(store_->lock);
    store_->apply(steps);
    store_->file = file;
    store_->dirty = text.empty();
}

void Registry::merge(std::string_view text, const std::string& name) {
    std::vector<RegStep> steps = parseRegText(text, name);
    std::lock_guard guard(store_->lock);
    store_->apply(steps);
}

void Registry::save() {
    std::string text;
    {
        std::lock_guard guard(store_->lock);
        if (!store_->dirty || store_->file.empty()) {
            return;
        }
        text = store_->text(true);
        store_->dirty = false;
    }
    try {
        writeFile(store_->file, text);
    } catch (...) {
        std::lock_guard guard(store_->lock);
        store_->dirty = true;
        throw;
    }
}

std::string Registry::text() const {
    std::lock_guard guard(store_->lock);
    return store_->text(false);
}

bool Registry::keyExists(std::string_view key) const {
    RegPath path;
    std::lock_guard guard(store_->lock);
    return pathOf(key, path) && store_->find(store_->root, path);
}

void Registry::createKey(std::string_view key) {
    RegPath path = pathOrThrow(key);
    std::lock_guard guard(store_->lock);
    store_->findOrCreate(store_->root, path);
}

bool Registry::deleteKey(std::string_view key) {
    RegPath path = pathOrThrow(key);
    std::lock_guard guard(store_->lock);
    RegKeyPtr found = store_->find(store_->root, path);
    if (!found || path.size() == 1) {
        return false;
    }
    store_->remove(found);
    return true;
}

std::vector<std::string> Registry::subkeys(std::string_view key) const {
    RegPath path;
    std::vector<std::string> names;
    std::lock_guard guard(store_->lock);
    if (RegKeyPtr found = pathOf(key, path) ? store_->find(store_->root, path) : nullptr) {
        for (const auto& [folded, child] : found->children) {
            names.push_back(toUtf8(child->name));
        }
    }
    return names;
}

std::vector<std::string> Registry::valueNames(std::string_view key) const {
    RegPath path;
    std::vector<std::string> names;
    std::lock_guard guard(store_->lock);
    if (RegKeyPtr found = pathOf(key, path) ? store_->find(store_->root, path) : nullptr) {
        for (const auto& [folded, slot] : found->values) {
            names.push_back(toUtf8(slot.name));
        }
    }
    return names;
}

std::optional<RegistryValue> Registry::value(std::string_view key, std::string_view name) const {
    RegPath path;
    std::lock_guard guard(store_->lock);
    RegKeyPtr found = pathOf(key, path) ? store_->find(store_->root, path) : nullptr;
    const RegNamedValue* slot = found ? store_->value(found, toUtf16(name)) : nullptr;
    return slot ? std::optional(slot->value) : std::nullopt;
}

std::optional<std::uint32_t> Registry::dword(std::string_view key, std::string_view name) const {
    std::optional<RegistryValue> found = value(key, name);
    if (!found || found->type != regDword || found->data.size() != 4) {
        return std::nullopt;
    }
    const auto& d = found->data;
    return d[0] | d[1] << 8 | d[2] << 16 | static_cast<std::uint32_t>(d[3]) << 24;
}

std::optional<std::string> Registry::string(std::string_view key, std::string_view name) const {
    std::optional<RegistryValue> found = value(key, name);
    if (!found || (found->type != regSz && found->type != regExpandSz)) {
        return std::nullopt;
    }
    std::u16string text = unitsOf(*found);
    return toUtf8(std::u16string_view(text).substr(0, text.find(u'\0')));
}

std::vector<std::string> Registry::multiString(std::string_view key, std::string_view name) const {
    std::optional<RegistryValue> found = value(key, name);
    std::vector<std::string> texts;
    if (!found || found->type != regMultiSz) {
        return texts;
    }
    std::u16string all = unitsOf(*found);
    for (std::u16string_view rest = all; !rest.empty() && rest.front() != u'\0';) {
        std::u16string_view text = rest.substr(0, rest.find(u'\0'));
        texts.push_back(toUtf8(text));
        rest.remove_prefix(std::min(rest.size(), text.size() + 1));
    }
    return texts;
}

void Registry::setValue(std::string_view key, std::string_view name, RegistryValue value) {
    RegPath path = pathOrThrow(key);
    std::u16string wide = toUtf16(name);
    if (!validRegValueName(wide)) {
        throw RegistryError(std::string(name) + ": not a registry value's name");
    }
    std::lock_guard guard(store_->lock);
    store_->setValue(store_->findOrCreate(store_->root, path), wide, std::move(value));
}

void Registry::setDword(std::string_view key, std::string_view name, std::uint32_t number) {
    RegistryValue value{regDword, {}};
    for (int shift = 0; shift < 32; shift += 8) {
        value.data.push_back(static_cast<std::uint8_t>(number >> shift));
    }
    setValue(key, name, std::move(value));
}

void Registry::setString(std::string_view key, std::string_view name, std::string_view text) {
    RegistryValue value{regSz, {}};
    appendUnits(value.data, toUtf16(text) + u'\0');
    setValue(key, name, std::move(value));
}

void Registry::setMultiString(std::string_view key, std::string_view name, const std::vector<std::string>& texts) {
    RegistryValue value{regMultiSz, {}};
    for (const std::string& text : texts) {
        appendUnits(value.data, toUtf16(text) + u'\0');
    }
    appendUnits(value.data, std::u16string(1, u'\0'));
    setValue(key, name, std::move(value));
}

bool Registry::deleteValue(std::string_view key, std::string_view name) {
    RegPath path = pathOrThrow(key);
    std::lock_guard guard(store_->lock);
    RegKeyPtr found = store_->find(store_->root, path);
    return found && store_->removeValue(found, toUtf16(name));
}

}  // namespace nt
