// The scratch image of a 10-bit decode: virtual memory committed for one call. The kernels convert straight from the
// packed words and never touch its pages, so it costs no more than the commitment. Private to decode/.
#pragma once

#include <cstdint>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace kestra {

class ScratchImage {
public:
    /// Commits width * 4 * height bytes, read-write. Test the object: it is false if the system refused.
    ScratchImage(uint32_t width, uint32_t height) noexcept : m_bytes(uint64_t{4} * width * height) {
#ifdef _WIN32
        m_base = VirtualAlloc(nullptr, m_bytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
#else
        void* base = mmap(nullptr, m_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        m_base = base == MAP_FAILED ? nullptr : base;
#endif
    }
    ~ScratchImage() {
        if (!m_base) return;
#ifdef _WIN32
        VirtualFree(m_base, 0, MEM_RELEASE);
#else
        munmap(m_base, m_bytes);
#endif
    }
    ScratchImage(const ScratchImage&) = delete;
    ScratchImage& operator=(const ScratchImage&) = delete;

    explicit operator bool() const noexcept {
        return m_base != nullptr;
    }

private:
    const uint64_t m_bytes;
    void* m_base = nullptr;
};

} // namespace kestra
