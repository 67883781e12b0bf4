// Arbitrary bytes from a network client, in pieces as the input says. Nothing it sends may crash, hang or grow without bounds,
// and what a client that keeps to the protocol is sent back must keep to it, too.
#include "comport/net_terminal.h"
#include "fuzz/require.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

using fuzz::require;
using namespace comport;

namespace {

// What the bridge does: takes everything, and answers every control.
void serve(NetTerminal& terminal, std::uint8_t choice) {
    std::uint8_t space[512];
    for (int rounds = 0; rounds < 4096; ++rounds) {
        TerminalInput input = terminal.read(std::span(space).first(choice % 7 == 0 ? 0 : sizeof(space)));
        require(input.length <= sizeof(space));
        if (input.kind == TerminalInput::Kind::none || input.kind == TerminalInput::Kind::closed) {
            return;
        }
        PortControl control;
        while (input.kind == TerminalInput::Kind::request && terminal.nextControl(control)) {
            require(control.length <= control.data.size());
            control.data.fill(choice);
            terminal.controlEnded(control, choice & 1 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        }
    }
}

// Every IAC in what is sent begins something known; negotiation has an option behind it, which may be any byte.
void checkOutput(const std::vector<std::uint8_t>& bytes) {
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        if (bytes[at] == 0xFF) {
            require(++at < bytes.size() && bytes[at] >= 0xF0);
            at += bytes[at] >= 0xFB && bytes[at] <= 0xFE ? 1 : 0;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    NetTerminal terminal(NetProtocol::rfc2217, "fuzz");
    std::span<const std::uint8_t> rest(data, size);
    while (!rest.empty() && !terminal.broken() && terminal.wantsBytes()) {
        std::uint8_t choice = rest[0];
        rest = rest.subspan(1);
        std::span<const std::uint8_t> piece = rest.first(std::min<std::size_t>(rest.size(), choice));
        rest = rest.subspan(piece.size());
        terminal.receive(piece);
        serve(terminal, choice);
        terminal.linesChanged(terminal.watchedEvents() & choice, choice);
        terminal.write(piece);
        require(terminal.output().size() < 8 * NetTerminal::outputLimit);
    }
    checkOutput(terminal.output());
    return 0;
}
