// A wired loop plug: what the host sends comes back, and its lines are tied to each other.
//
//   TX --> RX    DTR --> DSR, DCD    RTS --> CTS    break --> break
//
// What is on its way is bounded; a host that does not read is held back (NAK). When DTR and RTS have both fallen, the port is closed:
// a wire keeps nothing for whoever opens it next.
#pragma once

#include "modem/acm_device.h"
#include "modem/byte_ring.h"

namespace modem {

class Loopback final : public AcmDevice {
  public:
    static constexpr std::size_t queueBytes = 64 * 1024;

    explicit Loopback(Options options = plugOptions());

    static Options plugOptions();

    void powerCycle() override;

    std::int32_t dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool ends) override;
    void tick(std::int64_t nowMs) override;

  private:
    bool followedLine(LineName name) const override;
    void controlLinesChanged() override;
    void breakBegun() override { reportNow(stateBreak); }
    std::size_t give(std::span<std::uint8_t> space) override { return wire_.pop(space); }
    bool hasBytes() const override { return !wire_.empty(); }

    ByteRing wire_{queueBytes};
    bool listening_ = false;  // DTR or RTS is up
};

}  // namespace modem
