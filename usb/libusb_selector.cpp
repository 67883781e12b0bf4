#include "usb/libusb_selector.h"

#include <charconv>
#include <cstdio>

namespace usb::lib {

namespace {

std::optional<std::uint16_t> hexadecimal(const std::string& text) {
    std::uint16_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (text.size() != 4 || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace

std::string numbersOf(std::uint16_t vendor, std::uint16_t product) {
    char text[12];
    std::snprintf(text, sizeof text, "%04x:%04x", vendor, product);
    return text;
}

std::string Selector::text() const {
    if (any) return "auto";
    return numbersOf(vendor, product) + (serial.empty() ? "" : ":" + serial);
}

std::optional<Selector> parseSelector(const std::string& text) {
    if (text == "auto") return Selector{};
    if (text.size() < 9 || text[4] != ':') return std::nullopt;
    const auto vendor = hexadecimal(text.substr(0, 4));
    const auto product = hexadecimal(text.substr(5, 4));
    const bool serial = text.size() > 9;
    if (!vendor || !product || (serial && (text[9] != ':' || text.size() == 10))) return std::nullopt;
    return Selector{false, *vendor, *product, serial ? text.substr(10) : std::string()};
}

}  // namespace usb::lib
