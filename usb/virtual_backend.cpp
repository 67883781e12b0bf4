#include "usb/virtual_backend.h"

#include <algorithm>

namespace usb {

namespace {

constexpr std::int64_t unitsPerMs = 10000;
constexpr int handRounds = 64;

std::int64_t nowMs() { return static_cast<std::int64_t>(KeQueryInterruptTime()) / unitsPerMs; }

constexpr std::uint8_t addressOf(unsigned index) {
    return static_cast<std::uint8_t>((index & 0x0F) | ((index & 0x10) << 3));
}
static_assert(endpointIndex(addressOf(1)) == 1 && endpointIndex(addressOf(0x1F)) == 0x1F && addressOf(0x11) == 0x81);

}  // namespace

VirtualBackend::VirtualBackend(std::unique_ptr<Device> device, std::string location, Speed speed)
    : device_(std::move(device)), location_(std::move(location)), speed_(speed), zero_(*device_) {
    KeInitializeEvent(&event_, SynchronizationEvent, FALSE);
    KeInitializeDpc(&wakeDpc_, wakeThread, this);
    KeInitializeSpinLock(&lock_);
    KeInitializeMutex(&deviceMutex_, 0);
    hand_.backend = this;
    hand_.work = [](nt::HandWork& hand) { static_cast<Hand&>(hand).backend->serveByHand(); };
    hand_.handOver = [](nt::HandWork& hand) { static_cast<Hand&>(hand).backend->handOver(); };
    device_->setWake([this] { kick(); });
}

VirtualBackend::~VirtualBackend() {
    stop();
    device_->setWake({});
}

bool VirtualBackend::start(BackendEvents& events) {
    if (thread_.joinable()) return false;
    events_ = &events;
    goneReported_ = false;
    {
        SpinGuard guard(lock_);
        gone_ = stopping_ = cancels_ = oversleeps_ = false;
        server_ = Server::thread;
        kicked_ = true;
    }
    {
        MutexGuard device(deviceMutex_);
        suspended_ = mayWake_ = wakeDue_ = false;
        zero_.reset(0);
    }
    thread_.start("usb device", [this] { run(); });
    return true;
}

void VirtualBackend::stop() {
    if (!thread_.joinable()) return;
    {
        SpinGuard guard(lock_);
        stopping_ = true;
    }
    kick();
    thread_.join();
    KeFlushQueuedDpcs();
}

void VirtualBackend::submit(Transfer* transfer) {
    transfer->actual = 0;
    transfer->status = TransferStatus::ok;
    transfer->cancelRequested = false;
    transfer->backendTag = 0;
    bool wake;
    {
        SpinGuard guard(lock_);
        inbox_.push(transfer);
        wake = newRound();
    }
    if (wake) wakeLater();
}

// Callers hold locks that the thread will want at once: it is woken when this processor has let go of all of them, or left
// asleep when this thread will serve.
void VirtualBackend::wakeLater() {
    KeInsertQueueDpc(&wakeDpc_, nullptr, nullptr);
}

void VirtualBackend::wakeThread(PKDPC, PVOID context, PVOID, PVOID) {
    auto& self = *static_cast<VirtualBackend*>(context);
    if (nt::hasHand()) {
        SpinGuard guard(self.lock_);
        if (self.server_ == Server::woken) {
            self.server_ = Server::hand;
            nt::leaveToHand(self.hand_);
            return;
        }
    }
    KeSetEvent(&self.event_, 0, FALSE);
}

void VirtualBackend::cancel(Transfer* transfer) {
    bool wake;
    {
        SpinGuard guard(lock_);
        transfer->cancelRequested = true;
        cancels_ = true;
        wake = newRound();
    }
    if (wake) wakeLater();
}

bool VirtualBackend::resetPort() {
    {
        SpinGuard guard(lock_);
        if (gone_ || stopping_) return false;
    }
    {
        MutexGuard device(deviceMutex_);
        suspended_ = false;
        zero_.reset(zero_.configuration());
    }
    kick();
    return true;
}

bool VirtualBackend::suspend(bool remoteWake) {
    {
        MutexGuard device(deviceMutex_);
        if (remoteWake != zero_.remoteWakeEnabled()) zero_.enableRemoteWake(remoteWake);
        mayWake_ = remoteWake && zero_.remoteWakeEnabled();
        if (!suspended_) device_->suspended(true);
        suspended_ = true;
    }
    kick();
    return true;
}

bool VirtualBackend::resume() {
    {
        MutexGuard device(deviceMutex_);
        if (suspended_) device_->suspended(false);
        suspended_ = false;
        if (zero_.remoteWakeEnabled()) zero_.enableRemoteWake(false);
    }
    kick();
    return true;
}

void VirtualBackend::unplug() {
    {
        SpinGuard guard(lock_);
        gone_ = true;
    }
    kick();
}

// One more round, now or after the one that runs. True: the event must be set.
bool VirtualBackend::newRound() {
    kicked_ = true;
    if (server_ != Server::nobody) return false;
    server_ = Server::woken;
    return true;
}

void VirtualBackend::kick() {
    bool wake;
    {
        SpinGuard guard(lock_);
        wake = newRound();
    }
    if (wake) KeSetEvent(&event_, 0, FALSE);
}

void VirtualBackend::run() {
    for (;;) {
        Round round;
        {
            MutexGuard device(deviceMutex_);
            round = collect();
            serve(round);
        }
        deliver();
        report(round);
        if (round.stopping) return;
        sleep();
    }
}

// Moves what was submitted into the queues of the endpoints.
VirtualBackend::Round VirtualBackend::collect() {
    SpinGuard guard(lock_);
    const Round round{stopping_, gone_, cancels_};
    cancels_ = kicked_ = false;
    while (Transfer* transfer = inbox_.take()) {
        const unsigned index = transfer->type == TransferType::control ? 0 : endpointIndex(transfer->endpoint);
        queues_[index].push(transfer);
        active_ |= 1u << index;
    }
    return round;
}

void VirtualBackend::serve(const Round& round) {
    if (round.stopping || round.gone) {
        endEverything();
        deadlineMs_.reset();
        return;
    }
    if (round.cancels) sweepCancelled();
    device_->tick(nowMs());
    if (suspended_) {
        wakeDue_ = mayWake_ && device_->wantsRemoteWake();
        if (wakeDue_) mayWake_ = false;
    }
    // What one endpoint takes may let another one give, so go round until nothing moves.
    bool moved = !suspended_;
    while (moved) {
        moved = serveControl();
        for (std::uint32_t left = active_ & ~1u; left != 0; left &= left - 1) {
            const auto index = static_cast<unsigned>(__builtin_ctz(left));
            moved |= (index & 0x10) != 0 ? serveIn(index) : serveOut(index);
        }
    }
    deadlineMs_ = device_->nextDeadlineMs();
}

bool VirtualBackend::serveControl() {
    bool moved = false;
    // A request that is never answered holds up those behind it, as on the wire.
    while (Transfer* transfer = queues_[0].head) {
        if (transfer->backendTag != 0) break;
        serveControlTransfer(transfer);
        moved = true;
    }
    return moved;
}

void VirtualBackend::serveControlTransfer(Transfer* transfer) {
    const SetupPacket& setup = transfer->setup;
    const auto data = std::span(transfer->data, transfer->length);
    const std::uint8_t before = zero_.configuration();
    const ControlReply reply = zero_.answer(setup, data);
    if (before != zero_.configuration()) {
        for (unsigned index = 1; index < endpointCount; ++index) endWhole(index, TransferStatus::failed);
    }
    switch (reply.kind) {
    case ControlReply::Kind::ack:
        transfer->actual = setup.isIn() ? std::min(reply.length, transfer->length) : transfer->length;
        end(0, transfer, reply.length > transfer->length ? TransferStatus::overrun : TransferStatus::ok);
        break;
    case ControlReply::Kind::stall:
        end(0, transfer, TransferStatus::stalled);
        break;
    case ControlReply::Kind::never:
        transfer->backendTag = 1;
        break;
    }
}

bool VirtualBackend::serveOut(unsigned index) {
    const std::uint8_t address = addressOf(index);
    const std::uint16_t packetSize = zero_.packetSize(address);
    bool moved = false;
    while (Transfer* transfer = queues_[index].head) {
        if (packetSize == 0 || zero_.halted(address)) {
            endWhole(index, packetSize == 0 ? TransferStatus::failed : TransferStatus::stalled);
            return true;
        }
        const bool ends = transfer->length % packetSize == 0 ? transfer->length == 0 : true;
        const std::uint32_t left = transfer->length - transfer->actual;
        const std::int32_t taken =
            device_->dataOut(address, std::span<const std::uint8_t>(transfer->data + transfer->actual, left), ends);
        if (taken == dataNak) return moved;
        moved = true;
        if (taken < 0) {
            zero_.halt(address);
            continue;
        }
        const auto count = static_cast<std::uint32_t>(taken);
        transfer->actual += std::min(count, left);
        if (count > left) {
            end(index, transfer, TransferStatus::failed);
        } else if (count == left) {
            end(index, transfer, TransferStatus::ok);
        } else {
            return true;
        }
    }
    return moved;
}

bool VirtualBackend::serveIn(unsigned index) {
    const std::uint8_t address = addressOf(index);
    const std::uint16_t packetSize = zero_.packetSize(address);
    bool moved = false;
    while (Transfer* transfer = queues_[index].head) {
        if (packetSize == 0 || zero_.halted(address)) {
            endWhole(index, packetSize == 0 ? TransferStatus::failed : TransferStatus::stalled);
            return true;
        }
        const std::uint32_t space = transfer->length - transfer->actual;
        const std::int32_t given = device_->dataIn(address, std::span(transfer->data + transfer->actual, space));
        if (given == dataNak) return moved;
        moved = true;
        if (given < 0) {
            zero_.halt(address);
            continue;
        }
        const auto count = static_cast<std::uint32_t>(given);
        transfer->actual += std::min(count, space);
        if (count > space) {
            end(index, transfer, TransferStatus::overrun);
        } else if (count == space || count % packetSize != 0 || count == 0) {
            end(index, transfer, TransferStatus::ok);
        }
    }
    return moved;
}

void VirtualBackend::end(unsigned index, Transfer* transfer, TransferStatus status) {
    queues_[index].remove(transfer);
    if (queues_[index].head == nullptr) active_ &= ~(1u << index);
    transfer->status = status;
    finished_.push(transfer);
}

void VirtualBackend::endWhole(unsigned index, TransferStatus status) {
    while (Transfer* transfer = queues_[index].head) end(index, transfer, status);
}

void VirtualBackend::sweepCancelled() {
    SpinGuard guard(lock_);
    for (unsigned index = 0; index < endpointCount; ++index) {
        for (Transfer *transfer = queues_[index].head, *next; transfer != nullptr; transfer = next) {
            next = transfer->next;
            if (transfer->cancelRequested) end(index, transfer, TransferStatus::cancelled);
        }
    }
}

void VirtualBackend::endEverything() {
    for (unsigned index = 0; index < endpointCount; ++index) endWhole(index, TransferStatus::gone);
}

// Completions run at DISPATCH_LEVEL, as they do when real hardware interrupts; DPCs they queue run once at the end of the batch.
void VirtualBackend::deliver() {
    if (finished_.head == nullptr) return;
    const KIRQL irql = KeRaiseIrqlToDpcLevel();
    while (Transfer* transfer = finished_.take()) transfer->complete(transfer);
    KeLowerIrql(irql);
}

void VirtualBackend::report(const Round& round) {
    if (round.gone && !goneReported_) {
        goneReported_ = true;
        events_->gone();
    }
    // Only this thread sets and clears wakeDue_.
    if (wakeDue_) {
        wakeDue_ = false;
        events_->remoteWake();
    }
}

// Until something is new or the device's timer is due.
void VirtualBackend::sleep() {
    const std::optional<std::int64_t> deadlineMs = deadlineMs_;
    {
        SpinGuard guard(lock_);
        if (kicked_) return;
        sleepsUntilMs_ = deadlineMs;
        server_ = Server::nobody;
    }
    do {
        LARGE_INTEGER timeout{};
        LARGE_INTEGER* limit = nullptr;
        if (deadlineMs && !oversleeps_) {
            const auto now = static_cast<std::int64_t>(KeQueryInterruptTime());
            timeout.QuadPart = std::min<std::int64_t>(now - *deadlineMs * unitsPerMs, 0);
            limit = &timeout;
        }
        KeWaitForSingleObject(&event_, Executive, KernelMode, FALSE, limit);
    } while (!endSleep());
}

// False: a hand serves, and will set the event.
bool VirtualBackend::endSleep() {
    SpinGuard guard(lock_);
    oversleeps_ = server_ == Server::hand;
    if (!oversleeps_) server_ = Server::thread;
    return !oversleeps_;
}

// What must be told of the device or is to end it is the thread's.
bool VirtualBackend::handRound() {
    {
        MutexGuard device(deviceMutex_);
        if (suspended_) return false;
        const Round round = collect();
        serve(round);
        if (round.stopping || round.gone) return false;
    }
    deliver();
    return true;
}

void VirtualBackend::serveByHand() {
    bool more = true;
    for (int rounds = 0; more && rounds < handRounds; ++rounds) {
        if (!handRound()) break;
        SpinGuard guard(lock_);
        more = kicked_;
        if (!more && !oversleeps_ && sleepsUntilMs_ == deadlineMs_) {
            server_ = Server::nobody;
            return;
        }
    }
    handOver();
}

void VirtualBackend::handOver() {
    {
        SpinGuard guard(lock_);
        kicked_ = true;
        server_ = Server::woken;
    }
    KeSetEvent(&event_, 0, FALSE);
}

}  // namespace usb
