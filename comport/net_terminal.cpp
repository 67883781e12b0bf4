#include "comport/net_terminal.h"

#include <algorithm>
#include <cstring>

namespace comport {

using rfc2217::Command;

namespace {

constexpr LONG xonLimit = 2048;
constexpr LONG xoffLimit = 512;

template <class Record>
Record recordOf(const PortControl& control) {
    Record record;
    static_assert(sizeof(record) <= sizeof(control.data));
    std::memcpy(&record, control.data.data(), sizeof(record));
    return record;
}

// The option's stop sizes, by the port's.
constexpr std::uint8_t stopSizes[] = {1, 3, 2};
static_assert(STOP_BIT_1 == 0 && STOP_BITS_1_5 == 1 && STOP_BITS_2 == 2 && NO_PARITY == 0 && SPACE_PARITY == 4);

std::uint8_t stopSizeOf(UCHAR stopBits) {
    return stopBits < std::size(stopSizes) ? stopSizes[stopBits] : 1;
}

}  // namespace

NetTerminal::NetTerminal(NetProtocol protocol, std::string signature) {
    if (protocol == NetProtocol::rfc2217) {
        rfc2217::Handler& handler = *this;
        telnet_.emplace(handler, std::move(signature), output_);
        telnet_->start();
    }
}

// ---- the front end's side ----

void NetTerminal::receive(std::span<const std::uint8_t> bytes) {
    if (telnet_) {
        telnet_->receive(bytes);
    } else {
        received(bytes);
    }
}

bool NetTerminal::wantsBytes() const {
    return input_.size() - inputAt_ < inputLimit && requests_.size() < requestLimit && output_.size() < outputLimit;
}

void NetTerminal::received(std::span<const std::uint8_t> data) {
    if (inputAt_ == input_.size() || inputAt_ >= inputLimit) {
        input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(inputAt_));
        inputAt_ = 0;
    }
    input_.insert(input_.end(), data.begin(), data.end());
}

// What is to be thrown away does not have to wait for room in the port first.
void NetTerminal::requested(const rfc2217::Request& request) {
    bool purgesSent = request.command == Command::purge && (request.value & rfc2217::purgeSent);
    if (purgesSent) {
        position_ += waiting();
        inputAt_ = input_.size();
    }
    requests_.push_back({position_ + waiting(), request});
}

// ---- the bridge's side: bytes ----

TerminalInput NetTerminal::readData(std::span<std::uint8_t> space) {
    std::size_t length = std::min(space.size(), waiting());
    if (!requests_.empty()) {
        length = static_cast<std::size_t>(std::min<std::uint64_t>(length, requests_.front().position - position_));
    }
    if (length == 0) {
        return {};
    }
    std::copy_n(input_.begin() + static_cast<std::ptrdiff_t>(inputAt_), length, space.begin());
    inputAt_ += length;
    position_ += length;
    return {TerminalInput::Kind::data, length};
}

TerminalInput NetTerminal::read(std::span<std::uint8_t> space) {
    if (running_) {
        return {};
    }
    bool requestIsNext = !requests_.empty() && requests_.front().position <= position_;
    if (!requestIsNext) {
        TerminalInput input = readData(space);
        bool over = ended_ && waiting() == 0 && requests_.empty() && input.kind == TerminalInput::Kind::none;
        return over && !space.empty() ? TerminalInput{TerminalInput::Kind::closed} : input;
    }
    // A client that does not read its answers gets no more of them.
    rfc2217::Request request = requests_.front().request;
    bool held = output_.size() >= 2 * outputLimit || (space.empty() && request.command != Command::purge);
    if (held) {
        return {};
    }
    requests_.pop_front();
    if (request.command == Command::purge) {
        return takePurge(request.value);
    }
    TerminalInput input = {TerminalInput::Kind::request};
    input.inOrder = begin(request);
    running_ = request;
    return input;
}

TerminalInput NetTerminal::takePurge(std::uint32_t value) {
    TerminalInput input = {TerminalInput::Kind::event};
    input.events |= value & rfc2217::purgeReceived ? unsigned{flushedInput} : 0;
    input.events |= value & rfc2217::purgeSent ? unsigned{flushedOutput} : 0;
    telnet_->acknowledge(Command::purge, value);
    return input;
}

std::size_t NetTerminal::write(std::span<const std::uint8_t> bytes) {
    bool held = output_.size() >= outputLimit || (telnet_ && (telnet_->suspended() || telnet_->broken()));
    if (held) {
        return 0;
    }
    std::span<const std::uint8_t> taken = bytes.first(std::min(bytes.size(), outputLimit - output_.size()));
    if (telnet_) {
        telnet_->send(taken);
    } else {
        output_.insert(output_.end(), taken.begin(), taken.end());
    }
    return taken.size();
}

// ---- requests ----

void NetTerminal::addControl(ULONG code, const auto& input) {
    PortControl control = {code, false, {}, sizeof(input)};
    std::memcpy(control.data.data(), &input, sizeof(input));
    controls_.push_back(control);
}

// True: it changes what bytes ahead of it were meant for.
bool NetTerminal::begin(const rfc2217::Request& request) {
    switch (request.command) {
    case Command::baudRate:
        if (request.value != 0) {
            baud_ = request.value;
            addControl(IOCTL_SERIAL_SET_BAUD_RATE, SERIAL_BAUD_RATE{baud_});
        }
        addQuery(IOCTL_SERIAL_GET_BAUD_RATE, sizeof(SERIAL_BAUD_RATE));
        return request.value != 0;
    case Command::control: return beginControl(request.value);
    default: return beginLine(request);
    }
}

// A value out of range asks.
bool NetTerminal::beginLine(const rfc2217::Request& request) {
    SERIAL_LINE_CONTROL wanted = line_;
    std::uint32_t value = request.value;
    if (request.command == Command::dataSize && value >= 5 && value <= 8) {
        wanted.WordLength = static_cast<UCHAR>(value);
    } else if (request.command == Command::parity && value >= 1 && value <= SPACE_PARITY + 1) {
        wanted.Parity = static_cast<UCHAR>(value - 1);
    } else if (request.command == Command::stopSize && value >= 1 && value <= 3) {
        wanted.StopBits = static_cast<UCHAR>(std::ranges::find(stopSizes, value) - stopSizes);
    } else {
        addQuery(IOCTL_SERIAL_GET_LINE_CONTROL, sizeof(line_));
        return false;
    }
    line_ = wanted;
    addControl(IOCTL_SERIAL_SET_LINE_CONTROL, line_);
    addQuery(IOCTL_SERIAL_GET_LINE_CONTROL, sizeof(line_));
    return true;
}

void NetTerminal::setLine(ULONG setCode, ULONG clearCode, ULONG line, bool up) {
    raised_ = up ? raised_ | line : raised_ & ~line;
    inForce_ = raised_;
    addControl(up ? setCode : clearCode);
    addQuery(IOCTL_SERIAL_GET_DTRRTS, sizeof(ULONG));
}

bool NetTerminal::beginControl(std::uint32_t value) {
    switch (value) {
    case rfc2217::breakOn:
    case rfc2217::breakOff:
        break_ = value == rfc2217::breakOn;
        addControl(break_ ? IOCTL_SERIAL_SET_BREAK_ON : IOCTL_SERIAL_SET_BREAK_OFF);
        return true;
    case rfc2217::askDtr:
    case rfc2217::askRts: addQuery(IOCTL_SERIAL_GET_DTRRTS, sizeof(ULONG)); return false;
    case rfc2217::dtrOn:
    case rfc2217::dtrOff:
        setLine(IOCTL_SERIAL_SET_DTR, IOCTL_SERIAL_CLR_DTR, SERIAL_DTR_STATE, value == rfc2217::dtrOn);
        return true;
    case rfc2217::rtsOn:
    case rfc2217::rtsOff:
        setLine(IOCTL_SERIAL_SET_RTS, IOCTL_SERIAL_CLR_RTS, SERIAL_RTS_STATE, value == rfc2217::rtsOn);
        return true;
    default: beginFlow(value); return false;  // may be what sets the bytes ahead of it free
    }
}

void NetTerminal::beginFlow(std::uint32_t value) {
    switch (value) {
    case rfc2217::outFlowNone:
    case rfc2217::outFlowXonXoff:
    case rfc2217::outFlowHardware:
        outFlow_ = static_cast<std::uint8_t>(value);
        inFlow_ = static_cast<std::uint8_t>(value - rfc2217::outFlowNone + rfc2217::inFlowNone);
        break;
    case rfc2217::outFlowDcd:
    case rfc2217::outFlowDsr: outFlow_ = static_cast<std::uint8_t>(value); break;
    case rfc2217::inFlowNone:
    case rfc2217::inFlowXonXoff:
    case rfc2217::inFlowHardware:
    case rfc2217::inFlowDtr: inFlow_ = static_cast<std::uint8_t>(value); break;
    default: return;
    }
    addHandflow();
}

void NetTerminal::addHandflow() {
    SERIAL_HANDFLOW flow = {};
    flow.ControlHandShake = inFlow_ == rfc2217::inFlowDtr ? SERIAL_DTR_HANDSHAKE : SERIAL_DTR_CONTROL;
    flow.FlowReplace = inFlow_ == rfc2217::inFlowHardware ? SERIAL_RTS_HANDSHAKE : SERIAL_RTS_CONTROL;
    switch (outFlow_) {
    case rfc2217::outFlowXonXoff: flow.FlowReplace |= SERIAL_AUTO_TRANSMIT; break;
    case rfc2217::outFlowHardware: flow.ControlHandShake |= SERIAL_CTS_HANDSHAKE; break;
    case rfc2217::outFlowDcd: flow.ControlHandShake |= SERIAL_DCD_HANDSHAKE; break;
    case rfc2217::outFlowDsr: flow.ControlHandShake |= SERIAL_DSR_HANDSHAKE; break;
    default: break;
    }
    flow.FlowReplace |= inFlow_ == rfc2217::inFlowXonXoff ? SERIAL_AUTO_RECEIVE : 0;
    flow.XonLimit = xonLimit;
    flow.XoffLimit = xoffLimit;
    addControl(IOCTL_SERIAL_SET_HANDFLOW, flow);
}

void NetTerminal::addRenewal() {
    addControl(IOCTL_SERIAL_SET_BAUD_RATE, SERIAL_BAUD_RATE{baud_});
    addControl(IOCTL_SERIAL_SET_LINE_CONTROL, line_);
    addHandflow();
    addControl(raised_ & SERIAL_DTR_STATE ? IOCTL_SERIAL_SET_DTR : IOCTL_SERIAL_CLR_DTR);
    addControl(raised_ & SERIAL_RTS_STATE ? IOCTL_SERIAL_SET_RTS : IOCTL_SERIAL_CLR_RTS);
    if (break_) {
        addControl(IOCTL_SERIAL_SET_BREAK_ON);
    }
}

// A renewal waits for the running request: what that sets belongs to it.
bool NetTerminal::nextControl(PortControl& control) {
    if (controls_.empty() && running_) {
        acknowledge(*running_);
        running_.reset();
    }
    if (controls_.empty() && std::exchange(renew_, false)) {
        addRenewal();
    }
    if (controls_.empty()) {
        return false;
    }
    control = controls_.front();
    controls_.pop_front();
    return true;
}

void NetTerminal::controlEnded(const PortControl& control, NTSTATUS status) {
    if (!NT_SUCCESS(status)) {
        return;
    }
    switch (control.code) {
    case IOCTL_SERIAL_GET_BAUD_RATE: baud_ = recordOf<SERIAL_BAUD_RATE>(control).BaudRate; break;
    case IOCTL_SERIAL_GET_LINE_CONTROL: line_ = recordOf<SERIAL_LINE_CONTROL>(control); break;
    case IOCTL_SERIAL_GET_DTRRTS: inForce_ = recordOf<ULONG>(control); break;
    default: break;
    }
}

std::uint32_t NetTerminal::controlInForce(std::uint32_t value) const {
    switch (value) {
    case rfc2217::askBreak:
    case rfc2217::breakOn:
    case rfc2217::breakOff: return break_ ? rfc2217::breakOn : rfc2217::breakOff;
    case rfc2217::askDtr:
    case rfc2217::dtrOn:
    case rfc2217::dtrOff: return inForce_ & SERIAL_DTR_STATE ? rfc2217::dtrOn : rfc2217::dtrOff;
    case rfc2217::askRts:
    case rfc2217::rtsOn:
    case rfc2217::rtsOff: return inForce_ & SERIAL_RTS_STATE ? rfc2217::rtsOn : rfc2217::rtsOff;
    case rfc2217::askInFlow:
    case rfc2217::inFlowNone:
    case rfc2217::inFlowXonXoff:
    case rfc2217::inFlowHardware:
    case rfc2217::inFlowDtr: return inFlow_;
    default: return outFlow_;
    }
}

void NetTerminal::acknowledge(const rfc2217::Request& request) {
    std::uint32_t value = 0;
    switch (request.command) {
    case Command::baudRate: value = baud_; break;
    case Command::dataSize: value = line_.WordLength; break;
    case Command::parity: value = line_.Parity + 1u; break;
    case Command::stopSize: value = stopSizeOf(line_.StopBits); break;
    default: value = controlInForce(request.value); break;
    }
    telnet_->acknowledge(request.command, value);
}

// ---- lines ----

// Only what the client's masks can show: some of these come with every packet.
ULONG NetTerminal::watchedEvents() const {
    // Towards a client that does not read, changes gather in the port.
    if (!telnet_ || output_.size() >= 2 * outputLimit) {
        return 0;
    }
    ULONG events = SERIAL_EV_CTS | SERIAL_EV_DSR | SERIAL_EV_RLSD | SERIAL_EV_RING;
    std::uint8_t mask = telnet_->lineStateMask();
    events |= mask & rfc2217::lineBreak ? SERIAL_EV_BREAK : 0;
    events |= mask & (rfc2217::lineOverrun | rfc2217::lineParity | rfc2217::lineFraming) ? SERIAL_EV_ERR : 0;
    events |= mask & rfc2217::lineTxEmpty ? SERIAL_EV_TXEMPTY : 0;
    events |= mask & rfc2217::lineDataReady ? SERIAL_EV_RXCHAR : 0;
    return events;
}

// The port does not say which error it was.
void NetTerminal::linesChanged(ULONG events, ULONG modemStatus) {
    telnet_->setModemState(static_cast<std::uint8_t>(modemStatus));
    unsigned bits = 0;
    bits |= events & SERIAL_EV_BREAK ? rfc2217::lineBreak : 0;
    bits |= events & SERIAL_EV_ERR ? rfc2217::lineOverrun | rfc2217::lineParity | rfc2217::lineFraming : 0;
    bits |= events & SERIAL_EV_TXEMPTY ? rfc2217::lineTxEmpty : 0;
    bits |= events & SERIAL_EV_RXCHAR ? rfc2217::lineDataReady : 0;
    telnet_->reportLineState(static_cast<std::uint8_t>(bits));
}

}  // namespace comport
