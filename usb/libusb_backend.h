// A device that is plugged into this machine, behind a Backend, by way of libusb.
//
//   stopped --start: found, opened, interfaces taken from the kernel's drivers--> running --stop--> stopped: given back
//   running --it left, a reset that it did not survive--> gone: every transfer ends as gone --stop--> stopped
//
// A transfer:
//
//   submit() --> waiting --flush()--> at the library --its callback--> finished --the thread--> completed
//                   |                        \--cancel(), gone, stop(): the library is told, its callback comes
//                   \--a request that only the kernel may carry out--> a worker makes the call; the rest waits--> finished
//
// One kernel thread runs the library's events, cancels and completes. Transfers are handed to the library by whoever submits
// them, as soon as that processor has let go of its locks. SET_CONFIGURATION, SET_INTERFACE and CLEAR_FEATURE(ENDPOINT_HALT) are the
// kernel's to carry out: it must know of them.
//
// The library carries neither suspend nor wake: a suspended device stays as it is, and none wakes its host.
#pragma once

#include "usb/backend.h"
#include "usb/libusb_devices.h"
#include "usb/sync.h"
#include "kernel/thread.h"
#include "kernel/work.h"

#include <wdm.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace usb {

class LibusbBackend final : public Backend {
public:
    // The executive must be running in the real mode, here and until stop() has returned.
    explicit LibusbBackend(lib::Selector selector);
    ~LibusbBackend() override;

    // PASSIVE_LEVEL, blocks. Looks for the device, without opening it unless its serial number is asked for. False: error() says
    // why.
    bool find();
    // Once found: names the device as long as it is the same one. "" before.
    std::string instanceId() const;

    bool start(BackendEvents& events) override;
    // Waits for a request that the kernel carries out (5 s when the device does not answer).
    void stop() override;
    void submit(Transfer* transfer) override;
    void cancel(Transfer* transfer) override;
    bool resetPort() override;
    bool suspend(bool) override { return true; }
    bool resume() override { return true; }
    Speed speed() const override { return speed_; }
    std::string location() const override { return "libusb:" + seat_.selector().text(); }

    // Why find() or start() failed, or the device left. Any thread.
    std::string error() const;
    // `lost` is called when a started device has left, after its gone(), on the backend's thread; `back`, on another, when some
    // device has arrived and this one does not run. Set while stopped. Throws when the library does not start.
    void watch(std::function<void()> lost, std::function<void()> back);

private:
    enum class Life : std::uint8_t { stopped, running, gone, ending };
    enum class Place : std::uint64_t { nowhere, waiting, blocking, library };  // the transfer's backendTag
    // A transfer at the library.
    struct Record;

    bool fail(const std::string& why);
    void open();
    void takeInterfaces();
    void releaseInterfaces();
    void giveBack();

    // lock_ held.
    void finish(Transfer* transfer, TransferStatus status);
    void finishRecord(Record& record);
    void endAll(Life life, const std::string& why);
    void tell();
    Record* takeRecord();
    // lock_ not held.
    void flush();
    Record* nextToSend();
    void handedOver(Record& record, int error);
    void ended(Record& record);
    void carryOut();
    int blockingCall(const SetupPacket& setup);
    int configure(int value);
    void endHold();

    void run();
    bool isOver();
    void cancelMarked();
    void deliver();
    void reportGone();

    static KDEFERRED_ROUTINE flushLater;
    struct Callbacks;  // of the library

    lib::Seat seat_;
    std::unique_ptr<lib::Arrivals> arrivals_;
    std::function<void()> lost_;
    BackendEvents* events_ = nullptr;  // set before the thread starts
    nt::Thread thread_;
    KDPC flushDpc_;
    nt::WorkEntry work_{};
    KEVENT notHolding_;  // set while holding_ is not

    // Set while stopped.
    lib::Context context_;
    lib::DevicePointer device_;
    lib::Handle handle_;
    Speed speed_ = Speed::full;
    int firstConfiguration_ = 0;
    bool kernelDriver_ = false;  // one was detached

    std::vector<int> interfaces_;  // claimed; of the one who holds, or while stopped

    // Guarded by lock_.
    mutable KSPIN_LOCK lock_;
    std::string error_;
    Life life_ = Life::stopped;
    TransferQueue waiting_;
    TransferQueue finished_;
    Transfer* blocking_ = nullptr;  // what the worker carries out; null once it was cancelled
    SetupPacket blockingSetup_;
    bool holding_ = false;   // a blocking call is under way: nothing is handed over
    bool flushing_ = false;  // somebody hands over
    bool telling_ = false;   // the thread has something to do
    bool cancels_ = false;   // some transfer at the library is to be cancelled
    std::size_t atLibrary_ = 0;
    std::vector<std::unique_ptr<Record>> records_;
    std::vector<Record*> free_;

    std::atomic<bool> runs_{false};  // as life_ says, for a thread that is none of the kernel's
    bool goneReported_ = false;      // the thread's own
};

}  // namespace usb
