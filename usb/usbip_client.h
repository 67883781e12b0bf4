// The client's end of a USB/IP connection: transfers in, bytes out, and back. No socket, no thread, no clock of its own; whoever
// runs it (usb/usbip_backend.h) makes sure that one thread at a time calls it.
//
//   apart --connected()--> importing --reply ok--> attached
//   importing --refused, no reply in time--> apart: error() says why
//   attached --disconnected(), a server that lies or does not answer--> apart: every transfer has finished as gone
//
// A transfer:
//
//   submit() --its reply--> finished as the server says
//   pending --cancel()--> unlinking --unlink reply--> finished as cancelled; --its own reply, first--> finished as that says
//
// What the server says is believed as far as it was asked for: a reply that nobody waits for, one that is longer than the request,
// or an unlink that is not answered in time ends the connection, for the bytes behind it cannot be told apart any more.
#pragma once

#include "usb/usbip_protocol.h"

#include <deque>
#include <string>
#include <unordered_map>

namespace usb::usbip {

class Client {
public:
    enum class State : std::uint8_t { apart, importing, attached };

    static constexpr std::int64_t importTimeoutMs = 5000;
    static constexpr std::int64_t unlinkTimeoutMs = 5000;
    static constexpr std::size_t maximumUnlinks = 4096;  // unanswered

    explicit Client(std::string busId) : busId_(std::move(busId)) {}

    // The connection stands; asks for the device. It comes unconfigured.
    void connected(std::int64_t nowMs);
    // The connection is over; `why` is kept unless something else ended it. Without one, nothing has gone wrong.
    void disconnected(const std::string& why);
    void received(std::span<const std::uint8_t> bytes);
    void tick(std::int64_t nowMs);

    // Legal in every state. The transfer finishes by takeFinished() only, also when it is refused.
    void submit(Transfer* transfer, std::int64_t nowMs);
    // Does nothing when the transfer has finished.
    void cancel(Transfer* transfer, std::int64_t nowMs);

    // To be sent; whoever sends takes away.
    Bytes& output() { return output_; }
    // The next transfer that has ended, null: none. Its `actual` and `status` are set.
    Transfer* takeFinished();
    bool anyFinished() const { return finishedHead_ != nullptr; }
    // When tick() is due.
    std::optional<std::int64_t> deadlineMs() const;

    State state() const { return state_; }
    // Why there is no connection, a clause without a full stop.
    const std::string& error() const { return error_; }
    // As the import reply has it, which may be zeros.
    const DeviceRecord& device() const { return device_; }
    // The one the device confirmed last; 0: none.
    std::uint8_t configuration() const { return configuration_; }
    std::size_t pending() const { return pending_.size(); }

private:
    struct Pending {
        Transfer* transfer = nullptr;
        std::uint32_t length = 0;  // as asked for on the wire
        bool unlinking = false;
        TransferStatus unlinkedAs = TransferStatus::cancelled;
    };
    struct Unlink {
        std::uint32_t sequence = 0;
        std::uint32_t target = 0;
        std::int64_t deadlineMs = 0;
    };
    enum class Expected : std::uint8_t { operation, device, message, payload };

    void expect(Expected what, std::size_t size);
    void recordComplete();
    void takeOperation();
    void takeMessage();
    void takeSubmitReply(const Message& message);
    void takeUnlinkReply(const Message& message);
    void payloadComplete();
    void lie(const char* what) { disconnected(std::string("the server ") + what); }
    void finish(Transfer* transfer, TransferStatus status, std::uint32_t actual);
    void finishPending(std::uint32_t sequence, TransferStatus status, std::uint32_t actual);
    void learn(const Transfer& transfer);
    std::optional<TransferStatus> refusal(const Transfer& transfer) const;
    std::uint32_t wireLength(const Transfer& transfer) const;
    void unlink(std::uint32_t sequence, Pending& pending, TransferStatus as);
    void unlinkData();
    std::uint32_t nextSequence();

    const std::string busId_;
    State state_ = State::apart;
    std::string error_;
    DeviceRecord device_;
    Bytes output_;
    std::int64_t nowMs_ = 0;
    std::int64_t importDeadlineMs_ = 0;

    // What is being received: a record, or the payload of the transfer `filling_`.
    Expected expected_ = Expected::operation;
    std::array<std::uint8_t, deviceBytes> record_{};
    std::span<std::uint8_t> missing_;
    std::uint32_t filling_ = 0;
    Message reply_;

    std::unordered_map<std::uint32_t, Pending> pending_;
    std::deque<Unlink> unlinks_;  // in the order of their deadlines
    Transfer* finishedHead_ = nullptr;
    Transfer* finishedTail_ = nullptr;
    std::uint32_t sequence_ = 0;

    std::uint8_t configuration_ = 0;
    std::array<std::uint16_t, 32> packetSizes_{};  // as the descriptors that were read say
    bool packetSizesKnown_ = false;
};

// How long to wait before the next attempt to reach a server that was lost: longer each time, from the start again after a
// connection that lasted.
class BackOff {
public:
    static constexpr std::int64_t firstMs = 250;
    static constexpr std::int64_t longestMs = 30'000;
    static constexpr std::int64_t lastedMs = 10'000;

    void connected(std::int64_t nowMs) { connectedMs_ = nowMs; }
    void lost(std::int64_t nowMs) {
        if (nowMs - connectedMs_ >= lastedMs) nextMs_ = firstMs;
    }
    std::int64_t nextMs() {
        const std::int64_t wait = nextMs_;
        nextMs_ = nextMs_ * 2 < longestMs ? nextMs_ * 2 : longestMs;
        return wait;
    }

private:
    std::int64_t connectedMs_ = 0;
    std::int64_t nextMs_ = firstMs;
};

}  // namespace usb::usbip
