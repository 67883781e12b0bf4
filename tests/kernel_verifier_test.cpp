// Each rule stops a run that breaks it, by name.
#include "kernel_core.h"

#include "kernel/verifier.h"

namespace {

KSPIN_LOCK lockA, lockB;
KMUTEX mutex, other;
KEVENT event;
KDPC dpc;

void prepare() {
    KeInitializeSpinLock(&lockA);
    KeInitializeSpinLock(&lockB);
    KeInitializeMutex(&mutex, 0);
    KeInitializeMutex(&other, 0);
    KeInitializeEvent(&event, NotificationEvent, FALSE);
}

void raise() {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
}

KIRQL acquire(KSPIN_LOCK& lock) {
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    return old;
}

void nest(KSPIN_LOCK& outer, KSPIN_LOCK& inner) {
    KIRQL old = acquire(outer);
    KIRQL old2 = acquire(inner);
    KeReleaseSpinLock(&inner, old2);
    KeReleaseSpinLock(&outer, old);
}

void nest(KMUTEX& outer, KMUTEX& inner) {
    waitFor(&outer);
    waitFor(&inner);
    KeReleaseMutex(&inner, FALSE);
    KeReleaseMutex(&outer, FALSE);
}

template <class Object>
Object* take() {
    return static_cast<Object*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Object), 'tseT'));
}

struct Breach {
    const char* rule;
    const char* name;
    void (*breach)();
    const char* sanitizer = nullptr;  // what that says where it is faster
};

const Breach breaches[] = {
    {"Q1", "WaitAtDispatch",
     [] {
         raise();
         waitFor(&event);
     }},
    {"Q2", "PassiveOnlyCall",
     [] {
         raise();
         KeFlushQueuedDpcs();
     }},
    {"Q3", "LowerUpwards", [] { KeLowerIrql(DISPATCH_LEVEL); }},
    {"Q3", "RaiseDownwards",
     [] {
         raise();
         KIRQL old;
         KeRaiseIrql(PASSIVE_LEVEL, &old);
     }},
    {"L1", "Recursive",
     [] {
         acquire(lockA);
         acquire(lockA);
     }},
    {"L2", "MutexOfAnother", [] { KeReleaseMutex(&mutex, FALSE); }},
    {"L2", "LockOfAnother",
     [] {
         acquire(lockA);
         nt::Thread thief("thief", [] {
             raise();
             KeReleaseSpinLock(&lockA, PASSIVE_LEVEL);
         });
         for (;;) nt::schedulePoint(nt::Point::other);
     }},
    {"L3", "ReleasedUnheld", [] { KeReleaseSpinLock(&lockA, PASSIVE_LEVEL); }},
    {"L4", "WrongLevelRestored",
     [] {
         acquire(lockA);
         KeReleaseSpinLock(&lockA, DISPATCH_LEVEL);
     }},
    {"L4", "LoweredWithLockHeld",
     [] {
         const KIRQL old = acquire(lockA);
         acquire(lockB);
         KeReleaseSpinLock(&lockA, old);
     }},
    {"L5", "Uninitialised",
     [] {
         KSPIN_LOCK lock = {};
         acquire(lock);
     }},
    {"L6", "SpinLockOrder",
     [] {
         nest(lockA, lockB);
         nest(lockB, lockA);
     }},
    {"L6", "MutexOrder",
     [] {
         nest(mutex, other);
         nest(other, mutex);
     }},
    {"L7", "FreedWhileHeld",
     [] {
         auto* lock = take<KSPIN_LOCK>();
         KeInitializeSpinLock(lock);
         acquire(*lock);
         ExFreePool(lock);
     }},
    {"L8", "DpcKeepsLock",
     [] {
         KeInitializeDpc(
             &dpc, [](KDPC*, PVOID, PVOID, PVOID) { KeAcquireSpinLockAtDpcLevel(&lockA); }, nullptr);
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
     }},
    {"L9", "AtDpcLevelBelow", [] { KeAcquireSpinLockAtDpcLevel(&lockA); }},
    {"L10", "CallOutWithLock",
     [] {
         acquire(lockA);
         nt::verifier::checkNoSpinLock("IoCompleteRequest", nullptr);
     }},
    {"M1", "ZeroBytes", [] { ExAllocatePoolWithTag(NonPagedPool, 0, 'tseT'); }},
    {"M2", "FreedTwice",
     [] {
         auto* block = take<KEVENT>();
         ExFreePool(block);
         ExFreePool(block);
     },
     "heap-use-after-free"},
    {"M2", "OtherTag", [] { ExFreePoolWithTag(take<KEVENT>(), 'rehO'); }},
    {"M3", "WrittenBehind",
     [] {
         volatile char* block = *take<char[20]>();
         block[20] = 1;
         ExFreePool(const_cast<char*>(block));
     },
     "heap-buffer-overflow"},
    {"M3", "Foreign",
     [] {
         char foreign[256] = {};
         ExFreePool(foreign + 128);
     }},
    {"M6", "FreedTimer",
     [] {
         auto* block = take<KTIMER>();
         KeInitializeTimer(block);
         KeSetTimer(block, after(1 * ms), nullptr);
         ExFreePool(block);
     }},
    {"M6", "FreedDpc",
     [] {
         auto* block = take<KDPC>();
         KeInitializeDpc(block, [](KDPC*, PVOID, PVOID, PVOID) {}, nullptr);
         raise();
         KeInsertQueueDpc(block, nullptr, nullptr);
         ExFreePool(block);
     }},
    {"M7", "TimerUninitialised",
     [] {
         KTIMER fresh = {};
         KeSetTimer(&fresh, after(1 * ms), nullptr);
     }},
    {"M7", "TimerInitialisedWhileSet",
     [] {
         KTIMER set;
         KeInitializeTimer(&set);
         KeSetTimer(&set, after(1 * ms), nullptr);
         KeInitializeTimer(&set);
     }},
    {"M7", "EventUninitialised",
     [] {
         KEVENT fresh = {};
         KeSetEvent(&fresh, 0, FALSE);
     }},
};

class VerifierDeathTest : public ::testing::TestWithParam<Breach> {};

TEST_P(VerifierDeathTest, Stops) {
    const Breach& breach = GetParam();
    auto run = [&breach] {
        CoreScope core(1);
        prepare();
        breach.breach();
    };
    const std::string verdict = "verifier: " + std::string(breach.rule) + " (.|\n)*seed 1(.|\n)*thread [1-9]";
    EXPECT_DEATH(run(), breach.sanitizer ? verdict + "|" + breach.sanitizer : verdict);
}

INSTANTIATE_TEST_SUITE_P(Rules, VerifierDeathTest, ::testing::ValuesIn(breaches),
                         [](const auto& info) { return std::string(info.param.rule) + info.param.name; });

TEST(Verifier, LegalPatternsPass) {
    CoreScope core(1);
    prepare();
    // Hand over hand: the first lock goes first, the level comes back with the second.
    KIRQL old = acquire(lockA);
    KIRQL old2 = acquire(lockB);
    KeReleaseSpinLock(&lockA, old2);
    KeReleaseSpinLock(&lockB, old);
    // Orders that no circle joins.
    waitFor(&mutex);
    nest(lockA, lockB);
    KeReleaseMutex(&mutex, FALSE);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    // Polling at a raised level.
    raise();
    EXPECT_FALSE(signalled(&event));
    KeLowerIrql(PASSIVE_LEVEL);
}

TEST(Verifier, OffChecksNothing) {
    nt::startCore({.simulated = true, .seed = 1, .verifier = false});
    prepare();
    nest(lockA, lockB);
    nest(lockB, lockA);
    KIRQL old = acquire(lockA);
    nt::verifier::checkNoSpinLock("anything", nullptr);
    KeReleaseSpinLock(&lockA, old);
    EXPECT_TRUE(nt::stopCore().empty());
}

}  // namespace
