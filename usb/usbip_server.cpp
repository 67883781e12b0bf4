#include "usb/usbip_server.h"

#include <algorithm>
#include <cstring>

namespace usb::usbip {

void Server::disconnected(const char* why) {
    if (over_) return;
    over_ = true;
    error_ = why;
    if (lent_) output_.clear();
    missing_ = {};
    coming_.clear();
    for (Request& request : requests_) lender_.cancel(&request.transfer);
}

// Bytes in. -------------------------------------------------------------------------------------------------------------

void Server::expect(Expected what, std::size_t size) {
    expected_ = what;
    missing_ = std::span(record_).first(size);
}

void Server::received(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty() && !over_) {
        const std::size_t count = std::min(bytes.size(), missing_.size());
        std::memcpy(missing_.data(), bytes.data(), count);
        missing_ = missing_.subspan(count);
        bytes = bytes.subspan(count);
        if (missing_.empty()) recordComplete();
    }
}

void Server::recordComplete() {
    switch (expected_) {
    case Expected::operation:
        return takeOperation();
    case Expected::busId:
        return lend();
    case Expected::message:
        return takeMessage();
    case Expected::payload:
        return submit();
    }
}

void Server::takeOperation() {
    const auto operation = operationOf(record_);
    if (!operation) return disconnected("the client does not speak USB/IP 1.1.1");
    if (operation->code == OperationCode::listRequest) return sendList();
    if (operation->code == OperationCode::importRequest) return expect(Expected::busId, busIdBytes);
    disconnected("the client sent a reply instead of a request");
}

void Server::sendList() {
    put(output_, Operation{protocolVersion, OperationCode::listReply, OperationStatus::ok});
    const std::vector<DeviceRecord> devices = lender_.list();
    putCount(output_, static_cast<std::uint32_t>(devices.size()));
    for (const DeviceRecord& device : devices) {
        put(output_, device);
        putInterfaces(output_, device);
    }
    over_ = true;
}

void Server::lend() {
    DeviceRecord device;
    const OperationStatus status = lender_.lend(busIdOf(record_), device);
    put(output_, Operation{protocolVersion, OperationCode::importReply, status});
    if (status != OperationStatus::ok) {
        over_ = true;
        return;
    }
    put(output_, device);
    lent_ = std::move(device);
    expect(Expected::message, headerBytes);
}

void Server::takeMessage() {
    const auto message = messageOf(record_);
    if (!message) return disconnected("the client sent a message that is none");
    expect(Expected::message, headerBytes);
    if (message->command == Command::submit) return takeSubmit(*message);
    if (message->command == Command::unlink) return takeUnlink(*message);
    disconnected("the client sent a reply instead of a request");
}

void Server::takeSubmit(const Message& message) {
    if (message.deviceId != lent_->id()) return disconnected("the client asks another device");
    if (bySequence_.contains(message.sequence)) return disconnected("the client used a sequence number twice");
    if (requests_.size() >= maximumRequests || message.length > maximumLength ||
        pendingBytes_ + message.length > maximumBytes) {
        return disconnected("the client asks for more than it may have pending");
    }
    Request& request = coming_.emplace_back();
    if (!fill(request, message)) {
        coming_.clear();
        return disconnected("the client sent a request that no device can have");
    }
    if (message.in || message.length == 0) return submit();
    expected_ = Expected::payload;
    missing_ = request.data;
}

bool Server::fill(Request& request, const Message& message) {
    request.sequence = message.sequence;
    Transfer& transfer = request.transfer;
    transfer.length = message.length;
    if (message.endpoint == 0) {
        transfer.type = TransferType::control;
        transfer.setup = setupOf(message.setup);
        // An OUT has as many bytes as it says; room for an IN may be more than it asks for.
        const bool fits = message.in ? transfer.setup.length <= message.length : transfer.setup.length == message.length;
        if (transfer.setup.length != 0 && transfer.setup.isIn() != message.in) return false;
        if (!fits) return false;
        transfer.length = transfer.setup.length;
    } else {
        if (message.endpoint > 15) return false;
        transfer.endpoint = static_cast<std::uint8_t>(message.endpoint | (message.in ? 0x80 : 0));
        // Only the device's descriptors tell, and they do not matter to who runs it.
        transfer.type = TransferType::bulk;
    }
    request.data.resize(transfer.length);
    transfer.data = request.data.data();
    transfer.complete = completion_;
    transfer.context = context_;
    transfer.backendData = nullptr;
    return true;
}

void Server::submit() {
    expect(Expected::message, headerBytes);
    requests_.splice(requests_.end(), coming_);
    const auto request = std::prev(requests_.end());
    pendingBytes_ += request->data.size();
    bySequence_.emplace(request->sequence, request);
    lender_.submit(&request->transfer);
}

void Server::takeUnlink(const Message& message) {
    const auto found = bySequence_.find(message.unlinked);
    // Answered already, and that reply is on its way; or never heard of.
    if (found == bySequence_.end()) return answerUnlink(message.sequence, statusOk);
    Request& request = *found->second;
    if (request.unlinked) return disconnected("the client unlinks a request twice");
    request.unlinked = true;
    request.unlinkSequence = message.sequence;
    lender_.cancel(&request.transfer);
}

// Replies out. ------------------------------------------------------------------------------------------------------------

void Server::ended(Transfer* transfer) {
    const auto request = std::ranges::find(requests_, transfer, [](Request& known) { return &known.transfer; });
    pendingBytes_ -= request->data.size();
    bySequence_.erase(request->sequence);
    std::list<Request> done;
    done.splice(done.end(), requests_, request);
    if (over_) return;
    const bool cancelled = request->unlinked && transfer->status == TransferStatus::cancelled;
    if (cancelled && transfer->actual == 0) return answerUnlink(request->unlinkSequence, statusReset);
    // What had moved moves on: as a short packet, or as the count of a request that was cut off.
    const bool kept = cancelled && transfer->isIn();
    answer(*request, kept ? statusOk : wireStatus(transfer->status));
    if (request->unlinked) answerUnlink(request->unlinkSequence, statusOk);
}

void Server::answer(Request& request, std::int32_t status) {
    Message message;
    message.command = Command::submitReply;
    message.sequence = request.sequence;
    message.status = status;
    message.actual = std::min(request.transfer.actual, request.transfer.length);
    put(output_, message);
    if (!request.transfer.isIn()) return;
    output_.insert(output_.end(), request.data.begin(), request.data.begin() + message.actual);
}

void Server::answerUnlink(std::uint32_t sequence, std::int32_t status) {
    Message message;
    message.command = Command::unlinkReply;
    message.sequence = sequence;
    message.status = status;
    put(output_, message);
}

}  // namespace usb::usbip
