#include "usb/usbip_client.h"

#include "usb/endpoint_zero.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace usb::usbip {

namespace {

constexpr std::uint8_t descriptorConfiguration = 2, descriptorEndpoint = 5;
// A packet that holds the longest notification of a serial port whole.
constexpr std::uint16_t notificationBytes = 10;
constexpr std::uint8_t interruptInterval = 1;

bool isRequest(const Transfer& transfer, std::uint8_t requestType, std::uint8_t request) {
    return transfer.type == TransferType::control && transfer.setup.requestType == requestType &&
           transfer.setup.request == request;
}

std::string refusalText(OperationStatus status, const std::string& busId) {
    switch (status) {
    case OperationStatus::busy:
        return "the server has lent " + busId + " to somebody else";
    case OperationStatus::noDevice:
        return "the server has no device " + busId;
    default:
        return "the server refuses " + busId + " with status " + std::to_string(static_cast<std::uint32_t>(status));
    }
}

}  // namespace

void Client::connected(std::int64_t nowMs) {
    state_ = State::importing;
    error_.clear();
    output_.clear();
    device_ = {};
    configuration_ = 0;
    nowMs_ = nowMs;
    importDeadlineMs_ = nowMs + importTimeoutMs;
    put(output_, Operation{protocolVersion, OperationCode::importRequest, OperationStatus::ok});
    putBusId(output_, busId_);
    expect(Expected::operation, operationBytes);
}

void Client::disconnected(const std::string& why) {
    if (state_ == State::apart) return;
    state_ = State::apart;
    error_ = why;
    output_.clear();
    missing_ = {};
    unlinks_.clear();
    // In the order of their submission, as far as the numbers tell.
    std::vector<std::uint32_t> all;
    for (const auto& [sequence, pending] : pending_) all.push_back(sequence);
    std::ranges::sort(all);
    for (const std::uint32_t sequence : all) finishPending(sequence, TransferStatus::gone, 0);
}

void Client::tick(std::int64_t nowMs) {
    nowMs_ = nowMs;
    const auto due = deadlineMs();
    if (due && *due <= nowMs) lie(state_ == State::importing ? "does not answer the import" : "does not answer an unlink");
}

std::optional<std::int64_t> Client::deadlineMs() const {
    if (state_ == State::importing) return importDeadlineMs_;
    if (!unlinks_.empty()) return unlinks_.front().deadlineMs;
    return std::nullopt;
}

// Transfers in. ---------------------------------------------------------------------------------------------------------

std::uint32_t Client::nextSequence() {
    // After four thousand million of them a number may still be in use.
    do {
        ++sequence_;
    } while (sequence_ == 0 || pending_.contains(sequence_));
    return sequence_;
}

// Requests that would cost the connection, or that no server ever answers.
std::optional<TransferStatus> Client::refusal(const Transfer& transfer) const {
    if (state_ != State::attached) return TransferStatus::gone;
    if (transfer.type == TransferType::control) return std::nullopt;
    const bool unknown = packetSizesKnown_ && packetSizes_[endpointIndex(transfer.endpoint)] == 0;
    if (configuration_ == 0 || unknown) return TransferStatus::failed;
    if (transfer.isIn() && transfer.length == 0) return TransferStatus::ok;
    return std::nullopt;
}

// A server's host ends an interrupt transfer with a packet that is short or when there is no room left. A notification that
// fills a packet is to end its transfer at once.
std::uint32_t Client::wireLength(const Transfer& transfer) const {
    const std::uint16_t packet = packetSizes_[endpointIndex(transfer.endpoint)];
    const bool one = transfer.type == TransferType::interrupt && transfer.isIn() && packet >= notificationBytes;
    return one ? std::min<std::uint32_t>(transfer.length, packet) : transfer.length;
}

void Client::submit(Transfer* transfer, std::int64_t nowMs) {
    nowMs_ = nowMs;
    transfer->actual = 0;
    transfer->status = TransferStatus::ok;
    transfer->cancelRequested = false;
    transfer->backendTag = 0;
    if (const auto refused = refusal(*transfer)) return finish(transfer, *refused, 0);
    if (isRequest(*transfer, 0x00, requestSetConfiguration)) unlinkData();
    if (state_ != State::attached) return finish(transfer, TransferStatus::gone, 0);
    const bool control = transfer->type == TransferType::control;
    Message message;
    message.sequence = nextSequence();
    message.deviceId = device_.id();
    message.in = transfer->isIn();
    message.endpoint = control ? 0 : transfer->endpoint & 0x0F;
    message.flags = message.in ? flagDirectionIn : 0;
    message.length = wireLength(*transfer);
    message.interval = transfer->type == TransferType::interrupt ? interruptInterval : 0;
    if (control) message.setup = setupBytes(transfer->setup);
    put(output_, message);
    if (!message.in) output_.insert(output_.end(), transfer->data, transfer->data + transfer->length);
    transfer->backendTag = message.sequence;
    pending_.emplace(message.sequence, Pending{transfer, message.length, false, TransferStatus::cancelled});
}

void Client::cancel(Transfer* transfer, std::int64_t nowMs) {
    nowMs_ = nowMs;
    const auto found = pending_.find(static_cast<std::uint32_t>(transfer->backendTag));
    if (found == pending_.end() || found->second.transfer != transfer || found->second.unlinking) return;
    unlink(found->first, found->second, TransferStatus::cancelled);
}

void Client::unlink(std::uint32_t sequence, Pending& pending, TransferStatus as) {
    if (unlinks_.size() >= maximumUnlinks) return lie("answers no unlink");
    pending.unlinking = true;
    pending.unlinkedAs = as;
    Message message;
    message.command = Command::unlink;
    message.sequence = nextSequence();
    message.deviceId = device_.id();
    message.unlinked = sequence;
    put(output_, message);
    unlinks_.push_back({message.sequence, sequence, nowMs_ + unlinkTimeoutMs});
}

// What is pending across a change of the configuration would stay so for ever.
void Client::unlinkData() {
    std::vector<std::uint32_t> data;
    for (const auto& [sequence, pending] : pending_) {
        if (pending.transfer->type != TransferType::control && !pending.unlinking) data.push_back(sequence);
    }
    std::ranges::sort(data);
    for (const std::uint32_t sequence : data) {
        const auto found = pending_.find(sequence);
        if (found != pending_.end()) unlink(sequence, found->second, TransferStatus::failed);
    }
}

// Bytes in. -------------------------------------------------------------------------------------------------------------

void Client::expect(Expected what, std::size_t size) {
    expected_ = what;
    missing_ = std::span(record_).first(size);
}

void Client::received(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty() && state_ != State::apart) {
        const std::size_t count = std::min(bytes.size(), missing_.size());
        std::memcpy(missing_.data(), bytes.data(), count);
        missing_ = missing_.subspan(count);
        bytes = bytes.subspan(count);
        if (missing_.empty()) recordComplete();
    }
}

void Client::recordComplete() {
    switch (expected_) {
    case Expected::operation:
        return takeOperation();
    case Expected::device:
        device_ = deviceOf(record_);
        state_ = State::attached;
        return expect(Expected::message, headerBytes);
    case Expected::message:
        return takeMessage();
    case Expected::payload:
        return payloadComplete();
    }
}

void Client::takeOperation() {
    const auto operation = operationOf(record_);
    if (!operation || operation->code != OperationCode::importReply) return lie("does not speak USB/IP 1.1.1");
    if (operation->status != OperationStatus::ok) return disconnected(refusalText(operation->status, busId_));
    expect(Expected::device, deviceBytes);
}

void Client::takeMessage() {
    const auto message = messageOf(std::span(record_).first(headerBytes));
    if (!message) return lie("sent a message that is none");
    if (message->command == Command::submitReply) return takeSubmitReply(*message);
    if (message->command == Command::unlinkReply) return takeUnlinkReply(*message);
    lie("sent a request instead of a reply");
}

void Client::takeSubmitReply(const Message& message) {
    const auto found = pending_.find(message.sequence);
    if (found == pending_.end()) return lie("answers what nobody asked");
    const Pending& pending = found->second;
    if (message.actual > pending.length) return lie("answers with more than was asked for");
    reply_ = message;
    filling_ = message.sequence;
    expected_ = Expected::payload;
    // The reply itself does not say its direction.
    const bool payload = pending.transfer->isIn() && message.actual != 0;
    missing_ = payload ? std::span(pending.transfer->data, message.actual) : std::span<std::uint8_t>();
    if (!payload) payloadComplete();
}

void Client::payloadComplete() {
    TransferStatus status = transferStatus(reply_.status);
    if (status == TransferStatus::gone) return lie("says that the device has left");
    const auto found = pending_.find(filling_);
    const Pending& pending = found->second;
    if (status == TransferStatus::cancelled) status = pending.unlinking ? pending.unlinkedAs : TransferStatus::failed;
    if (status == TransferStatus::ok) {
        pending.transfer->actual = reply_.actual;
        learn(*pending.transfer);
    }
    expect(Expected::message, headerBytes);
    finishPending(filling_, status, reply_.actual);
}

void Client::takeUnlinkReply(const Message& message) {
    const auto unlink = std::ranges::find(unlinks_, message.sequence, &Unlink::sequence);
    if (unlink == unlinks_.end()) return lie("answers an unlink that nobody sent");
    const auto found = pending_.find(unlink->target);
    // Gone from the list when its own reply came first.
    if (found != pending_.end()) finishPending(found->first, found->second.unlinkedAs, 0);
    unlinks_.erase(unlink);
    expect(Expected::message, headerBytes);
}

// What the connection must know of the device goes by in its control transfers.
void Client::learn(const Transfer& transfer) {
    if (isRequest(transfer, 0x00, requestSetConfiguration)) configuration_ = static_cast<std::uint8_t>(transfer.setup.value);
    if (!isRequest(transfer, 0x80, requestGetDescriptor) || transfer.setup.value >> 8 != descriptorConfiguration) return;
    const std::span<const std::uint8_t> bytes(transfer.data, transfer.actual);
    for (std::size_t at = 0; at + 2 <= bytes.size() && bytes[at] >= 2; at += bytes[at]) {
        const auto entry = bytes.subspan(at);
        if (entry[1] != descriptorEndpoint || entry[0] < 7 || entry.size() < 7) continue;
        packetSizes_[endpointIndex(entry[2])] = static_cast<std::uint16_t>((entry[4] | entry[5] << 8) & 0x7FF);
        packetSizesKnown_ = true;
    }
}

// Completions out. ------------------------------------------------------------------------------------------------------

void Client::finishPending(std::uint32_t sequence, TransferStatus status, std::uint32_t actual) {
    Transfer* const transfer = pending_.find(sequence)->second.transfer;
    pending_.erase(sequence);
    finish(transfer, status, actual);
}

void Client::finish(Transfer* transfer, TransferStatus status, std::uint32_t actual) {
    transfer->status = status;
    transfer->actual = actual;
    transfer->backendTag = 0;
    transfer->next = nullptr;
    (finishedTail_ != nullptr ? finishedTail_->next : finishedHead_) = transfer;
    finishedTail_ = transfer;
}

Transfer* Client::takeFinished() {
    Transfer* const first = finishedHead_;
    if (first == nullptr) return nullptr;
    finishedHead_ = first->next;
    if (finishedHead_ == nullptr) finishedTail_ = nullptr;
    first->next = nullptr;
    return first;
}

}  // namespace usb::usbip
