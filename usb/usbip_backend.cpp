#include "usb/usbip_backend.h"

#include "usb/usbip_socket.h"

#include <algorithm>

namespace usb {

namespace {

constexpr std::size_t pieceBytes = 65536;
constexpr int piecesPerRound = 16;
constexpr int resetAttempts = 8;
constexpr std::int64_t resetPauseMs = 250;

std::int64_t nowMs() { return static_cast<std::int64_t>(KeQueryInterruptTime()) / 10000; }

void pauseMs(std::int64_t ms) {
    LARGE_INTEGER time;
    time.QuadPart = -ms * 10000;
    KeDelayExecutionThread(KernelMode, FALSE, &time);
}

}  // namespace

UsbipBackend::UsbipBackend(std::unique_ptr<UsbipLink> link, std::string busId, const std::string& place)
    : link_(std::move(link)), location_("usbip://" + place + "/" + busId), client_(std::move(busId)), piece_(pieceBytes) {
    KeInitializeEvent(&started_, NotificationEvent, FALSE);
    KeInitializeEvent(&resetDone_, SynchronizationEvent, FALSE);
    KeInitializeDpc(&flushDpc_, flushLater, this);
    KeInitializeSpinLock(&lock_);
}

UsbipBackend::~UsbipBackend() { stop(); }

bool UsbipBackend::start(BackendEvents& events) {
    if (thread_.joinable()) return false;
    events_ = &events;
    goneReported_ = false;
    KeClearEvent(&started_);
    {
        SpinGuard guard(lock_);
        stopping_ = resetWanted_ = false;
        life_ = Life::starting;
    }
    thread_.start("usbip", [this] { run(); });
    KeWaitForSingleObject(&started_, Executive, KernelMode, FALSE, nullptr);
    bool running;
    {
        SpinGuard guard(lock_);
        running = life_ == Life::running;
    }
    if (!running) thread_.join();
    return running;
}

void UsbipBackend::stop() {
    if (!thread_.joinable()) return;
    {
        SpinGuard guard(lock_);
        stopping_ = true;
    }
    link_->wake();
    thread_.join();
    KeFlushQueuedDpcs();
}

void UsbipBackend::submit(Transfer* transfer) {
    bool refused;
    {
        SpinGuard guard(lock_);
        client_.submit(transfer, nowMs());
        refused = client_.anyFinished();
    }
    KeInsertQueueDpc(&flushDpc_, nullptr, nullptr);
    if (refused) link_->wake();
}

void UsbipBackend::cancel(Transfer* transfer) {
    {
        SpinGuard guard(lock_);
        client_.cancel(transfer, nowMs());
    }
    KeInsertQueueDpc(&flushDpc_, nullptr, nullptr);
    // It watches how long the answer takes.
    link_->wake();
}

bool UsbipBackend::resetPort() {
    {
        SpinGuard guard(lock_);
        if (life_ != Life::running || stopping_) return false;
        resetWanted_ = true;
        resetWorked_ = false;
    }
    link_->wake();
    KeWaitForSingleObject(&resetDone_, Executive, KernelMode, FALSE, nullptr);
    SpinGuard guard(lock_);
    return resetWorked_;
}

Speed UsbipBackend::speed() const {
    SpinGuard guard(lock_);
    return client_.device().speed >= 3 ? Speed::high : Speed::full;
}

std::string UsbipBackend::error() const {
    SpinGuard guard(lock_);
    return client_.error().empty() ? failure_ : client_.error();
}

bool UsbipBackend::stopping() const {
    SpinGuard guard(lock_);
    return stopping_;
}

// Sending. --------------------------------------------------------------------------------------------------------------

void UsbipBackend::flushLater(PKDPC, PVOID context, PVOID, PVOID) { static_cast<UsbipBackend*>(context)->flush(); }

// One sends at a time, without the lock; who comes meanwhile leaves its bytes to it.
void UsbipBackend::flush() {
    {
        SpinGuard guard(lock_);
        if (flushing_ || linkLost_ || (sending_.empty() && client_.output().empty())) return;
        flushing_ = true;
    }
    for (bool more = true; more;) {
        {
            SpinGuard guard(lock_);
            if (sent_ == sending_.size()) {
                sending_.clear();
                sent_ = 0;
                sending_.swap(client_.output());
            }
        }
        const std::ptrdiff_t taken =
            sending_.empty() ? 0 : link_->send(std::span<const std::uint8_t>(sending_).subspan(sent_));
        bool tell;
        {
            SpinGuard guard(lock_);
            if (taken < 0) linkLost_ = true;
            sent_ += static_cast<std::size_t>(taken < 0 ? 0 : taken);
            const bool full = sent_ < sending_.size();
            tell = linkLost_ || (full && !linkFull_);
            linkFull_ = full;
            more = !linkLost_ && !full && !client_.output().empty();
            flushing_ = more;
        }
        if (tell) link_->wake();
    }
}

// The thread. -----------------------------------------------------------------------------------------------------------

void UsbipBackend::run() {
    const bool attached = attach();
    {
        SpinGuard guard(lock_);
        life_ = attached ? Life::running : Life::ended;
    }
    KeSetEvent(&started_, 0, FALSE);
    while (attached) {
        if (!pump() && !goneReported_) reportGone();
        {
            SpinGuard guard(lock_);
            if (stopping_) {
                life_ = Life::ended;
                break;
            }
        }
        serveReset();
        waitForLink();
    }
    closeLink(attached ? "the port was closed" : "");
    deliver();
    SpinGuard guard(lock_);
    if (resetWanted_) KeSetEvent(&resetDone_, 0, FALSE);
}

// A connection, and on it the device.
bool UsbipBackend::attach() {
    closeLink("");
    std::string why;
    const bool open = link_->open(connectTimeoutMs, why);
    {
        SpinGuard guard(lock_);
        failure_ = why;
        linkLost_ = !open;
        if (!open) return false;
        client_.connected(nowMs());
    }
    for (;;) {
        pump();
        {
            SpinGuard guard(lock_);
            if (client_.state() != usbip::Client::State::importing || stopping_) break;
        }
        waitForLink();
    }
    SpinGuard guard(lock_);
    return client_.state() == usbip::Client::State::attached;
}

// Whatever can be done without waiting. False: there is no connection any more.
bool UsbipBackend::pump() {
    flush();
    bool lost = false;
    for (int round = 0; round < piecesPerRound; ++round) {
        const std::ptrdiff_t count = link_->receive(piece_);
        lost = count < 0;
        if (count <= 0) break;
        {
            SpinGuard guard(lock_);
            client_.received(std::span(piece_).first(static_cast<std::size_t>(count)));
        }
        deliver();
        if (static_cast<std::size_t>(count) < piece_.size()) break;
    }
    bool attached;
    {
        SpinGuard guard(lock_);
        client_.tick(nowMs());
        if (lost || linkLost_) client_.disconnected("the connection was lost");
        attached = client_.state() != usbip::Client::State::apart;
    }
    flush();
    if (!attached) closeLink("");
    deliver();
    return attached;
}

void UsbipBackend::waitForLink() {
    bool forRoom;
    std::int64_t timeoutMs = -1;
    {
        SpinGuard guard(lock_);
        if (client_.anyFinished() || stopping_) return;
        forRoom = linkFull_;
        if (const auto deadline = client_.deadlineMs()) timeoutMs = std::max<std::int64_t>(*deadline - nowMs(), 0) + 1;
    }
    link_->wait(forRoom, timeoutMs);
}

// Completions run at DISPATCH_LEVEL, as they do when real hardware interrupts; DPCs they queue run once at the end of the batch.
void UsbipBackend::deliver() {
    const KIRQL irql = KeRaiseIrqlToDpcLevel();
    for (;;) {
        Transfer* transfer;
        {
            SpinGuard guard(lock_);
            transfer = client_.takeFinished();
        }
        if (transfer == nullptr) break;
        transfer->complete(transfer);
    }
    KeLowerIrql(irql);
}

void UsbipBackend::closeLink(const std::string& why) {
    for (;;) {
        {
            SpinGuard guard(lock_);
            client_.disconnected(why);
            linkLost_ = true;
            if (!flushing_) {
                sending_.clear();
                sent_ = 0;
                linkFull_ = false;
                break;
            }
        }
        // Somebody is inside send(), which does not block.
        pauseMs(1);
    }
    link_->close();
}

void UsbipBackend::reportGone() {
    goneReported_ = true;
    events_->gone();
    if (lost_) lost_();
}

// A port reset. -----------------------------------------------------------------------------------------------------------

// The protocol has no reset that every server carries out; a device that is imported anew is as after one.
void UsbipBackend::serveReset() {
    {
        SpinGuard guard(lock_);
        if (!resetWanted_) return;
    }
    const bool worked = !goneReported_ && attachAgain();
    {
        SpinGuard guard(lock_);
        resetWanted_ = false;
        resetWorked_ = worked;
    }
    KeSetEvent(&resetDone_, 0, FALSE);
    if (!worked && !goneReported_) reportGone();
}

bool UsbipBackend::attachAgain() {
    std::uint8_t configuration;
    {
        SpinGuard guard(lock_);
        configuration = client_.configuration();
    }
    // The server may need a moment to notice that the device is free.
    for (int attempt = 0; attempt < resetAttempts && !stopping(); ++attempt) {
        if (attempt != 0) pauseMs(resetPauseMs);
        if (attach()) return configuration == 0 || configure(configuration);
    }
    return false;
}

bool UsbipBackend::configure(std::uint8_t value) {
    bool done = false;
    Transfer transfer;
    transfer.type = TransferType::control;
    transfer.setup = {0x00, requestSetConfiguration, value, 0, 0};
    transfer.complete = [](Transfer* ended) { *static_cast<bool*>(ended->context) = true; };
    transfer.context = &done;
    {
        SpinGuard guard(lock_);
        client_.submit(&transfer, nowMs());
    }
    const std::int64_t limitMs = nowMs() + connectTimeoutMs;
    for (;;) {
        const bool connected = pump();
        if (done) break;
        if (!connected || stopping() || nowMs() >= limitMs) closeLink("the device does not take its configuration again");
        deliver();
        if (done) break;
        link_->wait(false, connectTimeoutMs);
    }
    return transfer.status == TransferStatus::ok;
}

std::shared_ptr<UsbipBackend> makeUsbipBackend(const std::string& host, std::uint16_t port, const std::string& busId) {
    const bool six = host.find(':') != std::string::npos;
    const std::string place = (six ? "[" + host + "]" : host) + ":" + std::to_string(port);
    return std::make_shared<UsbipBackend>(std::make_unique<UsbipSocket>(host, port), busId, place);
}

}  // namespace usb
