// The whole program in this process, on the real clock: what only a real terminal shows.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "comport/server.h"

namespace {

// Waits for `answer`, at most 5 s.
bool answered(int fd, const std::string& answer) {
    std::string seen;
    for (pollfd entry{fd, POLLIN, 0}; seen.find(answer) == std::string::npos;) {
        char bytes[256];
        if (poll(&entry, 1, 5000) <= 0) {
            return false;
        }
        const ssize_t n = read(fd, bytes, sizeof bytes);
        seen.append(bytes, n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    return true;
}

// An application that opens the terminal in the moment its name appears.
bool opensAtOnce(const std::string& link, const std::atomic<bool>& serving) {
    int fd = -1;
    while (fd < 0) {
        fd = open(link.c_str(), O_RDWR | O_NOCTTY);
        if (fd < 0 && serving) {
            fd = open(link.c_str(), O_RDWR | O_NOCTTY);
            break;
        }
    }
    termios settings{};
    tcgetattr(fd, &settings);
    cfmakeraw(&settings);
    tcsetattr(fd, TCSANOW, &settings);
    const bool good = write(fd, "AT\r", 3) == 3 && answered(fd, "OK");
    close(fd);
    return good;
}

TEST(Serve, open_at_the_first_moment) {
    const std::filesystem::path link = std::filesystem::temp_directory_path() / ("comport-serve-test-" + std::to_string(getpid()));
    for (int round = 0; round < 20; ++round) {
        std::filesystem::remove(link);
        comport::Options options;
        options.ptyLink = link.string();
        options.traceMask = 0;
        std::atomic<bool> serving{false};
        std::atomic<bool> good{false};
        std::thread application([&] { good = opensAtOnce(link.string(), serving); });
        comport::Server server(options);
        serving = true;
        application.join();
        EXPECT_TRUE(good) << "round " << round;
        EXPECT_TRUE(server.stop().empty());
    }
}

}  // namespace
