// The COM port over the network (RFC 2217): what comes back from a loop plug, beside ser2net before a terminal that sends back
// and beside a telnet server with no port behind it; and single bytes on their way to the modem. Rounds in turn, medians.
//
//   net_benchmarks PATH-OF-comport
//
// comport: client - TCP - comport - driver - loop plug
// ser2net: client - TCP - ser2net - PTY - a thread that sends back
// telnet:  client - TCP - a thread that sends back
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "bench/net/telnet_client.h"
#include "bench/net/yardsticks.h"

namespace {

using drive::Clock;
using drive::secondsSince;

constexpr std::size_t total = 16'000'000;
constexpr std::size_t pieceBytes = 65536;
constexpr int echoes = 3000;
constexpr std::size_t singleBytes = 200'000;
constexpr double wantedSingleKBs = 200;
constexpr int rounds = 5;

using Bytes = std::vector<std::uint8_t>;

// Every value of a byte is in it, 0xFF as often as any other.
Bytes randomBytes(std::size_t size) {
    std::mt19937 generator(1);
    Bytes bytes(size);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(generator());
    }
    return bytes;
}

struct Payload {
    Bytes data = randomBytes(total);
    Bytes wire = escaped(data);
};

// Compares what comes back with what was sent.
class Comparison {
public:
    explicit Comparison(std::span<const std::uint8_t> expected) : expected_(expected) {}

    void take(std::span<const std::uint8_t> data) {
        same_ = same_ && data.size() <= expected_.size() && std::equal(data.begin(), data.end(), expected_.begin());
        if (same_) expected_ = expected_.subspan(data.size());
    }
    bool complete() const {
        if (!same_) drive::fail("other bytes came back than were sent");
        return expected_.empty();
    }

private:
    std::span<const std::uint8_t> expected_;
    bool same_ = true;
};

double throughputMBs(TelnetClient& client, const Payload& payload) {
    Comparison comparison(payload.data);
    std::span<const std::uint8_t> rest = payload.wire;
    const TelnetClient::Take take = [&](std::span<const std::uint8_t> data) { comparison.take(data); };
    const auto start = Clock::now();
    while (!comparison.complete()) {
        rest = rest.subspan(client.writeSome(rest.first(std::min(rest.size(), pieceBytes))));
        client.receive(take, !rest.empty());
    }
    return static_cast<double>(payload.data.size()) / secondsSince(start) / 1e6;
}

double echoMedianUs(TelnetClient& client) {
    std::vector<double> times;
    for (int i = 0; i < echoes; ++i) {
        const std::uint8_t byte[] = {static_cast<std::uint8_t>(i)};
        const Bytes wire = escaped(byte);
        Comparison comparison(byte);
        const TelnetClient::Take take = [&](std::span<const std::uint8_t> data) { comparison.take(data); };
        const auto start = Clock::now();
        client.writeAll(wire);
        while (!comparison.complete()) {
            client.receive(take);
        }
        times.push_back(secondsSince(start) * 1e6);
    }
    return drive::median(times);
}

struct Echo {
    std::vector<double> MBs, us;

    void measure(TelnetClient& client, const Payload& payload) {
        us.push_back(echoMedianUs(client));
        MBs.push_back(throughputMBs(client, payload));
    }
};

// `say` writes one byte. Until the last one has reached the modem.
template <class Say>
double singleKBs(const drive::Comport& comport, Say say) {
    const std::uint64_t before = comport.bytesOut();
    const auto start = Clock::now();
    for (std::size_t i = 0; i < singleBytes; ++i) {
        say("y");
    }
    while (comport.bytesOut() < before + singleBytes) {
        if (secondsSince(start) > 30) drive::fail("bytes are lost");
    }
    return singleBytes / secondsSince(start) / 1e3;
}

double netSingleKBs(const std::string& program) {
    drive::Comport comport(program, "modem");
    TelnetClient client("comport", comport.netPort(), true);
    client.command("ATE0", "OK");
    client.command("ATD102", "CONNECT");
    return singleKBs(comport, [&](const char* byte) {
        client.writeAll(std::span(reinterpret_cast<const std::uint8_t*>(byte), 1));
    });
}

double terminalSingleKBs(const std::string& program) {
    drive::Comport comport(program, "modem");
    drive::Terminal terminal(comport.link());
    terminal.command("ATE0", "OK");
    terminal.command("ATD102", "CONNECT");
    return singleKBs(comport, [&](const char* byte) { terminal.writeAll(byte, 1); });
}

struct Figures {
    Echo ours, ser2net, bare;
    std::vector<double> netKBs, terminalKBs;
};

void measureRound(const std::string& program, const Payload& payload, Figures& figures) {
    {
        drive::Comport comport(program, "loopback");
        TelnetClient client("comport", comport.netPort(), true);
        figures.ours.measure(client, payload);
    }
    {
        Ser2net ser2net;
        TelnetClient client("ser2net", ser2net.port(), false);
        figures.ser2net.measure(client, payload);
    }
    {
        TelnetEcho echo;
        TelnetClient client("telnet", echo.port(), true);
        figures.bare.measure(client, payload);
    }
    figures.netKBs.push_back(netSingleKBs(program));
    figures.terminalKBs.push_back(terminalSingleKBs(program));
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) {
        std::fprintf(stderr, "usage: net_benchmarks PATH-OF-comport\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const Payload payload;
    Figures figures;
    for (int round = 0; round < rounds; ++round) {
        measureRound(argv[1], payload, figures);
    }
    using drive::median;
    const double ourMBs = median(figures.ours.MBs), ourUs = median(figures.ours.us);
    drive::Table table("comport", "yardstick");
    table.atLeast("RFC 2217 echo of 16 MB, against ser2net", ourMBs, median(figures.ser2net.MBs), "MB/s", 2);
    table.atMost("RFC 2217 echo of one byte, p50, against ser2net", ourUs, median(figures.ser2net.us), "us", 0.5);
    table.atLeast("RFC 2217 echo of 16 MB, against a bare telnet echo", ourMBs, median(figures.bare.MBs), "MB/s", 0.3);
    table.atMost("RFC 2217 echo of one byte, p50, against the same", ourUs, median(figures.bare.us), "us", 4);
    table.atLeast("one byte a send(), RFC 2217 to modem", median(figures.netKBs), wantedSingleKBs, "kB/s", 1);
    table.atLeast("one byte a write(), PTY to modem", median(figures.terminalKBs), wantedSingleKBs, "kB/s", 1);
    return table.good() ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "net_benchmarks: %s\n", error.what());
    return 1;
}
