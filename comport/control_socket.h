// The UNIX socket of a running server: carries lines between clients and ControlSession, on a thread of its own.
//
// Only its owner (and root) can open it, by its mode and by the kernel's word on who connects. Each client has one line or one
// reply under way at a time, and there are clientLimit clients at most.
#pragma once

#include <asio.hpp>

#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>

#include "comport/control.h"

namespace comport {

// Where a server listens and its clients look, unless told otherwise: in XDG_RUNTIME_DIR, or in /tmp/comport-UID, which
// `create` makes. Throws std::runtime_error with a sentence when that directory belongs to somebody else.
std::filesystem::path controlSocketPath(bool create);

class ControlSocket {
public:
    static constexpr std::size_t clientLimit = 16;

    // Throws std::runtime_error with a sentence, when another server listens there for one.
    ControlSocket(const std::filesystem::path& path, ControlTarget& target);
    // Ends what is under way, drops the clients, removes the socket.
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

private:
    class Client;
    using Protocol = asio::local::stream_protocol;

    void listen();
    void accept();

    const std::filesystem::path path_;
    ControlTarget& target_;
    std::size_t clients_ = 0;  // the thread's
    asio::io_context loop_{1};
    Protocol::acceptor acceptor_{loop_};
    asio::steady_timer retry_{loop_};
    std::thread thread_;
};

}  // namespace comport
