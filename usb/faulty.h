// A backend that misbehaves on demand, around one that does not. For tests; see also PortOptions of usb/host.h.
#pragma once

#include "usb/backend.h"
#include "usb/sync.h"

#include "kernel/thread.h"

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <vector>

namespace usb {

// What happens to which transfers. A transfer is matched by each field that is set; the first fault that fits is applied.
struct Fault {
    enum class Action : std::uint8_t {
        end,      // ends with `status`, the device does not see it
        never,    // ends by cancellation only, the device does not see it
        delay,    // reaches the device `delayMs` later; what follows on the endpoint overtakes it
        shorten,  // the device serves it, but only `length` bytes are reported
        leave,    // the device is gone with this transfer
    };
    Action action = Action::end;
    TransferStatus status = TransferStatus::failed;
    std::uint32_t delayMs = 0;
    std::uint32_t length = 0;

    std::optional<TransferType> type;
    std::optional<std::uint8_t> endpoint;
    std::optional<std::uint8_t> request;      // bRequest of a control transfer
    std::optional<std::uint8_t> requestType;  // bmRequestType

    unsigned nth = 1;    // of the matching transfers, from the moment the fault is added
    unsigned times = 1;  // how many in a row; 0: all from then on
};

class FaultyBackend final : public Backend, private BackendEvents {
public:
    // The executive must be running.
    explicit FaultyBackend(std::shared_ptr<Backend> inner);
    ~FaultyBackend() override;

    void add(const Fault& fault);
    void clear();
    // Transfers a fault has been applied to.
    std::uint64_t applied() const;
    Backend& inner() { return *inner_; }

    bool start(BackendEvents& events) override;
    void stop() override;
    void submit(Transfer* transfer) override;
    void cancel(Transfer* transfer) override;
    bool resetPort() override { return inner_->resetPort(); }
    bool suspend(bool remoteWake) override { return inner_->suspend(remoteWake); }
    bool resume() override { return inner_->resume(); }
    Speed speed() const override { return inner_->speed(); }
    std::string location() const override { return inner_->location(); }

private:
    struct Armed {
        Fault fault;
        unsigned seen = 0;
    };
    // A transfer that takes another way than straight to the inner backend.
    struct Detour {
        Transfer inner;  // what the inner backend gets
        Transfer* outer = nullptr;
        FaultyBackend* owner = nullptr;
        Fault fault;
        std::uint64_t dueTime = 0;  // 100 ns, of Action::delay
        bool forwarded = false;     // the inner backend has it
        bool cancelled = false;
    };
    using Detours = std::list<std::unique_ptr<Detour>>;

    void gone() override;
    void remoteWake() override { events_->remoteWake(); }
    const Fault* match(const Transfer& transfer);  // lock_ held
    void forward(Detour& detour);                  // lock_ held
    void run();
    void collectDue(Detours& ended, std::uint64_t now, std::uint64_t& next);
    static bool endsNow(const Detour& detour);
    static void innerDone(Transfer* transfer);

    const std::shared_ptr<Backend> inner_;
    BackendEvents* events_ = nullptr;
    nt::Thread thread_;
    KEVENT event_;

    // Guarded by lock_, which is held when the inner backend's submit and cancel are called.
    mutable KSPIN_LOCK lock_;
    std::vector<Armed> faults_;
    Detours detours_;
    std::uint64_t applied_ = 0;
    bool leaving_ = false;  // Action::leave struck
    bool goneTold_ = false;
    bool stopping_ = false;
};

}  // namespace usb
