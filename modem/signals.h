// The lines between a modem and its host, their names, and who may hold and pull them.
#pragma once

#include <array>
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

  protected:
    ~Signals() = default;
};

}  // namespace modem
