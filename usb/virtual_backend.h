// Runs a usb::Device behind a Backend, on one kernel thread of its own, in both ways to run. A submitter that lends a hand
// (kernel/hand.h) serves the transfers itself before it sleeps.
//
//   stopped --start--> plugged --unplug--> gone --stop--> stopped
//                         \------------stop-------------/
//   plugged: running <--suspend / resume--> suspended (no transfers are served, timers go on)
//
// A transfer waits in the inbox (under the lock), then in its endpoint's queue (the thread's), until the device
// has taken or given its data. A NAK leaves it there until the device wakes, its timer is due, or a host request comes.
#pragma once

#include "usb/backend.h"
#include "usb/device.h"
#include "usb/endpoint_zero.h"
#include "usb/sync.h"
#include "kernel/hand.h"
#include "kernel/thread.h"

#include <wdm.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

namespace usb {

class VirtualBackend final : public Backend {
public:
    // The executive must be running, here and until stop() has returned.
    VirtualBackend(std::unique_ptr<Device> device, std::string location, Speed speed = Speed::full);
    ~VirtualBackend() override;

    bool start(BackendEvents& events) override;
    void stop() override;
    void submit(Transfer* transfer) override;
    void cancel(Transfer* transfer) override;
    bool resetPort() override;
    bool suspend(bool remoteWake) override;
    bool resume() override;
    Speed speed() const override { return speed_; }
    std::string location() const override { return location_; }

    // The plug is pulled: everything pending ends as gone. Any IRQL up to DISPATCH_LEVEL.
    void unplug();

    // Runs `body` with the device while nobody else calls it, then lets the device serve what changed. PASSIVE_LEVEL,
    // not from within the device. While the backend is stopped no transfer is served.
    template <class Body>
    auto withDevice(Body&& body) {
        struct Scope {
            ~Scope() { owner.kick(); }
            VirtualBackend& owner;
        } scope{*this};
        MutexGuard device(deviceMutex_);
        return body(*device_);
    }

private:
    // Who serves. One at a time: a hand keeps the thread asleep until it is done.
    //
    //   thread --nothing to do--> nobody --newRound--> woken --event or timer--> thread
    //                               ^                    '----leaveToHand----> hand --done, or handed over--> nobody or woken
    //                               '-----------------------------------------'
    enum class Server : std::uint8_t { thread, nobody, woken, hand };

    struct Round {
        bool stopping = false;
        bool gone = false;
        bool cancels = false;
    };

    void run();
    Round collect();
    void serve(const Round& round);
    bool serveControl();
    bool serveOut(unsigned index);
    bool serveIn(unsigned index);
    void serveControlTransfer(Transfer* transfer);
    void end(unsigned index, Transfer* transfer, TransferStatus status);
    void endWhole(unsigned index, TransferStatus status);
    void sweepCancelled();
    void endEverything();
    void deliver();
    void report(const Round& round);
    void sleep();
    bool endSleep();
    void serveByHand();
    bool handRound();
    void handOver();
    void kick();
    bool newRound();  // lock_ held
    void wakeLater();
    static KDEFERRED_ROUTINE wakeThread;

    const std::unique_ptr<Device> device_;
    const std::string location_;
    const Speed speed_;
    BackendEvents* events_ = nullptr;  // set before the thread starts
    nt::Thread thread_;
    KEVENT event_;
    KDPC wakeDpc_;
    struct Hand : nt::HandWork {
        VirtualBackend* backend = nullptr;
    } hand_;

    // Guarded by lock_.
    KSPIN_LOCK lock_;
    TransferQueue inbox_;
    Server server_ = Server::thread;
    std::optional<std::int64_t> sleepsUntilMs_;  // what the thread's timer is set to
    bool oversleeps_ = false;                    // its timer ran out while a hand served: it must be woken
    bool kicked_ = false;   // a new round is due
    bool cancels_ = false;  // some transfer has cancelRequested set
    bool gone_ = false;
    bool stopping_ = false;

    // Guarded by deviceMutex_, the device too.
    KMUTEX deviceMutex_;
    EndpointZero zero_;
    std::array<TransferQueue, endpointCount> queues_;
    std::uint32_t active_ = 0;  // a bit for each queue that is not empty
    bool suspended_ = false;
    bool mayWake_ = false;
    bool wakeDue_ = false;  // the host is to be told

    // Of the one who serves.
    std::optional<std::int64_t> deadlineMs_;
    TransferQueue finished_;
    bool goneReported_ = false;  // the thread's own
};

}  // namespace usb
