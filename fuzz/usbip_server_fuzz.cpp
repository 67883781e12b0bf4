// What a USB/IP client says, in pieces of any size, to a server whose device ends requests now, later or when they are unlinked:
// each request is lent exactly once and ended once, and nobody gets more memory than is allowed.
#include "fuzz/actions.h"
#include "tests/support/usbip_desk.h"

#include <algorithm>
#include <cstdint>
#include <span>

using namespace usb::usbip;
using fuzz::require;
using usb::Transfer;
using usb::TransferStatus;

namespace {

class Desk final : test::UsbipDesk {
public:
    void hear(std::span<const std::uint8_t> bytes) {
        server.received(bytes);
        require(server.pending() == held.size());
        require(server.pendingBytes() <= Server::maximumBytes && held.size() <= Server::maximumRequests);
        if (server.output().size() > 1'000'000) server.output().clear();
    }
    // Ends one of those that are pending.
    void endOne(std::uint8_t which, std::uint8_t how) {
        if (held.empty()) return;
        Transfer* const transfer = held[which % held.size()];
        const bool unlinked = std::ranges::find(cancelled, transfer) != cancelled.end();
        const auto status = unlinked && how & 1 ? TransferStatus::cancelled : static_cast<TransferStatus>(how % 6);
        const std::uint32_t actual = how & 2 ? transfer->length : how & 4 ? transfer->length / 2 : 0;
        if (transfer->isIn()) std::fill_n(transfer->data, actual, how);
        end(transfer, status, actual);
    }
    void finish() {
        server.disconnected();
        endAll();
        require(server.pending() == 0 && server.pendingBytes() == 0);
    }

private:
    void submit(Transfer* transfer) override {
        // The memory is all there.
        if (!transfer->isIn() && transfer->length != 0) require((transfer->data[transfer->length - 1] | 0xFF) == 0xFF);
        UsbipDesk::submit(transfer);
    }
    void cancel(Transfer* transfer) override {
        require(std::ranges::find(held, transfer) != held.end());
        UsbipDesk::cancel(transfer);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Desk desk;
    fuzz::converse({data, size}, [&](std::uint8_t which, std::uint8_t how, std::span<const std::uint8_t> said) {
        desk.hear(said);
        if (which & 0x80) desk.endOne(which, how);
    });
    desk.finish();
    return 0;
}
