#include "comport/net_server.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <stdexcept>

namespace comport {

namespace {

constexpr int keepaliveIdleSeconds = 30;
constexpr int keepaliveIntervalSeconds = 10;
constexpr int keepaliveProbes = 3;

// Answers are small and waited for; a peer that is gone without a word is to be noticed within a minute.
void setUp(asio::ip::tcp::socket& socket) {
    asio::error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
    auto set = [&](int option, auto value) {
        ::setsockopt(socket.native_handle(), IPPROTO_TCP, option, &value, sizeof(value));
    };
    set(TCP_KEEPIDLE, keepaliveIdleSeconds);
    set(TCP_KEEPINTVL, keepaliveIntervalSeconds);
    set(TCP_KEEPCNT, keepaliveProbes);
}

std::string textOf(const asio::ip::tcp::endpoint& endpoint) {
    std::string host = endpoint.address().to_string();
    return (endpoint.address().is_v6() ? "[" + host + "]" : host) + ":" + std::to_string(endpoint.port());
}

}  // namespace

NetServer::NetServer(const std::string& portName, PortLease& lease, NetProtocol protocol, const NetAddress& address,
                     bool kick)
    : portName_(portName),
      protocol_(protocol),
      kick_(kick),
      acceptor_(loop_.context()),
      retry_(loop_.context()),
      port_(portName, lease, wake, this) {
    const char* option = protocol == NetProtocol::raw ? "--tcp" : "--rfc2217";
    try {
        asio::ip::tcp::endpoint endpoint(asio::ip::make_address(address.host), address.port);
        acceptor_.open(endpoint.protocol());
        acceptor_.set_option(asio::socket_base::reuse_address(true));
        acceptor_.bind(endpoint);
        acceptor_.listen();
    } catch (const std::system_error& error) {
        throw std::runtime_error(std::string(option) + " " + address.host + ":" + std::to_string(address.port) + ": " +
                                 error.code().message() + "; give another [ADDR:]PORT, 0 for any free port");
    }
    url_ = (protocol == NetProtocol::raw ? "tcp://" : "rfc2217://") + textOf(acceptor_.local_endpoint());
    loop_.start([this] { accept(); });
}

NetServer::~NetServer() {
    end();
    loop_.join();
}

void NetServer::end() {
    stopping_ = true;
    loop_.wake();
}

void NetServer::modemArrived() {
    arrived_ = true;
    loop_.wake();
}

// ---- clients come and go ----

void NetServer::accept() {
    acceptor_.async_accept([this](const asio::error_code& error, Socket client) {
        if (error == asio::error::operation_aborted) {
            return;
        }
        // Too many descriptors, say: not asked again at once.
        if (error) {
            retry_.expires_after(acceptAgainAfter);
            retry_.async_wait([this](const asio::error_code&) { accept(); });
            return;
        }
        admit(std::move(client));
        accept();
    });
}

void NetServer::admit(Socket client) {
    setUp(client);
    if (session_ && kick_) {
        drop();
    }
    if (!session_) {
        begin(std::move(client));
    } else if (session_->left && (!next_ || kick_)) {
        next_ = std::move(client);
    } else {
        refuse(std::move(client), portName_ + " is in use\r\n");
    }
    loop_.step();
}

void NetServer::refuse(Socket client, const std::string& why) {
    asio::error_code ignored;
    client.non_blocking(true, ignored);
    client.write_some(asio::buffer(why), ignored);
    client.shutdown(Socket::shutdown_both, ignored);
}

void NetServer::begin(Socket client) {
    std::int64_t now = PortLoop::nowMs();
    session_ = std::make_shared<Session>(std::move(client), protocol_, "comport " COMPORT_VERSION " " + portName_, port_);
    session_->busyAtMs = now + busyAfterMs;
    session_->bridge.terminalOpened(now);
    receive();
}

// The client has sent its last byte; those on their way still go out.
void NetServer::endInput() {
    session_->left = true;
    session_->terminal.endInput();
    session_->bridge.setHungUp(true, PortLoop::nowMs());
}

// The connection is lost, or to be.
void NetServer::drop() {
    asio::error_code ignored;
    session_->left = true;
    session_->socket.close(ignored);
    session_->bridge.abandon();
    if (session_->bridge.state() == Bridge::State::idle) {
        session_.reset();
    }
}

// ---- the session ----

void NetServer::step() {
    std::int64_t now = PortLoop::nowMs();
    bool arrived = arrived_.exchange(false);
    if (stopping_) {
        asio::error_code ignored;
        acceptor_.close(ignored);
        next_.reset();
        if (session_) {
            drop();
        }
    }
    if (session_) {
        if (arrived) {
            session_->bridge.modemArrived(now);
        }
        session_->bridge.pump(now);
        watchBusy(now);
    }
    if (session_ && (session_->terminal.broken() || session_->bridge.state() == Bridge::State::idle)) {
        drop();
    }
    if (!session_) {
        if (stopping_) {
            loop_.stop();
            return;
        }
        if (next_) {
            begin(*std::exchange(next_, std::nullopt));
            loop_.wake();
        }
    }
    if (session_) {
        send();
        receive();
    }
    loop_.setTimer(session_ ? session_->bridge.deadlineMs() : -1);
}

void NetServer::watchBusy(std::int64_t now) {
    bool busy = session_->bridge.state() == Bridge::State::opening && port_.busy();
    if (busy && now >= session_->busyAtMs && !session_->left) {
        std::string text = portName_ + " is in use\r\n";
        asio::error_code ignored;
        session_->socket.non_blocking(true, ignored);
        session_->socket.write_some(asio::buffer(text), ignored);
        drop();
    } else if (!busy) {
        session_->busyAtMs = now + busyAfterMs;
    }
}

void NetServer::receive() {
    if (session_->receiving || session_->left || !session_->terminal.wantsBytes()) {
        return;
    }
    session_->receiving = true;
    std::shared_ptr<Session> session = session_;
    auto received = [this, session](const asio::error_code& error, std::size_t length) {
        session->receiving = false;
        if (session != session_ || session->left) {
            return;
        }
        if (!error) {
            session->terminal.receive(std::span(session->piece).first(length));
        } else if (error == asio::error::eof) {
            endInput();
        } else {
            drop();
        }
        loop_.step();
    };
    session->socket.async_read_some(asio::buffer(session->piece), std::move(received));
}

// Everything there is, in one write: a notification and the data after it leave together. What the socket does not take at once,
// it gets when it can.
void NetServer::send() {
    Session& session = *session_;
    std::vector<std::uint8_t>& output = session.terminal.output();
    if (!session.sending.empty() || output.empty() || !session.socket.is_open()) {
        return;
    }
    if (output.size() >= NetTerminal::outputLimit) {
        loop_.wake();  // there was more, and no room for it
    }
    ssize_t taken = ::send(session.socket.native_handle(), output.data(), output.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    output.erase(output.begin(), output.begin() + std::max<ssize_t>(taken, 0));
    if (output.empty()) {
        return;
    }
    session.sending.swap(output);
    auto sent = [this, held = session_](const asio::error_code& error, std::size_t) {
        held->sending.clear();
        if (held != session_) {
            return;
        }
        if (error) {
            drop();
        }
        loop_.step();
    };
    asio::async_write(session.socket, asio::buffer(session.sending), std::move(sent));
}

}  // namespace comport
