#include "tests/support/ppp_client.h"

#include "tests/support/ppp_oracle.h"

#include <utility>

namespace test {

namespace {

using Byte = std::uint8_t;

std::string word(std::uint32_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) text += static_cast<char>(value >> (8 * i));
    return text;
}

std::uint32_t number(const std::string& text, std::size_t at, std::size_t bytes) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) value = value << 8 | static_cast<Byte>(text.at(at + i));
    return value;
}

std::uint16_t sum(const std::string& bytes) {
    std::uint32_t total = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) total += static_cast<Byte>(bytes[i]) << (i % 2 == 0 ? 8 : 0);
    while (total >> 16 != 0) total = (total & 0xFFFF) + (total >> 16);
    return static_cast<std::uint16_t>(~total);
}

// The options of a packet, each whole; none when they are malformed.
std::vector<std::string> split(const std::string& options) {
    std::vector<std::string> all;
    for (std::size_t at = 0; at + 2 <= options.size();) {
        const std::size_t length = static_cast<Byte>(options[at + 1]);
        if (length < 2 || at + length > options.size()) return {};
        all.push_back(options.substr(at, length));
        at += length;
    }
    return all;
}

}  // namespace

// ---- bytes ----

std::string PppClient::takeOutput() { return std::exchange(output_, {}); }

void PppClient::sendFrame(std::uint16_t protocol, const std::string& information, bool escapeAll) {
    const Bytes escaped = ppp::controls(escapeAll ? 0xFFFFFFFF : sendAccm_ | options_.escapes);
    const Bytes frame = ppp::hostFrame(bytesOf("\xFF\x03" + word(protocol, 2) + information), escaped);
    output_.append(frame.begin(), frame.end());
}

void PppClient::take(std::string_view bytes) {
    for (const char c : bytes) {
        const auto value = static_cast<Byte>(c);
        if (value == 0x7E) {
            const bool whole = !escape_ && building_.size() >= 4 && ppp::fcs(building_) == 0xF0B8;
            const std::string last = building_;
            building_.clear();
            escape_ = false;
            if (whole) {
                heard = true;
                frame(last.substr(0, last.size() - 2));
            } else if (!last.empty()) {
                badFrames += heard;
            }
        } else if (value < 32 && (options_.accm >> value & 1) != 0) {
            ++stray;
        } else if (value == 0x7D && !escape_) {
            escape_ = true;
        } else {
            building_ += static_cast<char>(escape_ ? value ^ 0x20 : value);
            escape_ = false;
        }
    }
}

void PppClient::frame(const std::string& bytes) {
    std::size_t at = bytes.compare(0, 2, "\xFF\x03") == 0 ? 2 : 0;
    const bool shortProtocol = (bytes.at(at) & 1) != 0;
    if (bytes.size() < at + 2) return;
    const auto protocol = static_cast<std::uint16_t>(number(bytes, at, shortProtocol ? 1 : 2));
    const std::string information = bytes.substr(at + (shortProtocol ? 1 : 2));
    if (protocol == 0x0021) datagram(information);
    if (information.size() < 4 || number(information, 2, 2) > information.size()) return;
    const std::string packet = information.substr(0, number(information, 2, 2));
    if (protocol == 0xC021) lcpPacket(packet);
    if (protocol == 0xC023 || protocol == 0xC223) login(protocol, packet);
    if (protocol == 0x8021) ipcpPacket(packet);
}

// ---- negotiation ----

void PppClient::lcp(Byte code, Byte id, const std::string& data, std::uint16_t protocol) {
    const std::string packet = {static_cast<char>(code), static_cast<char>(id)};
    sendFrame(protocol, packet + word(static_cast<std::uint32_t>(data.size() + 4), 2) + data, protocol == 0xC021);
}

void PppClient::begin() {
    lcp(1, 1, "\x02\x06" + word(options_.accm, 4) + "\x05\x06" + word(0x12345678, 4) + "\x07\x02\x08\x02");
}

void PppClient::requestIp() {
    lcp(1, ++id_, "\x03\x06" + word(address_, 4), 0x8021);
}

void PppClient::retransmit() {
    if (terminated_) return;
    if (!lcpAcked_ || !lcpOpen_) {
        begin();
    } else if (!loggedIn_) {
        maybeNetwork();
    } else if (!up()) {
        requestIp();
    }
}

void PppClient::lcpPacket(const std::string& packet) {
    const auto code = static_cast<Byte>(packet[0]), id = static_cast<Byte>(packet[1]);
    const std::string data = packet.substr(4);
    if (code == 1) answerLcpRequest(id, data);
    if (code == 2) lcpAcked_ = true;
    if (code == 5) lcp(6, id, data);
    if (code == 5 || code == 6) terminated_ = true;
    maybeNetwork();
}

void PppClient::answerLcpRequest(Byte id, const std::string& options) {
    using Login = PppClientOptions::Login;
    std::string refused, other;
    std::uint32_t accm = 0xFFFFFFFF;
    std::uint16_t auth = 0;
    for (const std::string& option : split(options)) {
        if (option[0] == 2) accm = number(option, 2, 4);
        if (option[0] != 3) continue;
        auth = static_cast<std::uint16_t>(number(option, 2, 2));
        if (options_.login == Login::refused) refused += option;
        if (options_.login == Login::pap && auth != 0xC023) other += "\x03\x04\xC0\x23";
    }
    if (!refused.empty() || !other.empty()) {
        lcp(refused.empty() ? 3 : 4, id, refused + other);
        return;
    }
    sendAccm_ = accm;
    auth_ = auth;
    lcpOpen_ = true;
    lcp(2, id, options);
}

// Both ends have agreed: log in, or go on.
void PppClient::maybeNetwork() {
    if (!lcpAcked_ || !lcpOpen_ || loggedIn_ || terminated_) return;
    if (auth_ == 0xC023) login(auth_, "");
    if (auth_ == 0) {
        loggedIn_ = true;
        requestIp();
    }
}

// An empty packet: the client's own first word.
void PppClient::login(std::uint16_t protocol, const std::string& packet) {
    if (packet.empty()) {
        lcp(1, ++id_, "\x04user\x06secret", protocol);
        return;
    }
    const auto code = static_cast<Byte>(packet[0]);
    if (protocol == 0xC223 && code == 1) {
        lcp(2, static_cast<Byte>(packet[1]), "\x10" + std::string(16, 'h') + "user", protocol);
        return;
    }
    const bool accepted = protocol == 0xC223 ? code == 3 : code == 2;
    if (!accepted || loggedIn_) return;
    loggedIn_ = true;
    requestIp();
}

void PppClient::ipcpPacket(const std::string& packet) {
    const auto code = static_cast<Byte>(packet[0]), id = static_cast<Byte>(packet[1]);
    const std::string data = packet.substr(4);
    if (code == 1) {
        for (const std::string& option : split(data)) {
            if (option[0] == 3) server_ = number(option, 2, 4);
        }
        lcp(2, id, data, 0x8021);
        ipOpen_ = true;
    }
    if (code == 2) ipAcked_ = true;
    if (code != 3) return;
    for (const std::string& option : split(data)) {
        if (option[0] == 3) address_ = number(option, 2, 4);
    }
    requestIp();
}

// ---- datagrams ----

void PppClient::sendIp(Byte protocol, const std::string& payload) {
    std::string head = std::string("\x45\0", 2) + word(static_cast<std::uint32_t>(20 + payload.size()), 2) + word(++serial_, 2) +
                       word(0, 2) + '\x40' + static_cast<char>(protocol) + word(0, 2) + word(address_, 4) + word(server_, 4);
    head.replace(10, 2, word(sum(head), 2));
    sendFrame(0x0021, head + payload);
}

void PppClient::ping(const std::string& payload) {
    std::string message = std::string("\x08\0\0\0\x12\x34", 6) + word(serial_, 2) + payload;
    message.replace(2, 2, word(sum(message), 2));
    sendIp(1, message);
}

void PppClient::udp(const std::string& payload) {
    const auto length = static_cast<std::uint32_t>(8 + payload.size());
    const std::string head = word(40000, 2) + word(7, 2) + word(length, 2);
    const std::string pseudo = word(address_, 4) + word(server_, 4) + word(17, 2) + word(length, 2);
    const std::uint16_t check = sum(pseudo + head + word(0, 2) + payload);
    sendIp(17, head + word(check == 0 ? 0xFFFF : check, 2) + payload);
}

void PppClient::datagram(const std::string& packet) {
    if (packet.size() < 28 || sum(packet.substr(0, 20)) != 0 || number(packet, 2, 2) != packet.size()) return;
    const std::string payload = packet.substr(20);
    if (packet[9] == 1 && payload[0] == 0 && sum(payload) == 0) pongs.push_back(payload.substr(8));
    if (packet[9] != 17 || number(payload, 0, 2) != 7 || number(payload, 2, 2) != 40000) return;
    const std::string pseudo = packet.substr(12, 8) + word(17, 2) + payload.substr(4, 2);
    if (sum(pseudo + payload) == 0) datagrams.push_back(payload.substr(8));
}

}  // namespace test
