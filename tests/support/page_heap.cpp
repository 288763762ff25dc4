// One range of addresses, handed out from its beginning to its end and then again, past what is still in use.
#include "tests/support/page_heap.h"

#include <windows.h>

#include <objidl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kestra::test {
namespace {

constexpr size_t kPage = 4096;
constexpr size_t kPages = size_t{4} << 20;
constexpr int kFresh = 0xCD, kBefore = 0xA5; // what nobody has written yet, and what nobody may write

/// Of the block whose pages begin here; 0 pages: none does.
struct Entry {
    uint32_t pages; ///< without the one behind it
    size_t bytes;
};

SRWLOCK g_lock = SRWLOCK_INIT; // guards what follows; constant, so that it serves before main and after
std::byte* g_base = nullptr;
Entry* g_entries = nullptr;
size_t g_next = 0;
uint64_t g_blocks = 0, g_live = 0;

/// Holds the lock for a scope.
class Locked {
public:
    Locked() noexcept { AcquireSRWLockExclusive(&g_lock); }
    ~Locked() { ReleaseSRWLockExclusive(&g_lock); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
};

bool begin() noexcept {
    if (g_entries) return true;
    g_base = static_cast<std::byte*>(VirtualAlloc(nullptr, kPages * kPage, MEM_RESERVE, PAGE_NOACCESS));
    if (g_base)
        g_entries = static_cast<Entry*>(
            VirtualAlloc(nullptr, kPages * sizeof(Entry), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    return g_entries != nullptr;
}

/// @return the first of so many pages that are not in use; kPages: there are none
size_t findPages(size_t pages) noexcept {
    for (int round = 0; round < 2; ++round) {
        for (size_t at = g_next, clear = at; at < kPages;) {
            if (const uint32_t used = g_entries[at].pages) {
                at = clear = at + used + 1;
                continue;
            }
            if (++at - clear == pages) return clear;
        }
        g_next = 0;
    }
    return kPages;
}

void* allocate(size_t bytes) noexcept {
    const Locked lock;
    const size_t pages = std::max<size_t>((bytes + kPage - 1) / kPage, 1);
    if (bytes > kPages * kPage || !begin()) return nullptr;
    const size_t first = findPages(pages + 1);
    if (first == kPages) return nullptr;
    std::byte* begin = g_base + first * kPage;
    if (!VirtualAlloc(begin, pages * kPage, MEM_COMMIT, PAGE_READWRITE)) return nullptr;
    g_entries[first] = {static_cast<uint32_t>(pages), bytes};
    g_next = first + pages + 1;
    ++g_blocks;
    ++g_live;
    const size_t before = pages * kPage - bytes;
    std::memset(begin, kBefore, before);
    std::memset(begin + before, kFresh, bytes);
    return begin + before;
}

[[noreturn]] void damaged() noexcept {
    RaiseException(kHeapDamaged, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    std::abort();
}

bool isOurs(const void* block) noexcept {
    const auto* at = static_cast<const std::byte*>(block);
    return g_entries && at >= g_base && at < g_base + kPages * kPage;
}

/// The entry of a block of ours. @return null: it is no block, or has been written into before its beginning
Entry* entryOf(void* block) noexcept {
    const auto offset = static_cast<size_t>(static_cast<std::byte*>(block) - g_base);
    // An empty block begins where its pages end.
    const size_t first = offset / kPage - (offset % kPage == 0 && g_entries[offset / kPage].pages == 0 ? 1 : 0);
    Entry& entry = g_entries[first];
    std::byte* begin = g_base + first * kPage;
    const size_t before = entry.pages * kPage - entry.bytes;
    if (entry.pages == 0 || begin + before != block) return nullptr;
    const auto isWhole = [](std::byte byte) { return byte == std::byte{kBefore}; };
    return std::all_of(begin, begin + before, isWhole) ? &entry : nullptr;
}

void release(void* block) noexcept {
    {
        const Locked lock;
        if (Entry* entry = entryOf(block)) {
            // The page behind it as well: neighbours that have been freed are then one range for the system.
            VirtualFree(g_base + (entry - g_entries) * kPage, (entry->pages + 1) * kPage, MEM_DECOMMIT);
            *entry = {};
            --g_live;
            return;
        }
    }
    damaged();
}

size_t sizeOf(void* block) noexcept {
    {
        const Locked lock;
        if (const Entry* entry = entryOf(block)) return entry->bytes;
    }
    damaged();
}

/// The C library's own function, for memory that it has allocated itself.
template <class Function>
Function fromLibrary(const char* name) noexcept {
    HMODULE library = GetModuleHandleW(L"msvcrt.dll");
    if (!library) library = GetModuleHandleW(L"ucrtbase.dll");
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

/// What the task allocator asks before and after each call, with its own lock held. Its own block is small and stands
/// in front of ours, as an address.
class Spy final : public IMallocSpy {
public:
    virtual ~Spy() = default;
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        *object = riid == IID_IUnknown || riid == IID_IMallocSpy ? this : nullptr;
        return *object ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T bytes) override {
        m_bytes = bytes;
        return 1;
    }
    STDMETHODIMP_(void*) PostAlloc(void* own) override { return own ? give(own) : nullptr; }
    STDMETHODIMP_(void*) PreFree(void* block, WINBOOL) override {
        void* own = ownOf(block);
        if (own != block) release(headOf(block));
        return own;
    }
    STDMETHODIMP_(void) PostFree(WINBOOL) override {}
    STDMETHODIMP_(SIZE_T) PreRealloc(void* block, SIZE_T bytes, void** own, WINBOOL) override {
        m_bytes = bytes;
        m_block = block;
        *own = ownOf(block);
        return *own == block ? bytes : 1;
    }
    STDMETHODIMP_(void*) PostRealloc(void* own, WINBOOL) override {
        if (!own || !isOurs(m_block)) return own;
        void* block = give(own);
        if (!block) return nullptr;
        std::memcpy(block, m_block, std::min<size_t>(m_bytes, sizeOf(headOf(m_block)) - sizeof own));
        release(headOf(m_block));
        return block;
    }
    STDMETHODIMP_(void*) PreGetSize(void* block, WINBOOL) override {
        m_block = block;
        return ownOf(block);
    }
    STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T bytes, WINBOOL) override {
        return isOurs(m_block) ? sizeOf(headOf(m_block)) - sizeof(void*) : bytes;
    }
    STDMETHODIMP_(void*) PreDidAlloc(void* block, WINBOOL) override { return ownOf(block); }
    STDMETHODIMP_(int) PostDidAlloc(void*, WINBOOL, int answer) override { return answer; }
    STDMETHODIMP_(void) PreHeapMinimize() override {}
    STDMETHODIMP_(void) PostHeapMinimize() override {}

private:
    static std::byte* headOf(void* block) noexcept { return static_cast<std::byte*>(block) - sizeof(void*); }
    static void* ownOf(void* block) noexcept {
        if (!isOurs(block)) return block;
        void* own = nullptr;
        std::memcpy(&own, headOf(block), sizeof own);
        return own;
    }
    void* give(void* own) const noexcept {
        auto* head = static_cast<std::byte*>(allocate(sizeof own + m_bytes));
        if (!head) return nullptr;
        std::memcpy(head, &own, sizeof own);
        return head + sizeof own;
    }
    SIZE_T m_bytes = 0; // between Pre and Post
    void* m_block = nullptr;
};
Spy g_spy; // for as long as there are blocks of its

/// Looked for at run time: most programs do without the task allocator.
template <class Function>
Function ofTaskAllocator(const char* name) noexcept {
    HMODULE library = LoadLibraryW(L"ole32.dll"); // for good
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

} // namespace

PageHeapCounts pageHeapCounts() noexcept {
    const Locked lock;
    return {g_blocks, g_live};
}

TaskMemoryGuard::TaskMemoryGuard() noexcept {
    ofTaskAllocator<decltype(&CoRegisterMallocSpy)>("CoRegisterMallocSpy")(&g_spy);
}

TaskMemoryGuard::~TaskMemoryGuard() {
    ofTaskAllocator<decltype(&CoRevokeMallocSpy)>("CoRevokeMallocSpy")();
}

} // namespace kestra::test

extern "C" {

void* malloc(size_t bytes) {
    return kestra::test::allocate(bytes);
}

void free(void* block) {
    if (!block) return;
    if (kestra::test::isOurs(block)) return kestra::test::release(block);
    static const auto others = kestra::test::fromLibrary<void (*)(void*)>("free");
    others(block);
}

void* calloc(size_t count, size_t bytes) {
    if (bytes != 0 && count > SIZE_MAX / bytes) return nullptr;
    void* block = malloc(count * bytes);
    if (block) std::memset(block, 0, count * bytes);
    return block;
}

void* realloc(void* block, size_t bytes) {
    if (!block) return malloc(bytes);
    if (!kestra::test::isOurs(block)) {
        static const auto others = kestra::test::fromLibrary<void* (*)(void*, size_t)>("realloc");
        return others(block, bytes);
    }
    void* moved = malloc(bytes);
    if (!moved) return nullptr;
    std::memcpy(moved, block, std::min(bytes, kestra::test::sizeOf(block)));
    free(block);
    return moved;
}
}
