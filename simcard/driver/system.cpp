// Finds the host's functions by walking its list of loaded modules. Runs once, in DriverEntry.
#include "simcard/driver/system.h"

#include <cstdint>

namespace kestra::simcard {

System g_system;

namespace {

struct ModuleEntry { // the host's loader record, up to what is read here
    LIST_ENTRY inLoadOrder, inMemoryOrder, inInitOrder;
    const uint8_t* base;
    void* entryPoint;
    ULONG size;
    UNICODE_STRING fullName, baseName;
};

const uint8_t* findModule(const wchar_t* name) noexcept {
    const uint8_t* peb;
    __asm__("movq %%gs:0x60, %0" : "=r"(peb));
    const uint8_t* loader = *reinterpret_cast<const uint8_t* const*>(peb + 0x18);
    const LIST_ENTRY* head = reinterpret_cast<const LIST_ENTRY*>(loader + 0x10);
    for (const LIST_ENTRY* at = head->Flink; at != head; at = at->Flink) {
        const auto* entry = reinterpret_cast<const ModuleEntry*>(at);
        ULONG i = 0;
        while (name[i] && i < entry->baseName.Length / 2u && (entry->baseName.Buffer[i] | 0x20) == (name[i] | 0x20))
            ++i;
        if (!name[i] && i == entry->baseName.Length / 2u) return entry->base;
    }
    return nullptr;
}

bool sameText(const char* a, const char* b) noexcept {
    while (*a && *a == *b)
        ++a, ++b;
    return *a == *b;
}

void* findExport(const uint8_t* base, const char* name) noexcept {
    const auto at32 = [](const uint8_t* p) { return *reinterpret_cast<const uint32_t*>(p); };
    const uint8_t* optional = base + at32(base + 0x3C) + 24;
    const uint8_t* exports = base + at32(optional + 112);
    const uint32_t count = at32(exports + 24);
    const auto* functions = reinterpret_cast<const uint32_t*>(base + at32(exports + 28));
    const auto* names = reinterpret_cast<const uint32_t*>(base + at32(exports + 32));
    const auto* ordinals = reinterpret_cast<const uint16_t*>(base + at32(exports + 36));
    for (uint32_t i = 0; i < count; ++i)
        if (sameText(reinterpret_cast<const char*>(base + names[i]), name))
            return const_cast<uint8_t*>(base + functions[ordinals[i]]);
    return nullptr;
}

template <class Function>
bool resolve(const uint8_t* base, const char* name, Function& function) noexcept {
    function = reinterpret_cast<Function>(findExport(base, name));
    return function != nullptr;
}

} // namespace

bool System::load() noexcept {
    const uint8_t* base = findModule(L"ntdll.dll");
    return base && resolve(base, "NtOpenProcess", openProcess) && resolve(base, "NtClose", close) &&
           resolve(base, "NtWriteVirtualMemory", writeMemory) && resolve(base, "NtDuplicateObject", duplicate) &&
           resolve(base, "NtSetEvent", setEvent) && resolve(base, "NtDelayExecution", delay) &&
           resolve(base, "RtlInitializeCriticalSection", initLock) && resolve(base, "RtlEnterCriticalSection", enter) &&
           resolve(base, "RtlLeaveCriticalSection", leave) &&
           resolve(base, "NtQueryPerformanceCounter", queryCounter) && resolve(base, "NtOpenFile", openFile) &&
           resolve(base, "NtCreateNamedPipeFile", createPipe) && resolve(base, "NtCreateMailslotFile", createMailslot);
}

} // namespace kestra::simcard

// The compiler calls these for copies and fills; there is no C library here.
extern "C" {
void* memcpy(void* to, const void* from, size_t size) {
    void* result = to;
    __asm__ volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
    return result;
}
void* memset(void* to, int value, size_t size) {
    void* result = to;
    __asm__ volatile("rep stosb" : "+D"(to), "+c"(size) : "a"(value) : "memory");
    return result;
}
int memcmp(const void* a, const void* b, size_t size) {
    const auto* x = static_cast<const unsigned char*>(a);
    const auto* y = static_cast<const unsigned char*>(b);
    for (; size != 0; --size, ++x, ++y)
        if (*x != *y) return *x - *y;
    return 0;
}
}
