// What a byte costs, in processor time of the whole process, client included, when one, ten and a hundred ports of the program carry
// traffic at the same time. An iteration is one message there and back; main.cpp compares ten and a hundred with one.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "comport/server.h"
#include "comport/unique_fd.h"

namespace {

constexpr std::size_t messageSize = 4096;

std::uint16_t portOf(const std::string& url) { return static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))); }

comport::UniqueFd connectedTo(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    comport::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("cannot connect to port " + std::to_string(port));
    }
    return fd;
}

// One client for all ports of the program: messages there and back through loop plugs.
class Clients {
public:
    explicit Clients(const std::vector<std::uint16_t>& ports) : ready_(::epoll_create1(EPOLL_CLOEXEC)) {
        for (const std::uint16_t port : ports) {
            sockets_.push_back({connectedTo(port), 0});
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = sockets_.size() - 1;
            ::epoll_ctl(ready_.get(), EPOLL_CTL_ADD, sockets_.back().fd.get(), &event);
        }
    }
    // A message on each; back when all of them are.
    void round() {
        for (Socket& socket : sockets_) {
            if (::send(socket.fd.get(), message_.data(), messageSize, MSG_NOSIGNAL) != static_cast<ssize_t>(messageSize)) {
                throw std::runtime_error("a port takes nothing more");
            }
            socket.missing = messageSize;
        }
        for (std::size_t waiting = sockets_.size(); waiting != 0;) {
            std::array<epoll_event, 100> events;
            const int count = ::epoll_wait(ready_.get(), events.data(), events.size(), 10'000);
            for (int i = 0; i < count; ++i) {
                Socket& socket = sockets_[events[static_cast<std::size_t>(i)].data.u64];
                const ssize_t length = ::recv(socket.fd.get(), message_.data(), messageSize, 0);
                socket.missing -= static_cast<std::size_t>(length > 0 ? length : 0);
                waiting -= socket.missing == 0;
            }
            if (count <= 0) {
                throw std::runtime_error("nothing comes back");
            }
        }
    }

private:
    struct Socket {
        comport::UniqueFd fd;
        std::size_t missing;  // of the message under way
    };
    comport::UniqueFd ready_;
    std::vector<Socket> sockets_;
    std::vector<char> message_ = std::vector<char>(messageSize, 'x');
};

// A message on each port, again and again, at most each `period`.
void rounds(benchmark::State& state, const std::vector<std::uint16_t>& ports, std::chrono::milliseconds period) {
    Clients clients(ports);
    auto next = std::chrono::steady_clock::now();
    const auto count = static_cast<benchmark::IterationCount>(ports.size());
    while (state.KeepRunningBatch(count)) {
        std::this_thread::sleep_until(next);
        next = std::max(next + period, std::chrono::steady_clock::now());
        clients.round();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(messageSize));
}

void echo(benchmark::State& state, std::chrono::milliseconds period) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    comport::Options options;
    options.command = comport::Command::check;
    options.registryFile.clear();
    options.traceMask = 0;
    options.tcp = comport::NetAddress{};
    options.devices.assign(static_cast<std::size_t>(state.range(0)), comport::DeviceName{comport::DeviceKind::loopback, {}});
    const auto links = std::filesystem::temp_directory_path() / ("comport-bench-" + std::to_string(::getpid()));
    options.ptyLink = links.string();
    {
        comport::Server server(options);
        std::vector<std::uint16_t> ports;
        for (const comport::ServedPort* port : server.served()) {
            ports.push_back(portOf(port->urls().at(0)));
        }
        rounds(state, ports, period);
    }
    std::filesystem::remove_all(links);
}

void portsPaced(benchmark::State& state) { echo(state, std::chrono::milliseconds(10)); }
void portsFlatOut(benchmark::State& state) { echo(state, std::chrono::milliseconds(0)); }

// The yardstick: a thread for each connection that sends back what it received.
void bareFlatOut(benchmark::State& state) {
    std::vector<std::uint16_t> ports;
    std::vector<std::thread> threads;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        ::listen(listener, 1);
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        ports.push_back(ntohs(address.sin_port));
        threads.emplace_back([listener] {
            const comport::UniqueFd owned(listener), fd(::accept(listener, nullptr, nullptr));
            std::vector<char> bytes(messageSize);
            for (ssize_t got; (got = ::recv(fd.get(), bytes.data(), bytes.size(), 0)) > 0;) {
                ::send(fd.get(), bytes.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL);
            }
        });
    }
    rounds(state, ports, std::chrono::milliseconds(0));
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void oneTenAndHundred(const char* name, void (*body)(benchmark::State&)) {
    for (const auto& [word, ports] : {std::pair("/one", 1), std::pair("/ten", 10), std::pair("/hundred", 100)}) {
        benchmark::RegisterBenchmark((std::string(name) + word).c_str(), body)->Arg(ports)->UseRealTime()->MeasureProcessCPUTime();
    }
}

const bool registered = [] {
    oneTenAndHundred("portsPaced", portsPaced);
    oneTenAndHundred("portsFlatOut", portsFlatOut);
    oneTenAndHundred("bareFlatOut", bareFlatOut);
    return true;
}();

}  // namespace
