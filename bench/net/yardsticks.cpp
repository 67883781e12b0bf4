#include "bench/net/yardsticks.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libtelnet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace {

constexpr std::size_t pieceBytes = 65536;
constexpr unsigned char comPort = 44;
constexpr char serverOffset = 100;  // added to a command in its answer

constexpr telnet_telopt_t options[] = {
    {TELNET_TELOPT_BINARY, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_SGA, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_ECHO, TELNET_WILL, TELNET_DONT},
    {comPort, TELNET_WILL, TELNET_DO},
    {-1, 0, 0},
};

// A listening socket on the loopback address, at a free port.
int listenAnywhere(unsigned short& port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto* name = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd, name, size) != 0 || listen(fd, 1) != 0 || getsockname(fd, name, &size) != 0) drive::fail("cannot listen");
    port = ntohs(address.sin_port);
    return fd;
}

unsigned short freePort() {
    unsigned short port = 0;
    close(listenAnywhere(port));
    return port;
}

}  // namespace

TelnetEcho::TelnetEcho() : listener_(listenAnywhere(port_)), telnet_(telnet_init(options, event, 0, this), telnet_free) {
    thread_ = std::thread([this] { serve(); });
}

TelnetEcho::~TelnetEcho() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
    if (client_ >= 0) close(client_);
}

void TelnetEcho::serve() {
    client_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    const int on = 1;
    setsockopt(client_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::vector<char> piece(pieceBytes);
    for (ssize_t n; (n = recv(client_, piece.data(), piece.size(), 0)) > 0;) {
        telnet_recv(telnet_.get(), piece.data(), static_cast<std::size_t>(n));
        if (!flush()) return;
    }
}

bool TelnetEcho::flush() {
    for (std::size_t sent = 0; sent < output_.size();) {
        const ssize_t n = send(client_, output_.data() + sent, output_.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    output_.clear();
    return true;
}

void TelnetEcho::event(telnet_t* telnet, telnet_event_t* event, void* context) {
    TelnetEcho& self = *static_cast<TelnetEcho*>(context);
    switch (event->type) {
    case TELNET_EV_DATA: telnet_send(telnet, event->data.buffer, event->data.size); break;
    case TELNET_EV_SEND:
        self.output_.insert(self.output_.end(), event->data.buffer, event->data.buffer + event->data.size);
        break;
    case TELNET_EV_SUBNEGOTIATION: {
        std::string answer(event->sub.buffer, event->sub.size);
        answer[0] = static_cast<char>(answer[0] + serverOffset);
        telnet_subnegotiation(telnet, comPort, answer.data(), answer.size());
        break;
    }
    default: break;
    }
}

TerminalLoop::TerminalLoop() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)), stop_(eventfd(0, EFD_CLOEXEC)) {
    char name[128];
    if (grantpt(master_) != 0 || unlockpt(master_) != 0 || ptsname_r(master_, name, sizeof name) != 0) {
        drive::fail("cannot make a terminal");
    }
    path_ = name;
    held_ = std::make_unique<drive::Terminal>(path_);
    thread_ = std::thread([this] { serve(); });
}

TerminalLoop::~TerminalLoop() {
    eventfd_write(stop_, 1);
    thread_.join();
    held_.reset();
    close(master_);
    close(stop_);
}

void TerminalLoop::serve() {
    std::vector<char> piece(pieceBytes);
    pollfd entries[] = {{master_, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (poll(entries, 2, -1) > 0 && entries[1].revents == 0) {
        const ssize_t n = read(master_, piece.data(), piece.size());
        for (ssize_t sent = 0; sent < n;) {
            const ssize_t m = write(master_, piece.data() + sent, static_cast<std::size_t>(n - sent));
            if (m <= 0) return;
            sent += m;
        }
    }
}

Ser2net::Ser2net() : port_(freePort()) {
    const std::string configuration = directory_.file("ser2net.yaml");
    std::ofstream(configuration) << "%YAML 1.1\n---\nconnection: &loop\n"
                                    "  accepter: telnet(rfc2217),tcp(nodelay),127.0.0.1,"
                                 << port_ << "\n  connector: serialdev," << loop_.path()
                                 << ",115200n81,local\n  options:\n    chardelay: false\n";
    process_ = std::make_unique<drive::Process>(std::vector<std::string>{"ser2net", "-n", "-u", "-c", configuration});
}
