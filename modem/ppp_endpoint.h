// A PPP access server's end of one link: what answers a dial-up client, as frames in and frames out.
//
//   dead --first LCP frame--> establish --LCP opened--> authenticate --accepted--> network --IPCP opened--> addresses in force
//   any --Terminate-Request, or too many tries--> terminate --a while--> over
//
// The point-to-point protocol and its option negotiation: RFC 1661. PAP: RFC 1334. CHAP: RFC 1994; any secret is right.
// IPCP: RFC 1332, with the name servers of RFC 1877. Behind it a host that answers ICMP echo (RFC 792) and UDP echo
// (RFC 862, port 7).
// It is silent until the client speaks. A frame is address, control, protocol and information, without an FCS.
//
// No I/O, no threads, no clock: time is in milliseconds and comes with tick(). What it holds is bounded; nothing a client
// sends is believed before it is measured.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

namespace modem {

inline constexpr std::uint16_t pppIp = 0x0021;
inline constexpr std::uint16_t pppIpcp = 0x8021;
inline constexpr std::uint16_t pppLcp = 0xC021;
inline constexpr std::uint16_t pppPap = 0xC023;
inline constexpr std::uint16_t pppChap = 0xC223;

// The protocol of a frame, its address and control left out or not (RFC 1661 6.6); and where its information begins.
struct PppHead {
    std::uint16_t protocol = 0;
    std::size_t length = 0;
};
std::optional<PppHead> pppHead(std::span<const std::uint8_t> frame);

// The sum of RFC 1071 over `bytes`, from `start`, complemented; 0 over data that contains a right one.
std::uint16_t internetChecksum(std::span<const std::uint8_t> bytes, std::uint32_t start = 0);

struct PppSettings {
    std::uint32_t receiveAccm = 0;  // control characters the client shall escape
    std::uint32_t magic = 0x1DD6'57A1;
    bool authenticate = true;             // CHAP, or PAP for a client that prefers it, or nothing for one that refuses both
    std::uint32_t address = 0xC000'0201;  // 192.0.2.1, of the addresses set aside for examples
    std::uint32_t clientAddress = 0xC000'0202;
    bool nameServers = false;  // gives its own address as one; else the options are rejected
};

// One option negotiation, LCP's or IPCP's: the automaton of RFC 1661, chapter 4, from the side that lets the other begin.
struct PppNegotiation {
    enum class State : std::uint8_t { stopped, requestSent, ackReceived, ackSent, opened };

    explicit PppNegotiation(std::uint16_t number) : protocol(number) {}

    const std::uint16_t protocol;
    State state = State::stopped;
    std::uint8_t requestId = 0;
    unsigned triesLeft = 0;
    unsigned naks = 0;                        // in a row, sent to the other
    std::optional<std::int64_t> deadlineMs;  // of the request that waits for an answer
};

class PppEndpoint {
  public:
    enum class Phase : std::uint8_t { dead, establish, authenticate, network, terminate, over };

    static constexpr std::size_t mru = 1500;             // bytes of information in a frame, each way
    static constexpr std::size_t frameLimit = mru + 4;   // with address, control and protocol
    static constexpr std::size_t queueLimit = 1024;      // frames that wait; more are dropped
    static constexpr std::int64_t restartMs = 3'000;     // until a request is sent again
    static constexpr unsigned maxTries = 10;
    static constexpr std::int64_t authenticateMs = 30'000;
    static constexpr std::int64_t lingerMs = 300;        // from the last word to the end of the call

    explicit PppEndpoint(const PppSettings& settings) : settings_(settings) {}

    Phase phase() const { return phase_; }
    bool opened() const { return ipcp_.state == PppNegotiation::State::opened; }
    // The client's name, as it gave it to be authenticated.
    std::span<const std::uint8_t> clientName() const { return clientName_; }
    // What the client wants escaped in frames to it; LCP frames have every control character escaped all the same.
    std::uint32_t sendAccm() const { return lcp_.state == PppNegotiation::State::opened ? sendAccm_ : 0xFFFF'FFFF; }

    void input(std::span<const std::uint8_t> frame);
    // The oldest frame for the client; empty: none.
    std::span<const std::uint8_t> output() const {
        return queue_.empty() ? std::span<const std::uint8_t>() : std::span<const std::uint8_t>(queue_.front());
    }
    void dropOutput() { queue_.pop_front(); }
    // Frames and datagrams that were for nobody, broken, or too many.
    std::uint64_t dropped() const { return dropped_; }

    void tick(std::int64_t nowMs);
    std::optional<std::int64_t> nextDeadlineMs() const;

  private:
    using Bytes = std::vector<std::uint8_t>;
    using View = std::span<const std::uint8_t>;
    struct Packet;   // code, identifier, data
    struct Verdict;  // of the client's options

    // ppp_endpoint.cpp: negotiation and authentication.
    void drop() { ++dropped_; }
    void send(std::uint16_t protocol, std::uint8_t code, std::uint8_t id, View data);
    void sendFrame(std::uint16_t protocol, View information);
    void negotiate(PppNegotiation& side, View information);
    void otherCode(PppNegotiation& side, const Packet& packet);
    void configureRequest(PppNegotiation& side, const Packet& packet);
    void configureAck(PppNegotiation& side, const Packet& packet);
    void configureOther(PppNegotiation& side, const Packet& packet);
    void sendRequest(PppNegotiation& side);
    void open(PppNegotiation& side);
    void close(PppNegotiation& side);
    bool judge(const PppNegotiation& side, View options, Verdict& verdict) const;
    void judgeLcp(View option, Verdict& verdict) const;
    void judgeIpcp(View option, Verdict& verdict) const;
    void adopt(const PppNegotiation& side, View options);
    Bytes ownOptions(const PppNegotiation& side) const;
    void giveWay(const PppNegotiation& side, bool rejected, View options);
    void terminate();
    void beginAuthentication();
    void challenge();
    void pap(View information);
    void chap(View information);
    void accept(View name);

    // ppp_host.cpp: the host behind the link.
    void ip(View datagram);
    void icmp(View header, View message);
    void udp(View header, View message);
    void reply(View header, std::uint8_t protocol, View message);

    const PppSettings settings_;
    std::int64_t nowMs_ = 0;
    Phase phase_ = Phase::dead;
    std::int64_t phaseEndMs_ = 0;  // authenticate, terminate
    PppNegotiation lcp_{pppLcp};
    PppNegotiation ipcp_{pppIpcp};
    std::uint8_t nextId_ = 1;

    // What LCP is asking for, and what it agreed to.
    std::uint16_t authentication_ = 0;  // pppChap, pppPap or none
    bool askMagic_ = true;
    bool askAccm_ = true;
    bool askAddress_ = true;
    std::uint32_t sendAccm_ = 0xFFFF'FFFF;
    std::uint16_t sendMru_ = mru;

    std::uint8_t challengeId_ = 0;
    std::optional<std::int64_t> challengeMs_;  // when it is sent again
    Bytes clientName_;

    std::deque<Bytes> queue_;
    std::uint64_t dropped_ = 0;
};

}  // namespace modem
