// What the decoder's tests share: raw lines of known samples, guarded memory, and the kernel sets that run here.
#pragma once

#include "decode/kernel_set.h"
#include "decode/parallel.h"
#include "protocol/raw_frame.h"
#include "tests/support/long_run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace kestra::test {

/// The kernel sets that this processor runs.
inline std::vector<const KernelSet*> runningSets() {
    std::vector<const KernelSet*> sets;
    std::copy_if(kKernelSets.begin(), kKernelSets.end(), std::back_inserter(sets),
                 [](const KernelSet* set) { return set->runsHere(); });
    return sets;
}

/// Uses one kernel set for the life of the object.
class ForcedKernels {
public:
    explicit ForcedKernels(const KernelSet& set) : m_before(kernels()) { EXPECT_TRUE(useKernels(set)); }
    ~ForcedKernels() { useKernels(m_before); }
    ForcedKernels(const ForcedKernels&) = delete;
    ForcedKernels& operator=(const ForcedKernels&) = delete;

private:
    const KernelSet& m_before;
};

/// Shares loops always or never for the life of the object.
class ForcedSharing {
public:
    explicit ForcedSharing(Sharing sharing) : m_before(g_sharing.exchange(sharing)) {}
    ~ForcedSharing() { g_sharing = m_before; }
    ForcedSharing(const ForcedSharing&) = delete;
    ForcedSharing& operator=(const ForcedSharing&) = delete;

private:
    const Sharing m_before;
};

/// Bytes that end at (or begin after) an inaccessible page: reading or writing beyond them faults.
class GuardedBytes {
public:
    /// @param atEnd the bytes end at the guard page; otherwise they begin after one
    explicit GuardedBytes(size_t size, bool atEnd = true) : m_size(size) {
        m_pages = (size + kPage - 1) / kPage * kPage;
        m_base = reserve(m_pages + 2 * kPage);
        protect(m_base, kPage);
        protect(m_base + kPage + m_pages, kPage);
        m_data = m_base + kPage + (atEnd ? m_pages - size : 0);
    }
    ~GuardedBytes() { release(m_base, m_pages + 2 * kPage); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }
    uint8_t* begin() const { return m_data; }
    uint8_t* end() const { return m_data + m_size; }

private:
    static constexpr size_t kPage = 4096;
#ifdef _WIN32
    static uint8_t* reserve(size_t bytes) {
        return static_cast<uint8_t*>(VirtualAlloc(nullptr, bytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    }
    static void protect(uint8_t* base, size_t bytes) {
        DWORD old = 0;
        VirtualProtect(base, bytes, PAGE_NOACCESS, &old);
    }
    static void release(uint8_t* base, size_t) {
        VirtualFree(base, 0, MEM_RELEASE);
    }
#else
    static uint8_t* reserve(size_t bytes) {
        return static_cast<uint8_t*>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    }
    static void protect(uint8_t* base, size_t bytes) {
        mprotect(base, bytes, PROT_NONE);
    }
    static void release(uint8_t* base, size_t bytes) {
        munmap(base, bytes);
    }
#endif
    size_t m_size, m_pages;
    uint8_t *m_base, *m_data;
};

/// Sparse pages: only those that are used take memory.
class SparseBytes {
public:
    SparseBytes(size_t step, size_t count) : m_step(step), m_size(step * (count - 1) + kPage) {
#ifdef _WIN32
        m_base = static_cast<uint8_t*>(VirtualAlloc(nullptr, m_size, MEM_RESERVE, PAGE_NOACCESS));
        for (size_t i = 0; i < count; ++i)
            VirtualAlloc(at(i), kPage, MEM_COMMIT, PAGE_READWRITE);
#else
        m_base = static_cast<uint8_t*>(
            mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
#endif
    }
    ~SparseBytes() {
#ifdef _WIN32
        VirtualFree(m_base, 0, MEM_RELEASE);
#else
        munmap(m_base, m_size);
#endif
    }
    SparseBytes(const SparseBytes&) = delete;
    SparseBytes& operator=(const SparseBytes&) = delete;
    uint8_t* at(size_t i) const {
        return m_base + i * m_step;
    }

private:
    static constexpr size_t kPage = 4096;
    const size_t m_step, m_size;
    uint8_t* m_base;
};

/// A set's name as a test name: letters and digits only.
inline std::string setName(const testing::TestParamInfo<const KernelSet*>& info) {
    std::string name = info.param->name;
    name.erase(std::remove(name.begin(), name.end(), '.'), name.end());
    return name;
}

inline void fillRandom(uint8_t* first, uint8_t* last, uint32_t seed) {
    std::mt19937 random(seed);
    for (; first != last; ++first)
        *first = static_cast<uint8_t>(random());
}

/// Bytes from one raw line to the next.
inline size_t rawStride(uint32_t selector, uint32_t width) {
    return rawLineBytes(selector, width);
}

inline uint32_t rgbStride(uint32_t width) {
    return rgbLineBytes(width);
}

inline TarnisCameraData cameraData(uint32_t selector, uint16_t width, uint16_t height, bool interlaced = false) {
    TarnisCameraData data{};
    data.outputSelector = selector;
    data.status.width = width;
    data.status.height = height;
    data.status.interlaced = interlaced ? 1 : 0;
    return data;
}

/// Packs 10-bit samples, six in a word.
inline std::vector<uint8_t> pack10(const std::vector<uint16_t>& samples) {
    std::vector<uint8_t> bytes((samples.size() + 5) / 6 * 8);
    for (size_t i = 0; i < samples.size(); ++i) {
        uint64_t word = 0;
        std::memcpy(&word, &bytes[i / 6 * 8], sizeof word);
        word |= uint64_t{samples[i]} << 10 * (i % 6);
        std::memcpy(&bytes[i / 6 * 8], &word, sizeof word);
    }
    return bytes;
}

} // namespace kestra::test
