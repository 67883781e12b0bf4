// A USB/IP connection without sockets: the client's link, a server's thread, and between them a wire that delivers in pieces of
// any size, holds bytes back for a while and breaks where a test says. Runs in the simulation.
#pragma once

#include "kernel/thread.h"
#include "usb/usbip_backend.h"
#include "usb/usbip_export.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace test {

class UsbipWire {
public:
    // What stands at the server's end instead of one: takes what has come and says what goes back. False: it hangs up.
    using Liar = std::function<bool(usb::usbip::Bytes& come, usb::usbip::Bytes& back)>;

    explicit UsbipWire(std::vector<std::shared_ptr<usb::UsbipExport>> exports);
    // The devices above it must have been unplugged.
    ~UsbipWire();

    // The client's end, for one backend at a time.
    std::unique_ptr<usb::UsbipLink> link();

    // Set between connections, or at any time where noted.
    Liar liar;
    std::uint64_t cutAfter = ~0ull;  // bytes both ways together, of this and the next connections; ~0: never
    std::uint32_t pieceBytes = 0;    // largest piece that is delivered at once, 0: any
    std::uint32_t delayMs = 0;       // longest time bytes are held back
    bool unreachable = false;        // any time

    // Breaks the connection now. Any time.
    void cut();

    bool connected() const { return open_; }
    unsigned connections() const { return connections_; }
    std::uint64_t moved() const { return moved_; }

private:
    class Link;
    using Way = std::deque<std::uint8_t>;  // one direction

    void run();
    bool serveConnection();
    void breakDown();  // lock_ held
    std::size_t draw(std::size_t most);
    std::size_t take(Way& way, std::span<std::uint8_t> room);  // lock_ held
    bool holds(const Way& way);
    void wait();

    const std::vector<std::shared_ptr<usb::UsbipExport>> exports_;
    KEVENT serverEvent_;
    KEVENT clientEvent_;
    nt::Thread thread_;

    // Guarded by lock_.
    KSPIN_LOCK lock_;
    Way toServer_, toClient_;
    unsigned connections_ = 0;
    std::uint64_t moved_ = 0;
    bool open_ = false;
    bool stopping_ = false;
};

}  // namespace test
