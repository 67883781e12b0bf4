#include "comport/usbip_modem.h"

#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "kernel/executive.h"
#include "modem/acm_device.h"
#include "usb/virtual_backend.h"

namespace comport {

namespace {

constexpr const char* busId = "1-1";

std::shared_ptr<usb::UsbipExport> makeExport(DeviceKind kind) {
    std::unique_ptr<modem::AcmDevice> device = makeAcmDevice(kind);
    usb::usbip::DeviceRecord record = usb::usbip::describe(device->deviceDescriptor(), device->configurationDescriptor(0));
    record.path = "/virtual/1-1";
    record.busId = busId;
    record.busNumber = 1;
    record.deviceNumber = 1;
    return std::make_shared<usb::UsbipExport>(std::make_shared<usb::VirtualBackend>(std::move(device), "exported modem"), record);
}

}  // namespace

UsbipServer::UsbipServer(std::vector<std::shared_ptr<usb::UsbipExport>> exports, const NetAddress& address)
    : exports_(std::move(exports)), acceptor_(loop_.context()) {
    try {
        asio::ip::tcp::endpoint endpoint(asio::ip::make_address(address.host), address.port);
        acceptor_.open(endpoint.protocol());
        acceptor_.set_option(asio::socket_base::reuse_address(true));
        acceptor_.bind(endpoint);
        acceptor_.listen();
    } catch (const std::system_error& error) {
        throw std::runtime_error("--usbip " + address.host + ":" + std::to_string(address.port) + ": " + error.code().message() +
                                 "; give another [ADDR:]PORT, 0 for any free port");
    }
    endpoint_ = acceptor_.local_endpoint();
    loop_.start([this] { accept(); });
}

UsbipServer::~UsbipServer() {
    stopping_ = true;
    loop_.wake();
    loop_.join();
    clients_.clear();
}

void UsbipServer::accept() {
    acceptor_.async_accept([this](const asio::error_code& error, Socket socket) {
        if (error == asio::error::operation_aborted) {
            return;
        }
        if (!error && clients_.size() < maximumClients) {
            asio::error_code ignored;
            socket.set_option(asio::ip::tcp::no_delay(true), ignored);
            socket.set_option(asio::socket_base::keep_alive(true), ignored);
            clients_.push_back(std::make_shared<Client>(std::move(socket), exports_, [this] { loop_.wake(); }));
            loop_.step();
        }
        accept();
    });
}

void UsbipServer::step() {
    if (stopping_) {
        acceptor_.close();
        loop_.stop();
        return;
    }
    for (auto at = clients_.begin(); at != clients_.end();) {
        const Held client = *at++;
        // Taken in here, in the step: the loop then serves what is asked of the device itself, before it sleeps.
        client->connection.received(std::span(client->piece).first(std::exchange(client->came, 0)));
        client->connection.step();
        send(client);
        const bool sent = client->connection.output().empty() && !client->writing;
        if (client->left || (client->connection.over() && sent)) {
            if (!client->connection.error().empty()) {
                std::fprintf(stderr, "comport: %s\n", client->connection.error().c_str());
            }
            asio::error_code ignored;
            client->socket.close(ignored);
            client->connection.disconnected();
            clients_.remove(client);
        } else {
            receive(client);
        }
    }
}

void UsbipServer::receive(const Held& client) {
    if (client->receiving || !client->connection.wantsBytes()) {
        return;
    }
    client->receiving = true;
    client->socket.async_read_some(asio::buffer(client->piece),
                                   [this, client](const asio::error_code& error, std::size_t length) {
                                       client->receiving = false;
                                       client->left = client->left || error;
                                       client->came = error ? 0 : length;
                                       loop_.step();
                                   });
}

// Everything there is, in one write. What the socket does not take at once, it gets when it can.
void UsbipServer::send(const Held& client) {
    usb::usbip::Bytes& output = client->connection.output();
    if (client->writing || output.empty() || client->left) {
        return;
    }
    const ssize_t taken = ::send(client->socket.native_handle(), output.data(), output.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    output.erase(output.begin(), output.begin() + std::max<ssize_t>(taken, 0));
    if (output.empty()) {
        return;
    }
    client->sending.clear();
    client->sending.swap(output);
    client->writing = true;
    asio::async_write(client->socket, asio::buffer(client->sending), [this, client](const asio::error_code& error, std::size_t) {
        client->writing = false;
        client->left = client->left || error;
        loop_.step();
    });
}

int runModem(const Options& options) {
    asio::io_context signals{1};
    asio::signal_set ended(signals, SIGINT, SIGTERM);
    nt::Options boot;
    boot.mode = nt::Mode::real;
    boot.verifier = options.verifier;
    nt::Executive executive(boot);
    {
        UsbipServer server({makeExport(options.modem)}, *options.usbip);
        const bool six = server.host().find(':') != std::string::npos;
        const std::string place = (six ? "[" + server.host() + "]" : server.host()) + ":" + std::to_string(server.port());
        std::printf("The modem is exported at usbip://%s/%s\n"
                    "Try: comport serve --usb usbip://%s/%s\n"
                    "or, as root: modprobe vhci-hcd; usbip --tcp-port %u attach -r %s -b %s\n",
                    place.c_str(), busId, place.c_str(), busId, server.port(), server.host().c_str(), busId);
        std::fflush(stdout);
        ended.async_wait([](const asio::error_code&, int) {});
        signals.run();
    }
    int exitCode = 0;
    for (const std::string& line : executive.stop().lines) {
        std::fprintf(stderr, "comport: left at unload: %s\n", line.c_str());
        exitCode = 1;
    }
    return exitCode;
}

}  // namespace comport
