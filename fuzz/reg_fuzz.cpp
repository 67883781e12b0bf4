// The registry's text: whatever is accepted must come back the same after writing and reading once more.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz/require.h"
#include "kernel/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    nt::Registry first;
    try {
        first.merge(std::string_view(reinterpret_cast<const char*>(data), size), "input");
    } catch (const nt::RegistryError&) {
        fuzz::require(first.text() == nt::Registry().text());
        return 0;
    }
    nt::Registry second;
    second.merge(first.text(), "written");
    fuzz::require(second.text() == first.text());
    return 0;
}
