// Descriptor walks, without a device: what a device sends is fed in as bytes.

#include <gtest/gtest.h>

#include "cdcacm/usbcfg.h"
#include "tests/support/scripted_device.h"

namespace {

using test::Bytes;

TEST(DescriptorWalk, FindsAndEnds) {
    const Bytes whole = test::cdcConfiguration();
    const auto interfaceNumber = [](const Bytes& table, ULONG n) { return GetInterfaceNumber(table.data(), static_cast<ULONG>(table.size()), n); };
    const auto endpoint = [](const Bytes& table, UCHAR type, UCHAR direction) {
        return FindEndpointAddress(table.data(), static_cast<ULONG>(table.size()), type, direction);
    };
    EXPECT_EQ(interfaceNumber(whole, 0), 0);
    EXPECT_EQ(interfaceNumber(whole, 1), 1);
    EXPECT_EQ(interfaceNumber(whole, 2), 0xFF);
    EXPECT_EQ(endpoint(whole, 2, 0x80), 0x81);
    EXPECT_EQ(endpoint(whole, 2, 0), 0x01);
    EXPECT_EQ(endpoint(whole, 3, 0x80), 0x82);
    EXPECT_EQ(endpoint(whole, 3, 0), 0);

    const Bytes found = {9, 4, 7, 0, 0, 0, 0, 0, 0, 7, 5, 0x83, 2, 64, 0, 0};
    const struct {
        const char* what;
        Bytes before;  // in front of the descriptors to be found
        bool walkGoesOn;
    } cases[] = {
        {"another type", {3, 0x24, 0}, true},
        {"an alternate setting counts", {2, 0x30}, true},
        {"length 0", {0, 4}, false},
        {"runs past the end", {0xFF, 0x24}, false},
        {"a single byte", {9}, false},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        Bytes table = item.before;
        table.insert(table.end(), found.begin(), found.end());
        EXPECT_EQ(interfaceNumber(table, 0), item.walkGoesOn ? 7 : 0xFF);
        EXPECT_EQ(endpoint(table, 2, 0x80), item.walkGoesOn ? 0x83 : 0);
    }
    EXPECT_EQ(interfaceNumber({2, 4, 9, 4, 7, 0, 0, 0, 0, 0, 0}, 0), 0xFF) << "an interface too short for its number";
    EXPECT_EQ(endpoint({3, 5, 0x81, 7, 5, 0x81, 2, 64, 0, 0}, 2, 0x80), 0) << "an endpoint too short for its attributes";
    // Every cut of a good table, in a block of just its size: the address sanitizer watches the end.
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        const UCHAR address = endpoint(cut, 2, 0x80);
        EXPECT_TRUE(address == 0 || address == 0x81) << length;
        interfaceNumber(cut, 1);
    }
}

}  // namespace
