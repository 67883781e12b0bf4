// Which of the program's front ends has the COM port. The driver admits one opener and does not say why it refuses another.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "kernel/file.h"

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

    // The holder's open file, for others to ask the port a question with; from lend() until withdraw() has returned.
    void lend(nt::File& file) {
        std::lock_guard guard(fileLock_);
        file_ = &file;
    }
    void withdraw() {
        std::lock_guard guard(fileLock_);
        file_ = nullptr;
    }
    // Any thread, PASSIVE_LEVEL. False: nobody has the port open.
    template <class Body>
    bool withFile(Body body) {
        std::lock_guard guard(fileLock_);
        if (file_ == nullptr) {
            return false;
        }
        body(*file_);
        return true;
    }

    std::atomic<std::uint64_t> heldBackReads{0};  // by all front ends

private:
    std::atomic<const void*> holder_{nullptr};
    std::mutex fileLock_;
    nt::File* file_ = nullptr;  // guarded by fileLock_
};

}  // namespace comport
