// A network client as a bridge's terminal, without I/O: what it sent waits here in its order, data and requests, until the bridge
// takes it; what it gets is appended to an output that the front end sends.
//
// A request, once taken, runs alone: its controls are handed out one by one, then it is acknowledged with what the port says
// is in force. A port that does not say (no modem) is taken to have what was asked for: it gets that when it returns.
#pragma once

#include <ntddser.h>

#include <deque>
#include <optional>
#include <string>

#include "comport/port.h"
#include "comport/rfc2217.h"

namespace comport {

enum class NetProtocol { raw, rfc2217 };

class NetTerminal : public Terminal, private rfc2217::Handler {
public:
    static constexpr std::size_t inputLimit = 65536;
    static constexpr std::size_t requestLimit = 256;
    static constexpr std::size_t outputLimit = 65536;

    NetTerminal(NetProtocol protocol, std::string signature);

    // The front end's side.
    void receive(std::span<const std::uint8_t> bytes);
    // The client has sent its last byte.
    void endInput() { ended_ = true; }
    // False: leave further bytes with the network.
    bool wantsBytes() const;
    // To be sent and emptied.
    std::vector<std::uint8_t>& output() { return output_; }
    // The connection is to be closed.
    bool broken() const { return telnet_ && telnet_->broken(); }

    // Terminal
    TerminalInput read(std::span<std::uint8_t> space) override;
    std::size_t waiting() override { return input_.size() - inputAt_; }
    std::size_t write(std::span<const std::uint8_t> bytes) override;
    LineSettings settings() override { return {}; }
    void discardWritten() override {}
    bool hasRequests() const override { return telnet_.has_value(); }
    void portRenewed() override { renew_ = true; }
    bool nextControl(PortControl& control) override;
    void controlEnded(const PortControl& control, NTSTATUS status) override;
    ULONG watchedEvents() const override;
    void linesChanged(ULONG events, ULONG modemStatus) override;

private:
    struct Waiting {
        std::uint64_t position;  // bytes received ahead of it
        rfc2217::Request request;
    };

    // Handler
    void received(std::span<const std::uint8_t> data) override;
    void requested(const rfc2217::Request& request) override;

    TerminalInput readData(std::span<std::uint8_t> space);
    TerminalInput takePurge(std::uint32_t value);
    bool begin(const rfc2217::Request& request);
    bool beginLine(const rfc2217::Request& request);
    bool beginControl(std::uint32_t value);
    void beginFlow(std::uint32_t value);
    void setLine(ULONG setCode, ULONG clearCode, ULONG line, bool up);
    void acknowledge(const rfc2217::Request& request);
    std::uint32_t controlInForce(std::uint32_t value) const;
    void addControl(ULONG code) { controls_.push_back({code, false, {}, 0}); }
    void addControl(ULONG code, const auto& input);
    void addQuery(ULONG code, std::size_t length) { controls_.push_back({code, true, {}, length}); }
    void addHandflow();
    void addRenewal();

    std::vector<std::uint8_t> output_;
    std::optional<rfc2217::Connection> telnet_;  // not with raw bytes

    std::vector<std::uint8_t> input_;  // from inputAt_ on: received and not taken
    std::size_t inputAt_ = 0;
    std::uint64_t position_ = 0;       // of inputAt_ in the stream
    std::deque<Waiting> requests_;
    bool ended_ = false;

    std::optional<rfc2217::Request> running_;
    std::deque<PortControl> controls_;  // of the running request, or of a renewal
    bool renew_ = false;

    // In force, as far as known.
    ULONG baud_ = 115200;
    SERIAL_LINE_CONTROL line_ = {STOP_BIT_1, NO_PARITY, 8};
    ULONG raised_ = SERIAL_DTR_STATE | SERIAL_RTS_STATE;  // as asked for; a new modem starts without
    ULONG inForce_ = raised_;
    bool break_ = false;
    std::uint8_t outFlow_ = rfc2217::outFlowNone;
    std::uint8_t inFlow_ = rfc2217::inFlowNone;
};

}  // namespace comport
