// Each rule stops a run that breaks it, by name.
#include "kernel_core.h"

#include "kernel/verifier.h"

namespace {

KSPIN_LOCK lockA, lockB;
KMUTEX mutexA, mutexB;
KDPC dpc;
KTIMER timer;

void nothing(KDPC*, PVOID, PVOID, PVOID) {}

void prepare() {
    KeInitializeSpinLock(&lockA);
    KeInitializeSpinLock(&lockB);
    KeInitializeMutex(&mutexA, 0);
    KeInitializeMutex(&mutexB, 0);
    KeInitializeTimer(&timer);
    KeInitializeDpc(&dpc, nothing, nullptr);
}

void nest(KSPIN_LOCK& outer, KSPIN_LOCK& inner) {
    KIRQL old, old2;
    KeAcquireSpinLock(&outer, &old);
    KeAcquireSpinLock(&inner, &old2);
    KeReleaseSpinLock(&inner, old2);
    KeReleaseSpinLock(&outer, old);
}

void nest(KMUTEX& outer, KMUTEX& inner) {
    waitFor(&outer);
    waitFor(&inner);
    KeReleaseMutex(&inner, FALSE);
    KeReleaseMutex(&outer, FALSE);
}

struct Breach {
    const char* rule;
    const char* name;
    void (*breach)();
};

const Breach breaches[] = {
    {"Q1", "WaitAtDispatch",
     [] {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, TRUE);
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         waitFor(&event);
     }},
    {"Q1", "PagedPoolAtDispatch",
     [] {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         ExAllocatePoolWithTag(PagedPool, 8, 'tseT');
     }},
    {"Q2", "PassiveOnlyCall",
     [] {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         KeFlushQueuedDpcs();
     }},
    {"Q3", "RaiseDownwards",
     [] {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         KeRaiseIrql(PASSIVE_LEVEL, &old);
     }},
    {"Q3", "LowerUpwards", [] { KeLowerIrql(DISPATCH_LEVEL); }},
    {"L8", "DpcKeepsLock",
     [] {
         KeInitializeDpc(
             &dpc, [](KDPC*, PVOID, PVOID, PVOID) { KeAcquireSpinLockAtDpcLevel(&lockA); }, nullptr);
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
     }},
    {"L1", "Recursive",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         KeAcquireSpinLock(&lockA, &old);
     }},
    {"L2", "MutexOfAnother", [] { KeReleaseMutex(&mutexA, FALSE); }},
    {"L2", "LockOfAnother",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         nt::Thread other("other", [] {
             KIRQL mine;
             KeRaiseIrql(DISPATCH_LEVEL, &mine);
             KeReleaseSpinLock(&lockA, mine);
         });
         for (;;) nt::schedulePoint(nt::Point::other);
     }},
    {"L3", "ReleasedUnheld", [] { KeReleaseSpinLock(&lockA, PASSIVE_LEVEL); }},
    {"L4", "WrongLevelRestored",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         KeReleaseSpinLock(&lockA, DISPATCH_LEVEL);
     }},
    {"L4", "LoweredWithLockHeld",
     [] {
         KIRQL old, old2;
         KeAcquireSpinLock(&lockA, &old);
         KeAcquireSpinLock(&lockB, &old2);
         KeReleaseSpinLock(&lockA, old);
     }},
    {"L5", "Uninitialised",
     [] {
         KSPIN_LOCK lock = {};
         KIRQL old;
         KeAcquireSpinLock(&lock, &old);
     }},
    {"L6", "SpinLockOrder",
     [] {
         nest(lockA, lockB);
         nest(lockB, lockA);
     }},
    {"L6", "MutexOrder",
     [] {
         nest(mutexA, mutexB);
         nest(mutexB, mutexA);
     }},
    {"L7", "FreedWhileHeld",
     [] {
         auto* block = static_cast<KSPIN_LOCK*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KSPIN_LOCK), 'tseT'));
         KeInitializeSpinLock(block);
         KIRQL old;
         KeAcquireSpinLock(block, &old);
         ExFreePool(block);
     }},
    {"L9", "AtDpcLevelBelow", [] { KeAcquireSpinLockAtDpcLevel(&lockA); }},
    {"L10", "CallOutWithLock",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         nt::verifier::checkNoSpinLock("IoCompleteRequest", nullptr);
     }},
    {"M1", "ZeroBytes", [] { ExAllocatePoolWithTag(NonPagedPool, 0, 'tseT'); }},
    {"M2", "OtherTag", [] { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 8, 'tseT'), 'rehO'); }},
    {"M6", "FreedTimer",
     [] {
         auto* block = static_cast<KTIMER*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KTIMER), 'tseT'));
         KeInitializeTimer(block);
         KeSetTimer(block, after(1 * ms), nullptr);
         ExFreePool(block);
     }},
    {"M6", "FreedDpc",
     [] {
         auto* block = static_cast<KDPC*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KDPC), 'tseT'));
         KeInitializeDpc(block, nothing, nullptr);
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
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
         KeSetTimer(&timer, after(1 * ms), nullptr);
         KeInitializeTimer(&timer);
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
    EXPECT_DEATH(
        {
            CoreScope core(1);
            prepare();
            breach.breach();
        },
        "verifier: " + std::string(breach.rule) + " (.|\n)*seed 1(.|\n)*thread [1-9]");
}

INSTANTIATE_TEST_SUITE_P(Rules, VerifierDeathTest, ::testing::ValuesIn(breaches),
                         [](const auto& info) { return std::string(info.param.rule) + info.param.name; });

TEST(Verifier, LegalPatternsPass) {
    CoreScope core(1);
    prepare();
    KIRQL old, old2;
    // Hand over hand: the first lock goes first, the level comes back with the second.
    KeAcquireSpinLock(&lockA, &old);
    KeAcquireSpinLock(&lockB, &old2);
    KeReleaseSpinLock(&lockA, old2);
    KeReleaseSpinLock(&lockB, old);
    // Two orders that no circle joins.
    nest(mutexA, mutexB);
    waitFor(&mutexA);
    nest(lockA, lockB);
    KeReleaseMutex(&mutexA, FALSE);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST(VerifierDeathTest, PrintsTheSubjectsHistory) {
    EXPECT_DEATH(
        {
            CoreScope core(1);
            prepare();
            nt::verifier::setHistoryPrinter([](const void*) { fprintf(stderr, "its history\n"); });
            KeReleaseSpinLock(&lockA, PASSIVE_LEVEL);
        },
        "verifier: L3(.|\n)*its history");
}

TEST(Verifier, OffChecksNothing) {
    nt::startCore({.simulated = true, .seed = 1, .verifier = false});
    prepare();
    nest(lockA, lockB);
    nest(lockB, lockA);
    KIRQL old;
    KeAcquireSpinLock(&lockA, &old);
    nt::verifier::checkNoSpinLock("anything", nullptr);
    KeReleaseSpinLock(&lockA, old);
    EXPECT_TRUE(nt::stopCore().empty());
}

}  // namespace
