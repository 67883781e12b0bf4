// The driver on a device behind a USB/IP client and server, both of this process, beside plain sockets on the loopback address.
#include <benchmark/benchmark.h>
#include <ntplatform.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/bench_rig.h"
#include "comport/unique_fd.h"

namespace {

constexpr std::size_t readSize = 65536;   // a read's, and a transfer's
constexpr std::size_t writeSize = 4096;
// Transfers to the device are as large as the send ring. The default is a multiple of 64, so that an empty one follows each.
constexpr std::size_t chunkSize = 2048;
constexpr std::size_t oddChunkSize = 3000;
constexpr std::size_t headerSize = 48;    // of a request and of a reply

void toApplication(benchmark::State& state) {
    bench::Rig rig(true, 1, bench::Answers::pours, bench::Wire::usbip);
    nt::File& port = rig.port();
    bench::Pipeline pipeline(readSize);
    pipeline.run(state, [&](nt::Request& request, std::vector<std::uint8_t>& buffer) {
        port.read(request, buffer.data(), static_cast<ULONG>(buffer.size()));
    });
    pipeline.drain();
}

void toDevice(benchmark::State& state) {
    bench::Rig rig(true, 1, bench::Answers::takes, bench::Wire::usbip);
    nt::File& port = rig.port();
    const SERIAL_QUEUE_SIZE rings = {readSize, static_cast<ULONG>(state.range(0))};
    port.control(IOCTL_SERIAL_SET_QUEUE_SIZE, &rings, sizeof(rings));
    bench::Pipeline pipeline(writeSize);
    pipeline.run(state, [&](nt::Request& request, std::vector<std::uint8_t>& buffer) {
        port.write(request, buffer.data(), static_cast<ULONG>(buffer.size()));
    });
    pipeline.drain();
}

// ---- The yardsticks

struct Connection {
    Connection() {
        const comport::UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const name = reinterpret_cast<sockaddr*>(&address);
        near = comport::UniqueFd(socket(AF_INET, SOCK_STREAM, 0));
        if (bind(listener.get(), name, length) != 0 || listen(listener.get(), 1) != 0 ||
            getsockname(listener.get(), name, &length) != 0 || connect(near.get(), name, length) != 0) {
            throw std::runtime_error("no connection on the loopback address");
        }
        far = comport::UniqueFd(accept(listener.get(), nullptr, nullptr));
        for (const int fd : {near.get(), far.get()}) {
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        }
    }
    comport::UniqueFd near, far;
};

// All of them; false: the other end has gone.
bool take(int fd, std::span<std::uint8_t> bytes) {
    return recv(fd, bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size());
}
bool give(int fd, std::span<const std::uint8_t> bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// One thread writes as fast as it can, the other reads.
void plainCopy(benchmark::State& state) {
    Connection connection;
    std::thread writer([&] {
        const std::vector<std::uint8_t> piece(readSize, 0x55);
        while (give(connection.far.get(), piece)) {
        }
    });
    std::vector<std::uint8_t> piece(readSize);
    for (auto _ : state) {
        if (!take(connection.near.get(), piece)) {
            state.SkipWithError("the writer has gone");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * readSize));
    shutdown(connection.near.get(), SHUT_RDWR);
    connection.near.reset();
    writer.join();
}

// The calling thread stays on one processor while this lives: two ends that share one need no wake-ups, and do by chance.
class OnProcessor {
public:
    explicit OnProcessor(unsigned which) {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(which % std::thread::hardware_concurrency(), &one);
        pthread_getaffinity_np(pthread_self(), sizeof before_, &before_);
        pthread_setaffinity_np(pthread_self(), sizeof one, &one);
    }
    ~OnProcessor() { pthread_setaffinity_np(pthread_self(), sizeof before_, &before_); }

private:
    cpu_set_t before_;
};

// A chunk with its header there, an answer back, and only then the next one: an empty one behind a multiple of 64.
void oneChunkInFlight(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    std::vector<std::size_t> chunks{size};
    if (size % 64 == 0) {
        chunks.push_back(0);
    }
    Connection connection;
    const OnProcessor here(0);
    std::thread other([&] {
        const OnProcessor there(1);
        std::vector<std::uint8_t> request(headerSize + size), reply(headerSize);
        for (std::size_t at = 0; take(connection.far.get(), std::span(request).first(headerSize + chunks[at])) &&
                                 give(connection.far.get(), reply);) {
            at = (at + 1) % chunks.size();
        }
    });
    const std::vector<std::uint8_t> request(headerSize + size, 0x55);
    std::vector<std::uint8_t> reply(headerSize);
    for (auto _ : state) {
        for (const std::size_t chunk : chunks) {
            if (!give(connection.near.get(), std::span(request).first(headerSize + chunk)) || !take(connection.near.get(), reply)) {
                state.SkipWithError("the other end has gone");
            }
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
    shutdown(connection.near.get(), SHUT_RDWR);
    other.join();
}

BENCHMARK(toApplication)->Name("usbip/toApplication")->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK(plainCopy)->Name("usbip/toApplication/yardstick")->UseRealTime();
BENCHMARK(toDevice)->Name("usbip/toDevice")->Arg(chunkSize)->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK(oneChunkInFlight)->Name("usbip/toDevice/yardstick")->Arg(chunkSize)->UseRealTime();
BENCHMARK(toDevice)->Name("usbip/toDevice/odd")->Arg(oddChunkSize)->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK(oneChunkInFlight)->Name("usbip/toDevice/odd/yardstick")->Arg(oddChunkSize)->UseRealTime();

}  // namespace
