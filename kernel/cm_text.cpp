// Reads and writes the registry's export format, line by line:
//   header, then [key], [-key], "name"=value, @=value, "name"=-, comments; a hex value goes on in the next line after "\".
#include "kernel/cm_text.h"

#include <cstdio>

#include "kernel/rtl_text.h"

namespace nt {

namespace {

bool isSpace(char16_t c) { return c == u' ' || c == u'\t'; }

int hexDigit(char16_t c) {
    if (c >= u'0' && c <= u'9') {
        return c - u'0';
    }
    if (c >= u'a' && c <= u'f') {
        return c - u'a' + 10;
    }
    return c >= u'A' && c <= u'F' ? c - u'A' + 10 : -1;
}

class Parser {
public:
    Parser(std::string_view bytes, const std::string& name) : name_(name) { decode(bytes); }

    std::vector<RegStep> run() {
        if (!nextLine() || line_ != toUtf16(regHeader)) {
            fail("the first line must be \"" + std::string(regHeader) + "\"");
        }
        while (nextLine()) {
            skipSpace();
            if (atEnd()) {
                continue;
            }
            if (peek() == u'[') {
                keyLine();
            } else if (peek() == u'"' || peek() == u'@') {
                valueLine();
            } else {
                fail("expected [key], \"name\"=value or a comment");
            }
        }
        return std::move(steps_);
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw RegistryError(name_ + ":" + std::to_string(lineNumber_) + ": " + what);
    }

    void decode(std::string_view bytes) {
        lineNumber_ = 1;
        if (bytes.starts_with("\xff\xfe")) {
            if (bytes.size() % 2 != 0) {
                fail("UTF-16 text with an odd number of bytes");
            }
            for (std::size_t i = 2; i < bytes.size(); i += 2) {
                text_ += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                               static_cast<unsigned char>(bytes[i + 1]) << 8);
            }
            if (!wellFormed(text_)) {
                fail("ill-formed UTF-16");
            }
        } else {
            if (bytes.starts_with("\xef\xbb\xbf")) {
                bytes.remove_prefix(3);
            }
            if (!decodeUtf8(bytes, text_)) {
                fail("neither UTF-8 nor UTF-16 with a byte-order mark");
            }
        }
        lineNumber_ = 0;
    }

    // False at the end of the text. A line ends with LF or CR LF.
    bool nextLine() {
        if (next_ >= text_.size()) {
            return false;
        }
        std::size_t end = text_.find(u'\n', next_);
        std::size_t stop = end == std::u16string::npos ? text_.size() : end;
        line_ = std::u16string_view(text_).substr(next_, stop - next_);
        next_ = end == std::u16string::npos ? text_.size() : end + 1;
        if (line_.ends_with(u'\r')) {
            line_.remove_suffix(1);
        }
        at_ = 0;
        ++lineNumber_;
        return true;
    }

    char16_t peek() const { return at_ < line_.size() ? line_[at_] : u'\0'; }
    bool take(char16_t c) {
        if (at_ >= line_.size() || line_[at_] != c) {
            return false;
        }
        ++at_;
        return true;
    }
    bool takeWord(std::u16string_view word) {
        if (line_.substr(at_, word.size()) != word) {
            return false;
        }
        at_ += word.size();
        return true;
    }
    void skipSpace() {
        while (at_ < line_.size() && isSpace(line_[at_])) {
            ++at_;
        }
    }
    // A comment ends a line like its own end does.
    bool atEnd() const { return at_ >= line_.size() || line_[at_] == u';'; }

    void keyLine() {
        ++at_;
        bool remove = take(u'-');
        std::size_t close = line_.rfind(u']');
        if (close == std::u16string_view::npos || close < at_) {
            fail("key without its closing bracket");
        }
        RegStep step;
        step.kind = remove ? RegStep::Kind::deleteKey : RegStep::Kind::createKey;
        std::u16string_view key = line_.substr(at_, close - at_);
        if (key.starts_with(u'\\') || !splitRegPath(key, step.path)) {
            fail("no such key can be: " + toUtf8(key) + " (it begins with HKEY_LOCAL_MACHINE or HKEY_USERS)");
        }
        if (remove && step.path.size() == 1) {
            fail("a root key cannot be deleted");
        }
        at_ = close + 1;
        skipSpace();
        if (!atEnd()) {
            fail("text behind the key");
        }
        hasKey_ = !remove;
        path_ = step.path;
        steps_.push_back(std::move(step));
    }

    void valueLine() {
        if (!hasKey_) {
            fail("a value before any [key]");
        }
        RegStep step;
        step.kind = RegStep::Kind::setValue;
        step.path = path_;
        if (!take(u'@')) {
            step.name = quoted();
            if (!validRegValueName(step.name)) {
                fail("value name too long or with a control character");
            }
        }
        skipSpace();
        if (!take(u'=')) {
            fail("expected = behind the value's name");
        }
        skipSpace();
        readValue(step);
        skipSpace();
        if (!atEnd()) {
            fail("text behind the value");
        }
        steps_.push_back(std::move(step));
    }

    void readValue(RegStep& step) {
        if (take(u'-')) {
            step.kind = RegStep::Kind::deleteValue;
        } else if (peek() == u'"') {
            std::u16string text = quoted();
            step.value.type = regSz;
            text += u'\0';
            for (char16_t c : text) {
                step.value.data.push_back(static_cast<std::uint8_t>(c));
                step.value.data.push_back(static_cast<std::uint8_t>(c >> 8));
            }
        } else if (takeWord(u"dword:")) {
            step.value.type = regDword;
            std::uint32_t number = hexNumber();
            for (int shift = 0; shift < 32; shift += 8) {
                step.value.data.push_back(static_cast<std::uint8_t>(number >> shift));
            }
        } else if (takeWord(u"hex")) {
            step.value.type = regBinary;
            if (take(u'(')) {
                step.value.type = hexNumber();
                if (!take(u')')) {
                    fail("expected ) behind the type");
                }
            }
            if (!take(u':')) {
                fail("expected : before the bytes");
            }
            hexBytes(step.value.data);
        } else {
            fail("expected \"text\", dword:, hex: or -");
        }
    }

    std::u16string quoted() {
        std::u16string result;
        ++at_;
        while (!take(u'"')) {
            if (at_ >= line_.size()) {
                fail("text without its closing quote");
            }
            char16_t c = line_[at_++];
            if (c == u'\\') {
                c = peek();
                if (c != u'\\' && c != u'"') {
                    fail("\\ must be followed by \\ or \"");
                }
                ++at_;
            }
            if (c == u'\0') {
                fail("a zero character inside a text");
            }
            result += c;
        }
        return result;
    }

    std::uint32_t hexNumber() {
        std::uint32_t number = 0;
        int digits = 0;
        for (; hexDigit(peek()) >= 0; ++at_, ++digits) {
            number = number << 4 | static_cast<std::uint32_t>(hexDigit(peek()));
        }
        if (digits == 0 || digits > 8) {
            fail("expected 1 to 8 hexadecimal digits");
        }
        return number;
    }

    void hexBytes(std::vector<std::uint8_t>& data) {
        skipSpace();
        if (atEnd()) {
            return;
        }
        for (;;) {
            skipSpace();
            if (take(u'\\')) {
                continueLine();
                continue;
            }
            int high = hexDigit(peek());
            if (high < 0) {
                fail("expected a byte of two hexadecimal digits");
            }
            ++at_;
            int low = hexDigit(peek());
            if (low >= 0) {
                ++at_;
                high = high << 4 | low;
            }
            data.push_back(static_cast<std::uint8_t>(high));
            skipSpace();
            if (!take(u',')) {
                return;
            }
        }
    }

    void continueLine() {
        skipSpace();
        if (!atEnd()) {
            fail("text behind the \\ that continues the line");
        }
        if (!nextLine()) {
            fail("the text ends inside a value");
        }
        skipSpace();
    }

    std::string name_;
    std::u16string text_;
    std::u16string_view line_;
    std::size_t next_ = 0;
    std::size_t at_ = 0;
    std::size_t lineNumber_ = 0;
    bool hasKey_ = false;
    std::vector<std::u16string> path_;
    std::vector<RegStep> steps_;
};

bool hasControl(std::u16string_view text) {
    for (char16_t c : text) {
        if (c < 0x20 || c == 0x7f) {
            return true;
        }
    }
    return false;
}

std::string quote(std::u16string_view text) {
    std::string result = "\"";
    for (char c : toUtf8(text)) {
        if (c == '\\' || c == '"') {
            result += '\\';
        }
        result += c;
    }
    return result + "\"";
}

// The text of a REG_SZ that quotes can carry: terminated once, at the end, and no control character inside.
bool plainText(const RegistryValue& value, std::u16string& text) {
    if (value.type != regSz || value.data.size() < 2 || value.data.size() % 2 != 0) {
        return false;
    }
    text.clear();
    for (std::size_t i = 0; i < value.data.size(); i += 2) {
        text += static_cast<char16_t>(value.data[i] | value.data[i + 1] << 8);
    }
    if (text.back() != u'\0') {
        return false;
    }
    text.pop_back();
    return !hasControl(text) && wellFormed(text);
}

}  // namespace

std::vector<RegStep> parseRegText(std::string_view text, const std::string& name) { return Parser(text, name).run(); }

bool validRegKeyName(std::u16string_view name) {
    return !name.empty() && name.size() <= regMaxKeyName && !hasControl(name) && wellFormed(name) &&
           name.find(u'\\') == std::u16string_view::npos;
}

bool validRegValueName(std::u16string_view name) {
    return name.size() <= regMaxValueName && !hasControl(name) && wellFormed(name);
}

bool splitRegPath(std::u16string_view text, std::vector<std::u16string>& path) {
    static constexpr struct {
        std::u16string_view prefix, root;
    } roots[] = {{u"\\REGISTRY\\MACHINE", u"MACHINE"}, {u"HKEY_LOCAL_MACHINE", u"MACHINE"}, {u"HKLM", u"MACHINE"},
                 {u"\\REGISTRY\\USER", u"USER"},       {u"HKEY_USERS", u"USER"}};
    path.clear();
    for (const auto& [prefix, root] : roots) {
        if (!equalIgnoringCase(text.substr(0, prefix.size()), prefix)) {
            continue;
        }
        std::u16string_view rest = text.substr(prefix.size());
        if (!rest.empty() && rest.front() != u'\\') {
            continue;
        }
        path.emplace_back(root);
        while (!rest.empty()) {
            rest.remove_prefix(1);
            std::u16string_view part = rest.substr(0, rest.find(u'\\'));
            if (!validRegKeyName(part) || path.size() >= regMaxDepth) {
                return false;
            }
            path.emplace_back(part);
            rest.remove_prefix(part.size());
        }
        return true;
    }
    return false;
}

std::string regKeyLine(const std::vector<std::u16string>& path) {
    std::string line = path.front() == u"USER" ? "[HKEY_USERS" : "[HKEY_LOCAL_MACHINE";
    for (std::size_t i = 1; i < path.size(); ++i) {
        line += '\\';
        line += toUtf8(path[i]);
    }
    return line + "]\n";
}

std::string regValueLine(std::u16string_view name, const RegistryValue& value) {
    std::string line = name.empty() ? "@=" : quote(name) + "=";
    std::u16string text;
    char piece[16];
    if (plainText(value, text)) {
        return line + quote(text) + "\n";
    }
    const auto& d = value.data;
    if (value.type == regDword && d.size() == 4) {
        std::snprintf(piece, sizeof piece, "dword:%02x%02x%02x%02x", d[3], d[2], d[1], d[0]);
        return line + piece + "\n";
    }
    if (value.type == regBinary) {
        line += "hex:";
    } else {
        std::snprintf(piece, sizeof piece, "hex(%x):", value.type);
        line += piece;
    }
    std::size_t width = line.size();
    for (std::size_t i = 0; i < d.size(); ++i) {
        std::snprintf(piece, sizeof piece, i + 1 < d.size() ? "%02x," : "%02x", d[i]);
        line += piece;
        width += 3;
        if (width > 76 && i + 1 < d.size()) {
            line += "\\\n  ";
            width = 2;
        }
    }
    return line + "\n";
}

}  // namespace nt
