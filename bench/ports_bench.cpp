// What a byte costs, in processor time of the whole process, when one, ten and a hundred ports carry traffic at the same time. Each
// iteration moves one piece on the next port; main.cpp compares ten and a hundred with one.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <deque>
#include <filesystem>
#include <vector>

#include "bench/bench_rig.h"
#include "comport/server.h"
#include "comport/unique_fd.h"

namespace {

constexpr std::size_t writeSize = 4096;
constexpr std::size_t readSize = 65536;
constexpr unsigned inFlight = 4;

// Requests kept going on each port; the caller waits for the oldest, port after port.
class Streams {
public:
    Streams(std::vector<nt::File>& ports, std::size_t size) {
        for (unsigned i = 0; i < inFlight; ++i) {
            for (nt::File& port : ports) {
                slots_.emplace_back(port, size);
            }
        }
    }
    template <class Issue> void run(benchmark::State& state, Issue issue) {
        for (Slot& slot : slots_) {
            issue(slot.port, slot.request, slot.buffer);
        }
        std::uint64_t bytes = 0;
        std::size_t next = 0;
        for (auto _ : state) {
            Slot& slot = slots_[next];
            next = (next + 1) % slots_.size();
            slot.done.acquire();
            bytes += slot.request.information();
            issue(slot.port, slot.request, slot.buffer);
        }
        state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
        for (Slot& slot : slots_) {
            slot.done.acquire();
        }
    }

private:
    struct Slot {
        Slot(nt::File& of, std::size_t size) : port(of), buffer(size, 0x55) { request.setCompletion(ended, this); }
        nt::File& port;
        nt::Request request;
        std::vector<std::uint8_t> buffer;
        std::binary_semaphore done{0};
    };
    static void ended(nt::Request&, void* context) { static_cast<Slot*>(context)->done.release(); }
    std::deque<Slot> slots_;
};

void portsToDevice(benchmark::State& state) {
    bench::Rig rig(true, static_cast<unsigned>(state.range(0)));
    Streams(rig.open(), writeSize).run(state, [](nt::File& port, nt::Request& request, std::vector<std::uint8_t>& buffer) {
        port.write(request, buffer.data(), static_cast<ULONG>(buffer.size()));
    });
}

void portsToApplication(benchmark::State& state) {
    bench::Rig rig(true, static_cast<unsigned>(state.range(0)), bench::Answers::pours);
    Streams(rig.open(), readSize).run(state, [](nt::File& port, nt::Request& request, std::vector<std::uint8_t>& buffer) {
        port.read(request, buffer.data(), static_cast<ULONG>(buffer.size()));
    });
}

// One client for all ports of the program: as many bytes under way on each, there and back through loop plugs.
class Clients {
public:
    explicit Clients(const std::vector<const comport::ServedPort*>& ports) {
        for (const comport::ServedPort* port : ports) {
            const std::string url = port->urls().at(0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
            sockets_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            if (::connect(sockets_.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
                throw std::runtime_error("cannot connect to " + url);
            }
            polls_.push_back({sockets_.back().get(), POLLIN, 0});
        }
        for (const pollfd& entry : polls_) {
            sendAll(entry.fd, inFlight * writeSize);
        }
    }
    // Passes on what has come back on the ports that have something, until that were so many bytes.
    std::size_t move(std::size_t wanted) {
        std::size_t moved = 0;
        while (moved < wanted) {
            if (::poll(polls_.data(), polls_.size(), 10'000) <= 0) {
                throw std::runtime_error("nothing comes back");
            }
            for (const pollfd& entry : polls_) {
                if (entry.revents != 0) {
                    const ssize_t length = ::recv(entry.fd, piece_.data(), piece_.size(), 0);
                    sendAll(entry.fd, length);
                    moved += static_cast<std::size_t>(length);
                }
            }
        }
        return moved;
    }

private:
    void sendAll(int fd, ssize_t length) {
        if (length <= 0 || ::send(fd, piece_.data(), static_cast<std::size_t>(length), MSG_NOSIGNAL) != length) {
            throw std::runtime_error("the connection is lost");
        }
    }
    std::vector<comport::UniqueFd> sockets_;
    std::vector<pollfd> polls_;
    std::vector<char> piece_ = std::vector<char>(inFlight * writeSize, 'x');
};

void portsEcho(benchmark::State& state) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    comport::Options options;
    options.command = comport::Command::check;
    options.traceMask = 0;
    options.tcp = comport::NetAddress{};
    options.devices.assign(static_cast<std::size_t>(state.range(0)), comport::DeviceName{comport::DeviceKind::loopback, {}});
    const auto links = std::filesystem::temp_directory_path() / ("comport-bench-" + std::to_string(::getpid()));
    options.ptyLink = links.string();
    {
        comport::Server server(options);
        Clients clients(server.served());
        constexpr std::size_t batch = 1 << 20;
        std::uint64_t bytes = 0;
        for (auto _ : state) {
            bytes += clients.move(batch);
        }
        state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    }
    std::filesystem::remove_all(links);
}

void oneTenAndHundred(const char* name, void (*body)(benchmark::State&)) {
    for (const auto& [word, ports] : {std::pair("/one", 1), std::pair("/ten", 10), std::pair("/hundred", 100)}) {
        benchmark::RegisterBenchmark((std::string(name) + word).c_str(), body)->Arg(ports)->UseRealTime()->MeasureProcessCPUTime();
    }
}

const bool registered = [] {
    oneTenAndHundred("portsToDevice", portsToDevice);
    oneTenAndHundred("portsToApplication", portsToApplication);
    oneTenAndHundred("portsEcho", portsEcho);
    return true;
}();

}  // namespace
