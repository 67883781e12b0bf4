// Serves one COM port to network clients, on a thread of its own: telnet with the COM port option, or raw bytes.
//
//   idle --a client connects--> in session --it leaves--> its last bytes leave, the port closes --> idle, or the next client
//   in session --another connects--> it is told that the port is in use; with `kick` it is the first that has to go
//
// A client stays connected while the modem is away. One whose machine has vanished is noticed by keepalive.
#pragma once

#include <asio.hpp>

#include <atomic>
#include <memory>
#include <string>

#include "comport/bridge.h"
#include "comport/net_terminal.h"
#include "comport/options.h"
#include "comport/port_file.h"
#include "comport/port_loop.h"

namespace comport {

class NetServer {
public:
    // Listens; throws std::runtime_error with a sentence. The executive must be running in real mode.
    NetServer(const std::string& portName, PortLease& lease, NetProtocol protocol, const NetAddress& address, bool kick);
    // end(), joins the thread.
    ~NetServer();
    NetServer(const NetServer&) = delete;
    NetServer& operator=(const NetServer&) = delete;

    // "rfc2217://127.0.0.1:2217" or "tcp://…"
    const std::string& url() const { return url_; }
    // From any thread: the modem was plugged in (again).
    void modemArrived();
    // From any thread: begins to end the session and to close the port.
    void end();

private:
    using Socket = asio::ip::tcp::socket;
    static constexpr std::size_t pieceBytes = 16384;
    static constexpr std::int64_t busyAfterMs = 1500;  // somebody else's close may take a second
    static constexpr std::chrono::milliseconds acceptAgainAfter{100};

    struct Session {
        Session(Socket client, NetProtocol protocol, const std::string& signature, Port& port)
            : socket(std::move(client)), terminal(protocol, signature), bridge(terminal, port) {}

        Socket socket;
        NetTerminal terminal;
        Bridge bridge;
        std::array<std::uint8_t, pieceBytes> piece;  // being received
        std::vector<std::uint8_t> sending;
        std::int64_t busyAtMs = 0;  // when to give up on a port that somebody else has
        bool receiving = false;
        bool left = false;          // the client has, or was made to
    };

    static void wake(void* self) { static_cast<NetServer*>(self)->loop_.wake(); }
    void accept();
    void admit(Socket client);
    void refuse(Socket client, const std::string& why);
    void begin(Socket client);
    void step();
    void watchBusy(std::int64_t now);
    void receive();
    void send();
    void endInput();
    void drop();

    const std::string portName_;
    const NetProtocol protocol_;
    const bool kick_;
    PortLoop loop_{[this] { step(); }};
    asio::ip::tcp::acceptor acceptor_;
    asio::steady_timer retry_;
    std::string url_;
    PortFile port_;
    std::shared_ptr<Session> session_;  // socket operations under way hold it, too
    std::optional<Socket> next_;        // waits for the session to end

    std::atomic<bool> arrived_{false};  // modemArrived() was called
    std::atomic<bool> stopping_{false};
};

}  // namespace comport
