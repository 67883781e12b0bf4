// What list, status and ctl say and do: requests and replies without a socket, then the socket with real clients.
#include "comport/client.h"
#include "comport/control.h"
#include "comport/control_socket.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>

#include "comport/unique_fd.h"

using namespace comport;
using nlohmann::json;

namespace {

class FakeTarget final : public ControlTarget {
public:
    std::vector<PortStatus> ports() override { return ports_; }
    void carryOut(const std::string& port, const Order& order) override {
        if (order.action == Order::Action::drop) {
            throw std::runtime_error("the loop plug has no telephone line");
        }
        done += port + ":" + std::to_string(static_cast<int>(order.action)) + "," +
                std::to_string(static_cast<int>(order.line)) + "," +
                (order.level ? (*order.level ? "on" : "off") : "auto") + "," + std::to_string(order.value) +
                (order.escapes ? "/" + std::to_string(*order.escapes) : "") + " ";
        ++orders;
    }
    static PortStatus port(const std::string& name) {
        PortStatus status;
        status.name = name;
        status.device = "USB\\VID_1209&PID_0001\\0001";
        status.modem = "modem";
        status.state = "started";
        status.terminal = "/tmp/" + name;
        status.counters.bytesIn = 5'000'000'000;
        return status;
    }

    std::vector<PortStatus> ports_{port("COM3")};
    std::string done;
    std::atomic<int> orders{0};
};

std::string errorOf(ControlTarget& target, const std::string& request) {
    json reply = json::parse(answer(target, request));
    return reply.at("ok").get<bool>() ? "" : reply.at("error").get<std::string>();
}

std::string ctl(std::vector<std::string> words) {
    return json{{"command", "ctl"}, {"words", words}}.dump();
}

TEST(ControlOrders, AreUnderstoodOrRefusedWithAReason) {
    struct {
        std::vector<std::string> words;
        std::string outcome;  // what was done, or part of the reason
        bool accepted;
    } const cases[] = {
        {{"line", "dcd", "on"}, "COM3:0,0,on,0 ", true},
        {{"line", "HOLD", "off"}, "COM3:0,4,off,0 ", true},
        {{"line", "cts", "auto"}, "COM3:0,3,auto,0 ", true},
        {{"break"}, "COM3:1,0,auto,4 ", true},
        {{"error", "parity"}, "COM3:1,0,auto,32 ", true},
        {{"ring"}, "COM3:2,0,auto,4294967295 ", true},
        {{"ring", "2"}, "COM3:2,0,auto,2 ", true},
        {{"unplug"}, "COM3:4,0,auto,0 ", true},
        {{"plug"}, "COM3:5,0,auto,0 ", true},
        {{"trace", "0x800000FF"}, ":6,0,auto,2147483903 ", true},
        {{"frame", "off"}, "COM3:7,0,auto,1 ", true},
        {{"frame", "Twice", "a0000"}, "COM3:7,0,auto,4/655360 ", true},
        {{"frame", "never"}, "'never'", false},
        {{"frame", "on", "100000000"}, "hexadecimal", false},
        {{"frame", "on", ""}, "hexadecimal", false},
        {{"sleep"}, ":8,0,auto,3 ", true},
        {{"sleep", "s4"}, ":8,0,auto,4 ", true},
        {{"wake"}, ":9,0,auto,0 ", true},
        {{"suspend"}, "COM3:10,0,auto,1 ", true},
        {{"suspend", "0"}, "COM3:10,0,auto,0 ", true},
        {{"sleep", "S5"}, "'S5'", false},
        {{"sleep", "3"}, "'3'", false},
        {{"suspend", "soon"}, "'soon'", false},
        {{"suspend", "3601"}, "3600", false},
        {{"drop"}, "no telephone line", false},
        {{}, "--help", false},
        {{"jump"}, "'jump'", false},
        {{"line", "dcd"}, "usage: comport ctl line", false},
        {{"line", "dtr", "on"}, "'dtr'", false},
        {{"line", "dcd", "up"}, "'up'", false},
        {{"break", "now"}, "usage", false},
        {{"error", "ring"}, "'ring'", false},
        {{"ring", "0"}, "'0'", false},
        {{"ring", "-1"}, "'-1'", false},
        {{"trace", "0x100000000"}, "32 bits", false},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.words));
        FakeTarget target;
        std::string error = errorOf(target, ctl(test.words));
        if (test.accepted) {
            EXPECT_EQ(error + target.done, test.outcome);
        } else {
            EXPECT_NE(error.find(test.outcome), std::string::npos) << error;
            EXPECT_EQ(target.done, "");
        }
    }
}

TEST(ControlRequests, NameAPortWhenThereAreSeveral) {
    FakeTarget target;
    target.ports_.push_back(FakeTarget::port("COM7"));
    EXPECT_NE(errorOf(target, ctl({"break"})).find("--port"), std::string::npos);
    EXPECT_EQ(errorOf(target, R"({"command":"ctl","port":"com7","words":["break"]})"), "");
    EXPECT_EQ(target.done, "COM7:1,0,auto,4 ");
    EXPECT_EQ(errorOf(target, ctl({"wake"})), "") << "is about the machine";
    EXPECT_NE(errorOf(target, R"({"command":"status","port":"COM8"})").find("COM8"), std::string::npos);
    EXPECT_EQ(json::parse(answer(target, R"({"command":"list"})"))["ports"].size(), 2u);
    target.ports_.clear();
    EXPECT_NE(errorOf(target, ctl({"break"})), "");
    EXPECT_EQ(errorOf(target, R"({"command":"list"})"), "") << "no port is an answer, too";
}

TEST(ControlRequests, HostileOnesGetAReplyAndDoNothing) {
    const std::string cases[] = {"", "x", "[]", "{}", "7", R"({"command":7})", R"({"command":"stop"})",
                                 R"({"command":"status","port":[]})", R"({"command":"ctl","words":"break"})",
                                 R"({"command":"ctl","words":[["break"]]})", "{\"command\":\"\xFF\"}",
                                 std::string(4000, '[')};
    FakeTarget target;
    for (const std::string& request : cases) {
        EXPECT_NE(errorOf(target, request), "") << request;
    }
    EXPECT_EQ(target.done, "");
}

TEST(ControlSessions, LinesCutAnywhereAndBounded) {
    const std::string request = ctl({"break"}) + "\n" + ctl({"jump"}) + "\n";
    for (std::size_t cut = 0; cut <= request.size(); ++cut) {
        FakeTarget target;
        ControlSession session(target);
        std::string replies = session.take(request.substr(0, cut));
        replies += session.take(request.substr(cut));
        EXPECT_EQ(std::ranges::count(replies, '\n'), 2) << cut;
        EXPECT_EQ(target.orders, 1) << cut;
    }
    for (std::size_t length : {ControlSession::lineLimit, ControlSession::lineLimit + 1}) {
        FakeTarget target;
        ControlSession session(target);
        std::string padded = ctl({"break"});
        padded += std::string(length - padded.size(), ' ') + "\n" + ctl({"break"}) + "\n";
        std::string replies;
        for (std::size_t at = 0; at < padded.size() && !session.over(); at += 100) {
            replies += session.take(padded.substr(at, 100));
        }
        bool tooLong = length > ControlSession::lineLimit;
        EXPECT_EQ(session.over(), tooLong);
        EXPECT_EQ(target.orders, tooLong ? 0 : 2);
        EXPECT_EQ(std::ranges::count(replies, '\n'), tooLong ? 1 : 2);
    }
}

TEST(ControlTables, ShowOpenAndClosedPorts) {
    FakeTarget target;
    PortStatus open = FakeTarget::port("COM12");
    open.open = OpenPort{1200, 7, 2, 2, 1, 0xB0, 3, 4};
    open.lines[0] = {true, true};
    open.ppp = PppStatus{"framing", {modem::FramingMode::late, 0xA0000}, {11, 12, 13, 14}, {21, 22, 23, 24, 25, 26, 27}};
    open.systemState = "S0";
    open.deviceState = "D0";
    open.wakeArmed = true;
    target.ports_.push_back(open);
    PortStatus asleep = FakeTarget::port("COM13");
    asleep.asleep = asleep.idleOffered = true;
    asleep.systemState = "S3";
    asleep.deviceState = "D2";
    target.ports_.push_back(asleep);
    std::string list = tableOf(Command::list, answer(target, R"({"command":"list"})"));
    EXPECT_NE(list.find("\nCOM3   modem  started  no    /tmp/COM3"), std::string::npos) << list;
    EXPECT_NE(list.find("\nCOM12  modem  started  yes   /tmp/COM12"), std::string::npos) << list;
    EXPECT_NE(list.find("\nCOM13  modem  started  yes   /tmp/COM13"), std::string::npos) << "asleep, but open\n" << list;
    std::string status = tableOf(Command::status, answer(target, R"({"command":"status"})"));
    for (const char* text : {"COM3 ", "not open", "  settings             1200 7E2\n", "CTS DCD DSR DTR\n", "DCD (held: DCD)",
                             "5000000000", "held back reads", "115200 8N1",
                             "framing (framing LATE, escapes 000A0000)", "11 in, 12 out, 13 with FCS errors, 14 dropped",
                             "21 in, 22 out, 23 missing, 24 bad headers, 25 dropped", "26 times begun, 27 refused",
                             "D0, wakes the system\n", "  system               S3\n", "D2, idle notification outstanding\n"}) {
        EXPECT_NE(status.find(text), std::string::npos) << text << " in\n" << status;
    }
}

// ---- the socket ----

class ControlSockets : public testing::Test {
protected:
    ControlSockets() {
        std::string name = (std::filesystem::temp_directory_path() / "comport-test-XXXXXX").string();
        directory_ = ::mkdtemp(name.data());
    }
    ~ControlSockets() override { std::filesystem::remove_all(directory_); }
    std::filesystem::path path() const { return directory_ / "socket"; }

    // `call` is connect() or bind().
    UniqueFd at(int (*call)(int, const sockaddr*, socklen_t)) const {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path().string().copy(address.sun_path, sizeof(address.sun_path) - 1);
        UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(call(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        return fd;
    }
    UniqueFd connect() const { return at(::connect); }
    static void send(const UniqueFd& fd, const std::string& text) {
        EXPECT_EQ(::send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }
    // "" when the server closed.
    static std::string line(const UniqueFd& fd) {
        std::string text;
        char c = 0;
        while (::recv(fd.get(), &c, 1, 0) == 1 && c != '\n') {
            text += c;
        }
        return text;
    }

    std::filesystem::path directory_;
    FakeTarget target_;
};

TEST_F(ControlSockets, ReplacesALeftOverAndNothingElse) {
    at(::bind);
    {
        ControlSocket socket(path(), target_);
        EXPECT_THROW(ControlSocket(path(), target_), std::runtime_error) << "one server at a place";
        UniqueFd client = connect();
        send(client, "{\"command\":\"list\"}\n");
        EXPECT_TRUE(json::parse(line(client))["ok"].get<bool>());
    }
    EXPECT_FALSE(std::filesystem::exists(path()));
    UniqueFd file(::creat(path().c_str(), 0600));
    EXPECT_THROW(ControlSocket(path(), target_), std::runtime_error);
    EXPECT_TRUE(std::filesystem::is_regular_file(path()));
}

// Clients come, send halves of lines and go at any moment; each reply reaches the one who asked.
TEST_F(ControlSockets, ServesSeveralClientsAtOnce) {
    ControlSocket socket(path(), target_);
    UniqueFd first = connect();
    UniqueFd second = connect();
    send(first, "{\"command\":");
    send(second, ctl({"break"}) + "\n" + ctl({"jump"}) + "\n");
    EXPECT_TRUE(json::parse(line(second))["ok"].get<bool>());
    EXPECT_FALSE(json::parse(line(second))["ok"].get<bool>());
    {
        UniqueFd gone = connect();
        send(gone, "{\"command\":\"status\"}\n{\"comm");
    }
    send(first, "\"list\"}\n");
    EXPECT_EQ(json::parse(line(first))["ports"].size(), 1u);
    send(second, std::string(ControlSession::lineLimit + 1, 'x'));
    EXPECT_FALSE(json::parse(line(second))["ok"].get<bool>());
    EXPECT_EQ(line(second), "") << "closed after too long a line";
}

TEST_F(ControlSockets, BoundsItsClients) {
    ControlSocket socket(path(), target_);
    std::vector<UniqueFd> clients;
    for (std::size_t i = 0; i < ControlSocket::clientLimit; ++i) {
        clients.push_back(connect());
        send(clients.back(), "{\"command\":\"list\"}\n");
        EXPECT_NE(line(clients.back()), "");
    }
    UniqueFd tooMany = connect();
    EXPECT_EQ(line(tooMany), "");
    clients.clear();
    // The server sees the ends before it sees a later client, or refuses that one; it must admit one soon.
    std::string reply;
    for (int attempt = 0; attempt < 1000 && reply.empty(); ++attempt) {
        UniqueFd client = connect();
        ::send(client.get(), "{\"command\":\"list\"}\n", 19, MSG_NOSIGNAL);
        reply = line(client);
    }
    EXPECT_NE(reply, "");
}

}  // namespace
