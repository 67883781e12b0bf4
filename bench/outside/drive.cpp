#include "bench/outside/drive.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace drive {

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void fail(const std::string& what) { throw std::runtime_error(what); }

TempDirectory::TempDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "bench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) fail("cannot make a directory " + name);
    path_ = name;
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Process::Process(std::vector<std::string> words, const std::string& output) {
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const int error = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) fail("cannot start " + words[0]);
}

Process::~Process() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        join();
    }
}

void Process::join() {
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string contents(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

Comport::Comport(std::string program, const std::string& modem)
    : program_(std::move(program)),
      process_({program_, "serve", "--modem", modem, "--registry", directory_.file("registry"), "--pty-link", link(), "--control",
                directory_.file("control"), "--rfc2217", "0"},
               directory_.file("output")) {
    const std::string before = "rfc2217://127.0.0.1:";
    std::string text;
    for (int tries = 0; (text = contents(directory_.file("output"))).find(before) == std::string::npos || text.back() != '\n';) {
        if (++tries > 500) fail(program_ + " does not start");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    netPort_ = static_cast<unsigned short>(std::stoi(text.substr(text.find(before) + before.size())));
}

std::uint64_t Comport::bytesOut() const {
    const std::string output = directory_.file("status"), before = "\"bytesOut\":";
    Process({program_, "status", "--json", "--control", directory_.file("control")}, output).join();
    const std::string text = contents(output);
    const std::size_t at = text.find(before);
    if (at == std::string::npos) fail("no status: " + text);
    return std::stoull(text.substr(at + before.size()));
}

Terminal::Terminal(const std::string& path) {
    for (int tries = 0; (fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) < 0; ++tries) {
        if (tries > 500) fail("no terminal at " + path);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    termios settings{};
    tcgetattr(fd_, &settings);
    cfmakeraw(&settings);
    cfsetspeed(&settings, B115200);
    settings.c_cflag |= CLOCAL | CREAD;
    tcsetattr(fd_, TCSANOW, &settings);
}

Terminal::~Terminal() { close(fd_); }

void Terminal::writeAll(const char* data, std::size_t size) const {
    while (size > 0) {
        const ssize_t n = write(fd_, data, size);
        if (n <= 0) fail("write");
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

void Terminal::readAll(char* data, std::size_t size) const {
    while (size > 0) {
        const ssize_t n = read(fd_, data, size);
        if (n <= 0) fail("read");
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

void Terminal::expect(const std::string& text) const {
    std::string seen;
    while (seen.find(text) == std::string::npos || seen.back() != '\n') {
        char byte;
        pollfd entry{fd_, POLLIN, 0};
        if (poll(&entry, 1, 5000) <= 0) fail("waited for " + text + ", got " + seen);
        readAll(&byte, 1);
        seen += byte;
    }
}

void Terminal::command(const std::string& line, const std::string& answer) const {
    writeAll((line + "\r").data(), line.size() + 1);
    expect(answer);
}

Table::Table(const char* measured, const char* yardstick) {
    std::printf("%-52s %15s %15s %6s %8s\n", "figure", measured, yardstick, "ratio", "reach");
}

void Table::atLeast(const char* what, double measured, double yardstick, const char* unit, double bound) {
    print(what, measured, yardstick, unit, ">=", bound, measured >= yardstick * bound);
}

void Table::atMost(const char* what, double measured, double yardstick, const char* unit, double bound) {
    print(what, measured, yardstick, unit, "<=", bound, measured <= yardstick * bound);
}

void Table::print(const char* what, double measured, double yardstick, const char* unit, const char* sign, double bound,
                  bool kept) {
    good_ &= kept;
    std::printf("%-52s %9.1f %-5s %9.1f %-5s %6.2f %3s %4.1f%s\n", what, measured, unit, yardstick, unit, measured / yardstick,
                sign, bound, kept ? "" : "  MISSED");
}

}  // namespace drive
