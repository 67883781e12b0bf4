// The whole program in this process, on the real clock: what only a real terminal, a real socket or real threads show.
#include <asio.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "comport/port_loop.h"
#include "comport/server.h"
#include "tests/terminal.h"

namespace {

// An application that opens the terminal in the moment its name appears.
bool opensAtOnce(const std::string& link, const std::atomic<bool>& serving) {
    int fd = -1;
    for (bool last = false; fd < 0 && !last;) {
        last = serving;
        fd = open(link.c_str(), O_RDWR | O_NOCTTY);
    }
    test::makeRaw(fd);
    const bool good = write(fd, "AT\r", 3) == 3 && test::readUntil(fd, "OK", 5000).ends_with("OK");
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

bool ready(int fd, short events, int timeoutMs) {
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, timeoutMs) > 0;
}

// It writes until nobody takes more, and only then reads: nothing but its reading moves the bytes on.
TEST(Serve, what_a_client_leaves_unread_comes_later) {
    comport::Options options;
    options.ptyLink = (std::filesystem::temp_directory_path() / ("comport-unread-test-" + std::to_string(getpid()))).string();
    options.traceMask = 0;
    options.modem = comport::DeviceKind::loopback;
    options.tcp = comport::NetAddress{};
    comport::Server server(options);
    const std::string url = server.served().at(0)->urls().at(0);
    asio::io_context context;
    asio::ip::tcp::socket client(context, asio::ip::tcp::v4());
    // Takes little unread, and never waits.
    client.set_option(asio::socket_base::receive_buffer_size(65536));
    client.set_option(asio::socket_base::send_buffer_size(65536));
    client.connect({asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)))});
    client.non_blocking(true);
    const int fd = client.native_handle();
    std::string data(16 << 20, '\0'), back;
    std::ranges::generate(data, std::minstd_rand());
    std::size_t sent = 0;
    while (ready(fd, POLLOUT, 300)) {
        ASSERT_LT(sent, data.size()) << "the client is not held back";
        const ssize_t n = send(fd, &data[sent], data.size() - sent, MSG_NOSIGNAL);
        ASSERT_GT(n, 0);
        sent += static_cast<std::size_t>(n);
    }
    char piece[16384];
    while (back.size() < sent && ready(fd, POLLIN, 5000)) {
        const ssize_t n = recv(fd, piece, sizeof piece, 0);
        ASSERT_GT(n, 0);
        back.append(piece, static_cast<std::size_t>(n));
    }
    data.resize(sent);
    EXPECT_TRUE(back == data) << back.size() << " of " << sent;
    client.close();
    EXPECT_TRUE(server.stop().empty());
}

// Whatever is said before a wake is seen by a step after it, from threads and from the steps themselves.
TEST(Loop, no_wake_is_lost) {
    constexpr int callers = 3, calls = 20000, again = 1000;
    std::atomic<int> said{0}, own{0};
    std::atomic<bool> stop{false};
    std::promise<void> all;
    bool told = false;
    comport::PortLoop* self = nullptr;
    comport::PortLoop loop([&] {
        if (own < again) {
            ++own;
            self->wake();
        } else if (said == callers * calls && !std::exchange(told, true)) {
            all.set_value();
        }
        if (stop) {
            self->stop();
        }
    });
    self = &loop;
    loop.start([&] { loop.step(); });
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < callers; ++i) {
            threads.emplace_back([&] {
                for (int call = 0; call < calls; ++call) {
                    ++said;
                    loop.wake();
                }
            });
        }
    }
    EXPECT_EQ(all.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready)
        << "said " << said << ", by itself " << own;
    stop = true;
    loop.wake();
    loop.join();
}

}  // namespace
