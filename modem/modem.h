// The virtual modem: a CDC-ACM device whose firmware is AtInterpreter on a Line.
//
//   host --bulk OUT--> (Framing) --> fromHost_ --> AtInterpreter --> Line
//   host <--bulk IN--  (Framing) <-- replies, then the call's bytes
//
// Framing stands in the way while the host has agreed to it, in PPP calls; else bytes pass as they are.
// Both ways are bounded and hold back (NAK) when full: a byte the modem took is never dropped or overtaken, but
// for what is left of a call that ended. Above holdAtBytes the host is told to stop, too, until releaseAtBytes are left.
// The telephone side does not notice a reset of the bus; powerCycle() does.
#pragma once

#include "modem/acm_device.h"
#include "modem/at.h"
#include "modem/framing.h"

#include <cstdint>
#include <optional>
#include <span>

namespace modem {

class Modem final : public AcmDevice, private Signals {
  public:
    static constexpr std::size_t queueBytes = 64 * 1024;
    static constexpr std::size_t holdAtBytes = queueBytes / 4 * 3;
    static constexpr std::size_t releaseAtBytes = queueBytes / 4;

    explicit Modem(Options options = {});

    // ---- the world outside: from any thread; takes effect in the next round of calls ----

    // Somebody calls and lets it ring that often; no effect while the line is in use.
    void ringIn(unsigned rings = Line::untilAnswered);
    // The far end hangs up, or a caller gives up.
    void dropCarrier();

    // What the modem does about framed PPP transfers; the escapes from the next call on.
    void setFraming(const FramingChoice& choice);

    // As after unplugging: no call, no bytes, the settings a new modem has. Only while nobody runs the device.
    void powerCycle() override;

    // To look at from the thread that runs the device, or while nobody does.
    const AtInterpreter& interpreter() const { return *at_; }
    const Framing& framing() const { return *framing_; }
    PppCounters pppCounters() const { return line_->pppCounters(); }
    FramingChoice framingChoice() const;
    // "bytes", "asked", "framing" or "stopping".
    std::string_view framingState() const;

    // ---- usb::Device ----

    std::int32_t dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool ends) override;
    std::int32_t dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) override;
    std::optional<std::int64_t> nextDeadlineMs() const override;
    void tick(std::int64_t nowMs) override;

  private:
    // AcmDevice
    bool followedLine(LineName name) const override;
    void lineCodingChanged() override;
    void controlLinesChanged() override;
    void breakBegun() override;
    std::size_t give(std::span<std::uint8_t> space) override;
    bool hasBytes() const override;
    void act(Stimulus what, std::uint32_t value) override;
    std::optional<std::uint8_t> vendorNotification() const override { return framing_->notification(); }
    void vendorNotificationFetched() override { framing_->notificationFetched(); }
    std::span<const std::uint8_t> readEscapes() override;
    bool startFraming() override { return framing_->start(); }
    void stopFraming() override { framing_->stop(); }

    // Signals: the commands of the one who types.
    void signalLine(LineName line, std::optional<bool> level) override;
    std::optional<bool> signalHeldAt(LineName line) const override { return heldAt(line); }
    bool signalLevel(LineName name) const override { return line(name); }
    void signalErrors(std::uint16_t bits) override { reportNow(bits); }
    bool signalRing(unsigned rings) override { return line_->ringIn(rings); }
    void signalFraming(const FramingChoice& choice) override { chooseFraming(choice); }
    FramingChoice signalFramingChoice() const override { return framingChoice(); }
    std::string_view signalFramingState() const override { return framingState(); }

    void chooseFraming(const FramingChoice& choice);
    void tellLine();
    std::int32_t bytesOut(std::span<const std::uint8_t> data);
    void pump();
    void settle();

    // The one thread that runs the device.
    std::optional<Line> line_;
    std::optional<AtInterpreter> at_;
    std::optional<Framing> framing_;
    std::vector<std::uint8_t> escapes_;  // control characters, or others, that the host is told of
    ByteRing fromHost_{queueBytes};  // taken from the host, not yet by the interpreter
    bool full_ = false;              // fromHost_ passed holdAtBytes and has not fallen to releaseAtBytes
};

}  // namespace modem
