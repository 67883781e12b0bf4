// What a USB/IP client says, in pieces of any size, to a server whose device ends requests now, later or when they are unlinked:
// each request is lent exactly once and ended once, and nobody gets more memory than is allowed.
#include "usb/usbip_server.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

using namespace usb::usbip;
using usb::Transfer;
using usb::TransferStatus;

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

class Desk final : Lender {
public:
    void hear(std::span<const std::uint8_t> bytes) {
        server_.received(bytes);
        require(server_.pending() == held_.size());
        require(server_.pendingBytes() <= Server::maximumBytes && held_.size() <= Server::maximumRequests);
        if (server_.output().size() > 1'000'000) server_.output().clear();
    }
    // Ends one of those that are pending.
    void end(std::uint8_t which, std::uint8_t how) {
        if (held_.empty()) return;
        const std::size_t at = which % held_.size();
        Transfer* const transfer = held_[at];
        held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(at));
        const bool cancelled = std::ranges::find(cancelled_, transfer) != cancelled_.end();
        std::erase(cancelled_, transfer);
        transfer->status = cancelled && how & 1 ? TransferStatus::cancelled : static_cast<TransferStatus>(how % 6);
        transfer->actual = how & 2 ? transfer->length : how & 4 ? transfer->length / 2 : 0;
        if (transfer->isIn()) std::fill_n(transfer->data, transfer->actual, how);
        server_.ended(transfer);
    }
    void finish() {
        server_.disconnected();
        while (!held_.empty()) end(0, 3);
        require(server_.pending() == 0 && server_.pendingBytes() == 0);
    }

private:
    std::vector<DeviceRecord> list() override { return {record()}; }
    OperationStatus lend(const std::string& busId, DeviceRecord& device) override {
        device = record();
        return busId == device.busId ? OperationStatus::ok : OperationStatus::noDevice;
    }
    void submit(Transfer* transfer) override {
        // The memory is all there.
        if (!transfer->isIn() && transfer->length != 0) require((transfer->data[transfer->length - 1] | 0xFF) == 0xFF);
        held_.push_back(transfer);
    }
    void cancel(Transfer* transfer) override {
        require(std::ranges::find(held_, transfer) != held_.end());
        cancelled_.push_back(transfer);
    }
    static DeviceRecord record() {
        DeviceRecord device;
        device.busId = "1-1";
        device.busNumber = 1;
        device.deviceNumber = 2;
        device.interfaceCount = 1;
        device.interfaces = {{2, 2, 1}};
        return device;
    }

    std::vector<Transfer*> held_, cancelled_;
    Server server_{*this, nullptr, nullptr};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Desk desk;
    std::span<const std::uint8_t> left(data, size);
    while (left.size() >= 3) {
        const std::uint8_t which = left[0], how = left[1];
        const std::size_t length = std::min<std::size_t>(left[2], left.size() - 3);
        desk.hear(left.subspan(3, length));
        if (which & 0x80) desk.end(which, how);
        left = left.subspan(3 + length);
    }
    desk.finish();
    return 0;
}
