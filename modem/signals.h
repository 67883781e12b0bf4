// The lines between a modem and its host, their names, and who may hold and pull them.
#pragma once

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace modem {

// What the device says about itself.
struct Identity {
    std::string manufacturer = "Virtual";
    std::string model = "Virtual modem";
    std::string revision = "1.0";
    std::string serialNumber = "000000000001";
};

// Bits of SERIAL_STATE.
inline constexpr std::uint16_t stateCarrier = 0x01;
inline constexpr std::uint16_t stateReady = 0x02;
inline constexpr std::uint16_t stateBreak = 0x04;
inline constexpr std::uint16_t stateRing = 0x08;
inline constexpr std::uint16_t stateFramingError = 0x10;
inline constexpr std::uint16_t stateParityError = 0x20;
inline constexpr std::uint16_t stateOverrun = 0x40;
inline constexpr std::uint16_t stateHold = 0x100;  // the device cannot take data

enum class LineName : std::uint8_t { carrier, ready, ring, clearToSend, hold };
inline constexpr std::size_t lineCount = 5;

struct LineText {
    std::string_view text;
    LineName line;
};
// What commands call the lines.
inline constexpr std::array<LineText, lineCount> lineTexts{{{"DCD", LineName::carrier},
                                                           {"DSR", LineName::ready},
                                                           {"RI", LineName::ring},
                                                           {"CTS", LineName::clearToSend},
                                                           {"HOLD", LineName::hold}}};
// What happens on a line once: a break and errors, by the same commands.
struct ErrorText {
    std::string_view text;
    std::uint16_t bit;
};
inline constexpr std::array<ErrorText, 4> errorTexts{{{"BREAK", stateBreak},
                                                      {"FRAMING", stateFramingError},
                                                      {"PARITY", stateParityError},
                                                      {"OVERRUN", stateOverrun}}};

// When the modem asks its host for framed PPP transfers.
enum class FramingMode : std::uint8_t {
    on,        // with the first LCP frame of a call
    off,       // never
    late,      // with the first IP datagram
    midFrame,  // in the middle of a frame
    twice,     // as on, two times, and once more when framing has begun
    keep,      // as on, and never for its end
};
struct FramingText {
    std::string_view text;
    FramingMode mode;
};
inline constexpr std::array<FramingText, 6> framingTexts{{{"ON", FramingMode::on},
                                                          {"OFF", FramingMode::off},
                                                          {"LATE", FramingMode::late},
                                                          {"MID", FramingMode::midFrame},
                                                          {"TWICE", FramingMode::twice},
                                                          {"KEEP", FramingMode::keep}}};
struct FramingChoice {
    FramingMode mode = FramingMode::on;
    // A bit for each control character: what the host is told to escape for its application, and what a PPP far end
    // asks to have escaped.
    std::uint32_t escapes = 0xFFFF'FFFF;
};

// A map of control characters as commands write it: hexadecimal digits.
inline std::optional<std::uint32_t> parseEscapes(std::string_view digits) {
    std::uint32_t map = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, map, 16);
    return error == std::errc() && stop == end ? std::optional(map) : std::nullopt;
}
inline std::string escapesText(std::uint32_t map) {
    std::string text(8, '0');
    for (std::size_t i = text.size(); i-- != 0; map >>= 4)
        text[i] = "0123456789ABCDEF"[map & 15];
    return text;
}

// The lines to the host, as the commands of whoever types hold and pull them.
class Signals {
  public:
    // Nothing: the line follows the device again.
    virtual void signalLine(LineName line, std::optional<bool> level) = 0;
    virtual std::optional<bool> signalHeldAt(LineName line) const = 0;
    virtual bool signalLevel(LineName line) const = 0;
    // Bits stateBreak and so on, told once.
    virtual void signalErrors(std::uint16_t bits) = 0;
    // Somebody calls. False: the line is in use.
    virtual bool signalRing(unsigned rings) = 0;
    // From the next call on.
    virtual void signalFraming(const FramingChoice& choice) = 0;
    virtual FramingChoice signalFramingChoice() const = 0;
    // In one word, what passes between modem and host now.
    virtual std::string_view signalFramingState() const = 0;

  protected:
    ~Signals() = default;
};

}  // namespace modem
