// Arbitrary bytes as a configuration descriptor. The walks must stay inside it, end, and answer only with what
// stands in it: an interface number or 0xFF, an endpoint of the wanted direction or 0.
#include "fuzz/require.h"
#include "cdcacm/usbcfg.h"

#include <cstddef>
#include <cstdint>
#include <memory>

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A block of just this size: one byte too far is seen.
    const std::unique_ptr<std::uint8_t[]> table(new std::uint8_t[size]);
    for (std::size_t i = 0; i < size; ++i)
        table[i] = data[i];
    const ULONG length = static_cast<ULONG>(size);

    for (ULONG n = 0; n <= size / 3; ++n)
        GetInterfaceNumber(table.get(), length, n);
    // A descriptor that counts has three bytes at least.
    require(GetInterfaceNumber(table.get(), length, length / 3) == 0xFF);
    for (UCHAR type = 0; type < 4; ++type) {
        for (const UCHAR direction : {UCHAR{0}, UCHAR{0x80}}) {
            const UCHAR address = FindEndpointAddress(table.get(), length, type, direction);
            require(address == 0 || (address & 0x80) == direction);
        }
    }
    return 0;
}
