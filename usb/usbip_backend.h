// A device that a USB/IP server exports, behind a Backend. The protocol is usb/usbip_client.h; the bytes travel over a link, a socket
// (usb/usbip_socket.h) or a test's pipe.
//
//   stopped --start: connect, import--> attached --stop--> stopped
//   attached --connection lost--> gone: every transfer ends as gone --stop--> stopped
//   attached --resetPort: import again, the configuration set again--> attached, or gone
//
// One kernel thread waits for the link, receives and completes. Requests are sent by whoever submits them, as soon as that
// processor has let go of its locks: what was submitted together leaves in one write.
//
// The connection carries neither suspend nor wake: a suspended device stays as it is, and none wakes its host.
#pragma once

#include "usb/backend.h"
#include "usb/sync.h"
#include "usb/usbip_client.h"
#include "kernel/thread.h"

#include <wdm.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace usb {

// One connection after the other to one server. open, close, receive and wait: the backend's thread.
class UsbipLink {
public:
    virtual ~UsbipLink() = default;
    // PASSIVE_LEVEL. Ends the connection there was and makes a new one. Ended early by wake(). False: `why` says why not.
    virtual bool open(std::uint32_t timeoutMs, std::string& why) = 0;
    // Nobody sends meanwhile.
    virtual void close() = 0;
    // <= DISPATCH_LEVEL, one thread at a time, never blocks. How many of the bytes were taken; -1: the connection is lost.
    virtual std::ptrdiff_t send(std::span<const std::uint8_t> bytes) = 0;
    // Never blocks. 0: nothing has come; -1: the connection is lost.
    virtual std::ptrdiff_t receive(std::span<std::uint8_t> room) = 0;
    // PASSIVE_LEVEL. Until something has come, the connection is lost, send() takes bytes again (if `forRoom`), wake() was
    // called, or the time is over (-1: never). May return early.
    virtual void wait(bool forRoom, std::int64_t timeoutMs) = 0;
    // <= DISPATCH_LEVEL, any thread.
    virtual void wake() = 0;
};

class UsbipBackend final : public Backend {
public:
    static constexpr std::uint32_t connectTimeoutMs = 5000;

    // The executive must be running, here and until stop() has returned. `place` names the server: "host:port".
    UsbipBackend(std::unique_ptr<UsbipLink> link, std::string busId, const std::string& place);
    ~UsbipBackend() override;

    bool start(BackendEvents& events) override;
    void stop() override;
    void submit(Transfer* transfer) override;
    void cancel(Transfer* transfer) override;
    bool resetPort() override;
    bool suspend(bool) override { return true; }
    bool resume() override { return true; }
    Speed speed() const override;
    std::string location() const override { return location_; }

    // Why start() failed, or the device left. Any thread.
    std::string error() const;
    // Called when a started device has left, after its gone(), on the backend's thread. Set while stopped.
    void setLost(std::function<void()> hook) { lost_ = std::move(hook); }

private:
    enum class Life : std::uint8_t { stopped, starting, running, ended };

    void run();
    bool attach();
    bool pump();
    void waitForLink();
    bool attachAgain();
    bool configure(std::uint8_t value);
    void serveReset();
    bool stopping() const;
    void flush();
    void deliver();
    void closeLink(const std::string& why);
    void reportGone();
    static KDEFERRED_ROUTINE flushLater;

    const std::unique_ptr<UsbipLink> link_;
    const std::string location_;
    std::function<void()> lost_;
    BackendEvents* events_ = nullptr;  // set before the thread starts
    nt::Thread thread_;
    KEVENT started_;
    KEVENT resetDone_;
    KDPC flushDpc_;

    // Guarded by lock_.
    mutable KSPIN_LOCK lock_;
    usbip::Client client_;
    std::string failure_;         // of the link
    usbip::Bytes sending_;        // what the link has not yet taken; of the one who flushes
    std::size_t sent_ = 0;        // of it
    Life life_ = Life::stopped;
    bool flushing_ = false;       // somebody sends
    bool linkFull_ = false;       // the thread has to wait for room
    bool linkLost_ = false;
    bool stopping_ = false;
    bool resetWanted_ = false;
    bool resetWorked_ = false;

    // The thread's own.
    std::vector<std::uint8_t> piece_;
    bool goneReported_ = false;
};

// `host` is a name or an address, `busId` as the server lists it.
std::shared_ptr<UsbipBackend> makeUsbipBackend(const std::string& host, std::uint16_t port, const std::string& busId);

}  // namespace usb
