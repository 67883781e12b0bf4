// The .reg text: reading it into a list of steps, and writing values.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/registry.h"

namespace nt {

inline constexpr std::uint32_t regNone = 0, regSz = 1, regExpandSz = 2, regBinary = 3, regDword = 4, regMultiSz = 7;

// Longest names the registry takes, in UTF-16 units, and deepest nesting of keys.
inline constexpr std::size_t regMaxKeyName = 255;
inline constexpr std::size_t regMaxValueName = 16383;
inline constexpr std::size_t regMaxDepth = 64;

struct RegStep {
    enum class Kind { createKey, deleteKey, setValue, deleteValue };
    Kind kind = Kind::createKey;
    std::vector<std::u16string> path;  // below \Registry: MACHINE, SOFTWARE …
    std::u16string name;               // of the value; empty for the key's default
    RegistryValue value;
};

// Whole text or nothing: throws RegistryError "NAME:LINE: what". Takes UTF-8 (with or without mark) and UTF-16LE with mark.
std::vector<RegStep> parseRegText(std::string_view text, const std::string& name);

inline constexpr std::string_view regHeader = "Windows Registry Editor Version 5.00";

// "[HKEY_LOCAL_MACHINE\A\B]" and "name"=… as one or more lines, each ended by a line feed.
std::string regKeyLine(const std::vector<std::u16string>& path);
std::string regValueLine(std::u16string_view name, const RegistryValue& value);

// A name that can stand in a .reg text: not too long, no control character, for keys no backslash and not empty.
bool validRegKeyName(std::u16string_view name);
bool validRegValueName(std::u16string_view name);

// UTF-16 without a lone surrogate, UTF-8 that is well formed.
bool wellFormed(std::u16string_view text);

// Splits a path at its backslashes after naming its root: "\Registry\Machine\A", "HKEY_LOCAL_MACHINE\A" and "HKLM\A" give
// MACHINE, A. False for another root or an invalid name.
bool splitRegPath(std::u16string_view text, std::vector<std::u16string>& path);

}  // namespace nt
