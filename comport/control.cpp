#include "comport/control.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "comport/options.h"
#include "modem/line.h"

namespace comport {

namespace {

using nlohmann::json;

constexpr std::array<std::string_view, 5> parityNames{"none", "odd", "even", "mark", "space"};
constexpr std::array<std::string_view, 3> stopBitNames{"1", "1.5", "2"};

constexpr std::uint32_t maxIdleSeconds = 3600;

struct StatusBit {
    const char* name;
    std::uint32_t bit;
};
constexpr StatusBit dtrRtsBits[] = {{"DTR", 1}, {"RTS", 2}};
constexpr StatusBit modemStatusBits[] = {{"CTS", 0x10}, {"DSR", 0x20}, {"RI", 0x40}, {"DCD", 0x80}};

std::string upper(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return result;
}

std::string nameOf(std::span<const std::string_view> names, std::size_t value) {
    return value < names.size() ? std::string(names[value]) : std::to_string(value);
}

json settingsOf(std::uint32_t baud, std::uint8_t dataBits, std::uint8_t parity, std::uint8_t stopBits) {
    return {{"baud", baud},
            {"dataBits", dataBits},
            {"parity", nameOf(parityNames, parity)},
            {"stopBits", nameOf(stopBitNames, stopBits)}};
}

json openOf(const OpenPort& open) {
    json lines = json::object();
    for (const StatusBit& line : dtrRtsBits) {
        lines[line.name] = (open.dtrRts & line.bit) != 0;
    }
    if (open.modemStatus) {
        for (const StatusBit& line : modemStatusBits) {
            lines[line.name] = (*open.modemStatus & line.bit) != 0;
        }
    }
    return {{"settings", settingsOf(open.baud, open.dataBits, open.parity, open.stopBits)},
            {"lines", lines},
            {"queues", {{"in", open.inQueue}, {"out", open.outQueue}}}};
}

json countersOf(const PortCounters& counters) {
    return {{"bytesIn", counters.bytesIn},
            {"bytesOut", counters.bytesOut},
            {"zeroLengthPackets", counters.zeroLengthPackets},
            {"stalls", counters.stalls},
            {"resets", counters.resets},
            {"reinitialisations", counters.reinitialisations},
            {"reconnects", counters.reconnects},
            {"heldBackReads", counters.heldBackReads}};
}

std::string_view textOf(modem::FramingMode mode) {
    return std::ranges::find(modem::framingTexts, mode, &modem::FramingText::mode)->text;
}

json pppOf(const PppStatus& ppp) {
    json framed = {{"framesIn", ppp.framing.framesIn},
                   {"framesOut", ppp.framing.framesOut},
                   {"missing", ppp.framing.gaps},
                   {"badHeaders", ppp.framing.badHeaders},
                   {"dropped", ppp.framing.dropped},
                   {"starts", ppp.framing.starts},
                   {"refusals", ppp.framing.refusals}};
    return {{"state", ppp.state},
            {"mode", textOf(ppp.choice.mode)},
            {"escapes", modem::escapesText(ppp.choice.escapes)},
            {"framesIn", ppp.frames.framesIn},
            {"framesOut", ppp.frames.framesOut},
            {"fcsErrors", ppp.frames.fcsErrors},
            {"dropped", ppp.frames.dropped},
            {"framed", framed}};
}

json briefOf(const PortStatus& port) {
    return {{"name", port.name},         {"device", port.device},       {"modem", port.modem},
            {"state", port.state},       {"terminal", port.terminal},   {"pluggedIn", port.pluggedIn},
            {"open", port.open.has_value() || port.asleep}, {"network", port.network}};
}

json statusOf(const PortStatus& port) {
    json result = briefOf(port);
    result["captureDevice"] = port.captureDevice;
    result["port"] = port.open ? openOf(*port.open) : json(nullptr);
    json lines = json::object();
    for (const modem::LineText& text : modem::lineTexts) {
        const PortStatus::ModemLine& line = port.lines[static_cast<std::size_t>(text.line)];
        lines[std::string(text.text)] = {{"level", line.level}, {"held", line.held}};
    }
    const modem::LineCoding& coding = port.coding;
    result["modemSide"] = {{"settings", settingsOf(coding.rate, coding.dataBits, coding.parity, coding.stopBits)},
                           {"DTR", (port.controlLines & 1) != 0},
                           {"RTS", (port.controlLines & 2) != 0},
                           {"lines", lines}};
    if (!port.modemSide) {
        result["modemSide"] = nullptr;
    }
    result["ppp"] = port.ppp ? pppOf(*port.ppp) : json(nullptr);
    result["power"] = {{"system", port.systemState},
                       {"device", port.deviceState},
                       {"wakeArmed", port.wakeArmed},
                       {"idleNotification", port.idleOffered}};
    result["counters"] = countersOf(port.counters);
    return result;
}

std::string textOf(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string failure(const std::string& sentence) {
    return textOf({{"ok", false}, {"error", sentence}});
}

// The ports a request means: all, or the one it names. Throws when there is none.
std::vector<PortStatus> portsOf(ControlTarget& target, const json& request) {
    std::vector<PortStatus> ports = target.ports();
    auto name = request.find("port");
    if (name != request.end()) {
        if (!name->is_string()) {
            throw std::runtime_error("\"port\" must be a name");
        }
        std::string wanted = name->get<std::string>();
        std::erase_if(ports, [&](const PortStatus& port) { return upper(port.name) != upper(wanted); });
        if (ports.empty()) {
            throw std::runtime_error("there is no port " + wanted + " here; comport list shows the ports");
        }
    }
    return ports;
}

void control(ControlTarget& target, const json& request) {
    auto words = request.find("words");
    std::vector<std::string> texts;
    if (words != request.end() && words->is_array()) {
        for (const json& word : *words) {
            texts.push_back(word.is_string() ? word.get<std::string>() : std::string());
        }
    }
    OrderResult parsed = parseOrder(texts);
    if (!parsed.order) {
        throw std::runtime_error(parsed.error);
    }
    if (parsed.order->isForMachine() && !request.contains("port")) {
        target.carryOut("", *parsed.order);
        return;
    }
    std::vector<PortStatus> ports = portsOf(target, request);
    if (ports.size() != 1) {
        throw std::runtime_error(ports.empty() ? "there is no port" : "there are several ports; name one with --port");
    }
    target.carryOut(ports.front().name, *parsed.order);
}

// ---- orders ----

using Words = std::span<const std::string>;

std::string parseLine(Words words, Order& order) {
    auto line = std::ranges::find(modem::lineTexts, upper(words[0]), &modem::LineText::text);
    if (line == modem::lineTexts.end()) {
        return "'" + words[0] + "' is not a line; the modem has dcd, dsr, ri, cts and hold";
    }
    order.line = line->line;
    if (words[1] == "on" || words[1] == "off") {
        order.level = words[1] == "on";
    } else if (words[1] != "auto") {
        return "'" + words[1] + "' is not on, off or auto";
    }
    return "";
}

std::string parseError(Words words, Order& order) {
    auto error = std::ranges::find(modem::errorTexts, upper(words[0]), &modem::ErrorText::text);
    if (error == modem::errorTexts.end()) {
        return "'" + words[0] + "' is not an error; there are framing, parity and overrun";
    }
    order.value = error->bit;
    return "";
}

std::string parseRings(Words words, Order& order) {
    std::optional<std::uint32_t> rings = words.empty() ? modem::Line::untilAnswered : parseMask(words[0]);
    if (!rings || *rings == 0) {
        return "'" + words[0] + "' is not a number of rings";
    }
    order.value = *rings;
    return "";
}

std::string parseTrace(Words words, Order& order) {
    std::optional<std::uint32_t> mask = parseMask(words[0]);
    if (!mask) {
        return "'" + words[0] + "' is not a mask; give 32 bits as a number, 0x3 for example";
    }
    order.value = *mask;
    return "";
}

std::string parseFrame(Words words, Order& order) {
    auto mode = std::ranges::find(modem::framingTexts, upper(words[0]), &modem::FramingText::text);
    if (mode == modem::framingTexts.end()) {
        return "'" + words[0] + "' is no way to ask for framing; there are on, off, late, mid, twice and keep";
    }
    order.value = static_cast<std::uint32_t>(mode->mode);
    if (words.size() > 1) {
        order.escapes = modem::parseEscapes(words[1]);
        if (!order.escapes) {
            return "'" + words[1] + "' is not a map of control characters; give 32 bits in hexadecimal, 000A0000 for example";
        }
    }
    return "";
}

std::string parseSleep(Words words, Order& order) {
    const std::string state = words.empty() ? "S3" : upper(words[0]);
    if (state.size() != 2 || state[0] != 'S' || state[1] < '1' || state[1] > '4') {
        return "'" + words[0] + "' is not S1, S2, S3 or S4";
    }
    order.value = static_cast<std::uint32_t>(state[1] - '0');
    return "";
}

std::string parseSeconds(Words words, Order& order) {
    std::optional<std::uint32_t> seconds = words.empty() ? 1 : parseMask(words[0]);
    if (!seconds || *seconds > maxIdleSeconds) {
        return "'" + words[0] + "' is not a number of seconds; at most " + std::to_string(maxIdleSeconds) + ", 0 never suspends";
    }
    order.value = *seconds;
    return "";
}

std::string parseBreak(Words, Order& order) {
    order.value = modem::stateBreak;
    return "";
}

struct OrderForm {
    std::string_view word;
    Order::Action action;
    std::size_t minWords;  // behind the first
    std::size_t maxWords;
    std::string (*parse)(Words words, Order& order);
    std::string_view usage;
};

constexpr OrderForm orderForms[] = {
    {"line", Order::Action::line, 2, 2, parseLine, "line dcd|dsr|ri|cts|hold on|off|auto"},
    {"break", Order::Action::errors, 0, 0, parseBreak, "break"},
    {"error", Order::Action::errors, 1, 1, parseError, "error framing|parity|overrun"},
    {"ring", Order::Action::ring, 0, 1, parseRings, "ring [N]"},
    {"drop", Order::Action::drop, 0, 0, nullptr, "drop"},
    {"unplug", Order::Action::unplug, 0, 0, nullptr, "unplug"},
    {"plug", Order::Action::plug, 0, 0, nullptr, "plug"},
    {"frame", Order::Action::frame, 1, 2, parseFrame, "frame on|off|late|mid|twice|keep [ESCAPES]"},
    {"trace", Order::Action::trace, 1, 1, parseTrace, "trace MASK"},
    {"sleep", Order::Action::sleep, 0, 1, parseSleep, "sleep [S1|S2|S3|S4]"},
    {"wake", Order::Action::wake, 0, 0, nullptr, "wake"},
    {"suspend", Order::Action::suspend, 0, 1, parseSeconds, "suspend [SECONDS]"},
};

}  // namespace

OrderResult parseOrder(std::span<const std::string> words) {
    if (words.empty()) {
        return {std::nullopt, "nothing to do; comport ctl --help shows what can be done"};
    }
    auto form = std::ranges::find(orderForms, std::string_view(words[0]), &OrderForm::word);
    if (form == std::end(orderForms)) {
        return {std::nullopt, "'" + words[0] + "' cannot be done; comport ctl --help shows what can"};
    }
    Words rest = words.subspan(1);
    if (rest.size() < form->minWords || rest.size() > form->maxWords) {
        return {std::nullopt, "usage: comport ctl " + std::string(form->usage)};
    }
    Order order;
    order.action = form->action;
    std::string error = form->parse != nullptr ? form->parse(rest, order) : "";
    if (!error.empty()) {
        return {std::nullopt, error};
    }
    return {order, ""};
}

std::string_view orderHelp() {
    return "line NAME on|off|auto  hold dcd, dsr, ri, cts or hold (flow-off) up or down, or let it follow the modem\n"
           "break                  the modem receives a break\n"
           "error KIND             the modem receives a framing, parity or overrun error\n"
           "ring [N]               somebody calls, N times or until answered\n"
           "drop                   the far end hangs up\n"
           "unplug, plug           pull the modem's plug, put it in again\n"
           "frame MODE [ESCAPES]   when the modem asks for framed PPP transfers: on, off, late, mid, twice or keep\n"
           "trace MASK             what the driver traces, from the next opening of the port on\n"
           "sleep [S1..S4], wake   the machine goes to sleep (S3) and wakes up\n"
           "suspend [SECONDS]      suspend the modem whenever nothing happens for that long (1; 0: never)";
}

std::string answer(ControlTarget& target, std::string_view request) {
    json parsed = json::parse(request, nullptr, false);
    auto command = parsed.is_object() ? parsed.find("command") : parsed.end();
    if (!parsed.is_object() || command == parsed.end() || !command->is_string()) {
        return failure("not a request: a JSON object with \"command\" is expected");
    }
    try {
        const std::string& name = command->get_ref<const std::string&>();
        json reply = {{"ok", true}};
        if (name == "list" || name == "status") {
            reply["ports"] = json::array();
            for (const PortStatus& port : portsOf(target, parsed)) {
                reply["ports"].push_back(name == "list" ? briefOf(port) : statusOf(port));
            }
        } else if (name == "ctl") {
            control(target, parsed);
        } else {
            throw std::runtime_error("'" + name + "' is not a command; there are list, status and ctl");
        }
        return textOf(reply);
    } catch (const std::runtime_error& error) {
        return failure(error.what());
    }
}

std::string ControlSession::take(std::string_view bytes) {
    std::string replies;
    while (!bytes.empty() && !over_) {
        std::size_t end = std::min(bytes.find('\n'), bytes.size());
        if (line_.size() + end > lineLimit) {
            over_ = true;
            line_.clear();
            replies += failure("the line is too long") + "\n";
            break;
        }
        line_ += bytes.substr(0, end);
        if (end == bytes.size()) {
            break;
        }
        bytes.remove_prefix(end + 1);
        replies += answer(target_, line_) + "\n";
        line_.clear();
    }
    return replies;
}

}  // namespace comport
