// Pool memory.
//
//   | header: tag, size, list links | the caller's bytes | guard |
//
// Blocks come from malloc, or, in the simulation, from an arena at a fixed address below 4 GB, so that pointers in a
// trace are the same in every run of a seed. Under a sanitizer they always come from malloc, which it watches.
// With the verifier on, blocks are filled when handed out and when given back, carry guard bytes, and stand in one list.
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "kernel/faults.h"
#include "kernel/pool.h"
#include "kernel/processor.h"
#include "kernel/verifier.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define NT_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NT_SANITIZED 1
#endif

namespace nt::pool {

namespace {

constexpr ULONG liveMark = 0x6576694c;
constexpr ULONG freeMark = 0x65657246;
constexpr UCHAR newFill = 0xcd;
constexpr UCHAR freeFill = 0xdd;
constexpr UCHAR guardFill = 0xfb;
constexpr std::size_t guardSize = 16;
constexpr std::size_t fillLimit = 4096;  // larger blocks are filled at both ends only

struct Header {
    LIST_ENTRY entry;  // pool lock; unused with the verifier off
    const void* caller;
    SIZE_T size;
    ULONG tag;
    ULONG mark;
    ULONG paged;
    ULONG guarded;
};
static_assert(sizeof(Header) % 16 == 0);

struct Counters {
    std::atomic<std::uint64_t> allocations{0};
    std::atomic<std::uint64_t> blocks{0};
    std::atomic<std::uint64_t> bytes{0};
};

constexpr std::size_t tagSlots = 256;
struct TagCount {
    std::atomic<ULONG> tag{0};
    std::atomic<std::uint64_t> blocks{0};
    std::atomic<std::uint64_t> bytes{0};
};

TinyLock lock;
LIST_ENTRY blocks _Guarded_by_(lock) = {&blocks, &blocks};
Counters counters;
TagCount tags[tagSlots];
FreeObserver observer;
void* observerContext;

// Free lists by size class, first freed first used again, so that a stale pointer meets its fill for a while.
class Arena {
public:
    // False when the address is taken.
    bool start() {
        base_ = static_cast<char*>(mmap(reinterpret_cast<void*>(address), capacity, PROT_READ | PROT_WRITE,
                                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0));
        if (base_ == MAP_FAILED) {
            base_ = nullptr;
        }
        next_ = base_;
        for (Free& f : free_) {
            f = {};
        }
        return base_;
    }
    void stop() {
        if (base_) {
            munmap(base_, capacity);
        }
        base_ = nullptr;
    }

    void* take(std::size_t size) {
        std::size_t c = classOf(size);
        if (Node* node = free_[c].first) {
            free_[c].first = node->next;
            if (!node->next) {
                free_[c].last = nullptr;
            }
            return node;
        }
        std::size_t bytes = std::size_t(64) << c;
        if (std::size_t(base_ + capacity - next_) < bytes) {
            return nullptr;
        }
        void* p = next_;
        next_ += bytes;
        return p;
    }
    void give(void* p, std::size_t size) {
        std::size_t c = classOf(size);
        auto* node = static_cast<Node*>(p);
        node->next = nullptr;
        (free_[c].last ? free_[c].last->next : free_[c].first) = node;
        free_[c].last = node;
    }

private:
    static constexpr std::uintptr_t address = 0x20000000;
    static constexpr std::size_t capacity = std::size_t(1) << 28;
    struct Node {
        Node* next;
    };
    struct Free {
        Node* first = nullptr;
        Node* last = nullptr;
    };
    static std::size_t classOf(std::size_t size) {
        std::size_t c = 0;
        while (std::size_t(64) << c < size) {
            c++;
        }
        return c;
    }

    char* base_ = nullptr;
    char* next_ = nullptr;
    Free free_[26];
};
Arena arena _Guarded_by_(lock);
bool arenaOn = false;  // set while one thread runs

TagCount& countOf(ULONG tag) {
    std::size_t i = (tag * 2654435761u) >> 24;
    for (std::size_t n = 0; n < tagSlots - 1; n++, i = (i + 1) % tagSlots) {
        ULONG at = tags[i].tag.load(std::memory_order_relaxed);
        if (at == tag || (at == 0 && tags[i].tag.compare_exchange_strong(at, tag)) || at == tag) {
            return tags[i];
        }
    }
    return tags[i];
}

std::size_t totalSize(std::size_t size) { return sizeof(Header) + size + guardSize; }

void* takeMemory(std::size_t size) {
    if (!arenaOn) {
        return malloc(size);
    }
    TinyGuard guard(lock);
    return arena.take(size);
}

void giveMemory(void* p, std::size_t size) {
    if (!arenaOn) {
        free(p);
        return;
    }
    TinyGuard guard(lock);
    arena.give(p, size);
}

void fill(void* p, std::size_t size, UCHAR value) {
    if (size <= fillLimit) {
        memset(p, value, size);
        return;
    }
    memset(p, value, fillLimit / 2);
    memset(static_cast<char*>(p) + size - fillLimit / 2, value, fillLimit / 2);
}

bool guardBroken(const Header& h) {
    auto* end = reinterpret_cast<const UCHAR*>(&h + 1) + h.size;
    for (std::size_t i = 0; i < guardSize; i++) {
        if (end[i] != guardFill) {
            return true;
        }
    }
    return false;
}

void nameOf(ULONG tag, char* text) {
    memcpy(text, &tag, 4);
    text[4] = 0;
    for (int i = 0; i < 4; i++) {
        if (text[i] < ' ' || text[i] > '~') {
            text[i] = '.';
        }
    }
}

void checkBlock(const Header& h, const char* call) {
    const void* p = &h + 1;
    if (h.mark == freeMark) {
        verifier::stop("M2", call, p, "block %p is free already", p);
    }
    if (h.mark != liveMark) {
        verifier::stop("M3", call, p, "%p is no block of the pool, or was written in front of", p);
    }
    if (h.guarded && guardBroken(h)) {
        char tag[5];
        nameOf(h.tag, tag);
        verifier::stop("M3", call, p, "block %p, tag '%s', was written behind its %zu bytes", p, tag, size_t(h.size));
    }
}

bool isPaged(POOL_TYPE type) { return type == PagedPool; }

}  // namespace

std::uint64_t allocations() { return counters.allocations; }
std::uint64_t blocksInUse() { return counters.blocks; }
std::uint64_t bytesInUse() { return counters.bytes; }

std::vector<Leak> inUse() {
    std::map<ULONG, const void*> callers;
    {
        TinyGuard guard(lock);
        for (PLIST_ENTRY e = blocks.Flink; e != &blocks; e = e->Flink) {
            Header& h = *CONTAINING_RECORD(e, Header, entry);
            callers.emplace(h.tag, h.caller);
        }
    }
    std::vector<Leak> leaks;
    for (TagCount& t : tags) {
        if (t.blocks) {
            Leak leak{};
            nameOf(t.tag, leak.tag);
            leak.blocks = t.blocks;
            leak.bytes = t.bytes;
            leak.caller = callers.contains(t.tag) ? callers[t.tag] : nullptr;
            leaks.push_back(leak);
        }
    }
    return leaks;
}

void setFreeObserver(FreeObserver newObserver, void* context) {
    observerContext = context;
    observer = newObserver;
}

bool repeatsAddresses() { return arenaOn; }

void checkAll() {
    TinyGuard guard(lock);
    for (PLIST_ENTRY e = blocks.Flink; e != &blocks; e = e->Flink) {
        checkBlock(*CONTAINING_RECORD(e, Header, entry), "pool check");
    }
}

void start(bool useArena) {
    TinyGuard guard(lock);
    InitializeListHead(&blocks);
    counters.allocations = counters.blocks = counters.bytes = 0;
    for (TagCount& t : tags) {
        t.tag = 0;
        t.blocks = t.bytes = 0;
    }
    observer = nullptr;
#ifdef NT_SANITIZED
    useArena = false;
#endif
    arenaOn = useArena && arena.start();
}

void stop() {
    TinyGuard guard(lock);
    arena.stop();
    arenaOn = false;
}

namespace {

void* allocate(POOL_TYPE type, std::size_t size, ULONG tag, const void* caller) {
    bool checked = verifying();
    if (checked) {
        verifier::checkIrqlMax("ExAllocatePoolWithTag", isPaged(type) ? APC_LEVEL : DISPATCH_LEVEL);
        if (size == 0) {
            verifier::stop("M1", "ExAllocatePoolWithTag", nullptr, "a block of zero bytes");
        }
    }
    if (faults::hit(faults::Kind::allocation)) {
        return nullptr;
    }
    std::size_t total = totalSize(size);
    auto* h = total > size ? static_cast<Header*>(takeMemory(total)) : nullptr;
    if (!h) {
        return nullptr;
    }
    h->size = size;
    h->tag = tag;
    h->mark = liveMark;
    h->paged = isPaged(type);
    h->caller = caller;
    h->guarded = checked;
    if (checked) {
        fill(h + 1, size, newFill);
        memset(reinterpret_cast<char*>(h + 1) + size, guardFill, guardSize);
        TinyGuard guard(lock);
        InsertTailList(&blocks, &h->entry);
    }
    counters.allocations.fetch_add(1, std::memory_order_relaxed);
    counters.blocks.fetch_add(1, std::memory_order_relaxed);
    counters.bytes.fetch_add(size, std::memory_order_relaxed);
    TagCount& count = countOf(tag);
    count.blocks.fetch_add(1, std::memory_order_relaxed);
    count.bytes.fetch_add(size, std::memory_order_relaxed);
    return h + 1;
}

void release(void* p, const ULONG* tag, const char* call) {
    Header* h = static_cast<Header*>(p) - 1;
    checkBlock(*h, call);
    if (verifying()) {
        verifier::checkIrqlMax(call, h->paged ? APC_LEVEL : DISPATCH_LEVEL);
        if (tag && *tag && *tag != h->tag) {
            verifier::stop("M2", call, p, "block %p was allocated with another tag", p);
        }
        verifier::checkFree(p, h->size, call);
    }
    if (observer) {
        observer(observerContext, p, h->size, h->tag);
    }
    TagCount& count = countOf(h->tag);
    count.blocks.fetch_sub(1, std::memory_order_relaxed);
    count.bytes.fetch_sub(h->size, std::memory_order_relaxed);
    counters.blocks.fetch_sub(1, std::memory_order_relaxed);
    counters.bytes.fetch_sub(h->size, std::memory_order_relaxed);
    if (h->guarded) {
        {
            TinyGuard guard(lock);
            RemoveEntryList(&h->entry);
        }
        fill(p, h->size, freeFill);
    }
    h->mark = freeMark;
    giveMemory(h, totalSize(h->size));
}

}  // namespace

}  // namespace nt::pool

extern "C" {

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return nt::pool::allocate(PoolType, NumberOfBytes, Tag, __builtin_return_address(0));
}

VOID NTAPI ExFreePool(PVOID P) { nt::pool::release(P, nullptr, "ExFreePool"); }

VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) { nt::pool::release(P, &Tag, "ExFreePoolWithTag"); }

}  // extern "C"
