#include "comport/control_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace comport {

namespace {

constexpr mode_t ownerOnly = 0600;

bool mayControl(int fd) {
    ucred peer = {};
    socklen_t length = sizeof(peer);
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && (peer.uid == ::geteuid() || peer.uid == 0);
}

}  // namespace

std::filesystem::path controlSocketPath(bool create) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime != '\0') {
        return std::filesystem::path(runtime) / "comport.sock";
    }
    std::filesystem::path directory = "/tmp/comport-" + std::to_string(::geteuid());
    if (create) {
        ::mkdir(directory.c_str(), 0700);
    }
    struct stat facts = {};
    bool there = ::lstat(directory.c_str(), &facts) == 0;
    if (there && (!S_ISDIR(facts.st_mode) || facts.st_uid != ::geteuid() || (facts.st_mode & 0077) != 0)) {
        throw std::runtime_error(directory.string() + " is not a directory of yours alone; set XDG_RUNTIME_DIR, or use --control");
    }
    return directory / "comport.sock";
}

// One connection; lives as long as an operation of it is under way.
class ControlSocket::Client : public std::enable_shared_from_this<Client> {
public:
    Client(ControlSocket& owner, Protocol::socket socket)
        : owner_(owner), socket_(std::move(socket)), session_(owner.target_) {
        ++owner_.clients_;
    }
    ~Client() { --owner_.clients_; }

    void read() {
        socket_.async_read_some(asio::buffer(buffer_),
                                [self = shared_from_this()](const asio::error_code& error, std::size_t length) {
                                    if (!error) {
                                        self->write(self->session_.take({self->buffer_.data(), length}));
                                    }
                                });
    }

private:
    void write(std::string replies) {
        if (replies.empty()) {
            read();
            return;
        }
        replies_ = std::move(replies);
        asio::async_write(socket_, asio::buffer(replies_),
                          [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                              if (!error && !self->session_.over()) {
                                  self->read();
                              }
                          });
    }

    ControlSocket& owner_;
    Protocol::socket socket_;
    ControlSession session_;
    std::array<char, 4096> buffer_;
    std::string replies_;
};

ControlSocket::ControlSocket(const std::filesystem::path& path, ControlTarget& target) : path_(path), target_(target) {
    try {
        listen();
    } catch (const std::system_error& error) {
        throw std::runtime_error("cannot listen for list, status and ctl at " + path_.string() + ": " +
                                 error.code().message() + "; --control chooses another path");
    }
    accept();
    thread_ = std::thread([this] { loop_.run(); });
}

ControlSocket::~ControlSocket() {
    loop_.stop();
    thread_.join();
    ::unlink(path_.c_str());
}

void ControlSocket::listen() {
    Protocol::endpoint endpoint(path_.string());
    asio::error_code error;
    Protocol::socket probe(loop_);
    probe.connect(endpoint, error);
    if (!error) {
        throw std::runtime_error("another server listens at " + path_.string() + "; --control chooses another path");
    }
    // A socket nobody listens to is left over; anything else by that name is not ours to remove.
    if (error == asio::error::connection_refused && std::filesystem::is_socket(path_)) {
        ::unlink(path_.c_str());
    }
    acceptor_.open();
    // The mode is there before the name is.
    if (::fchmod(acceptor_.native_handle(), ownerOnly) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    acceptor_.bind(endpoint);
    if (::chmod(path_.c_str(), ownerOnly) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    acceptor_.listen();
}

void ControlSocket::accept() {
    acceptor_.async_accept([this](const asio::error_code& error, Protocol::socket socket) {
        // Too many descriptors, say: not asked again at once.
        if (error) {
            retry_.expires_after(std::chrono::milliseconds(100));
            retry_.async_wait([this](const asio::error_code&) { accept(); });
            return;
        }
        if (clients_ < clientLimit && mayControl(socket.native_handle())) {
            std::make_shared<Client>(*this, std::move(socket))->read();
        }
        accept();
    });
}

}  // namespace comport
