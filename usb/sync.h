// Kernel objects in RAII form, for this directory.
#pragma once

#include <wdm.h>

namespace usb {

// Holds a spin lock for a scope; IRQL <= DISPATCH_LEVEL.
class SpinGuard {
public:
    explicit SpinGuard(KSPIN_LOCK& lock) : lock_(lock) { KeAcquireSpinLock(&lock_, &irql_); }
    ~SpinGuard() { KeReleaseSpinLock(&lock_, irql_); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    KSPIN_LOCK& lock_;
    KIRQL irql_ = 0;
};

// Holds a kernel mutex for a scope; PASSIVE_LEVEL, re-entrant.
class MutexGuard {
public:
    explicit MutexGuard(KMUTEX& mutex) : mutex_(mutex) {
        KeWaitForSingleObject(&mutex_, Executive, KernelMode, FALSE, nullptr);
    }
    ~MutexGuard() { KeReleaseMutex(&mutex_, FALSE); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    KMUTEX& mutex_;
};

// Counts who is inside something that must not end under them.
//
//   open (count >= 1) --closeAndWait()--> closed, when the last one left --open()--> open
//
// enter() may only be called while the owner knows it to be open (under the lock that guards that knowledge).
class Rundown {
public:
    Rundown() { KeInitializeEvent(&empty_, NotificationEvent, FALSE); }
    void enter() { InterlockedIncrement(&count_); }
    // Nothing of the owner may be touched by the caller afterwards. IRQL <= DISPATCH_LEVEL.
    void leave() {
        if (InterlockedDecrement(&count_) == 0) KeSetEvent(&empty_, 0, FALSE);
    }
    // PASSIVE_LEVEL.
    void closeAndWait() {
        leave();
        KeWaitForSingleObject(&empty_, Executive, KernelMode, FALSE, nullptr);
    }
    // After closeAndWait().
    void open() {
        KeClearEvent(&empty_);
        InterlockedIncrement(&count_);
    }

private:
    volatile LONG count_ = 1;
    KEVENT empty_;
};

}  // namespace usb
