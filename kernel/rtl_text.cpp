#include "kernel/rtl_text.h"

#include <cstdint>

#include "kernel/cm_text.h"
#include "kernel/registry.h"

namespace nt {

namespace {

constexpr char32_t replacement = 0xfffd;

bool highSurrogate(char16_t c) { return c >= 0xd800 && c < 0xdc00; }
bool lowSurrogate(char16_t c) { return c >= 0xdc00 && c < 0xe000; }

// One character at `at`, which moves behind it; `replacement` with `ok` false for an ill-formed piece.
char32_t nextUtf8(std::string_view text, std::size_t& at, bool& ok) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(at++);
    if (lead < 0x80) {
        return lead;
    }
    int more = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : 1;
    if (lead < 0xc2 || lead > 0xf4) {
        ok = false;
        return replacement;
    }
    char32_t c = lead & (0x3f >> more);
    for (int i = 0; i < more; ++i) {
        if (at >= text.size() || (byte(at) & 0xc0) != 0x80) {
            ok = false;
            return replacement;
        }
        c = c << 6 | (byte(at++) & 0x3f);
    }
    static constexpr char32_t least[] = {0, 0x80, 0x800, 0x10000};
    if (c < least[more] || c > 0x10ffff || (c >= 0xd800 && c < 0xe000)) {
        ok = false;
        return replacement;
    }
    return c;
}

void appendUtf16(std::u16string& out, char32_t c) {
    if (c < 0x10000) {
        out += static_cast<char16_t>(c);
        return;
    }
    c -= 0x10000;
    out += static_cast<char16_t>(0xd800 + (c >> 10));
    out += static_cast<char16_t>(0xdc00 + (c & 0x3ff));
}

void appendUtf8(std::string& out, char32_t c) {
    auto tail = [&](int shift) { out += static_cast<char>(0x80 | ((c >> shift) & 0x3f)); };
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xc0 | (c >> 6));
        tail(0);
    } else if (c < 0x10000) {
        out += static_cast<char>(0xe0 | (c >> 12));
        tail(6);
        tail(0);
    } else {
        out += static_cast<char>(0xf0 | (c >> 18));
        tail(12);
        tail(6);
        tail(0);
    }
}

}  // namespace

char16_t upcase(char16_t c) {
    if (c < 0x80) {
        return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 32) : c;
    }
    if ((c >= 0xe0 && c <= 0xfe && c != 0xf7) || (c >= 0x3b1 && c <= 0x3c9 && c != 0x3c2) || (c >= 0x430 && c <= 0x44f)) {
        return static_cast<char16_t>(c - 32);
    }
    if (c >= 0x450 && c <= 0x45f) {
        return static_cast<char16_t>(c - 80);
    }
    if (c >= 0x100 && c <= 0x137 && c != 0x131) {
        return static_cast<char16_t>(c & ~1);
    }
    return c == 0xff ? 0x178 : c;
}

std::u16string upcase(std::u16string_view text) {
    std::u16string result(text);
    for (char16_t& c : result) {
        c = upcase(c);
    }
    return result;
}

bool equalIgnoringCase(std::u16string_view a, std::u16string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (upcase(a[i]) != upcase(b[i])) {
            return false;
        }
    }
    return true;
}

bool decodeUtf8(std::string_view text, std::u16string& out) {
    std::u16string result;
    bool ok = true;
    for (std::size_t at = 0; at < text.size() && ok;) {
        appendUtf16(result, nextUtf8(text, at, ok));
    }
    if (ok) {
        out += result;
    }
    return ok;
}

std::u16string toUtf16(std::string_view text) {
    std::u16string result;
    bool ok = true;
    for (std::size_t at = 0; at < text.size();) {
        appendUtf16(result, nextUtf8(text, at, ok));
    }
    return result;
}

std::string toUtf8(std::u16string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char16_t c = text[i];
        if (highSurrogate(c) && i + 1 < text.size() && lowSurrogate(text[i + 1])) {
            appendUtf8(result, 0x10000 + ((c - 0xd800) << 10) + (text[i + 1] - 0xdc00));
            ++i;
        } else {
            appendUtf8(result, highSurrogate(c) || lowSurrogate(c) ? replacement : c);
        }
    }
    return result;
}

bool wellFormed(std::u16string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (lowSurrogate(text[i])) {
            return false;
        }
        if (highSurrogate(text[i])) {
            if (++i == text.size() || !lowSurrogate(text[i])) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace nt
