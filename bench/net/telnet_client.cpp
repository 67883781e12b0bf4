#include "bench/net/telnet_client.h"

#include <arpa/inet.h>
#include <libtelnet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "bench/outside/drive.h"

namespace {

constexpr std::size_t pieceBytes = 65536;
constexpr std::uint8_t comPort = 44;
constexpr std::uint8_t serverOffset = 100;  // added to a command in its answer
constexpr std::uint8_t baudRate = 1, dataSize = 2, parity = 3, stopSize = 4, control = 5, purge = 12;
constexpr int timeoutMs = 5000;

constexpr telnet_telopt_t options[] = {
    {TELNET_TELOPT_BINARY, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_SGA, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_ECHO, TELNET_WONT, TELNET_DO},
    {comPort, TELNET_WILL, TELNET_DO},
    {-1, 0, 0},
};

}  // namespace

std::vector<std::uint8_t> escaped(std::span<const std::uint8_t> data) {
    std::vector<std::uint8_t> wire;
    wire.reserve(data.size() + data.size() / 64);
    for (std::uint8_t byte : data) {
        wire.insert(wire.end(), byte == TELNET_IAC ? 2 : 1, byte);
    }
    return wire;
}

TelnetClient::TelnetClient(const char* server, unsigned short port, bool lines)
    : server_(server), telnet_(telnet_init(options, event, 0, this), telnet_free), piece_(pieceBytes) {
    connectTo(port);
    negotiate();
    set(baudRate, {0, 1, 0xC2, 0});
    set(dataSize, {8});
    set(parity, {1});
    set(stopSize, {1});
    if (lines) {
        set(control, {8});   // DTR on
        set(control, {11});  // RTS on
        set(purge, {3});
    }
}

TelnetClient::~TelnetClient() { close(fd_); }

void TelnetClient::connectTo(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int tries = 0;; ++tries) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) break;
        close(fd_);
        if (tries > 500) fail("nobody listens at port " + std::to_string(port));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const timeval limit{timeoutMs / 1000, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

void TelnetClient::fail(const std::string& what) const { drive::fail(std::string(server_) + ": " + what); }

void TelnetClient::negotiate() {
    const std::pair<unsigned char, unsigned char> wishes[] = {
        {TELNET_DO, TELNET_TELOPT_ECHO},     {TELNET_WILL, TELNET_TELOPT_SGA},  {TELNET_DO, TELNET_TELOPT_SGA},
        {TELNET_WILL, TELNET_TELOPT_BINARY}, {TELNET_DO, TELNET_TELOPT_BINARY}, {TELNET_WILL, comPort},
    };
    for (const auto& [verb, option] : wishes) {
        telnet_negotiate(telnet_.get(), verb, option);
    }
    flush();
    const std::set<std::pair<int, int>> needed = {{TELNET_EV_DO, comPort},
                                                  {TELNET_EV_DO, TELNET_TELOPT_BINARY},
                                                  {TELNET_EV_WILL, TELNET_TELOPT_BINARY},
                                                  {TELNET_EV_WILL, TELNET_TELOPT_SGA}};
    while (!std::ranges::includes(agreed_, needed)) {
        receive({});
    }
}

// The answer may say another value than was asked for; that there is one counts.
void TelnetClient::set(std::uint8_t command, std::vector<std::uint8_t> value) {
    value.insert(value.begin(), command);
    answer_.clear();
    telnet_subnegotiation(telnet_.get(), comPort, reinterpret_cast<const char*>(value.data()), value.size());
    flush();
    while (answer_.empty() || answer_[0] != command + serverOffset) {
        receive({});
    }
}

void TelnetClient::event(telnet_t*, telnet_event_t* event, void* context) {
    TelnetClient& self = *static_cast<TelnetClient*>(context);
    auto bytes = [](const char* data, std::size_t size) {
        return std::span(reinterpret_cast<const std::uint8_t*>(data), size);
    };
    switch (event->type) {
    case TELNET_EV_DATA:
        if (self.take_ != nullptr && *self.take_) (*self.take_)(bytes(event->data.buffer, event->data.size));
        break;
    case TELNET_EV_SEND: {
        const auto wire = bytes(event->data.buffer, event->data.size);
        self.output_.insert(self.output_.end(), wire.begin(), wire.end());
        break;
    }
    case TELNET_EV_WILL:
    case TELNET_EV_DO: self.agreed_.emplace(event->type, event->neg.telopt); break;
    case TELNET_EV_SUBNEGOTIATION: {
        const auto answer = bytes(event->sub.buffer, event->sub.size);
        self.answer_.assign(answer.begin(), answer.end());
        break;
    }
    case TELNET_EV_WARNING:
    case TELNET_EV_ERROR: self.error_ = event->error.msg; break;
    default: break;
    }
}

std::size_t TelnetClient::writeSome(std::span<const std::uint8_t> wire) {
    const ssize_t n = send(fd_, wire.data(), wire.size(), MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN) fail("send");
    return n < 0 ? 0 : static_cast<std::size_t>(n);
}

void TelnetClient::writeAll(std::span<const std::uint8_t> wire) {
    while (!wire.empty()) {
        const ssize_t n = send(fd_, wire.data(), wire.size(), 0);
        if (n <= 0) fail("send");
        wire = wire.subspan(static_cast<std::size_t>(n));
    }
}

void TelnetClient::flush() {
    writeAll(output_);
    output_.clear();
}

void TelnetClient::receive(const Take& take, bool space) {
    if (space) {
        pollfd entry{fd_, POLLIN | POLLOUT, 0};
        if (poll(&entry, 1, timeoutMs) <= 0) fail("takes nothing and says nothing");
        if ((entry.revents & POLLIN) == 0) return;
    }
    const ssize_t n = recv(fd_, piece_.data(), piece_.size(), 0);
    if (n <= 0) fail(n == 0 ? "hangs up" : "says nothing");
    take_ = &take;
    telnet_recv(telnet_.get(), piece_.data(), static_cast<std::size_t>(n));
    take_ = nullptr;
    flush();
    if (!error_.empty()) fail("telnet: " + error_);
}

void TelnetClient::command(const std::string& line, const std::string& answer) {
    std::string seen;
    writeAll(std::span(reinterpret_cast<const std::uint8_t*>(line.data()), line.size()));
    const std::uint8_t end[] = {'\r'};
    writeAll(end);
    while (seen.find(answer) == std::string::npos) {
        receive([&](std::span<const std::uint8_t> data) { seen.append(data.begin(), data.end()); });
    }
}
