// Pool accounts, guard bytes, and faults on demand.
#include "kernel_core.h"

#include "kernel/faults.h"
#include "kernel/pool.h"

namespace {

using nt::faults::Extent;
using nt::faults::Kind;

PVOID take(SIZE_T size, ULONG tag = 'tseT') { return ExAllocatePoolWithTag(NonPagedPool, size, tag); }

TEST(Pool, CountsByTagAndReportsWhatIsLeft) {
    nt::startCore({.simulated = true, .seed = 1, .verifier = true});
    PVOID a = take(20, 'aaaA');
    PVOID b = take(5000, 'bbbB');
    PVOID c = take(30, 'aaaA');
    EXPECT_EQ(nt::pool::allocations(), 3u);
    EXPECT_EQ(nt::pool::bytesInUse(), 5050u);
    ExFreePool(b);
    ExFreePoolWithTag(a, 'aaaA');
    EXPECT_EQ(nt::pool::blocksInUse(), 1u);
    auto left = nt::pool::inUse();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_STREQ(left[0].tag, "Aaaa");
    EXPECT_EQ(left[0].bytes, 30u);
    EXPECT_NE(left[0].caller, nullptr);
    bool arena = nt::pool::repeatsAddresses();
    auto report = nt::stopCore();
    ASSERT_EQ(report.size(), 1u);
    EXPECT_NE(report[0].find("'Aaaa': 1 block(s), 30 bytes"), std::string::npos) << report[0];
    if (!arena) {
        ExFreePool(c);
    }
}

TEST(Pool, ReusesMemoryAndShowsABlockBeforeItGoes) {
    CoreScope core(1);
    std::string seen;
    nt::pool::setFreeObserver(
        [](void* context, const void* block, std::size_t size, ULONG) {
            static_cast<std::string*>(context)->assign(static_cast<const char*>(block), size);
        },
        &seen);
    for (int i = 0; i < 10'000; i++) {
        auto* block = static_cast<char*>(take(40'000));
        ASSERT_NE(block, nullptr) << "the arena ran out after " << i;
        block[0] = 'x';
        ExFreePool(block);
    }
    EXPECT_EQ(seen.size(), 40'000u);
    EXPECT_EQ(seen[0], 'x');
}

TEST(Faults, FailTheNthOnceOrFromThenOn) {
    for (Extent extent : {Extent::once, Extent::fromThenOn}) {
        CoreScope core(1);
        nt::faults::failNth(Kind::allocation, 3, extent);
        std::string result;
        for (int i = 0; i < 5; i++) {
            PVOID block = take(8);
            result += block ? 'o' : 'x';
            if (block) {
                ExFreePool(block);
            }
        }
        EXPECT_EQ(result, extent == Extent::once ? "ooxoo" : "ooxxx");
        EXPECT_EQ(nt::faults::hits(Kind::allocation), 5u);
        EXPECT_EQ(nt::faults::failures(Kind::allocation), extent == Extent::once ? 1u : 3u);
        EXPECT_FALSE(nt::faults::hit(Kind::registry)) << "kinds are separate";
        nt::faults::clear();
        PVOID block = take(8);
        EXPECT_NE(block, nullptr);
        ExFreePool(block);
    }
}

}  // namespace
