// The host behind PppEndpoint: IPv4 (RFC 791) without options' meaning and without fragments, ICMP echo, UDP echo.
#include "modem/ppp_endpoint.h"

#include <algorithm>

namespace modem {
namespace {

constexpr std::size_t ipHead = 20;
constexpr std::size_t icmpHead = 8;
constexpr std::size_t udpHead = 8;
constexpr std::uint8_t icmpProtocol = 1, udpProtocol = 17;
constexpr std::uint8_t icmpEchoRequest = 8, icmpEchoReply = 0;
constexpr std::uint16_t echoPort = 7;
constexpr std::uint16_t fragmentMask = 0x3FFF;  // more to come, or an offset
constexpr std::uint8_t timeToLive = 64;

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

std::uint16_t word16(View bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

void put16(Bytes& bytes, std::size_t at, std::uint16_t value) {
    bytes[at] = static_cast<std::uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(value);
}

// What UDP sums up beside its own bytes; the same for both directions.
std::uint32_t pseudoHeader(View header, std::size_t length) {
    std::uint32_t sum = udpProtocol + static_cast<std::uint32_t>(length);
    for (std::size_t at = 12; at < ipHead; at += 2)
        sum += word16(header, at);
    return sum;
}

}  // namespace

std::uint16_t internetChecksum(std::span<const std::uint8_t> bytes, std::uint32_t start) {
    std::uint64_t sum = start;
    for (std::size_t at = 0; at + 1 < bytes.size(); at += 2)
        sum += word16(bytes, at);
    if (bytes.size() % 2 != 0)
        sum += static_cast<std::uint64_t>(bytes.back()) << 8;
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

void PppEndpoint::ip(View datagram) {
    if (datagram.size() < ipHead || datagram[0] >> 4 != 4) {
        drop();
        return;
    }
    const std::size_t head = (datagram[0] & 0x0F) * 4u;
    const std::size_t total = word16(datagram, 2);
    if (head < ipHead || total < head || total > datagram.size()) {
        drop();
        return;
    }
    const View header = datagram.first(head);
    const View payload = datagram.subspan(head, total - head);
    const std::uint32_t destination = static_cast<std::uint32_t>(word16(header, 16)) << 16 | word16(header, 18);
    const bool ours = destination == settings_.address && (word16(header, 6) & fragmentMask) == 0;
    if (!ours || internetChecksum(header) != 0) {
        drop();
    } else if (header[9] == icmpProtocol) {
        icmp(header, payload);
    } else if (header[9] == udpProtocol) {
        udp(header, payload);
    } else {
        drop();
    }
}

void PppEndpoint::icmp(View header, View message) {
    const bool request = message.size() >= icmpHead && message[0] == icmpEchoRequest && message[1] == 0;
    if (!request || internetChecksum(message) != 0) {
        drop();
        return;
    }
    Bytes answer(message.begin(), message.end());
    answer[0] = icmpEchoReply;
    put16(answer, 2, 0);
    put16(answer, 2, internetChecksum(answer));
    reply(header, icmpProtocol, answer);
}

void PppEndpoint::udp(View header, View message) {
    if (message.size() < udpHead || word16(message, 4) < udpHead || word16(message, 4) > message.size()) {
        drop();
        return;
    }
    const View datagram = message.first(word16(message, 4));
    const bool summed = word16(datagram, 6) != 0;
    const bool intact = !summed || internetChecksum(datagram, pseudoHeader(header, datagram.size())) == 0;
    if (!intact || word16(datagram, 2) != echoPort || word16(datagram, 0) == echoPort) {
        drop();
        return;
    }
    Bytes answer(datagram.begin(), datagram.end());
    std::swap_ranges(answer.begin(), answer.begin() + 2, answer.begin() + 2);
    put16(answer, 6, 0);
    const std::uint16_t sum = internetChecksum(answer, pseudoHeader(header, answer.size()));
    // 0 would say that there is none.
    put16(answer, 6, sum == 0 ? 0xFFFF : sum);
    reply(header, udpProtocol, answer);
}

// Back to where `header` came from.
void PppEndpoint::reply(View header, std::uint8_t protocol, View message) {
    if (ipHead + message.size() > sendMru_) {
        drop();
        return;
    }
    Bytes datagram(ipHead);
    datagram[0] = 0x45;
    put16(datagram, 2, static_cast<std::uint16_t>(ipHead + message.size()));
    std::copy_n(header.begin() + 4, 2, datagram.begin() + 4);
    datagram[8] = timeToLive;
    datagram[9] = protocol;
    std::copy_n(header.begin() + 16, 4, datagram.begin() + 12);
    std::copy_n(header.begin() + 12, 4, datagram.begin() + 16);
    put16(datagram, 10, internetChecksum(datagram));
    datagram.insert(datagram.end(), message.begin(), message.end());
    sendFrame(pppIp, datagram);
}

}  // namespace modem
