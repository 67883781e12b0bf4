// The registry's text: whatever is accepted must come back the same after writing and reading once more.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kernel/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    nt::Registry first;
    try {
        first.merge(std::string_view(reinterpret_cast<const char*>(data), size), "input");
    } catch (const nt::RegistryError&) {
        if (first.text() != nt::Registry().text()) {
            std::abort();
        }
        return 0;
    }
    nt::Registry second;
    second.merge(first.text(), "written");
    if (second.text() != first.text()) {
        std::abort();
    }
    return 0;
}
