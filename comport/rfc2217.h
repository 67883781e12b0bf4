// Telnet with the COM port control option, without I/O: bytes from the client come in, what they mean goes to a handler in its order;
// answers, notifications and data are appended to an output that somebody else sends.
//
//   negotiating --the client agrees to the option--> negotiated (the modem lines are told at once, and at every change)
//   any --a malformed or endless subnegotiation, or compression--> broken: the connection is to be closed
//
// Answered here: negotiation, signature, masks, suspend and resume, and a client that asks for the modem lines. Everything else is a Request: the handler
// carries it out in its turn and acknowledges it with the value that is in force then.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct telnet_t;
union telnet_event_t;

namespace comport::rfc2217 {

enum class Command : std::uint8_t {
    signature = 0,
    baudRate = 1,
    dataSize = 2,
    parity = 3,
    stopSize = 4,
    control = 5,
    notifyLineState = 6,
    notifyModemState = 7,
    flowSuspend = 8,
    flowResume = 9,
    lineStateMask = 10,
    modemStateMask = 11,
    purge = 12,
};

// Values of Command::control.
enum Control : std::uint8_t {
    askOutFlow = 0,
    outFlowNone = 1,  // these three set both directions
    outFlowXonXoff = 2,
    outFlowHardware = 3,
    askBreak = 4,
    breakOn = 5,
    breakOff = 6,
    askDtr = 7,
    dtrOn = 8,
    dtrOff = 9,
    askRts = 10,
    rtsOn = 11,
    rtsOff = 12,
    askInFlow = 13,
    inFlowNone = 14,
    inFlowXonXoff = 15,
    inFlowHardware = 16,
    outFlowDcd = 17,
    inFlowDtr = 18,
    outFlowDsr = 19,
};

// Values of Command::purge.
enum Purge : std::uint8_t { purgeReceived = 1, purgeSent = 2, purgeBoth = 3 };

// Bits of the line state.
enum LineState : std::uint8_t {
    lineDataReady = 0x01,
    lineOverrun = 0x02,
    lineParity = 0x04,
    lineFraming = 0x08,
    lineBreak = 0x10,
    lineTxEmpty = 0x60,
};

struct Request {
    Command command;      // baudRate ... control, purge
    std::uint32_t value;  // 0 asks; also when it came cut short
};

class Handler {
public:
    virtual ~Handler() = default;
    // In the order of the stream.
    virtual void received(std::span<const std::uint8_t> data) = 0;
    virtual void requested(const Request& request) = 0;
};

class Connection {
public:
    // `signature` is told when asked for. `output` grows by what has to be sent.
    Connection(Handler& handler, std::string signature, std::vector<std::uint8_t>& output);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Says what this side can do.
    void start();
    void receive(std::span<const std::uint8_t> bytes);
    void send(std::span<const std::uint8_t> data);
    void acknowledge(Command command, std::uint32_t value);
    // The lines as GET_MODEMSTATUS gives them, changes among them.
    void setModemState(std::uint8_t state);
    // What happened on the line, LineState bits.
    void reportLineState(std::uint8_t bits);

    bool negotiated() const { return negotiated_; }
    // The client wants no data for now; answers and notifications go on.
    bool suspended() const { return suspended_; }
    bool broken() const { return broken_; }
    std::uint8_t lineStateMask() const { return lineStateMask_; }
    // What the client says it is; printable, bounded.
    const std::string& clientSignature() const { return clientSignature_; }

private:
    static void event(telnet_t* telnet, telnet_event_t* event, void* self);
    void takeEvent(const telnet_event_t& event);
    void takeOption(std::span<const std::uint8_t> bytes);
    void takeSignature(std::span<const std::uint8_t> text);
    void beginNotifying();
    void tellLines();
    void notifyModemState();
    void reply(Command command, std::span<const std::uint8_t> bytes);
    void reply(Command command, std::uint8_t value) { reply(command, std::span(&value, 1)); }

    Handler& handler_;
    const std::string signature_;
    std::vector<std::uint8_t>& output_;
    std::string clientSignature_;
    bool negotiated_ = false;
    bool suspended_ = false;
    bool broken_ = false;
    std::uint8_t lineStateMask_ = 0;
    std::uint8_t modemStateMask_ = 0xFF;
    std::uint8_t modemState_ = 0;     // lines and changes not told yet
    std::uint8_t toldLines_ = 0;      // the lines as the client knows them
    std::unique_ptr<telnet_t, void (*)(telnet_t*)> telnet_;
};

}  // namespace comport::rfc2217
