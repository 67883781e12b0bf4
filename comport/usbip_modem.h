// `comport modem`: the virtual modem exported to USB/IP clients, the hosts of other machines among them.
//
//   a client connects --list--> told, closed
//   --import--> it has the modem, until it goes, lies, or the program ends; then the modem is switched off and on for the next one
//
// Everything happens on one loop's thread; what a client sends is served there and then, without another thread.
#pragma once

#include <asio.hpp>

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "comport/options.h"
#include "comport/port_loop.h"
#include "usb/usbip_export.h"

namespace comport {

class UsbipServer {
public:
    // Listens; throws std::runtime_error with a sentence. The executive must be running in real mode.
    UsbipServer(std::vector<std::shared_ptr<usb::UsbipExport>> exports, const NetAddress& address);
    // Ends every connection, joins the thread.
    ~UsbipServer();
    UsbipServer(const UsbipServer&) = delete;
    UsbipServer& operator=(const UsbipServer&) = delete;

    // The address clients are told: "127.0.0.1", and the port.
    std::string host() const { return endpoint_.address().to_string(); }
    std::uint16_t port() const { return endpoint_.port(); }

private:
    using Socket = asio::ip::tcp::socket;
    static constexpr std::size_t pieceBytes = 65536;
    static constexpr std::size_t maximumClients = 64;

    struct Client {
        Client(Socket client, std::vector<std::shared_ptr<usb::UsbipExport>> exports, std::function<void()> wake)
            : socket(std::move(client)), connection(std::move(exports), std::move(wake)), piece(pieceBytes) {}

        Socket socket;
        usb::UsbipConnection connection;
        std::vector<std::uint8_t> piece;  // being received
        std::vector<std::uint8_t> sending;
        std::size_t came = 0;  // bytes in piece that the connection has not seen
        bool receiving = false;
        bool writing = false;
        bool left = false;
    };
    using Held = std::shared_ptr<Client>;

    void accept();
    void step();
    void receive(const Held& client);
    void send(const Held& client);

    const std::vector<std::shared_ptr<usb::UsbipExport>> exports_;
    PortLoop loop_{[this] { step(); }};
    asio::ip::tcp::acceptor acceptor_;
    asio::ip::tcp::endpoint endpoint_;
    std::list<Held> clients_;  // socket operations under way hold them, too
    std::atomic<bool> stopping_{false};
};

// Until SIGINT or SIGTERM. The exit code.
int runModem(const Options& options);

}  // namespace comport
