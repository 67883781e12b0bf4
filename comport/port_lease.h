// Which of the program's front ends has the COM port. The driver admits one opener and does not say why it refuses another.
#pragma once

#include <atomic>

namespace comport {

class PortLease {
public:
    // Any thread. True: `who` has it now, or had it before.
    bool take(const void* who) {
        const void* nobody = nullptr;
        return holder_.compare_exchange_strong(nobody, who) || nobody == who;
    }
    void give(const void* who) { holder_.compare_exchange_strong(who, nullptr); }
    bool heldByOther(const void* who) const {
        const void* holder = holder_.load();
        return holder != nullptr && holder != who;
    }

private:
    std::atomic<const void*> holder_{nullptr};
};

}  // namespace comport
