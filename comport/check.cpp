#include "comport/check.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <ntddser.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "comport/server.h"
#include "comport/unique_fd.h"
#include "modem/line.h"

namespace comport {

namespace {

constexpr std::size_t checkBytes = 10 * 1000 * 1000;
constexpr std::size_t pieceBytes = 4096;
constexpr int patienceMs = 10'000;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// What a terminal program does: its own descriptor, raw settings, bytes.
class Application {
public:
    explicit Application(const std::string& path)
        : fd_(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
        termios settings = {};
        if (!fd_.valid() || ::tcgetattr(fd_.get(), &settings) != 0) {
            throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
        }
        ::cfmakeraw(&settings);
        ::cfsetspeed(&settings, B115200);
        settings.c_cflag |= CLOCAL | CREAD;
        ::tcsetattr(fd_.get(), TCSANOW, &settings);
        ::tcflush(fd_.get(), TCIOFLUSH);
    }

    // Sends a command and waits for a line with `answer`; false when none came in time.
    bool command(const std::string& text, const std::string& answer, int timeoutMs) {
        std::string line = text + "\r";
        if (::write(fd_.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            return false;
        }
        return expect(answer, timeoutMs);
    }

    bool expect(const std::string& answer, int timeoutMs) {
        std::string seen;
        auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (Clock::now() < end) {
            char buffer[512];
            if (!ready(POLLIN, static_cast<int>((end - Clock::now()) / std::chrono::milliseconds(1)) + 1)) {
                continue;
            }
            ssize_t length = ::read(fd_.get(), buffer, sizeof(buffer));
            seen.append(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
            std::size_t at = seen.find(answer);
            if (at != std::string::npos && seen.find('\n', at) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    // Sends random bytes and compares what comes back. Throws with the place where it differs or ends.
    void echo(std::size_t total, unsigned seed) {
        std::mt19937 random(seed);
        std::vector<std::uint8_t> bytes(total);
        std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(random()); });
        std::vector<std::uint8_t> back(65536);
        std::size_t sent = 0;
        std::size_t received = 0;
        while (received < total) {
            short wanted = POLLIN;
            if (sent < total) {
                wanted |= POLLOUT;
            }
            short got = ready(wanted, patienceMs);
            if (got == 0) {
                throw std::runtime_error("stuck: " + std::to_string(sent) + " bytes sent, " +
                                         std::to_string(received) + " came back");
            }
            if (got & POLLOUT) {
                ssize_t length = ::write(fd_.get(), bytes.data() + sent, std::min(pieceBytes, total - sent));
                sent += length > 0 ? static_cast<std::size_t>(length) : 0;
            }
            if (got & POLLIN) {
                ssize_t length = ::read(fd_.get(), back.data(), std::min(back.size(), total - received));
                if (length > 0) {
                    compare(bytes, received, {back.data(), static_cast<std::size_t>(length)});
                    received += static_cast<std::size_t>(length);
                }
            }
        }
    }

private:
    static void compare(const std::vector<std::uint8_t>& bytes, std::size_t at, std::span<const std::uint8_t> back) {
        auto [expected, got] = std::mismatch(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                             bytes.begin() + static_cast<std::ptrdiff_t>(at + back.size()), back.begin());
        if (got != back.end()) {
            throw std::runtime_error("byte " + std::to_string(expected - bytes.begin()) + " came back wrong");
        }
    }

    short ready(short events, int timeoutMs) const {
        pollfd entry = {fd_.get(), events, 0};
        return ::poll(&entry, 1, timeoutMs) > 0 ? entry.revents : 0;
    }

    UniqueFd fd_;
};

std::string echoNumber() {
    for (const modem::PhoneBookEntry& entry : modem::phoneBook()) {
        if (entry.farEnd == modem::FarEnd::echo) {
            return std::string(entry.number);
        }
    }
    throw std::runtime_error("nobody echoes in the phone book");
}

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
    std::printf("  ok: %s\n", what);
    std::fflush(stdout);
}

// The modem answers; at most so long after it was plugged in. What was sent in vain is answered late, or never.
bool awaken(Application& application) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        if (application.command("AT", "OK", 500)) {
            // Answers to earlier attempts.
            while (application.expect("OK", 300)) {
            }
            return true;
        }
    }
    return false;
}

void echoCall(Application& application, std::size_t total, unsigned seed) {
    require(application.command("ATD" + echoNumber(), "CONNECT", patienceMs), "dialled, CONNECT");
    auto start = Clock::now();
    application.echo(total, seed);
    double seconds = secondsSince(start);
    std::printf("  ok: %zu bytes sent, all back in order: %.2f s, %.1f MB/s each way\n", total, seconds,
                static_cast<double>(total) / seconds / 1e6);
    std::fflush(stdout);
}

void tryEverything(Server& server, const std::string& link) {
    Application application(link);
    require(awaken(application), "the modem answers");
    echoCall(application, checkBytes, 1);
    server.unplug();
    std::printf("  ok: the modem is unplugged, the terminal stays open\n");
    server.plugIn();
    require(awaken(application), "plugged in again, the modem answers the same handle");
    echoCall(application, checkBytes / 10, 2);
}

// A network client: it waits for each answer, as they all do.
class NetClient {
public:
    explicit NetClient(const std::string& url) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            throw std::runtime_error("cannot connect to " + url + ": " + std::strerror(errno));
        }
    }

    // Sends the bytes and waits for `answer` in what comes, from where the last answer ended.
    bool ask(std::string_view bytes, std::string_view answer) {
        return say(bytes) && expect(answer);
    }

    bool expect(std::string_view answer) {
        while (seen_.find(answer) == std::string::npos) {
            if (!receive()) {
                return false;
            }
        }
        seen_.erase(0, seen_.find(answer) + answer.size());
        return true;
    }

    // Waits until, as it was told last, of the lines in `mask` just these are up; SERIAL_MSR_*.
    bool told(std::uint8_t mask, std::uint8_t lines) {
        while (!modemStatus_ || (*modemStatus_ & mask) != lines) {
            if (!receive()) {
                return false;
            }
        }
        return true;
    }

    bool say(std::string_view bytes) {
        return ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // A request of the COM port option, and the value it is to be answered with.
    bool request(std::uint8_t command, const std::string& value, const std::string& inForce) {
        auto option = [](int code, const std::string& text) {
            return "\xFF\xFA\x2C" + std::string(1, static_cast<char>(code)) + text + "\xFF\xF0";
        };
        return ask(option(command, value), option(command + 100, inForce));
    }

private:
    bool receive() {
        char buffer[512];
        pollfd entry = {fd_.get(), POLLIN, 0};
        ssize_t length = ::poll(&entry, 1, patienceMs) > 0 ? ::recv(fd_.get(), buffer, sizeof(buffer), 0) : 0;
        seen_.append(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
        takeModemStatus();
        return length > 0;
    }

    // It comes unasked, between anything else.
    void takeModemStatus() {
        constexpr std::string_view head = "\xFF\xFA\x2C\x6B";
        constexpr std::string_view tail = "\xFF\xF0";
        for (std::size_t at = 0; (at = seen_.find(head, at)) != std::string::npos;) {
            if (seen_.compare(std::min(at + head.size() + 1, seen_.size()), tail.size(), tail) != 0) {
                return;
            }
            modemStatus_ = static_cast<std::uint8_t>(seen_[at + head.size()]);
            seen_.erase(at, head.size() + 1 + tail.size());
        }
    }

    UniqueFd fd_;
    std::string seen_;
    std::optional<std::uint8_t> modemStatus_;
};

void tryNetwork(const std::string& url) {
    using namespace std::string_literals;
    constexpr std::uint8_t all = SERIAL_MSR_CTS | SERIAL_MSR_DSR | SERIAL_MSR_RI | SERIAL_MSR_DCD;
    NetClient client(url);
    require(client.say("\xFF\xFB\x2C") && client.told(all, SERIAL_MSR_CTS | SERIAL_MSR_DSR),
            "a network client is told the modem status: CTS and DSR are up, RI and DCD are not");
    bool changed = client.request(1, "\0\0\x25\x80"s, "\0\0\x25\x80"s) && client.request(2, "\7", "\7") &&
                   client.request(3, "\3", "\3") && client.request(4, "\2", "\2");
    require(changed, "it sets 9600 7E2");
    bool set = client.request(1, "\0\1\xC2\0"s, "\0\1\xC2\0"s) && client.request(2, "\x08", "\x08") &&
               client.request(3, "\1", "\1") && client.request(4, "\1", "\1");
    require(set, "it sets 115200 8N1");
    bool toggled = client.request(5, "\x09", "\x09") && client.request(5, "\x08", "\x08") &&
                   client.request(5, "\x0C", "\x0C") && client.request(5, "\x0B", "\x0B");
    require(toggled, "it drops and raises DTR and RTS");
    require(client.ask("AT\r", "OK"), "the modem answers it");
    require(client.say("ATD" + echoNumber() + "\r") && client.told(SERIAL_MSR_DCD, SERIAL_MSR_DCD),
            "it dials, and is told of the carrier");
    require(client.expect("CONNECT 115200\r"), "the modem knows the rate");
    require(client.request(5, "\x09", "\x09") && client.told(SERIAL_MSR_DCD, 0), "it drops DTR: the modem hangs up");
}

std::filesystem::path temporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "comport-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("cannot make a temporary directory: " + std::string(std::strerror(errno)));
    }
    return name;
}

}  // namespace

int runCheck(const Options& given) {
    Options options = given;
    std::filesystem::path directory = temporaryDirectory();
    options.ptyLink = (directory / "port").string();
    options.rfc2217 = NetAddress{};
    int exitCode = 0;
    {
        Server server(options);
        const ServedPort& port = *server.served().at(0);
        std::printf("%s on %s\n", port.name().c_str(), port.link().c_str());
        try {
            tryEverything(server, port.link());
            tryNetwork(port.urls().front());
        } catch (const std::runtime_error& error) {
            std::printf("  FAILED: %s\n", error.what());
            exitCode = 1;
        }
        std::vector<std::string> left = server.stop();
        for (const std::string& line : left) {
            std::printf("  LEFT: %s\n", line.c_str());
            exitCode = 1;
        }
        if (left.empty()) {
            std::printf("  ok: unloaded, nothing left allocated\n");
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    std::printf("%s\n", exitCode == 0 ? "check passed" : "check failed");
    return exitCode;
}

}  // namespace comport
