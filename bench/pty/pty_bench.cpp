// The whole program beside socat: echo and throughput through a terminal, rounds in turn, medians.
//
//   pty_benchmarks PATH-OF-comport
//
// comport: application - PTY - comport - driver - virtual modem (a number that echoes, pours or swallows)
// socat:   application - PTY - socat - PTY - a thread that echoes, pours or swallows
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "bench/outside/drive.h"

namespace {

using drive::Clock;
using drive::fail;
using drive::median;
using drive::Process;
using drive::secondsSince;
using drive::Terminal;

constexpr std::size_t total = 10'000'000;
constexpr int echoes = 2000;
constexpr std::size_t echoSize = 64;
constexpr int rounds = 5;

struct Result {
    std::vector<double> echoUs, outMBs, inMBs;
};

double echoMedianUs(const Terminal& terminal) {
    char data[echoSize], back[echoSize];
    std::memset(data, 'x', sizeof data);
    std::vector<double> times;
    for (int i = 0; i < echoes; ++i) {
        const auto start = Clock::now();
        terminal.writeAll(data, sizeof data);
        terminal.readAll(back, sizeof back);
        times.push_back(secondsSince(start) * 1e6);
    }
    return median(times);
}

double timedOut(const Terminal& terminal) {
    std::vector<char> piece(4096, 'y');
    const auto start = Clock::now();
    for (std::size_t sent = 0; sent < total; sent += piece.size()) {
        terminal.writeAll(piece.data(), std::min(piece.size(), total - sent));
    }
    return static_cast<double>(total) / secondsSince(start) / 1e6;
}

double timedIn(const Terminal& terminal, Clock::time_point start) {
    std::vector<char> piece(65536);
    for (std::size_t got = 0; got < total;) {
        const ssize_t n = read(terminal.fd(), piece.data(), std::min(piece.size(), total - got));
        if (n <= 0) fail("read");
        got += static_cast<std::size_t>(n);
    }
    return static_cast<double>(total) / secondsSince(start) / 1e6;
}

// A fresh process for each call: nothing to hang up, no guard time to wait for.
template <class Body> void withComport(const std::string& program, const std::string& number, Body body) {
    drive::Comport comport(program, "modem");
    Terminal terminal(comport.link());
    terminal.command("ATE0", "OK");
    terminal.command("ATD" + number, "CONNECT");
    body(terminal);
}

template <class Behind, class Body> void withSocat(Behind behind, Body body) {
    drive::TempDirectory directory;
    Process process({"socat", "PTY,raw,echo=0,link=" + directory.file("a"), "PTY,raw,echo=0,link=" + directory.file("b")});
    Terminal far(directory.file("b"));
    Terminal near(directory.file("a"));
    std::thread thread([&] { behind(far); });
    body(near);
    thread.join();
}

void measureComport(const std::string& program, Result& result) {
    withComport(program, "100", [&](const Terminal& terminal) { result.echoUs.push_back(echoMedianUs(terminal)); });
    withComport(program, "102", [&](const Terminal& terminal) { result.outMBs.push_back(timedOut(terminal)); });
    withComport(program, "101", [&](const Terminal& terminal) { result.inMBs.push_back(timedIn(terminal, Clock::now())); });
}

void measureSocat(Result& result) {
    withSocat(
        [](const Terminal& far) {
            char data[echoSize];
            for (int i = 0; i < echoes; ++i) {
                far.readAll(data, sizeof data);
                far.writeAll(data, sizeof data);
            }
        },
        [&](const Terminal& near) { result.echoUs.push_back(echoMedianUs(near)); });
    withSocat([](const Terminal& far) { timedIn(far, Clock::now()); },
              [&](const Terminal& near) { result.outMBs.push_back(timedOut(near)); });
    withSocat([](const Terminal& far) { timedOut(far); },
              [&](const Terminal& near) { result.inMBs.push_back(timedIn(near, Clock::now())); });
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) {
        std::fprintf(stderr, "usage: pty_benchmarks PATH-OF-comport\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    Result ours, socat;
    for (int round = 0; round < rounds; ++round) {
        measureComport(argv[1], ours);
        measureSocat(socat);
    }
    drive::Table table("comport", "socat");
    table.atMost("PTY echo of 64 bytes, p50", median(ours.echoUs), median(socat.echoUs), "us", 1);
    table.atLeast("PTY to modem, 10 MB", median(ours.outMBs), median(socat.outMBs), "MB/s", 1);
    table.atLeast("modem to PTY, 10 MB", median(ours.inMBs), median(socat.inMBs), "MB/s", 1);
    return table.good() ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "pty_benchmarks: %s\n", error.what());
    return 1;
}
