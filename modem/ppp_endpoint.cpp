#include "modem/ppp_endpoint.h"

#include <algorithm>
#include <string_view>

namespace modem {
namespace {

constexpr std::uint8_t configureRequestCode = 1, configureAckCode = 2, configureNakCode = 3, configureRejectCode = 4;
constexpr std::uint8_t terminateRequestCode = 5, terminateAckCode = 6, codeRejectCode = 7, protocolRejectCode = 8;
constexpr std::uint8_t echoRequestCode = 9, echoReplyCode = 10, discardCode = 11;

constexpr std::uint8_t lcpMru = 1, lcpAccm = 2, lcpAuthentication = 3, lcpMagic = 5, lcpShortProtocol = 7, lcpShortAddress = 8;
constexpr std::uint8_t ipcpAddress = 3, ipcpNameServer1 = 129, ipcpNameServer2 = 131;
constexpr std::uint8_t chapMd5 = 5, chapChallenge = 1, chapResponse = 2, chapSuccess = 3;
constexpr std::uint8_t papRequest = 1, papAck = 2;

constexpr std::size_t packetHead = 4;
constexpr std::size_t digestBytes = 16;
constexpr std::size_t smallestMru = 128;
constexpr unsigned maxNaks = 5;  // then options are rejected
constexpr std::string_view ownName = "modem";

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

std::uint16_t word16(View bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

std::uint32_t word32(View bytes) {
    return static_cast<std::uint32_t>(word16(bytes)) << 16 | word16(bytes.subspan(2));
}

void append16(Bytes& out, std::uint32_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

void append32(Bytes& out, std::uint32_t value) {
    append16(out, value >> 16);
    append16(out, value);
}

void appendOption(Bytes& out, std::uint8_t type, std::uint32_t value) {
    out.insert(out.end(), {type, 6});
    append32(out, value);
}

void appendAll(Bytes& out, View bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

// Takes the first option, type and length included, off `rest`; empty: what is left is none.
View takeOption(View& rest) {
    if (rest.size() < 2 || rest[1] < 2 || rest[1] > rest.size())
        return {};
    const View option = rest.first(rest[1]);
    rest = rest.subspan(rest[1]);
    return option;
}

}  // namespace

struct PppEndpoint::Packet {
    std::uint8_t code;
    std::uint8_t id;
    View data;
    View whole;

    // What follows the length that the packet states is padding.
    static std::optional<Packet> of(View information) {
        if (information.size() < packetHead)
            return std::nullopt;
        const std::size_t length = word16(information.subspan(2));
        if (length < packetHead || length > information.size())
            return std::nullopt;
        return Packet{information[0], information[1], information.subspan(packetHead, length - packetHead),
                      information.first(length)};
    }
};

struct PppEndpoint::Verdict {
    Bytes wrong;    // as they would be right
    Bytes doubted;  // the same as they came
    Bytes refused;  // as they came

    void correct(View option, std::uint32_t value) {
        appendAll(doubted, option);
        if (option.size() == 6) {
            appendOption(wrong, option[0], value);
        } else {
            wrong.insert(wrong.end(), {option[0], 4});
            append16(wrong, value);
        }
    }
};

std::optional<PppHead> pppHead(std::span<const std::uint8_t> frame) {
    std::size_t at = frame.size() >= 2 && frame[0] == 0xFF && frame[1] == 0x03 ? 2 : 0;
    // A protocol's last byte is odd and no other is.
    if (at < frame.size() && (frame[at] & 1) != 0)
        return PppHead{frame[at], at + 1};
    if (at + 2 > frame.size() || (frame[at + 1] & 1) == 0)
        return std::nullopt;
    return PppHead{word16(frame.subspan(at)), at + 2};
}

// ---- frames ----

void PppEndpoint::sendFrame(std::uint16_t protocol, View information) {
    if (queue_.size() >= queueLimit || information.size() > mru) {
        drop();
        return;
    }
    Bytes frame{0xFF, 0x03};
    append16(frame, protocol);
    appendAll(frame, information);
    queue_.push_back(std::move(frame));
}

void PppEndpoint::send(std::uint16_t protocol, std::uint8_t code, std::uint8_t id, View data) {
    const std::size_t length = std::min(data.size(), mru - packetHead);
    Bytes packet{code, id};
    append16(packet, static_cast<std::uint32_t>(packetHead + length));
    appendAll(packet, data.first(length));
    sendFrame(protocol, packet);
}

void PppEndpoint::input(std::span<const std::uint8_t> frame) {
    const auto head = pppHead(frame);
    if (!head || frame.size() - head->length > mru || phase_ == Phase::over) {
        drop();
        return;
    }
    const View information = frame.subspan(head->length);
    if (head->protocol == pppLcp) {
        negotiate(lcp_, information);
    } else if (lcp_.state != PppNegotiation::State::opened || phase_ == Phase::terminate) {
        drop();
    } else if (head->protocol == pppPap) {
        pap(information);
    } else if (head->protocol == pppChap) {
        chap(information);
    } else if (head->protocol == pppIpcp) {
        if (phase_ == Phase::network) {
            negotiate(ipcp_, information);
        } else {
            drop();
        }
    } else if (head->protocol == pppIp) {
        if (opened()) {
            ip(information);
        } else {
            drop();
        }
    } else {
        Bytes rejected;
        append16(rejected, head->protocol);
        appendAll(rejected, information);
        send(pppLcp, protocolRejectCode, nextId_++, rejected);
    }
}

// ---- negotiation ----

void PppEndpoint::negotiate(PppNegotiation& side, View information) {
    const auto packet = Packet::of(information);
    if (!packet) {
        drop();
        return;
    }
    switch (packet->code) {
    case configureRequestCode:
        if (phase_ != Phase::terminate)
            configureRequest(side, *packet);
        break;
    case configureAckCode:
        configureAck(side, *packet);
        break;
    case configureNakCode:
    case configureRejectCode:
        configureOther(side, *packet);
        break;
    default:
        otherCode(side, *packet);
    }
}

void PppEndpoint::otherCode(PppNegotiation& side, const Packet& packet) {
    const bool lcp = side.protocol == pppLcp;
    if (packet.code == terminateRequestCode) {
        send(side.protocol, terminateAckCode, packet.id, packet.data);
        close(side);
        if (lcp) {
            phase_ = Phase::terminate;
            phaseEndMs_ = nowMs_ + lingerMs;
        }
        return;
    }
    if (packet.code == terminateAckCode || packet.code == codeRejectCode)
        return;
    if (lcp && packet.code == echoRequestCode && side.state == PppNegotiation::State::opened) {
        Bytes data;
        append32(data, askMagic_ ? settings_.magic : 0);
        if (packet.data.size() > data.size())
            appendAll(data, packet.data.subspan(data.size()));
        send(pppLcp, echoReplyCode, packet.id, data);
        return;
    }
    if (lcp && packet.code >= protocolRejectCode && packet.code <= discardCode)
        return;
    send(side.protocol, codeRejectCode, nextId_++, packet.whole);
}

void PppEndpoint::sendRequest(PppNegotiation& side) {
    side.requestId = nextId_++;
    side.deadlineMs = nowMs_ + restartMs;
    send(side.protocol, configureRequestCode, side.requestId, ownOptions(side));
}

void PppEndpoint::configureRequest(PppNegotiation& side, const Packet& packet) {
    using State = PppNegotiation::State;
    Verdict verdict;
    if (!judge(side, packet.data, verdict)) {
        drop();
        return;
    }
    if (side.state == State::opened || side.state == State::stopped) {
        close(side);
        if (side.protocol == pppLcp) {
            phase_ = Phase::establish;
            authentication_ = settings_.authenticate ? pppChap : 0;
        }
        side.triesLeft = maxTries;
        side.state = State::requestSent;
        sendRequest(side);
    }
    if (verdict.refused.empty() && verdict.wrong.empty()) {
        send(side.protocol, configureAckCode, packet.id, packet.data);
        side.naks = 0;
        adopt(side, packet.data);
        if (side.state == State::ackReceived) {
            open(side);
        } else {
            side.state = State::ackSent;
        }
        return;
    }
    const bool refuse = !verdict.refused.empty();
    side.naks += !refuse;
    send(side.protocol, refuse ? configureRejectCode : configureNakCode, packet.id, refuse ? verdict.refused : verdict.wrong);
    if (side.state == State::ackSent)
        side.state = State::requestSent;
}

void PppEndpoint::configureAck(PppNegotiation& side, const Packet& packet) {
    using State = PppNegotiation::State;
    const Bytes own = ownOptions(side);
    if (side.state == State::stopped || packet.id != side.requestId || !std::ranges::equal(packet.data, own)) {
        drop();
        return;
    }
    side.triesLeft = maxTries;
    switch (side.state) {
    case State::requestSent:
        side.state = State::ackReceived;
        break;
    case State::ackSent:
        open(side);
        break;
    default:
        // The second answer to one request: something is out of step, so once more from the beginning.
        close(side);
        side.state = State::requestSent;
        sendRequest(side);
    }
}

// Nak or Reject.
void PppEndpoint::configureOther(PppNegotiation& side, const Packet& packet) {
    using State = PppNegotiation::State;
    if (side.state == State::stopped || packet.id != side.requestId) {
        drop();
        return;
    }
    for (View rest = packet.data; !rest.empty();) {
        const View option = takeOption(rest);
        if (option.empty()) {
            drop();
            return;
        }
        giveWay(side, packet.code == configureRejectCode, option);
    }
    if (side.state == State::opened)
        close(side);
    if (side.state != State::ackSent)
        side.state = State::requestSent;
    sendRequest(side);
}

void PppEndpoint::open(PppNegotiation& side) {
    side.state = PppNegotiation::State::opened;
    side.deadlineMs.reset();
    if (side.protocol == pppLcp)
        beginAuthentication();
}

void PppEndpoint::close(PppNegotiation& side) {
    side.state = PppNegotiation::State::stopped;
    side.deadlineMs.reset();
    side.naks = 0;
    if (side.protocol != pppLcp)
        return;
    if (phase_ == Phase::authenticate || phase_ == Phase::network)
        phase_ = Phase::establish;
    challengeMs_.reset();
    sendAccm_ = 0xFFFF'FFFF;
    close(ipcp_);
}

// False: the options are none.
bool PppEndpoint::judge(const PppNegotiation& side, View options, Verdict& verdict) const {
    while (!options.empty()) {
        const View option = takeOption(options);
        if (option.empty())
            return false;
        if (side.protocol == pppLcp) {
            judgeLcp(option, verdict);
        } else {
            judgeIpcp(option, verdict);
        }
    }
    // A client that will not be told is refused what it wants.
    if (!verdict.wrong.empty() && side.naks >= maxNaks)
        appendAll(verdict.refused, verdict.doubted);
    return true;
}

void PppEndpoint::judgeLcp(View option, Verdict& verdict) const {
    const std::uint8_t type = option[0];
    const bool right = (type == lcpMru && option.size() == 4) ||
                       ((type == lcpAccm || type == lcpMagic) && option.size() == 6) ||
                       ((type == lcpShortProtocol || type == lcpShortAddress) && option.size() == 2);
    if (!right) {
        appendAll(verdict.refused, option);
    } else if (type == lcpMru && word16(option.subspan(2)) < smallestMru) {
        verdict.correct(option, smallestMru);
    } else if (type == lcpMagic) {
        const std::uint32_t magic = word32(option.subspan(2));
        if (magic == 0 || magic == settings_.magic)
            verdict.correct(option, ~settings_.magic);
    }
}

void PppEndpoint::judgeIpcp(View option, Verdict& verdict) const {
    const bool nameServer = option[0] == ipcpNameServer1 || option[0] == ipcpNameServer2;
    const bool known = option[0] == ipcpAddress || (nameServer && settings_.nameServers);
    if (!known || option.size() != 6) {
        appendAll(verdict.refused, option);
        return;
    }
    const std::uint32_t right = nameServer ? settings_.address : settings_.clientAddress;
    if (word32(option.subspan(2)) != right)
        verdict.correct(option, right);
}

// The client's options, acknowledged.
void PppEndpoint::adopt(const PppNegotiation& side, View options) {
    if (side.protocol != pppLcp)
        return;
    sendAccm_ = 0xFFFF'FFFF;
    sendMru_ = mru;
    while (!options.empty()) {
        const View option = takeOption(options);
        if (option[0] == lcpAccm)
            sendAccm_ = word32(option.subspan(2));
        if (option[0] == lcpMru)
            sendMru_ = std::min<std::uint16_t>(mru, word16(option.subspan(2)));
    }
}

PppEndpoint::Bytes PppEndpoint::ownOptions(const PppNegotiation& side) const {
    Bytes options;
    if (side.protocol == pppIpcp) {
        if (askAddress_)
            appendOption(options, ipcpAddress, settings_.address);
        return options;
    }
    if (askAccm_)
        appendOption(options, lcpAccm, settings_.receiveAccm);
    if (authentication_ == pppChap)
        options.insert(options.end(), {lcpAuthentication, 5, pppChap >> 8, pppChap & 0xFF, chapMd5});
    if (authentication_ == pppPap)
        options.insert(options.end(), {lcpAuthentication, 4, pppPap >> 8, pppPap & 0xFF});
    if (askMagic_)
        appendOption(options, lcpMagic, settings_.magic);
    return options;
}

// The client does not take one of our options.
void PppEndpoint::giveWay(const PppNegotiation& side, bool rejected, View option) {
    if (side.protocol == pppIpcp) {
        askAddress_ &= !(rejected && option[0] == ipcpAddress);
        return;
    }
    switch (option[0]) {
    case lcpAccm:
        askAccm_ &= !rejected;
        break;
    case lcpMagic:
        askMagic_ = false;
        break;
    case lcpAuthentication:
        authentication_ = !rejected && option.size() >= 4 && word16(option.subspan(2)) == pppPap ? pppPap : 0;
        break;
    default:
        break;
    }
}

void PppEndpoint::terminate() {
    send(pppLcp, terminateRequestCode, nextId_++, {});
    close(lcp_);
    phase_ = Phase::terminate;
    phaseEndMs_ = nowMs_ + lingerMs;
}

// ---- authentication ----

void PppEndpoint::beginAuthentication() {
    phase_ = Phase::authenticate;
    phaseEndMs_ = nowMs_ + authenticateMs;
    if (authentication_ == pppChap)
        challenge();
    if (authentication_ == 0)
        accept({});
}

// Any answer is right, so the value need not be hard to guess; it only differs each time.
void PppEndpoint::challenge() {
    challengeId_ = nextId_++;
    challengeMs_ = nowMs_ + restartMs;
    Bytes data{digestBytes};
    std::uint32_t value = settings_.magic + challengeId_;
    for (std::size_t i = 0; i < digestBytes; ++i) {
        value = value * 1'664'525 + 1'013'904'223;
        data.push_back(static_cast<std::uint8_t>(value >> 24));
    }
    data.insert(data.end(), ownName.begin(), ownName.end());
    send(pppChap, chapChallenge, challengeId_, data);
}

void PppEndpoint::chap(View information) {
    const auto packet = Packet::of(information);
    const bool expected = packet && authentication_ == pppChap && packet->code == chapResponse && packet->id == challengeId_;
    if (!expected || packet->data.size() <= digestBytes || packet->data[0] != digestBytes) {
        drop();
        return;
    }
    send(pppChap, chapSuccess, packet->id, {});
    accept(packet->data.subspan(1 + digestBytes));
}

void PppEndpoint::pap(View information) {
    const auto packet = Packet::of(information);
    if (!packet || authentication_ != pppPap || packet->code != papRequest || packet->data.empty()) {
        drop();
        return;
    }
    const View data = packet->data;
    const std::size_t secretAt = 1u + data[0];
    if (secretAt >= data.size() || secretAt + 1 + data[secretAt] > data.size()) {
        drop();
        return;
    }
    const std::uint8_t noMessage[] = {0};
    send(pppPap, papAck, packet->id, noMessage);
    accept(data.subspan(1, data[0]));
}

// Again, when the client did not hear the answer.
void PppEndpoint::accept(View name) {
    if (phase_ != Phase::authenticate)
        return;
    clientName_.assign(name.begin(), name.end());
    challengeMs_.reset();
    phase_ = Phase::network;
    ipcp_.triesLeft = maxTries;
    ipcp_.state = PppNegotiation::State::requestSent;
    sendRequest(ipcp_);
}

// ---- time ----

void PppEndpoint::tick(std::int64_t nowMs) {
    nowMs_ = std::max(nowMs_, nowMs);
    if (phase_ == Phase::terminate && nowMs_ >= phaseEndMs_)
        phase_ = Phase::over;
    if (phase_ == Phase::authenticate && nowMs_ >= phaseEndMs_)
        terminate();
    if (challengeMs_ && nowMs_ >= *challengeMs_)
        challenge();
    for (PppNegotiation* side : {&lcp_, &ipcp_}) {
        if (!side->deadlineMs || nowMs_ < *side->deadlineMs)
            continue;
        if (--side->triesLeft == 0) {
            terminate();
            return;
        }
        if (side->state == PppNegotiation::State::ackReceived)
            side->state = PppNegotiation::State::requestSent;
        sendRequest(*side);
    }
}

std::optional<std::int64_t> PppEndpoint::nextDeadlineMs() const {
    std::optional<std::int64_t> nextMs;
    const auto consider = [&](const std::optional<std::int64_t>& ms) {
        if (ms)
            nextMs = std::min(nextMs.value_or(*ms), *ms);
    };
    if (phase_ == Phase::terminate || phase_ == Phase::authenticate)
        consider(phaseEndMs_);
    consider(challengeMs_);
    consider(lcp_.deadlineMs);
    consider(ipcp_.deadlineMs);
    return nextMs;
}

}  // namespace modem
