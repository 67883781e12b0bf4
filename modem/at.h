// The command interpreter of the virtual modem: bytes from the host in, bytes for the host out.
//
//   command --D, A--> connecting --carrier--> data --+++ between two silences--> onlineCommand
//           (also an answered ring)           ^  |                                |
//                     |                       +--|-------------- O ---------------+
//   command <---------+--no carrier--------------+-- no carrier, H, Z, DTR -------+
//
// In data mode the bytes pass to the line and back without being looked at, but for the escape sequence.
// No I/O, no threads, no clock: time is in milliseconds and comes with tick(), which precedes each other call.
// The memory it holds is bounded: put() refuses command bytes while more than replyLimit bytes wait for the host.
#pragma once

#include "modem/line.h"
#include "modem/signals.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace modem {

// Numbers that a "+NAME=" command sets and "+NAME?" shows; see the table in at_commands.cpp.
inline constexpr std::size_t numericParameters = 8;
inline constexpr std::size_t numericFields = 2;

enum class Register : std::uint8_t {  // S-registers with a meaning here; the others only keep a number
    autoAnswer = 0,
    ringCount = 1,
    escapeCharacter = 2,
    lineEnd = 3,
    lineFeed = 4,
    backspace = 5,
    waitAnswerS = 7,
    pauseS = 8,
    escapeGuard = 12,  // in fiftieths of a second
};

struct Settings {
    std::uint8_t echo = 1;         // E
    std::uint8_t quiet = 0;        // Q; 2: quiet in calls that came in
    std::uint8_t verbose = 1;      // V
    std::uint8_t resultCodes = 4;  // X
    std::uint8_t carrierMode = 1;  // &C; 0: carrier always on
    std::uint8_t dtrMode = 2;      // &D
    std::uint8_t readyMode = 0;    // &S; 1: ready while there is a carrier
    std::array<std::uint8_t, 32> registers{0, 0, '+', '\r', '\n', '\b', 2, 50, 2, 6, 14, 95, 50};
    std::array<std::array<std::uint32_t, numericFields>, numericParameters> numbers{};

    std::uint8_t& operator[](Register r) { return registers[static_cast<std::size_t>(r)]; }
    std::uint8_t operator[](Register r) const { return registers[static_cast<std::size_t>(r)]; }

    static Settings defaults();
};

class AtInterpreter {
  public:
    enum class Mode : std::uint8_t { command, connecting, data, onlineCommand };
    enum class Result : std::uint8_t { ok, connect, ring, noCarrier, error, noDialtone, busy, noAnswer };

    static constexpr std::size_t lineLimit = 256;             // of a command line, without its AT
    static constexpr std::size_t replyLimit = 4096;           // beyond it no byte is taken
    static constexpr std::size_t lineReplyLimit = 16 * 1024;  // a line that answers more ends with ERROR
    static constexpr std::int64_t settleMs = 125;  // after D or A, in which a byte does not yet abort the call

    // `line` must outlive the interpreter, which is its only user; so must `signals`, without which their commands fail.
    AtInterpreter(Line& line, Identity identity, Signals* signals = nullptr);

    Mode mode() const { return mode_; }
    const Settings& settings() const { return settings_; }
    // The carrier as the host shall see it (&C).
    bool carrierSignal() const { return settings_.carrierMode == 0 || line_.carrier(); }

    // The modem as ready (&S).
    bool readySignal() const { return settings_.readyMode == 0 || line_.carrier(); }

    // Takes bytes from the host; returns how many. Fewer than all: more once get() or the line made room.
    std::size_t put(std::span<const std::uint8_t> data);
    // Hands out bytes for the host; returns how many.
    std::size_t get(std::span<std::uint8_t> space);
    bool hasOutput() const;

    void tick(std::int64_t nowMs);
    std::optional<std::int64_t> nextDeadlineMs() const;

    // Data terminal ready changed: &D says what follows when it goes off.
    void setDtr(bool on);
    // The rate that CONNECT reports.
    void setDteRate(std::uint32_t bitsPerSecond) { dteRate_ = bitsPerSecond; }

    // True once after a call ended under the host: what it still had to say to the far end has no receiver.
    bool takeCallLost();

  private:
    enum class Outcome : std::uint8_t { done, error, final };  // final: the result is out, or comes later
    enum class Form : std::uint8_t { execute, read, test, set };
    enum class LineState : std::uint8_t { hunting, afterA, collecting };

    // at.cpp: modes and bytes.
    std::size_t putData(std::span<const std::uint8_t> data);
    std::size_t watchEscape(std::span<const std::uint8_t> data);
    std::size_t findUnguardedEscape(std::span<const std::uint8_t> data);
    void enterOnlineCommand();
    void putCommandByte(std::uint8_t byte);
    void collect(std::uint8_t byte);
    void eraseLast();
    void lineComplete();
    void onLineEvent(LineEvent event);
    void callEnded(Result result);
    void hangUp();
    void connected();
    void keepPendingData();
    void result(Result result);
    void information(std::string_view text);
    char lineEnd() const { return static_cast<char>(settings_[Register::lineEnd]); }
    char lineFeed() const { return static_cast<char>(settings_[Register::lineFeed]); }

    // at_commands.cpp: one line.
    void execute(std::string_view line);
    Outcome command(std::string_view& rest);
    Outcome basic(std::string_view name, std::string_view& rest);
    Outcome dialCommand(std::string_view& rest);
    Outcome hook(std::uint32_t value);
    Outcome identify(std::uint32_t value);
    Outcome registerCommand(std::string_view& rest);
    Outcome extended(std::string_view& rest);
    Outcome extendedNamed(std::string_view name, Form form, std::string_view value);
    Outcome numericParameter(std::size_t index, Form form, std::string_view value);
    Outcome packetContext(Form form, std::string_view value);
    Outcome signalCommand(std::string_view name, Form form, std::string_view value);
    Outcome lineCommand(Form form, std::string_view value);
    Outcome frameCommand(Form form, std::string_view value);
    void viewSettings();
    void startConnecting();

    Line& line_;
    const Identity identity_;
    Signals* const signals_;
    Settings settings_ = Settings::defaults();
    Settings stored_ = Settings::defaults();  // &W writes, Z reads
    std::string context_;                     // +CGDCONT
    std::uint32_t dteRate_ = 115'200;
    bool dtr_ = false;
    bool answering_ = false;  // the call came in
    bool callLost_ = false;

    Mode mode_ = Mode::command;
    std::int64_t nowMs_ = 0;
    std::int64_t connectingSinceMs_ = 0;

    // The command line being typed.
    LineState lineState_ = LineState::hunting;
    std::string command_;
    bool tooLong_ = false;
    std::string lastCommand_;           // A/
    std::string lastNumber_;            // DL
    std::uint8_t registerPointer_ = 0;  // S alone

    // The watch for the escape sequence: escape characters seen since a silence, and when the last byte came.
    std::uint8_t escapes_ = 0;
    std::int64_t lastDataMs_ = 0;
    bool stalled_ = false;  // bytes were refused, so what comes next follows no silence

    std::string replies_;  // for the host, before anything of the line
    std::size_t repliesRead_ = 0;
};

}  // namespace modem
