// Characters as the platform compares them, and the two encodings.
#pragma once

#include <ntdef.h>

#include <string>
#include <string_view>

namespace nt {

// Empty for null.
inline std::u16string_view viewOf(PCUNICODE_STRING text) {
    return text && text->Buffer ? std::u16string_view(text->Buffer, text->Length / sizeof(WCHAR)) : std::u16string_view();
}

// Upper case of one UTF-16 unit: Latin, Greek and Cyrillic letters; everything else is its own.
char16_t upcase(char16_t c);
std::u16string upcase(std::u16string_view text);
bool equalIgnoringCase(std::u16string_view a, std::u16string_view b);

// False, and nothing appended, when the text is ill formed.
bool decodeUtf8(std::string_view text, std::u16string& out);

}  // namespace nt
