// Which of the devices that are plugged into this machine is meant. Needs no libusb.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace usb::lib {

// "auto": the first CDC-ACM function; "VID:PID" or "VID:PID:SERIAL", the numbers hexadecimal.
struct Selector {
    bool any = true;
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::string serial;  // "": whatever it is

    std::string text() const;
    bool operator==(const Selector&) const = default;
};
std::optional<Selector> parseSelector(const std::string& text);

// "1209:0001", as the tools write it.
std::string numbersOf(std::uint16_t vendor, std::uint16_t product);

}  // namespace usb::lib
