// A dial-up client with a script: PPP over bytes, written apart from the modem's, with an FCS taken bit by bit.
//
//   begin() --> LCP --> PAP, CHAP or neither --> IPCP --> up(): ping() and udp()
//
// No clock: retransmit() sends again whatever has not been answered.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace test {

struct PppClientOptions {
    enum class Login { chap, pap, refused };
    Login login = Login::chap;
    std::uint32_t accm = 0;      // what the other end shall escape; anything else that comes unescaped is not a byte of it
    std::uint32_t escapes = 0;   // what this end escapes, beside what it is asked to
};

class PppClient {
public:
    explicit PppClient(const PppClientOptions& options = {}) : options_(options) {}

    void begin();
    void retransmit();
    // Bytes from the other end.
    void take(std::string_view bytes);
    // Bytes for it; they are this call's from now on.
    std::string takeOutput();

    bool up() const { return ipOpen_ && ipAcked_; }
    bool terminated() const { return terminated_; }
    std::uint32_t address() const { return address_; }
    std::uint32_t server() const { return server_; }

    void terminate() { lcp(5, ++id_, "bye"); }
    void ping(const std::string& payload);
    void udp(const std::string& payload);
    // A frame of any content, its FCS right.
    void sendFrame(std::uint16_t protocol, const std::string& information, bool escapeAll = false);

    // What came back, in order.
    std::vector<std::string> pongs;
    std::vector<std::string> datagrams;
    bool heard = false;                        // a good frame
    unsigned badFrames = 0;                    // wrong FCS, after the first good one
    unsigned stray = 0;                        // control characters that came unescaped against accm

private:
    void frame(const std::string& bytes);
    void lcp(std::uint8_t code, std::uint8_t id, const std::string& data, std::uint16_t protocol = 0xC021);
    void requestIp();
    void lcpPacket(const std::string& packet);
    void answerLcpRequest(std::uint8_t id, const std::string& options);
    void login(std::uint16_t protocol, const std::string& packet);
    void ipcpPacket(const std::string& packet);
    void datagram(const std::string& packet);
    void sendIp(std::uint8_t protocol, const std::string& payload);
    void maybeNetwork();

    PppClientOptions options_;
    std::string output_;
    std::string building_;
    bool escape_ = false;
    std::uint8_t id_ = 0;
    std::uint32_t sendAccm_ = 0xFFFFFFFF;
    std::uint16_t auth_ = 0;
    bool lcpAcked_ = false;  // ours was acknowledged
    bool lcpOpen_ = false;   // and we acknowledged theirs
    bool loggedIn_ = false;
    bool ipAcked_ = false;
    bool ipOpen_ = false;
    bool terminated_ = false;
    std::uint32_t address_ = 0;
    std::uint32_t server_ = 0;
    std::uint16_t serial_ = 0;
};

}  // namespace test
