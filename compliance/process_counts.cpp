// Handles come from the system's table and memory from a walk over the addresses: the counters that the system offers
// for one process say 0 on some systems.
#include "compliance/process_counts.h"

#include "win32/handle.h"

#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace kestra::compliance {
namespace {

constexpr ULONG kHandleInformation = 64;
constexpr LONG kTooSmall = static_cast<LONG>(0xC0000004);

struct HandleEntry {
    void* object;
    ULONG_PTR process, handle;
    ULONG access;
    USHORT backTrace, type;
    ULONG attributes, reserved;
};
struct HandleTable {
    ULONG_PTR count, reserved;
    HandleEntry entries[1];
};

int countHandles() {
    using Query = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
    const auto query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<unsigned char> table(1 << 20);
    LONG status = 0;
    while ((status = query(kHandleInformation, table.data(), static_cast<ULONG>(table.size()), nullptr)) == kTooSmall)
        table.resize(table.size() * 2);
    if (status < 0) throw std::runtime_error("the handle table cannot be read");
    const auto* handles = reinterpret_cast<const HandleTable*>(table.data());
    int count = 0;
    for (ULONG_PTR i = 0; i < handles->count; ++i)
        if (handles->entries[i].process == GetCurrentProcessId()) ++count;
    return count;
}

int countThreads() {
    const UniqueFile snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    if (!snapshot) throw std::runtime_error("the threads cannot be listed");
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    int count = 0;
    for (BOOL more = Thread32First(snapshot.get(), &entry); more; more = Thread32Next(snapshot.get(), &entry))
        if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
    return count;
}

/// Bytes of the private, committed memory between two addresses.
size_t countCommitted(const char* begin, const char* end) {
    size_t bytes = 0;
    MEMORY_BASIC_INFORMATION region{};
    for (const char* at = begin; at < end && VirtualQuery(at, &region, sizeof region) == sizeof region;) {
        const char* next = std::min(static_cast<const char*>(region.BaseAddress) + region.RegionSize, end);
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) bytes += static_cast<size_t>(next - at);
        at = next;
    }
    return bytes;
}

/// What the heaps hold and have not given out. A heap that has grown may keep it for the next, so that what is free
/// says more of the peaks of the past than of what is held now.
size_t countFreeInHeaps() {
    std::array<HANDLE, 64> heaps; // more than one process has: the rest counts as held
    const DWORD count = std::min<DWORD>(GetProcessHeaps(DWORD(heaps.size()), heaps.data()), DWORD(heaps.size()));
    size_t bytes = 0;
    for (DWORD i = 0; i < count; ++i) {
        if (!HeapLock(heaps[i])) continue;
        PROCESS_HEAP_ENTRY entry{};
        while (HeapWalk(heaps[i], &entry)) {
            if (entry.wFlags & (PROCESS_HEAP_ENTRY_BUSY | PROCESS_HEAP_REGION | PROCESS_HEAP_UNCOMMITTED_RANGE))
                continue;
            const auto* at = static_cast<const char*>(entry.lpData);
            bytes += countCommitted(at, at + entry.cbData); // the end of a heap may be free without being there
        }
        HeapUnlock(heaps[i]);
    }
    return bytes;
}

size_t countPrivateBytes() {
    const size_t bytes = countCommitted(nullptr, reinterpret_cast<const char*>(~uintptr_t{0}));
    return bytes - std::min(bytes, countFreeInHeaps());
}

} // namespace

int countGdiObjects() {
    const HMODULE system = GetModuleHandleW(L"ntdll.dll");
    if (!GetProcAddress(system, "wine_get_version")) // Wine answers with 0; what it uses stands in the process's table
        return static_cast<int>(GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS));
    constexpr size_t kTableInPeb = 0xF8, kEntries = 0x10000;
    struct Entry {
        uint64_t object;
        uint32_t owner;
        uint16_t unique;
        uint8_t type, flags; // type 0: free
        uint64_t user;
    };
    const auto currentPeb = reinterpret_cast<const std::byte*(WINAPI*)()>(
        reinterpret_cast<void*>(GetProcAddress(system, "RtlGetCurrentPeb")));
    const Entry* table = nullptr;
    std::memcpy(&table, currentPeb() + kTableInPeb, sizeof(void*));
    if (!table) return 0; // nothing has loaded gdi32 yet
    return static_cast<int>(std::count_if(table, table + kEntries, [](const Entry& entry) { return entry.type != 0; }));
}

ProcessCounts processCounts() {
    return {countHandles(), countThreads(), countPrivateBytes(), countGdiObjects(),
            static_cast<int>(GetGuiResources(GetCurrentProcess(), GR_USEROBJECTS))};
}

} // namespace kestra::compliance
