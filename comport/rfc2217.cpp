#include "comport/rfc2217.h"

#include <libtelnet.h>

#include <algorithm>
#include <new>

namespace comport::rfc2217 {

namespace {

constexpr std::uint8_t comPortOption = 44;
constexpr std::uint8_t serverOffset = 100;  // added to a command in answers
constexpr std::size_t sliceBytes = 4096;
constexpr std::size_t signatureLimit = 255;

constexpr std::uint8_t lineBits = 0xF0;
constexpr std::uint8_t changeBits = 0x0F;
constexpr std::uint8_t ringBit = 0x40;

constexpr telnet_telopt_t options[] = {
    {TELNET_TELOPT_BINARY, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_SGA, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_ECHO, TELNET_WILL, TELNET_DONT},
    {comPortOption, TELNET_WILL, TELNET_DO},
    {-1, 0, 0},
};

std::span<const std::uint8_t> bytesOf(const char* data, std::size_t size) {
    return {reinterpret_cast<const std::uint8_t*>(data), size};
}

}  // namespace

Connection::Connection(Handler& handler, std::string signature, std::vector<std::uint8_t>& output)
    : handler_(handler),
      signature_(std::move(signature)),
      output_(output),
      telnet_(telnet_init(options, event, 0, this), telnet_free) {
    if (!telnet_) {
        throw std::bad_alloc();
    }
}

Connection::~Connection() = default;

// The echo is the modem's: a person's telnet should not add its own.
void Connection::start() {
    telnet_negotiate(telnet_.get(), TELNET_WILL, TELNET_TELOPT_BINARY);
    telnet_negotiate(telnet_.get(), TELNET_DO, TELNET_TELOPT_BINARY);
    telnet_negotiate(telnet_.get(), TELNET_WILL, TELNET_TELOPT_SGA);
    telnet_negotiate(telnet_.get(), TELNET_DO, TELNET_TELOPT_SGA);
    telnet_negotiate(telnet_.get(), TELNET_WILL, TELNET_TELOPT_ECHO);
    telnet_negotiate(telnet_.get(), TELNET_DO, comPortOption);
}

void Connection::receive(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty() && !broken_) {
        std::span<const std::uint8_t> slice = bytes.first(std::min(bytes.size(), sliceBytes));
        bytes = bytes.subspan(slice.size());
        telnet_recv(telnet_.get(), reinterpret_cast<const char*>(slice.data()), slice.size());
    }
}

void Connection::send(std::span<const std::uint8_t> data) {
    telnet_send(telnet_.get(), reinterpret_cast<const char*>(data.data()), data.size());
}

void Connection::event(telnet_t*, telnet_event_t* event, void* self) {
    static_cast<Connection*>(self)->takeEvent(*event);
}

void Connection::takeEvent(const telnet_event_t& event) {
    if (event.type == TELNET_EV_SEND) {
        std::span<const std::uint8_t> bytes = bytesOf(event.data.buffer, event.data.size);
        output_.insert(output_.end(), bytes.begin(), bytes.end());
        return;
    }
    if (broken_) {
        return;
    }
    switch (event.type) {
    case TELNET_EV_DATA: handler_.received(bytesOf(event.data.buffer, event.data.size)); break;
    case TELNET_EV_WILL:
    case TELNET_EV_DO:
        if (event.neg.telopt == comPortOption) {
            beginNotifying();
        }
        break;
    case TELNET_EV_SUBNEGOTIATION:
        if (event.sub.telopt == comPortOption) {
            takeOption(bytesOf(event.sub.buffer, event.sub.size));
        }
        break;
    // A warning is a subnegotiation that is malformed or has no end (the code that would tell which is not to be relied on);
    // the rest of it would come as data. A compressed stream may unfold without bounds.
    case TELNET_EV_WARNING:
    case TELNET_EV_ERROR:
    case TELNET_EV_COMPRESS: broken_ = true; break;
    default: break;
    }
}

void Connection::takeOption(std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) {
        return;
    }
    auto command = static_cast<Command>(bytes[0]);
    std::span<const std::uint8_t> rest = bytes.subspan(1);
    std::uint8_t byte = rest.empty() ? 0 : rest[0];
    switch (command) {
    case Command::signature: takeSignature(rest); break;
    case Command::baudRate: {
        std::uint32_t rate = 0;
        if (rest.size() >= 4) {
            rate = std::uint32_t{rest[0]} << 24 | std::uint32_t{rest[1]} << 16 | std::uint32_t{rest[2]} << 8 | rest[3];
        }
        handler_.requested({command, rate});
        break;
    }
    case Command::dataSize:
    case Command::parity:
    case Command::stopSize:
    case Command::control:
    case Command::purge: handler_.requested({command, byte}); break;
    case Command::flowSuspend: suspended_ = true; break;
    case Command::flowResume: suspended_ = false; break;
    case Command::lineStateMask:
        lineStateMask_ = rest.empty() ? lineStateMask_ : byte;
        reply(command, lineStateMask_);
        break;
    case Command::modemStateMask:
        modemStateMask_ = rest.empty() ? modemStateMask_ : byte;
        reply(command, modemStateMask_);
        notifyModemState();
        break;
    // A client has no states to tell; it asks for the lines.
    case Command::notifyModemState:
        if (negotiated_) {
            tellLines();
        }
        break;
    default: break;
    }
}

void Connection::takeSignature(std::span<const std::uint8_t> text) {
    clientSignature_.clear();
    for (std::uint8_t byte : text.first(std::min(text.size(), signatureLimit))) {
        clientSignature_ += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '?';
    }
    reply(Command::signature, bytesOf(signature_.data(), signature_.size()));
}

void Connection::beginNotifying() {
    if (!negotiated_) {
        negotiated_ = true;
        tellLines();
    }
}

// All that the mask shows, known or not.
void Connection::tellLines() {
    toldLines_ = modemState_ & lineBits & modemStateMask_;
    reply(Command::notifyModemState, toldLines_);
    modemState_ &= lineBits;
}

void Connection::setModemState(std::uint8_t state) {
    modemState_ = static_cast<std::uint8_t>(state | (modemState_ & changeBits));
    notifyModemState();
}

// Tells the lines that the mask shows and the client does not know yet, with the change bits that belong to them. Of the ring
// line only the end of a ring is a change.
void Connection::notifyModemState() {
    if (!negotiated_) {
        modemState_ &= lineBits;
        return;
    }
    auto lines = static_cast<std::uint8_t>((modemState_ ^ toldLines_) & lineBits);
    if (modemState_ & ringBit) {
        modemState_ &= static_cast<std::uint8_t>(~(ringBit >> 4));
    }
    std::uint8_t rises = (lines & modemState_ & ringBit) ? ringBit : 0;
    auto changes = static_cast<std::uint8_t>((modemState_ & changeBits) | ((lines & ~rises) >> 4));
    if (((lines | changes) & modemStateMask_) == 0) {
        modemState_ &= lineBits;
        return;
    }
    auto value = static_cast<std::uint8_t>(((modemState_ & lineBits) | changes) & modemStateMask_);
    reply(Command::notifyModemState, value);
    toldLines_ = static_cast<std::uint8_t>((toldLines_ & ~modemStateMask_) | (modemState_ & lineBits & modemStateMask_));
    modemState_ &= lineBits;
}

void Connection::reportLineState(std::uint8_t bits) {
    bits &= lineStateMask_;
    if (negotiated_ && bits != 0) {
        reply(Command::notifyLineState, bits);
    }
}

void Connection::acknowledge(Command command, std::uint32_t value) {
    if (command == Command::baudRate) {
        const std::uint8_t bytes[] = {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
                                      static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
        reply(command, bytes);
    } else {
        reply(command, static_cast<std::uint8_t>(value));
    }
}

void Connection::reply(Command command, std::span<const std::uint8_t> bytes) {
    std::string text(1, static_cast<char>(static_cast<std::uint8_t>(command) + serverOffset));
    text.append(bytes.begin(), bytes.end());
    telnet_subnegotiation(telnet_.get(), comPortOption, text.data(), text.size());
}

}  // namespace comport::rfc2217
