// Arbitrary frames, bytes and times at the modem's PPP access server, and arbitrary device frames at its converter.
//
// The first byte chooses; then a list of actions: a kind, a length, that many bytes. What must hold: no memory fault, every frame that
// comes out is one and no longer than agreed, little comes out for little that goes in, the deadlines move on, and what comes out of
// the converter towards the call is whole PPP frames.
#include "fuzz/actions.h"
#include "modem/framing.h"
#include "modem/ppp_server.h"

namespace {

using fuzz::require;
using modem::PppEndpoint;

modem::PppSettings settingsOf(std::uint8_t choice) {
    modem::PppSettings settings;
    settings.authenticate = (choice & 1) != 0;
    settings.nameServers = (choice & 2) != 0;
    settings.receiveAccm = (choice & 4) != 0 ? modem::everyControlCharacter : 0;
    return settings;
}

class Player {
  public:
    explicit Player(std::uint8_t choice) : endpoint_(settingsOf(choice)), server_(settingsOf(choice), ring_) {
        framing_.call(true);
        heard_.reset(true);
    }

    void act(std::uint8_t kind, std::span<const std::uint8_t> bytes) {
        switch (kind % 5) {
        case 0:
        case 1:
            frame(bytes);
            break;
        case 2:
            line(bytes);
            break;
        case 3:
            pass(bytes.empty() ? 1 : 1 + bytes[0] * 40);
            break;
        case 4:
            device(bytes);
            break;
        }
    }

  private:
    void frame(std::span<const std::uint8_t> bytes) {
        endpoint_.input(bytes);
        // An answer and, at most, a request of its own, or what follows an accepted name.
        require(drain() <= 3);
        // The same over a line, its check sequence right.
        encoded_.clear();
        modem::encodeHdlc(encoded_, bytes, modem::everyControlCharacter);
        for (std::size_t at = 0; at < encoded_.size();) {
            const std::size_t count = std::min(encoded_.size() - at, server_.room());
            server_.take(std::span(encoded_).subspan(at, count));
            at += count;
            read();
        }
    }

    std::size_t drain() {
        std::size_t count = 0;
        for (; !endpoint_.output().empty(); endpoint_.dropOutput(), ++count) {
            const auto frame = endpoint_.output();
            const auto head = modem::pppHead(frame);
            require(head && head->length == 4 && frame.size() <= PppEndpoint::frameLimit);
            if (head->protocol != modem::pppIp)
                require(frame.size() >= 8 && frame.size() - 4 == static_cast<std::size_t>(frame[6] << 8 | frame[7]));
            else
                require(modem::internetChecksum(frame.subspan(4, 20)) == 0);
        }
        return count;
    }

    void line(std::span<const std::uint8_t> bytes) {
        if (server_.room() == 0)
            return;
        server_.take(bytes.first(std::min(bytes.size(), server_.room())));
        read();
    }

    // All that is there: whole frames with right check sequences.
    void read() {
        std::uint8_t block[512];
        while (const std::size_t count = ring_.pop(block)) {
            for (const std::uint8_t byte : std::span(block).first(count))
                heard_.put(byte);
            server_.pump();
        }
        require(!heard_.inFrame() && heard_.counters().fcsErrors + heard_.counters().tooLong + heard_.counters().aborted == 0);
    }

    void pass(std::int64_t ms) {
        const auto next = [&] {
            const auto a = endpoint_.nextDeadlineMs(), b = server_.nextDeadlineMs();
            return a && b ? std::min(a, b) : a ? a : b;
        };
        fuzz::pass(nowMs_, ms, next, [&] {
            endpoint_.tick(nowMs_);
            server_.tick(nowMs_);
            framing_.tick(nowMs_);
        });
        drain();
        read();
    }

    // An LCP frame lets the converter ask for framing; from then on the bytes are device frames.
    void device(std::span<const std::uint8_t> bytes) {
        if (framing_.state() == modem::Framing::State::bytes) {
            const std::uint8_t lcp[] = {0xFF, 0x03, 0xC0, 0x21, 1, 1, 0, 4};
            encoded_.clear();
            modem::encodeHdlc(encoded_, lcp, 0);
            framing_.watch(encoded_);
            require(framing_.start());
            framing_.tick(nowMs_);
        }
        framing_.unframe(bytes, call_);
        std::uint8_t block[512];
        while (const std::size_t count = call_.pop(block))
            framing_.frame(std::span(block).first(count));
        // No byte is kept that nobody asks for.
        while (framing_.framed().pop(block) != 0) {
        }
    }

    std::int64_t nowMs_ = 0;
    modem::ByteRing ring_{64 * 1024};
    modem::ByteRing call_{64 * 1024};
    PppEndpoint endpoint_;
    modem::PppServer server_;
    modem::Framing framing_;
    modem::HdlcDecoder heard_{PppEndpoint::frameLimit};
    std::vector<std::uint8_t> encoded_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::span input(data, size);
    Player player(input[0]);
    fuzz::play(input.subspan(1), player);
    return 0;
}
