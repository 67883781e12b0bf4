// The control socket's lines, in pieces of any size: every line gets one reply that is JSON, nothing is carried out but what the
// words say, and what is kept of a line is bounded.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "comport/control.h"
#include "fuzz/require.h"

namespace {

using fuzz::require;

class Target final : public comport::ControlTarget {
public:
    std::vector<comport::PortStatus> ports() override {
        comport::PortStatus closed;
        closed.name = "COM3";
        comport::PortStatus open;
        open.name = "COM4";
        open.open.emplace();
        open.open->parity = 7;
        return {closed, open};
    }
    void carryOut(const std::string& port, const comport::Order& order) override {
        require(port == "COM3" || port == "COM4" || (port.empty() && order.isForMachine()));
        require(static_cast<std::size_t>(order.line) < modem::lineCount);
        if (order.action == comport::Order::Action::unplug) {
            throw std::runtime_error("refused \xFF");
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    Target target;
    comport::ControlSession session(target);
    std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    auto lines = std::ranges::count(bytes, '\n');
    std::size_t piece = data[0] + 1u;
    std::string replies;
    for (; !bytes.empty() && !session.over(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
        replies += session.take(bytes.substr(0, piece));
    }
    auto answered = std::ranges::count(replies, '\n');
    require(session.over() ? answered <= lines + 1 : answered == lines);
    for (std::size_t at = 0, end; (end = replies.find('\n', at)) != std::string::npos; at = end + 1) {
        auto reply = nlohmann::json::parse(replies.begin() + static_cast<std::ptrdiff_t>(at),
                                           replies.begin() + static_cast<std::ptrdiff_t>(end), nullptr, false);
        require(reply.is_object() && reply.at("ok").is_boolean());
        require(reply["ok"].get<bool>() || reply.at("error").is_string());
    }
    return 0;
}
