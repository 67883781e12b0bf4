// The last events of requests, kept in a ring for the report of a broken rule.
#include <cstdio>

#include "kernel/io_internal.h"
#include "kernel/processor.h"

namespace nt {

namespace {

constexpr std::size_t ringSize = 1024;
constexpr int shown = 40;

// Written without a lock by any thread; a torn entry may be read only in a report, where it does no harm.
struct Entry {
    std::atomic<PIRP> irp;
    std::atomic<PDEVICE_OBJECT> device;
    std::atomic<ULONGLONG> packed;  // event, thread, major, minor, status
};

Entry ring[ringSize];
std::atomic<ULONGLONG> next{0};

constexpr const char* names[] = {"allocated", "initialised", "sent to",   "returned from",
                                 "completed", "finished",    "cancelled", "freed"};
static_assert(sizeof(names) / sizeof(names[0]) == static_cast<std::size_t>(IrpEvent::free) + 1);

void printEntry(const Entry& entry) {
    ULONGLONG packed = entry.packed.load(std::memory_order_relaxed);
    std::fprintf(stderr, "    irp %p thread %u: %s", static_cast<void*>(entry.irp.load(std::memory_order_relaxed)),
                 static_cast<unsigned>(packed >> 40 & 0xffff), names[packed >> 56]);
    if (PDEVICE_OBJECT device = entry.device.load(std::memory_order_relaxed)) {
        std::fprintf(stderr, " device %p", static_cast<void*>(device));
    }
    std::fprintf(stderr, ", status %08x\n", static_cast<unsigned>(packed));
}

}  // namespace

void noteIrp(IrpEvent event, PIRP irp, PDEVICE_OBJECT device, NTSTATUS status) {
    Entry& entry = ring[next.fetch_add(1, std::memory_order_relaxed) % ringSize];
    entry.irp.store(irp, std::memory_order_relaxed);
    entry.device.store(device, std::memory_order_relaxed);
    entry.packed.store(static_cast<ULONGLONG>(event) << 56 | static_cast<ULONGLONG>(self().id & 0xffff) << 40 |
                           static_cast<ULONG>(status),
                       std::memory_order_relaxed);
}

void printIrpHistory(const void* subject) {
    ULONGLONG end = next.load(std::memory_order_relaxed);
    ULONGLONG begin = end > ringSize ? end - ringSize : 0;
    int left = shown;
    std::fprintf(stderr, "  last events of request %p, newest first:\n", subject);
    for (ULONGLONG i = end; i-- > begin && left > 0;) {
        const Entry& entry = ring[i % ringSize];
        if (entry.irp.load(std::memory_order_relaxed) == subject) {
            printEntry(entry);
            --left;
        }
    }
    if (left == shown) {
        std::fprintf(stderr, "    none\n");
    }
}

}  // namespace nt
