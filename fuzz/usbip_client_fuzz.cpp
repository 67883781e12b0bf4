// What a USB/IP server says, in pieces of any size, to a client with requests of every kind pending: each transfer ends exactly
// once, no byte lands outside its memory, and what is kept stays bounded.
#include "fuzz/actions.h"
#include "usb/usbip_client.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <span>
#include <vector>

using namespace usb::usbip;
using fuzz::require;
using usb::Transfer;
using usb::TransferStatus;
using usb::TransferType;

namespace {

// Exactly as much memory as was asked for, so that the sanitizer sees one byte more.
struct Move {
    explicit Move(std::uint32_t length) : data(new std::uint8_t[length]) { transfer.length = length; }
    Transfer transfer;
    std::unique_ptr<std::uint8_t[]> data;
    bool pending = true;
};

class Host {
public:
    Host() { client_.connected(0); }

    void submit(std::uint8_t kind) {
        if (client_.pending() >= 64) return;
        constexpr std::array<std::uint32_t, 4> lengths = {0, 10, 64, 512};
        Move& move = moves_.emplace_back(lengths[kind & 3]);
        Transfer& transfer = move.transfer;
        transfer.data = move.data.get();
        transfer.context = &move;
        switch (kind >> 2 & 3) {
        case 0:
            transfer.type = TransferType::control;
            transfer.setup = {static_cast<std::uint8_t>(kind & 0x10 ? 0x80 : 0x00), static_cast<std::uint8_t>(kind & 0x10 ? 6 : 9),
                              static_cast<std::uint16_t>(kind & 0x10 ? 0x0200 : 1), 0, static_cast<std::uint16_t>(transfer.length)};
            break;
        case 1:
            transfer.type = TransferType::interrupt;
            transfer.endpoint = 0x82;
            break;
        default:
            transfer.endpoint = kind & 0x10 ? 0x81 : 0x01;
        }
        client_.submit(&transfer, now_);
        collect();
    }
    void cancel(std::uint8_t which) {
        if (moves_.empty()) return;
        auto at = std::next(moves_.begin(), which % static_cast<std::ptrdiff_t>(moves_.size()));
        if (at->pending) client_.cancel(&at->transfer, now_);
        collect();
    }
    void hear(std::span<const std::uint8_t> bytes) {
        client_.received(bytes);
        collect();
    }
    void pass(std::uint8_t seconds) {
        now_ += seconds * 100;
        client_.tick(now_);
        collect();
    }
    void end() {
        client_.disconnected("");
        collect();
        require(client_.pending() == 0 && moves_.empty());
    }

private:
    void collect() {
        while (Transfer* transfer = client_.takeFinished()) {
            Move* const move = static_cast<Move*>(transfer->context);
            require(move->pending && transfer->actual <= transfer->length);
            std::erase_if(moves_, [move](const Move& known) { return &known == move; });
        }
        require(moves_.size() == client_.pending());
        require(client_.state() != Client::State::apart || client_.pending() == 0);
        if (client_.output().size() > 100'000) client_.output().clear();
    }

    Client client_{"1-1"};
    std::list<Move> moves_;
    std::int64_t now_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Host host;
    fuzz::converse({data, size}, [&](std::uint8_t action, std::uint8_t value, std::span<const std::uint8_t> said) {
        switch (action & 3) {
        case 0:
            host.submit(value);
            break;
        case 1:
            host.cancel(value);
            break;
        case 2:
            host.pass(value & 0x0F);
            break;
        default:
            break;
        }
        host.hear(said);
    });
    host.end();
    return 0;
}
