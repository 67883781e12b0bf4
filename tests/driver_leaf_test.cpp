// Units of the driver that need no device: trace output, byte rings, the request pool.
#include "tests/support/rig.h"

#include <cstdarg>
#include <cstdio>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "cdcacm/pnpadd.h"
#include "kernel/faults.h"

namespace {

constexpr std::uint64_t kSeed = 20240611;

// The driver is loaded, so that its locks and lists stand, and no device is there.
class DriverLeaf : public testing::Test {
protected:
    DriverLeaf() { rig_.clearTrace(); }

    test::TestRig rig_{{.plug = false}};
};

std::string format(std::size_t capacity, const char* text, ...) {
    std::vector<char> buffer(capacity + 1, '#');  // the last one must survive
    va_list arguments;
    va_start(arguments, text);
    TraceFormat(buffer.data(), buffer.data() + capacity, text, arguments);
    va_end(arguments);
    EXPECT_EQ(buffer[capacity], '#') << text;
    return buffer.data();
}

TEST(TraceFormat, directives) {
    WCHAR wide[] = u"COM7";
    UNICODE_STRING counted = {6, 8, wide};
    auto* noText = static_cast<const CHAR*>(nullptr);
    auto* noWide = static_cast<const WCHAR*>(nullptr);
    const struct {
        std::string got, expected;
    } cases[] = {
        {format(80, "%P:%S:[x %s\n", wide, "y"), "ACM:COM7:[x y\n"},
        {format(80, "%S %s %U", noWide, noText, nullptr), "<NULL> <NULL> <NULL>"},
        {format(80, "%U|%9.1U|%9P", &counted, &counted), "COM|COM|ACM"},
        {format(80, "[%5s][%-5s][%.1s][%4.2S]", "ab", "ab", "ab", wide), "[   ab][ab   ][a][  CO]"},
        {format(80, "%B %B %W %D %Q", 7, 0x1FF, 0x12345, 0xC0000001u, 0xABCu), "07 1FF 12345 C0000001 0000000000000ABC"},
        {format(80, "%-9.3D|%hD", 0x1Au, 0x12345678u), "0000001A|00005678"},
        {format(80, "%x %X %#x %#X %#o %o", 0xABu, 0xABu, 0xABu, 0xABu, 8, 8), "ab AB 0xab 0XAB 010 10"},
        {format(80, "%d %i %u %hd %hu %lx", -5, -1, 0xFFFFFFFFu, 0x1FFFF, 0x1FFFF, 0xFFFFFFFFu), "-5 -1 4294967295 -1 65535 ffffffff"},
        {format(80, "[%+d][% d][%05d][%-5d][%5.3d]", 3, 3, -3, 3, 3), "[+3][ 3][-0003][3    ][  003]"},
        {format(80, "[%*d][%*d][%.*d][%.d]", 4, 7, -4, 7, -2, 7, 0), "[   7][7   ][7][0]"},
        {format(80, "[%c][%3c][%-3C]", 'a', 'b', 'c'), "[a][  b][c  ]"},
        {format(80, "%p %6p", reinterpret_cast<void*>(0xBEEF), reinterpret_cast<void*>(0xBEEF)), "0000beef   beef"},
        {format(80, "%k %d %%", 5), "%k 5 %"},
        {format(80, "100%"), "100%"},
        {format(80, "%5"), "%"},
        {format(5, "%s", "abcdefgh"), "abcd"},
        {format(5, "%900d", 1), "    "},
        {format(1, "abc"), ""},
    };
    for (const auto& item : cases) EXPECT_EQ(item.got, item.expected);
}

TEST(TraceNumber, agreesWithPrintf) {
    std::mt19937_64 random(kSeed);
    for (int round = 0; round < 20000; ++round) {
        const auto value = static_cast<int>(random() >> (random() % 64));
        const int width = static_cast<int>(random() % 20);
        int precision = static_cast<int>(random() % 13);
        if (precision == 0) precision = -1;
        std::string directive = "%";
        ULONG flags = TRN_SIGNED;
        for (auto [sign, flag] : {std::pair<char, ULONG>('-', TRN_LEFT), {'+', TRN_PLUS}, {' ', TRN_SPACE}, {'0', TRN_ZERO}}) {
            if (random() % 2 || (sign == '0' && precision > 0)) continue;  // with a precision printf ignores the zero
            directive += sign;
            flags |= flag;
        }
        directive += "*.*d";
        char expected[80], got[80];
        std::snprintf(expected, sizeof expected, directive.c_str(), width, precision, value);
        *TraceNumber(got, got + sizeof got, static_cast<ULONGLONG>(value), 10, width, precision, flags) = 0;
        ASSERT_STREQ(got, expected) << directive << " seed " << kSeed;
    }
    char untouched = '#';
    EXPECT_EQ(TraceNumber(&untouched, &untouched + 1, 5, 1, -1, -1, 0), &untouched);
    EXPECT_EQ(TraceNumber(&untouched, &untouched + 1, 5, 37, -1, -1, 0), &untouched);
    EXPECT_EQ(untouched, '#');
}

TEST_F(DriverLeaf, dumpLayout) {
    UCHAR bytes[70];
    for (ULONG i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<UCHAR>(0x7A + i);
    TraceDump(bytes, 20);
    TraceDump(bytes, 0);
    EXPECT_EQ(rig_.trace(), "0000: 7A 7B 7C 7D  7E 7F 80 81  82 83 84 85  86 87 88 89   z{|}~\x7F..........\n"
                            "0010: 8A 8B 8C 8D" + std::string(59 - 17, ' ') + "....\n<<NULL>>");
    for (const ULONG length : {64, 65}) {
        rig_.clearTrace();
        TraceDumpLimited(bytes, length);
        TracePrint("still %s\n", "there");  // no lock was left behind
        EXPECT_TRUE(rig_.trace().ends_with(length == 64 ? "....\nstill there\n" : "....\n...\nstill there\n"));
    }
}

// Random operations on a ring and on a queue that cannot be wrong.
TEST_F(DriverLeaf, ringsBehaveAsQueues) {
    std::mt19937 random(kSeed);
    const auto below = [&](ULONG limit) { return static_cast<ULONG>(random() % limit); };
    for (ULONG capacity : {0u, 1u, 2u, 3u, 4u, 7u, 64u, 255u}) {
        SCOPED_TRACE("capacity " + std::to_string(capacity) + " seed " + std::to_string(kSeed));
        CIRC_BUF ring;
        ASSERT_TRUE(CircBufInit(&ring, capacity));
        std::deque<UCHAR> model;
        for (int step = 0; step < 20000; ++step) {
            std::vector<UCHAR> bytes(below(2 * capacity + 3));
            for (UCHAR& byte : bytes) byte = static_cast<UCHAR>(random());
            const auto length = static_cast<ULONG>(bytes.size());
            const auto room = static_cast<ULONG>(capacity - model.size());
            const ULONG action = below(16);
            if (action == 0) {
                CircBufReset(&ring);
                model.clear();
            } else if (action < 4) {
                ASSERT_EQ(CircBufUnread(&ring, bytes.data(), length), length <= room);
                if (length <= room) model.insert(model.begin(), bytes.begin(), bytes.end());
            } else if (action < 10) {
                const ULONG taken = std::min(length, room);
                ASSERT_EQ(CircBufWrite(&ring, bytes.data(), length), taken);
                model.insert(model.end(), bytes.begin(), bytes.begin() + taken);
            } else {
                const ULONG given = std::min<ULONG>(length, static_cast<ULONG>(model.size()));
                ASSERT_EQ(CircBufRead(&ring, bytes.data(), length), given);
                ASSERT_TRUE(std::equal(bytes.begin(), bytes.begin() + given, model.begin()));
                model.erase(model.begin(), model.begin() + given);
            }
            ASSERT_EQ(ring.Count, model.size());
            if (capacity == 0) continue;  // both at once
            ASSERT_EQ(ring.Full, model.size() == capacity ? 1u : 0u);
            ASSERT_EQ(ring.Empty, model.empty() ? 1u : 0u);
        }
        CircBufFree(&ring);
    }
}

TEST_F(DriverLeaf, poolGrowsToItsLimit) {
    DPOOL pool;
    ASSERT_EQ(DPoolInit(&pool, 5, 40, 10, sizeof(SER_REQUEST)), STATUS_SUCCESS);
    std::vector<VOID*> taken;
    std::vector<ULONG> sizes{5};
    for (;;) {
        if (taken.size() == 5) {  // memory is out when the second block is due, and there again after
            nt::faults::failNth(nt::faults::Kind::allocation, 1);
            EXPECT_EQ(DPoolGet(&pool), nullptr);
        }
        VOID* element = DPoolGet(&pool);
        if (element == nullptr) break;
        memset(element, 0xAB, sizeof(SER_REQUEST));  // a neighbour's link would not survive an overlap
        taken.push_back(element);
        if (sizes.back() != pool.CurrentCount) sizes.push_back(pool.CurrentCount);
    }
    EXPECT_EQ(taken.size(), 55u);
    EXPECT_EQ(sizes, (std::vector<ULONG>{5, 15, 25, 37, 55}));
    EXPECT_TRUE(rig_.traced("ACMDPoolGet: alloc failed. CurrentCount 55 MaxCount 40\n"));
    DPoolPut(taken[20]);
    EXPECT_EQ(DPoolGet(&pool), taken[20]);
    for (VOID* element : taken) DPoolPut(element);
    DPoolFree(&pool);
}

}  // namespace
