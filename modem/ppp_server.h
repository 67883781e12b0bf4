// A PPP access server as the far end of a call: PppEndpoint behind the asynchronous framing of RFC 1662.
//
//   bytes of the call --HdlcDecoder--> frames --PppEndpoint--> frames --escaped--> ring of bytes for the call
//
// It holds back: no byte is taken while answers wait that the ring has no room for.
#pragma once

#include "modem/byte_ring.h"
#include "modem/hdlc.h"
#include "modem/ppp_endpoint.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace modem {

struct PppCounters {
    std::uint64_t framesIn = 0;   // good ones from the client
    std::uint64_t framesOut = 0;  // to the client
    std::uint64_t fcsErrors = 0;
    std::uint64_t dropped = 0;  // too long, or for nobody
};

class PppServer {
  public:
    // `out` receives what it says, and must outlive it.
    PppServer(const PppSettings& settings, ByteRing& out);

    // How many bytes it takes now, and taking at most that many.
    std::size_t room() const { return endpoint_.output().empty() ? chunkBytes : 0; }
    void take(std::span<const std::uint8_t> data);
    // Moves answers into the ring while it has room.
    void pump();

    void tick(std::int64_t nowMs);
    std::optional<std::int64_t> nextDeadlineMs() const { return endpoint_.nextDeadlineMs(); }
    // The call is to be ended.
    bool over() const { return endpoint_.phase() == PppEndpoint::Phase::over; }

    const PppEndpoint& endpoint() const { return endpoint_; }
    PppCounters counters() const;

  private:
    static constexpr std::size_t chunkBytes = 2048;

    ByteRing& out_;
    PppEndpoint endpoint_;
    HdlcDecoder decoder_{PppEndpoint::frameLimit};
    std::vector<std::uint8_t> encoded_;
    std::uint64_t framesOut_ = 0;
};

}  // namespace modem
