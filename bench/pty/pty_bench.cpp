// The whole program beside socat: echo and throughput through a terminal, rounds in turn, medians.
//
//   pty_benchmarks PATH-OF-comport
//
// comport: application - PTY - comport - driver - virtual modem (a number that echoes, pours or swallows)
// socat:   application - PTY - socat - PTY - a thread that echoes, pours or swallows
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t total = 10'000'000;
constexpr int echoes = 2000;
constexpr std::size_t echoSize = 64;
constexpr int rounds = 5;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

class Process {
public:
    explicit Process(std::vector<std::string> words) {
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        if (posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) {
            fail("cannot start " + words[0]);
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_ = -1;
};

// An application's end of a terminal: raw, blocking.
class Terminal {
public:
    explicit Terminal(const std::string& path) {
        for (int tries = 0; (fd_ = open(path.c_str(), O_RDWR | O_NOCTTY)) < 0; ++tries) {
            if (tries > 500) {
                fail("no terminal at " + path);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        termios settings{};
        tcgetattr(fd_, &settings);
        cfmakeraw(&settings);
        cfsetspeed(&settings, B115200);
        settings.c_cflag |= CLOCAL | CREAD;
        tcsetattr(fd_, TCSANOW, &settings);
    }
    ~Terminal() { close(fd_); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void writeAll(const char* data, std::size_t size) const {
        while (size > 0) {
            const ssize_t n = write(fd_, data, size);
            if (n <= 0) fail("write");
            data += n;
            size -= static_cast<std::size_t>(n);
        }
    }
    void readAll(char* data, std::size_t size) const {
        while (size > 0) {
            const ssize_t n = read(fd_, data, size);
            if (n <= 0) fail("read");
            data += n;
            size -= static_cast<std::size_t>(n);
        }
    }
    bool readable(int timeoutMs) const {
        pollfd entry{fd_, POLLIN, 0};
        return poll(&entry, 1, timeoutMs) > 0;
    }
    // Reads up to and including a line with `text`, byte by byte: what follows belongs to the call.
    void expect(const std::string& text) const {
        std::string seen;
        while (seen.find(text) == std::string::npos || seen.back() != '\n') {
            char byte;
            if (!readable(5000)) fail("waited for " + text + ", got " + seen);
            readAll(&byte, 1);
            seen += byte;
        }
    }
    void command(const std::string& line, const std::string& answer) const {
        writeAll((line + "\r").data(), line.size() + 1);
        expect(answer);
    }
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

struct Result {
    std::vector<double> echoUs, outMBs, inMBs;
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

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
    const std::string link = "/tmp/pty-bench-" + std::to_string(getpid());
    std::filesystem::remove(link);
    Process process({program, "serve", "--pty-link", link});
    Terminal terminal(link);
    terminal.command("ATE0", "OK");
    terminal.command("ATD" + number, "CONNECT");
    body(terminal);
}

template <class Behind, class Body> void withSocat(Behind behind, Body body) {
    const std::string base = "/tmp/pty-bench-socat-" + std::to_string(getpid());
    Process process({"socat", "PTY,raw,echo=0,link=" + base + "a", "PTY,raw,echo=0,link=" + base + "b"});
    Terminal far(base + "b");
    Terminal near(base + "a");
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

void print(const char* text, double measured, double yardstick, const char* unit, bool good, const char* reach) {
    std::printf("%-45s %9.1f %-5s %9.1f %-5s %6.2f %8s%s\n", text, measured, unit, yardstick, unit, measured / yardstick, reach,
                good ? "" : "  MISSED");
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
    const double echo = median(ours.echoUs), echoYard = median(socat.echoUs);
    const double out = median(ours.outMBs), outYard = median(socat.outMBs);
    const double in = median(ours.inMBs), inYard = median(socat.inMBs);
    std::printf("%-45s %15s %15s %6s %8s\n", "figure", "comport", "socat", "ratio", "reach");
    print("PTY echo of 64 bytes, p50", echo, echoYard, "us", echo < echoYard, "< 1");
    print("PTY to modem, 10 MB", out, outYard, "MB/s", out > outYard, "> 1");
    print("modem to PTY, 10 MB", in, inYard, "MB/s", in > inYard, "> 1");
    return echo < echoYard && out > outYard && in > inYard ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "pty_benchmarks: %s\n", error.what());
    return 1;
}
