// The server's end of a USB/IP connection: bytes in, transfers out, and back. No socket, no thread; whoever runs it
// (usb/usbip_export.h) makes sure that one thread at a time calls it.
//
//   greeting --list--> the list leaves, over
//   greeting --import refused--> the refusal leaves, over
//   greeting --import granted--> lending --disconnected(), a client that lies, the device leaves--> over
//
// A request is lent a transfer until the device has ended it. An unlink cancels it, and the answer says which of the two was
// earlier: the request's own reply comes first, or the request gets none. Data that had moved when a transfer was cancelled is not
// lost: the request is answered with it.
//
// A client gets memory for what it has pending and no more than maximumBytes of it.
#pragma once

#include "usb/usbip_protocol.h"

#include <list>
#include <string>
#include <unordered_map>

namespace usb::usbip {

// What a server has to lend. Called from within the server's own calls.
class Lender {
public:
    virtual std::vector<DeviceRecord> list() = 0;
    // From ok until giveBack() the device is this connection's.
    virtual OperationStatus lend(const std::string& busId, DeviceRecord& device) = 0;
    // Ends, sooner or later, with Server::ended(). Not within this call.
    virtual void submit(Transfer* transfer) = 0;
    virtual void cancel(Transfer* transfer) = 0;

protected:
    ~Lender() = default;
};

class Server {
public:
    static constexpr std::uint32_t maximumLength = 1 << 20;  // of one request
    static constexpr std::size_t maximumBytes = 16 << 20;    // of all that are pending
    static constexpr std::size_t maximumRequests = 4096;

    // `completion` and `context` go into every transfer it submits.
    Server(Lender& lender, Transfer::Completion completion, void* context)
        : lender_(lender), completion_(completion), context_(context) {
        expect(Expected::operation, operationBytes);
    }

    void received(std::span<const std::uint8_t> bytes);
    // A transfer has completed.
    void ended(Transfer* transfer);
    // The client or the device has gone: nothing more is said. Transfers that are pending still have to end.
    void disconnected(const char* why = "");

    Bytes& output() { return output_; }
    // Nothing is taken any more; what output() holds is still to be sent.
    bool over() const { return over_; }
    bool lending() const { return lent_.has_value(); }
    const std::optional<DeviceRecord>& lent() const { return lent_; }
    std::size_t pending() const { return requests_.size(); }
    std::size_t pendingBytes() const { return pendingBytes_; }
    // Why it is over, for a log; empty when the client has gone by itself.
    const std::string& error() const { return error_; }

private:
    struct Request {
        Transfer transfer;
        std::uint32_t sequence = 0;
        bool unlinked = false;
        std::uint32_t unlinkSequence = 0;
        Bytes data;
    };
    enum class Expected : std::uint8_t { operation, busId, message, payload };

    void expect(Expected what, std::size_t size);
    void recordComplete();
    void takeOperation();
    void lend();
    void sendList();
    void takeMessage();
    void takeSubmit(const Message& message);
    bool fill(Request& request, const Message& message);
    void submit();
    void takeUnlink(const Message& message);
    void answer(Request& request, std::int32_t status);
    void answerUnlink(std::uint32_t sequence, std::int32_t status);

    Lender& lender_;
    const Transfer::Completion completion_;
    void* const context_;
    std::optional<DeviceRecord> lent_;
    std::string error_;
    bool over_ = false;
    Bytes output_;

    Expected expected_ = Expected::operation;
    std::array<std::uint8_t, headerBytes> record_{};
    std::span<std::uint8_t> missing_;
    std::list<Request> coming_;  // the request whose payload is being received, at most one

    std::list<Request> requests_;  // at the lender
    std::unordered_map<std::uint32_t, std::list<Request>::iterator> bySequence_;
    std::size_t pendingBytes_ = 0;
};

}  // namespace usb::usbip
