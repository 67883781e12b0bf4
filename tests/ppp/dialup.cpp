// lwIP's PPP as a dial-up client on a served COM port. Usage: dialup TERMINAL
//
// In bytes and framed, with all control characters escaped and with none: dials, negotiates, pings, sends a megabyte to the UDP echo, hangs up,
// dials again. Prints each step; exits with 1 at the first that fails.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

extern "C" {
#include "lwip/icmp.h"
#include "lwip/inet_chksum.h"
#include "lwip/init.h"
#include "lwip/ip.h"
#include "lwip/raw.h"
#include "lwip/timeouts.h"
#include "lwip/udp.h"
#include "netif/ppp/ppp.h"
#include "netif/ppp/pppos.h"
}

namespace {

using Clock = std::chrono::steady_clock;

std::uint32_t nowMs() {
    return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
}

void require(bool condition, const std::string& what) {
    if (!condition) throw std::runtime_error(what);
}

// Every byte value, in an order that differs with `seed`.
std::string everyByte(std::size_t length, std::size_t seed) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i * 7 + seed);
    return text;
}

// The served terminal: bytes out are kept until it takes them.
class Terminal {
public:
    explicit Terminal(const std::string& path) : fd_(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK)) {
        require(fd_ >= 0, path + " cannot be opened");
        setSpeed(B115200);
    }
    ~Terminal() { ::close(fd_); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // B0 drops DTR.
    void setSpeed(speed_t speed) {
        termios settings = {};
        ::tcgetattr(fd_, &settings);
        ::cfmakeraw(&settings);
        ::cfsetspeed(&settings, speed);
        ::tcsetattr(fd_, TCSANOW, &settings);
    }
    void send(const std::string& bytes) { out_ += bytes; }
    // Waits up to `ms` for something to do, does it, and returns what came.
    std::string work(int ms) {
        pollfd poll = {fd_, static_cast<short>(POLLIN | (out_.empty() ? 0 : POLLOUT)), 0};
        ::poll(&poll, 1, ms);
        if ((poll.revents & POLLOUT) != 0) {
            const ssize_t count = ::write(fd_, out_.data(), std::min<std::size_t>(out_.size(), 4096));
            if (count > 0) out_.erase(0, static_cast<std::size_t>(count));
        }
        std::string in(65536, '\0');
        const ssize_t count = (poll.revents & POLLIN) != 0 ? ::read(fd_, in.data(), in.size()) : 0;
        in.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return in;
    }

private:
    const int fd_;
    std::string out_;
};

struct Case {
    const char* name;
    const char* command;  // to the modem
    std::uint32_t asyncMap;
    std::uint8_t login;
    bool receiveAll;  // also before LCP is open: in frames of the modem LCP is escaped no more than the rest
};

class Dialup {
public:
    Dialup(Terminal& terminal, const Case& c) : terminal_(terminal), case_(c) {
        ppp_ = pppos_create(&interface_, output, status, this);
        require(ppp_ != nullptr, "no link");
        ppp_set_default(ppp_);
        ppp_set_auth(ppp_, case_.login, "user", "secret");
        ppp_set_asyncmap(ppp_, case_.asyncMap);
        ppp_->settings.lax_recv = case_.receiveAll;
        icmp_ = raw_new(IP_PROTO_ICMP);
        raw_recv(icmp_, pong, this);
        udp_ = udp_new();
        udp_recv(udp_, datagram, this);
    }
    ~Dialup() {
        udp_remove(udp_);
        raw_remove(icmp_);
        if (!ended_) ppp_close(ppp_, 1);
        ppp_free(ppp_);
    }
    Dialup(const Dialup&) = delete;
    Dialup& operator=(const Dialup&) = delete;

    void dial() {
        attention();
        command("ATE0", "OK");
        command(case_.command, "OK");
        command("ATD*99#", "CONNECT");
        ended_ = false;
        online_ = true;
        ppp_connect(ppp_, 0);
        until([&] { return up_; }, "negotiated", 15'000);
        server_ = *netif_ip_gw4(&interface_);
        require(ip4_addr_get_u32(netif_ip4_addr(&interface_)) == PP_HTONL(0xC0000202), "an address of the server");
    }
    void ping(unsigned count, std::size_t size) {
        constexpr unsigned window = 8;
        const unsigned first = pongs_;
        for (unsigned sent = 0; pongs_ - first < count;) {
            for (; sent < count && sent < pongs_ - first + window; ++sent)
                sendPing(everyByte(size, first + sent), static_cast<std::uint16_t>(sent));
            const unsigned before = pongs_;
            until([&] { return pongs_ != before; }, "an answer to a ping");
        }
    }
    void echo(std::size_t bytes) {
        constexpr std::size_t block = 1400, window = 16 * block;
        const std::string all = everyByte(bytes, 11);
        echoed_.clear();
        for (std::size_t sent = 0; echoed_.size() < bytes;) {
            for (; sent < bytes && sent < echoed_.size() + window; sent += std::min(block, bytes - sent))
                sendUdp(all.substr(sent, block));
            const std::size_t before = echoed_.size();
            until([&] { return echoed_.size() != before; }, "an answer of the UDP echo");
        }
        require(echoed_ == all, "every byte of the echo");
    }
    void hangUp() {
        ppp_close(ppp_, 0);
        until([&] { return ended_; }, "the end of PPP", 15'000);
        online_ = false;
        text_.clear();
        until([&] { return text_.find("NO CARRIER") != std::string::npos; }, "NO CARRIER");
    }
    // As dialling programs do, until the modem answers; one that does not is hung up by its line.
    void attention() {
        online_ = false;
        text_.clear();
        const auto answered = [&] { return text_.find("OK") != std::string::npos; };
        for (int tries = 20; !answered(); --tries) {
            require(tries != 0, "in vain waited for: OK to AT");
            terminal_.send("AT\r");
            if (!waitFor(answered, 500)) dropLine();
        }
        waitFor([] { return false; }, 50);
    }
    // Who serves the terminal looks at its speed now and then: the drop has to last.
    void dropLine() {
        online_ = false;
        terminal_.setSpeed(B0);
        waitFor([] { return false; }, 300);
        terminal_.setSpeed(B115200);
        waitFor([] { return false; }, 100);
    }
    // Only while there is no call.
    void command(const std::string& line, const std::string& answer) {
        online_ = false;
        text_.clear();
        terminal_.send(line + "\r");
        until([&] { return text_.find(answer) != std::string::npos && text_.ends_with('\n'); }, answer + " to " + line);
    }

private:
    void until(const std::function<bool()>& condition, const std::string& what, std::uint32_t ms = 5'000) {
        require(waitFor(condition, ms), "in vain waited for: " + what);
    }
    bool waitFor(const std::function<bool()>& condition, std::uint32_t ms) {
        const std::uint32_t begin = nowMs();
        while (!condition()) {
            if (nowMs() - begin >= ms) return false;
            const std::string in = terminal_.work(static_cast<int>(std::min<std::uint32_t>(sys_timeouts_sleeptime(), 20)));
            if (online_) {
                pppos_input(ppp_, reinterpret_cast<u8_t*>(const_cast<char*>(in.data())), static_cast<int>(in.size()));
            } else {
                text_ += in;
            }
            sys_check_timeouts();
        }
        return true;
    }
    pbuf* bufferOf(const std::string& bytes) {
        pbuf* p = pbuf_alloc(PBUF_TRANSPORT, static_cast<u16_t>(bytes.size()), PBUF_RAM);
        require(p != nullptr, "memory");
        pbuf_take(p, bytes.data(), static_cast<u16_t>(bytes.size()));
        return p;
    }
    void sendPing(const std::string& payload, std::uint16_t number) {
        icmp_echo_hdr head = {};
        ICMPH_TYPE_SET(&head, ICMP_ECHO);
        head.id = PP_HTONS(0x1234);
        head.seqno = lwip_htons(number);
        std::string message = std::string(reinterpret_cast<char*>(&head), sizeof(head)) + payload;
        const u16_t sum = inet_chksum(message.data(), static_cast<u16_t>(message.size()));
        std::memcpy(message.data() + 2, &sum, sizeof(sum));
        pingSize_ = payload.size();
        pbuf* p = bufferOf(message);
        require(raw_sendto(icmp_, p, &server_) == ERR_OK, "sending a ping");
        pbuf_free(p);
    }
    void sendUdp(const std::string& payload) {
        pbuf* p = bufferOf(payload);
        require(udp_sendto(udp_, p, &server_, 7) == ERR_OK, "sending a datagram");
        pbuf_free(p);
    }

    static u32_t output(ppp_pcb*, u8_t* data, u32_t length, void* context) {
        static_cast<Dialup*>(context)->terminal_.send(std::string(reinterpret_cast<char*>(data), length));
        return length;
    }
    static void status(ppp_pcb*, int error, void* context) {
        auto& self = *static_cast<Dialup*>(context);
        self.up_ = error == PPPERR_NONE;
        self.ended_ = error != PPPERR_NONE;
    }
    static u8_t pong(void* context, raw_pcb*, pbuf* p, const ip_addr_t*) {
        auto& self = *static_cast<Dialup*>(context);
        std::string bytes(p->tot_len, '\0');
        pbuf_copy_partial(p, bytes.data(), p->tot_len, 0);
        const std::size_t head = IP_HLEN + sizeof(icmp_echo_hdr);
        const bool reply = bytes.size() >= head && bytes[IP_HLEN] == ICMP_ER;
        if (reply && bytes.substr(head) == everyByte(self.pingSize_, self.pongs_)) ++self.pongs_;
        if (reply) pbuf_free(p);
        return reply;
    }
    static void datagram(void* context, udp_pcb*, pbuf* p, const ip_addr_t*, u16_t) {
        std::string bytes(p->tot_len, '\0');
        pbuf_copy_partial(p, bytes.data(), p->tot_len, 0);
        static_cast<Dialup*>(context)->echoed_ += bytes;
        pbuf_free(p);
    }

    Terminal& terminal_;
    const Case& case_;
    netif interface_ = {};
    ppp_pcb* ppp_ = nullptr;
    raw_pcb* icmp_ = nullptr;
    udp_pcb* udp_ = nullptr;
    ip4_addr_t server_ = {};
    bool online_ = false;  // bytes are PPP's
    bool up_ = false;
    bool ended_ = true;
    unsigned pongs_ = 0;
    std::size_t pingSize_ = 0;
    std::string text_, echoed_;
};

constexpr Case cases[] = {
    {"framed, all control characters escaped", "AT+FRAME=ON,FFFFFFFF", 0xFFFFFFFF, PPPAUTHTYPE_CHAP, false},
    {"framed, none escaped", "AT+FRAME=ON,0", 0, PPPAUTHTYPE_PAP, true},
    {"bytes, all control characters escaped", "AT+FRAME=OFF,FFFFFFFF", 0xFFFFFFFF, PPPAUTHTYPE_PAP, false},
    {"bytes, none escaped", "AT+FRAME=OFF,0", 0, PPPAUTHTYPE_CHAP, false},
};

void run(const std::string& path, const Case& c) {
    const std::uint32_t begin = nowMs();
    Terminal terminal(path);
    {
        Dialup dialup(terminal, c);
        dialup.dial();
        dialup.ping(200, 64);
        dialup.ping(200, 1400);
        dialup.echo(1'000'000);
        dialup.hangUp();
        dialup.dial();
        dialup.ping(10, 1400);
        dialup.dropLine();
    }
    Dialup dialup(terminal, c);
    dialup.dial();
    dialup.ping(1, 64);
    dialup.hangUp();
    std::printf("ok: %s (%u ms)\n", c.name, nowMs() - begin);
    std::fflush(stdout);
}

}  // namespace

extern "C" u32_t sys_now(void) {
    return nowMs();
}
extern "C" u32_t sys_jiffies(void) {
    return nowMs();
}

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: dialup TERMINAL\n");
        return 2;
    }
    lwip_init();
    for (const Case& c : cases) {
        try {
            run(argv[1], c);
        } catch (const std::exception& error) {
            std::printf("FAILED: %s: %s\n", c.name, error.what());
            return 1;
        }
    }
    return 0;
}
