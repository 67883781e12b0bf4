// The registry as host code sees it: keys and values by path, and the file they live in.
//
// Key paths are case-insensitive and may begin with "\Registry\Machine\", "HKEY_LOCAL_MACHINE\" or "HKLM\".
// Text is UTF-8 here and UTF-16 inside. Every call may be made from any thread below DISPATCH_LEVEL.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace nt {

// A .reg text that cannot be taken, a file that cannot be read or written. what() is "FILE:LINE: what is wrong".
class RegistryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct RegistryValue {
    std::uint32_t type = 0;  // REG_SZ, REG_DWORD …
    std::vector<std::uint8_t> data;

    bool operator==(const RegistryValue&) const = default;
};

struct RegistryStore;

class Registry {
public:
    Registry();
    ~Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    // Ties the registry to a file and takes its content; a missing file is an empty registry. Throws RegistryError,
    // and then nothing has changed.
    void open(const std::string& file);
    // Adds the keys and values of a .reg text; `name` stands in the messages. Throws RegistryError, nothing changed then.
    void merge(std::string_view text, const std::string& name);
    // Writes the file when something changed since the last time (temporary file, then rename). Throws RegistryError.
    void save();
    // The whole content as .reg text (UTF-8).
    std::string text() const;

    bool keyExists(std::string_view key) const;
    // Creates the key and all its parents.
    void createKey(std::string_view key);
    // Deletes the key and everything below it; false when there was none.
    bool deleteKey(std::string_view key);
    std::vector<std::string> subkeys(std::string_view key) const;
    std::vector<std::string> valueNames(std::string_view key) const;

    std::optional<RegistryValue> value(std::string_view key, std::string_view name) const;
    std::optional<std::uint32_t> dword(std::string_view key, std::string_view name) const;
    std::optional<std::string> string(std::string_view key, std::string_view name) const;
    std::vector<std::string> multiString(std::string_view key, std::string_view name) const;

    // The setters create the key when it is missing.
    void setValue(std::string_view key, std::string_view name, RegistryValue value);
    void setDword(std::string_view key, std::string_view name, std::uint32_t number);
    void setString(std::string_view key, std::string_view name, std::string_view text);
    void setMultiString(std::string_view key, std::string_view name, const std::vector<std::string>& texts);
    bool deleteValue(std::string_view key, std::string_view name);

    RegistryStore& store() { return *store_; }

private:
    std::unique_ptr<RegistryStore> store_;
};

// UTF-8 to UTF-16 and back. Ill-formed pieces become U+FFFD.
std::u16string toUtf16(std::string_view text);
std::string toUtf8(std::u16string_view text);

}  // namespace nt
