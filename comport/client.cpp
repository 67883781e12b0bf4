#include "comport/client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "comport/control.h"
#include "comport/control_socket.h"
#include "comport/unique_fd.h"

namespace comport {

namespace {

using nlohmann::json;

constexpr std::size_t replyLimit = 1 << 20;
constexpr int patienceS = 30;  // an unplugging waits for the driver

json requestOf(const Options& options) {
    json request;
    switch (options.command) {
    case Command::list: request["command"] = "list"; break;
    case Command::status: request["command"] = "status"; break;
    default:
        request["command"] = "ctl";
        request["words"] = options.words;
    }
    if (!options.port.empty()) {
        request["port"] = options.port;
    }
    return request;
}

UniqueFd connectTo(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error(path + " is too long for a socket's path");
    }
    std::ranges::copy(path, address.sun_path);
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid() || ::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        bool absent = errno == ENOENT || errno == ECONNREFUSED;
        throw std::runtime_error(absent ? "no server runs at " + path + "; start one with comport serve"
                                        : "cannot reach the server at " + path + ": " + std::strerror(errno));
    }
    timeval patience = {patienceS, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    return fd;
}

std::string exchange(int fd, const std::string& request) {
    std::string reply;
    bool sent = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size());
    while (sent && reply.size() < replyLimit && !reply.ends_with('\n')) {
        char buffer[4096];
        ssize_t length = ::recv(fd, buffer, sizeof(buffer), 0);
        if (length <= 0) {
            break;
        }
        reply.append(buffer, static_cast<std::size_t>(length));
    }
    if (!reply.ends_with('\n')) {
        throw std::runtime_error("the server does not answer");
    }
    reply.pop_back();
    return reply;
}

// ---- tables ----

using Row = std::vector<std::string>;

std::string alignedOf(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            bool last = i + 1 == row.size();
            text += row[i] + (last ? "" : std::string(widths[i] - row[i].size() + 2, ' '));
        }
        text += "\n";
    }
    return text;
}

std::string plain(const json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string settingsText(const json& settings) {
    std::string parity = plain(settings.at("parity"));
    return plain(settings.at("baud")) + " " + plain(settings.at("dataBits")) +
           static_cast<char>(std::toupper(static_cast<unsigned char>(parity[0]))) + plain(settings.at("stopBits"));
}

std::string linesText(const json& lines) {
    std::string up;
    for (const auto& [name, level] : lines.items()) {
        up += level.get<bool>() ? (up.empty() ? "" : " ") + name : "";
    }
    return up.empty() ? "none up" : up;
}

std::string modemLinesText(const json& side) {
    std::string up;
    std::string held;
    for (const auto& [name, line] : side.at("lines").items()) {
        up += line.at("level").get<bool>() ? (up.empty() ? "" : " ") + name : "";
        held += line.at("held").get<bool>() ? (held.empty() ? "" : " ") + name : "";
    }
    return (up.empty() ? "none up" : up) + (held.empty() ? "" : " (held: " + held + ")");
}

std::string networkText(const json& urls, const char* between) {
    std::string text;
    for (const json& url : urls) {
        text += (text.empty() ? "" : between) + plain(url);
    }
    return text;
}

std::string listTable(const json& ports) {
    std::vector<Row> rows = {{"PORT", "MODEM", "STATE", "OPEN", "TERMINAL", "NETWORK", "DEVICE"}};
    const auto orNone = [](const std::string& text) { return text.empty() ? std::string("-") : text; };
    for (const json& port : ports) {
        rows.push_back({orNone(plain(port.at("name"))), plain(port.at("modem")), plain(port.at("state")),
                        port.at("open").get<bool>() ? "yes" : "no", orNone(plain(port.at("terminal"))),
                        orNone(networkText(port.at("network"), ",")), plain(port.at("device"))});
    }
    return alignedOf(rows);
}

// "3 in, 4 out" of counters by their names.
std::string countsText(const json& counts, std::initializer_list<std::pair<const char*, const char*>> names) {
    std::string text;
    for (const auto& [name, words] : names) {
        text += (text.empty() ? "" : ", ") + plain(counts.at(name)) + " " + words;
    }
    return text;
}

void addPpp(std::vector<Row>& rows, const json& ppp) {
    rows.push_back({"  PPP passes as", plain(ppp.at("state")) + " (framing " + plain(ppp.at("mode")) + ", escapes " +
                                           plain(ppp.at("escapes")) + ")"});
    rows.push_back({"  PPP frames", countsText(ppp, {{"framesIn", "in"},
                                                     {"framesOut", "out"},
                                                     {"fcsErrors", "with FCS errors"},
                                                     {"dropped", "dropped"}})});
    rows.push_back({"  of them framed", countsText(ppp.at("framed"), {{"framesIn", "in"},
                                                                      {"framesOut", "out"},
                                                                      {"missing", "missing"},
                                                                      {"badHeaders", "bad headers"},
                                                                      {"dropped", "dropped"}})});
    rows.push_back({"  framing", countsText(ppp.at("framed"), {{"starts", "times begun"}, {"refusals", "refused"}})});
}

std::string powerText(const json& power) {
    return plain(power.at("device")) + (power.at("wakeArmed").get<bool>() ? ", wakes the system" : "") +
           (power.at("idleNotification").get<bool>() ? ", idle notification outstanding" : "");
}

std::string statusTable(const json& port) {
    const json& open = port.at("port");
    const json& side = port.at("modemSide");
    const std::string name = plain(port.at("name"));
    std::vector<Row> rows = {{name.empty() ? "-" : name, plain(port.at("state")) + ", " +
                                                          (port.at("open").get<bool>() ? "open" : "not open") + ", " +
                                                          plain(port.at("modem"))},
                             {"  terminal", plain(port.at("terminal"))}};
    if (!port.at("network").empty()) {
        rows.push_back({"  network", networkText(port.at("network"), ", ")});
    }
    if (port.at("device") != "") {
        rows.push_back({"  device", plain(port.at("device"))});
    }
    if (port.at("captureDevice") != 0) {
        rows.push_back({"  in captures", "device " + plain(port.at("captureDevice"))});
    }
    rows.push_back({"  system", plain(port.at("power").at("system"))});
    rows.push_back({"  power", powerText(port.at("power"))});
    if (!open.is_null()) {
        rows.push_back({"  settings", settingsText(open.at("settings"))});
        rows.push_back({"  lines", linesText(open.at("lines"))});
        rows.push_back({"  in queue", plain(open.at("queues").at("in"))});
        rows.push_back({"  out queue", plain(open.at("queues").at("out"))});
    }
    if (!side.is_null()) {
        rows.push_back({"  modem's settings", settingsText(side.at("settings"))});
        rows.push_back({"  modem's lines", modemLinesText(side)});
    }
    if (!port.at("ppp").is_null()) {
        addPpp(rows, port.at("ppp"));
    }
    for (const auto& [name, count] : port.at("counters").items()) {
        std::string words;
        for (char c : name) {
            bool capital = c >= 'A' && c <= 'Z';
            words += capital ? std::string{' ', static_cast<char>(c - 'A' + 'a')} : std::string(1, c);
        }
        rows.push_back({"  " + words, plain(count)});
    }
    return alignedOf(rows);
}

}  // namespace

std::string tableOf(Command command, std::string_view reply) {
    json ports = json::parse(reply).at("ports");
    if (command == Command::list) {
        return listTable(ports);
    }
    std::string text;
    for (const json& port : ports) {
        text += statusTable(port);
    }
    return text;
}

int runClient(const Options& options) {
    if (options.command == Command::ctl) {
        OrderResult order = parseOrder(options.words);
        if (!order.order) {
            std::fprintf(stderr, "comport: %s\n", order.error.c_str());
            return 2;
        }
    }
    std::string path = options.controlPath.empty() ? controlSocketPath(false).string() : options.controlPath;
    std::string reply = exchange(connectTo(path).get(), requestOf(options).dump() + "\n");
    json parsed = json::parse(reply, nullptr, false);
    if (!parsed.is_object() || !parsed.value("ok", false)) {
        bool said = parsed.is_object() && parsed.contains("error");
        throw std::runtime_error(said ? plain(parsed["error"]) : "the server's reply is not understood");
    }
    if (options.json) {
        std::printf("%s\n", reply.c_str());
    } else if (options.command != Command::ctl) {
        std::fputs(tableOf(options.command, reply).c_str(), stdout);
    }
    return 0;
}

}  // namespace comport
