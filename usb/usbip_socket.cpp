#include "usb/usbip_socket.h"

#include <asio.hpp>

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

namespace usb {

namespace {

using asio::ip::tcp;

constexpr int keepaliveIdleSeconds = 10;
constexpr int keepaliveIntervalSeconds = 5;
constexpr int keepaliveProbes = 3;
constexpr int unacknowledgedMs = 20'000;
constexpr std::uint32_t listTimeoutMs = 5000;
constexpr std::uint32_t maximumListed = 1024;

// Requests are small and waited for; a server that is gone without a word is to be noticed within half a minute.
void setUp(tcp::socket& socket) {
    asio::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
    const auto set = [&socket](int option, int value) {
        ::setsockopt(socket.native_handle(), IPPROTO_TCP, option, &value, sizeof value);
    };
    set(TCP_KEEPIDLE, keepaliveIdleSeconds);
    set(TCP_KEEPINTVL, keepaliveIntervalSeconds);
    set(TCP_KEEPCNT, keepaliveProbes);
    set(TCP_USER_TIMEOUT, unacknowledgedMs);
    socket.non_blocking(true, ignored);
}

}  // namespace

struct UsbipSocket::Io {
    asio::io_context context{1};
    tcp::socket socket{context};
    asio::posix::stream_descriptor wakes{context, ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};

    // True: wake() has been called since the last time.
    bool takeWakes() {
        std::uint64_t count = 0;
        return ::read(wakes.native_handle(), &count, sizeof count) == static_cast<ssize_t>(sizeof count);
    }
    // The events of the socket, 0 when only a wake came or the time is over; wakes that came are taken if `take`.
    short await(short events, int timeoutMs, bool take = false) {
        pollfd entries[2] = {{socket.is_open() ? socket.native_handle() : -1, events, 0}, {wakes.native_handle(), POLLIN, 0}};
        if (::poll(entries, 2, timeoutMs) <= 0) return 0;
        if (take && entries[1].revents != 0) takeWakes();
        return entries[0].revents;
    }
    asio::error_code connect(const tcp::endpoint& endpoint, int timeoutMs);
};

asio::error_code UsbipSocket::Io::connect(const tcp::endpoint& endpoint, int timeoutMs) {
    asio::error_code error;
    socket.close(error);
    socket.open(endpoint.protocol(), error);
    if (error) return error;
    setUp(socket);
    const int failed = ::connect(socket.native_handle(), endpoint.data(), static_cast<socklen_t>(endpoint.size()));
    if (failed == 0) return {};
    if (errno != EINPROGRESS) return {errno, asio::error::get_system_category()};
    if (await(POLLOUT, timeoutMs) == 0) return asio::error::timed_out;
    int result = 0;
    socklen_t length = sizeof result;
    ::getsockopt(socket.native_handle(), SOL_SOCKET, SO_ERROR, &result, &length);
    return {result, asio::error::get_system_category()};
}

UsbipSocket::UsbipSocket(std::string host, std::uint16_t port)
    : host_(std::move(host)), port_(port), io_(std::make_unique<Io>()) {}

UsbipSocket::~UsbipSocket() = default;

bool UsbipSocket::open(std::uint32_t timeoutMs, std::string& why) {
    io_->takeWakes();
    asio::error_code error;
    tcp::resolver resolver(io_->context);
    const auto found = resolver.resolve(host_, std::to_string(port_), tcp::resolver::numeric_service, error);
    if (!error) error = asio::error::host_not_found;
    for (const auto& entry : found) {
        error = io_->connect(entry.endpoint(), static_cast<int>(timeoutMs));
        if (!error) return true;
    }
    why = "no connection to " + host_ + " port " + std::to_string(port_) + ": " + error.message();
    close();
    return false;
}

void UsbipSocket::close() {
    asio::error_code ignored;
    io_->socket.close(ignored);
}

std::ptrdiff_t UsbipSocket::send(std::span<const std::uint8_t> bytes) {
    const ssize_t taken = ::send(io_->socket.native_handle(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (taken < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
    return taken;
}

std::ptrdiff_t UsbipSocket::receive(std::span<std::uint8_t> room) {
    if (!io_->socket.is_open()) return -1;
    const ssize_t count = ::recv(io_->socket.native_handle(), room.data(), room.size(), MSG_DONTWAIT);
    if (count < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
    return count == 0 ? -1 : count;
}

void UsbipSocket::wait(bool forRoom, std::int64_t timeoutMs) {
    io_->await(static_cast<short>(POLLIN | (forRoom ? POLLOUT : 0)), static_cast<int>(std::min<std::int64_t>(timeoutMs, 60'000)), true);
}

void UsbipSocket::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(io_->wakes.native_handle(), &one, sizeof one);
}

namespace {

// Reads a list, record by record.
class ListReader {
public:
    ListReader(const std::string& host, std::uint16_t port) : place_(host + " port " + std::to_string(port)), socket_(host, port) {
        std::string why;
        if (!socket_.open(listTimeoutMs, why)) throw std::runtime_error(why);
    }

    void say(const usbip::Bytes& bytes) {
        if (socket_.send(bytes) != static_cast<std::ptrdiff_t>(bytes.size())) fail("the connection was lost");
    }
    std::span<const std::uint8_t> read(std::size_t size) {
        record_.resize(size);
        for (std::size_t have = 0; have < size;) {
            const std::ptrdiff_t count = socket_.receive(std::span(record_).subspan(have));
            if (count < 0) fail("the connection was lost");
            have += static_cast<std::size_t>(count);
            if (count != 0) continue;
            const auto left = end_ - Clock::now();
            if (left.count() <= 0) fail("the server does not answer");
            socket_.wait(false, std::chrono::duration_cast<std::chrono::milliseconds>(left).count() + 1);
        }
        return record_;
    }
    [[noreturn]] void fail(const char* what) const { throw std::runtime_error(place_ + ": " + what); }

private:
    using Clock = std::chrono::steady_clock;
    const std::string place_;
    UsbipSocket socket_;
    usbip::Bytes record_;
    const Clock::time_point end_ = Clock::now() + std::chrono::milliseconds(listTimeoutMs);
};

}  // namespace

std::vector<usbip::DeviceRecord> listUsbip(const std::string& host, std::uint16_t port) {
    using namespace usbip;
    ListReader reader(host, port);
    Bytes request;
    put(request, Operation{protocolVersion, OperationCode::listRequest, OperationStatus::ok});
    reader.say(request);
    const auto reply = operationOf(reader.read(operationBytes));
    if (!reply || reply->code != OperationCode::listReply) reader.fail("that is no USB/IP server of version 1.1.1");
    if (reply->status != OperationStatus::ok) reader.fail("the server refuses to list its devices");
    const std::uint32_t count = countOf(reader.read(4));
    if (count > maximumListed) reader.fail("the server claims to have more devices than there can be");
    std::vector<DeviceRecord> devices;
    for (std::uint32_t i = 0; i < count; ++i) {
        devices.push_back(deviceOf(reader.read(deviceBytes)));
        for (unsigned n = 0; n < devices.back().interfaceCount; ++n) {
            const auto entry = reader.read(interfaceBytes);
            devices.back().interfaces.push_back({entry[0], entry[1], entry[2]});
        }
    }
    return devices;
}

}  // namespace usb
