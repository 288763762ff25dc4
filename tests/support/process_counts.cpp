// Handles are counted in the system's own handle table and memory by a walk through the address space:
// GetProcessHandleCount and PrivateUsage report 0 under Wine.
#include "tests/support/process_counts.h"

#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace kestra::test {
namespace {

constexpr ULONG kSystemExtendedHandleInformation = 64;
constexpr LONG kInfoLengthMismatch = static_cast<LONG>(0xC0000004);

struct HandleEntry {
    void* object;
    ULONG_PTR processId;
    ULONG_PTR handle;
    ULONG grantedAccess;
    USHORT creatorBackTraceIndex;
    USHORT objectTypeIndex;
    ULONG attributes;
    ULONG reserved;
};

struct HandleTable {
    ULONG_PTR count;
    ULONG_PTR reserved;
    HandleEntry entries[1];
};

int countHandles() {
    using Query = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
    const auto query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<unsigned char> buffer(1 << 20);
    LONG status = 0;
    while ((status = query(kSystemExtendedHandleInformation, buffer.data(), static_cast<ULONG>(buffer.size()),
                           nullptr)) == kInfoLengthMismatch)
        buffer.resize(buffer.size() * 2);
    if (status < 0) throw std::runtime_error("the handle table cannot be read");
    const auto* table = reinterpret_cast<const HandleTable*>(buffer.data());
    int count = 0;
    for (ULONG_PTR i = 0; i < table->count; ++i)
        if (table->entries[i].processId == GetCurrentProcessId()) ++count;
    return count;
}

int countThreads() {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) throw std::runtime_error("the threads cannot be listed");
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    int count = 0;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
        if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
    CloseHandle(snapshot);
    return count;
}

size_t countPrivateBytes() {
    size_t bytes = 0;
    MEMORY_BASIC_INFORMATION region{};
    for (const char* address = nullptr; VirtualQuery(address, &region, sizeof region) == sizeof region;
         address = static_cast<const char*>(region.BaseAddress) + region.RegionSize)
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) bytes += region.RegionSize;
    return bytes;
}

} // namespace

ProcessCounts processCounts() {
    return {countHandles(), countThreads(), countPrivateBytes()};
}

ProcessCounts CountsOverCycles::leastOf(size_t begin, size_t end) const {
    if (m_counts.size() < 6) throw std::logic_error("too few cycles to tell a trend");
    ProcessCounts least = m_counts[begin];
    for (size_t i = begin + 1; i < end; ++i) {
        least.handles = std::min(least.handles, m_counts[i].handles);
        least.threads = std::min(least.threads, m_counts[i].threads);
        least.privateBytes = std::min(least.privateBytes, m_counts[i].privateBytes);
    }
    return least;
}

ProcessCounts CountsOverCycles::second() const {
    return leastOf(m_counts.size() / 3, m_counts.size() * 2 / 3);
}

ProcessCounts CountsOverCycles::last() const {
    return leastOf(m_counts.size() * 2 / 3, m_counts.size());
}

CountsOverCycles::Growth CountsOverCycles::growth() const {
    const ProcessCounts before = second(), after = last();
    return {after.handles - before.handles, after.threads - before.threads,
            static_cast<long long>(after.privateBytes) - static_cast<long long>(before.privateBytes)};
}

std::string CountsOverCycles::describe(const char* what) const {
    const ProcessCounts before = second(), after = last();
    char text[200];
    std::snprintf(text, sizeof text, "%zu %s: handles %d to %d, threads %d to %d, private memory %zu to %zu kB",
                  m_counts.size(), what, before.handles, after.handles, before.threads, after.threads,
                  before.privateBytes / 1024, after.privateBytes / 1024);
    return text;
}

} // namespace kestra::test
