// What the benchmarks share that drive programs from outside: processes, terminals, medians, the table they print.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace drive {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start);
double median(std::vector<double> values);
// Throws std::runtime_error.
[[noreturn]] void fail(const std::string& what);

// Its own, removed with what is in it.
class TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// A program that runs until this goes (SIGTERM); what it says goes nowhere, or to a file.
class Process {
public:
    explicit Process(std::vector<std::string> words, const std::string& output = "/dev/null");
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    // Waits until it ends by itself.
    void join();

private:
    pid_t pid_ = -1;
};

std::string contents(const std::string& path);

// The program under test, with nothing left over from an earlier one.
class Comport {
public:
    // `modem`: what is plugged in, modem or loopback.
    Comport(std::string program, const std::string& modem);
    // The link to its terminal.
    std::string link() const { return directory_.file("port"); }
    // Where it serves RFC 2217, on the loopback address.
    unsigned short netPort() const { return netPort_; }
    // Bytes that have reached the modem.
    std::uint64_t bytesOut() const;

private:
    TempDirectory directory_;
    std::string program_;
    Process process_;
    unsigned short netPort_ = 0;
};

// An application's end of a terminal: raw, blocking. Waits 5 s for the terminal to appear.
class Terminal {
public:
    explicit Terminal(const std::string& path);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void writeAll(const char* data, std::size_t size) const;
    void readAll(char* data, std::size_t size) const;
    // Says a line and reads up to and including one with `answer`, byte by byte: what follows belongs to the call.
    void command(const std::string& line, const std::string& answer) const;
    int fd() const { return fd_; }

private:
    void expect(const std::string& text) const;

    int fd_ = -1;
};

// Rows of figures beside their yardsticks; a reach is a bound of their ratio.
class Table {
public:
    Table(const char* measured, const char* yardstick);
    void atLeast(const char* what, double measured, double yardstick, const char* unit, double bound);
    void atMost(const char* what, double measured, double yardstick, const char* unit, double bound);
    // Every bound was kept.
    bool good() const { return good_; }

private:
    void print(const char* what, double measured, double yardstick, const char* unit, const char* sign, double bound, bool kept);

    bool good_ = true;
};

}  // namespace drive
