#include "tests/support/usbip_wire.h"

#include "tests/kernel_core.h"

#include <algorithm>

namespace test {

using usb::SpinGuard;

// May outlive the wire, unused: its backend, which has closed it, is the bus's until the machine ends.
class UsbipWire::Link final : public usb::UsbipLink {
public:
    explicit Link(UsbipWire& wire) : wire_(wire) {}

    bool open(std::uint32_t, std::string& why) override {
        close();
        SpinGuard guard(wire_.lock_);
        if (wire_.unreachable) {
            why = "nobody there";
            return false;
        }
        wire_.toServer_.clear();
        wire_.toClient_.clear();
        wire_.open_ = true;
        ++wire_.connections_;
        KeSetEvent(&wire_.serverEvent_, 0, FALSE);
        return true;
    }
    void close() override {
        SpinGuard guard(wire_.lock_);
        wire_.open_ = false;
        KeSetEvent(&wire_.serverEvent_, 0, FALSE);
    }
    std::ptrdiff_t send(std::span<const std::uint8_t> bytes) override {
        SpinGuard guard(wire_.lock_);
        if (!wire_.open_) return -1;
        const std::size_t count = wire_.draw(bytes.size());
        std::copy_n(bytes.begin(), count, std::back_inserter(wire_.toServer_));
        KeSetEvent(&wire_.serverEvent_, 0, FALSE);
        return static_cast<std::ptrdiff_t>(count);
    }
    std::ptrdiff_t receive(std::span<std::uint8_t> room) override {
        SpinGuard guard(wire_.lock_);
        const std::size_t count = wire_.take(wire_.toClient_, room);
        if (count == 0 && !wire_.open_) return -1;
        return static_cast<std::ptrdiff_t>(count);
    }
    void wait(bool forRoom, std::int64_t timeoutMs) override {
        waitFor(&wire_.clientEvent_, (forRoom || wire_.holds(wire_.toClient_) ? 1 : timeoutMs) * ms);
    }
    void wake() override { KeSetEvent(&wire_.clientEvent_, 0, FALSE); }

private:
    UsbipWire& wire_;
};

UsbipWire::UsbipWire(std::vector<std::shared_ptr<usb::UsbipExport>> exports) : exports_(std::move(exports)) {
    KeInitializeEvent(&serverEvent_, SynchronizationEvent, FALSE);
    KeInitializeEvent(&clientEvent_, SynchronizationEvent, FALSE);
    KeInitializeSpinLock(&lock_);
    thread_.start("usbip server", [this] { run(); });
}

UsbipWire::~UsbipWire() {
    {
        SpinGuard guard(lock_);
        stopping_ = true;
    }
    KeSetEvent(&serverEvent_, 0, FALSE);
    thread_.join();
}

std::unique_ptr<usb::UsbipLink> UsbipWire::link() { return std::make_unique<Link>(*this); }

// Never none of some.
std::size_t UsbipWire::draw(std::size_t most) {
    if (most == 0) return 0;
    const std::size_t limit = pieceBytes == 0 ? most : std::min<std::size_t>(most, pieceBytes);
    return 1 + nt::sim::random(static_cast<std::uint32_t>(limit));
}

// The connection breaks behind the byte that is one too many.
std::size_t UsbipWire::take(Way& way, std::span<std::uint8_t> room) {
    const std::uint64_t left = cutAfter == ~0ull ? ~0ull : cutAfter - std::min(cutAfter, moved_);
    const std::size_t wanted = draw(std::min(way.size(), room.size()));
    const std::size_t count = std::min<std::uint64_t>(wanted, left);
    std::copy_n(way.begin(), count, room.begin());
    way.erase(way.begin(), way.begin() + static_cast<std::ptrdiff_t>(count));
    moved_ += count;
    if (cutAfter != ~0ull && moved_ >= cutAfter) breakDown();
    return count;
}

void UsbipWire::breakDown() {
    if (!open_) return;
    open_ = false;
    toServer_.clear();
    toClient_.clear();
    KeSetEvent(&serverEvent_, 0, FALSE);
    KeSetEvent(&clientEvent_, 0, FALSE);
}

void UsbipWire::cut() {
    SpinGuard guard(lock_);
    breakDown();
}

bool UsbipWire::holds(const Way& way) {
    SpinGuard guard(lock_);
    return !way.empty();
}

void UsbipWire::wait() { waitFor(&serverEvent_, holds(toServer_) ? 1 * ms : -1); }

void UsbipWire::run() {
    for (;;) {
        {
            SpinGuard guard(lock_);
            if (stopping_) return;
        }
        if (!serveConnection()) wait();
    }
}

// One connection from its beginning to its end. False: there is none.
bool UsbipWire::serveConnection() {
    unsigned number;
    {
        SpinGuard guard(lock_);
        if (!open_) return false;
        number = connections_;
    }
    usb::UsbipConnection connection(exports_, [this] { KeSetEvent(&serverEvent_, 0, FALSE); });
    usb::usbip::Bytes come, back;
    for (;;) {
        std::uint8_t piece[4096];
        std::size_t count;
        {
            SpinGuard guard(lock_);
            if (!open_ || stopping_ || number != connections_) return true;
            count = take(toServer_, piece);
        }
        bool over = false;
        if (liar) {
            come.insert(come.end(), piece, piece + count);
            over = !liar(come, back);
        } else {
            connection.received(std::span(piece).first(count));
            connection.step();
            over = connection.over();
            back.insert(back.end(), connection.output().begin(), connection.output().end());
            connection.output().clear();
        }
        if (delayMs != 0 && !back.empty() && nt::sim::random(4) == 0) delay((1 + nt::sim::random(delayMs)) * ms);
        {
            SpinGuard guard(lock_);
            if (number == connections_) toClient_.insert(toClient_.end(), back.begin(), back.end());
            back.clear();
            if (over && number == connections_) open_ = false;
        }
        KeSetEvent(&clientEvent_, 0, FALSE);
        if (over) return true;
        if (count == 0) wait();
    }
}

}  // namespace test
