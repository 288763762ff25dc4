// One region of memory per channel, cut into chunks that one lock request each may cover.
#include "device/dma_buffers.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

namespace kestra {
namespace {

/// The largest region that one lock request may cover, by the operating system's version.
uint64_t largestChunk() noexcept {
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    GetVersionExW(&version);
    const DWORD v = version.dwMajorVersion * 10 + version.dwMinorVersion;
    return v >= 61 ? 0xFFFFF000 : v == 60 ? 0x7FFFF000 : 0x1FF9E00;
}

} // namespace

std::shared_ptr<DmaBuffers> DmaBuffers::allocate(uint32_t count, uint32_t sizeBytes) {
    const auto perChunk = static_cast<uint32_t>(largestChunk() / sizeBytes);
    if (perChunk == 0) return nullptr;
    std::shared_ptr<DmaBuffers> buffers(new DmaBuffers);
    buffers->m_bufferSize = sizeBytes;
    buffers->m_bufferCount = count;
    buffers->m_base = static_cast<std::byte*>(
        VirtualAlloc(nullptr, size_t{count} * sizeBytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    if (!buffers->m_base) return nullptr;
    for (uint32_t first = 0; first < count; first += perChunk) {
        auto chunk = std::make_unique<Chunk>();
        chunk->firstBuffer = first;
        chunk->bufferCount = std::min(perChunk, count - first);
        chunk->offset = uint64_t{first} * sizeBytes;
        chunk->length = uint64_t{chunk->bufferCount} * sizeBytes;
        buffers->m_chunks.push_back(std::move(chunk));
    }
    buffers->m_table.resize(sizeof(wire::ChunkTableHead) + buffers->m_chunks.size() * sizeof(wire::Chunk));
    return buffers;
}

DmaBuffers::~DmaBuffers() {
    if (m_isWritten) {
        for (auto& chunk : m_chunks)
            (void)chunk.release(); // the system has not let go of it, and never will
        return;
    }
    if (m_base) VirtualFree(m_base, 0, MEM_RELEASE);
}

bool DmaBuffers::isLocked() const noexcept {
    return std::all_of(m_chunks.begin(), m_chunks.end(), [](const auto& chunk) { return chunk->lock.isPending(); });
}

bool DmaBuffers::contains(uint64_t address) const noexcept {
    return isBuffer(address, reinterpret_cast<uint64_t>(m_base), m_bufferSize, m_bufferCount);
}

void DmaBuffers::unlock(CardRequests& requests) noexcept {
    for (const auto& chunk : m_chunks)
        if (!requests.end(chunk->lock, CardRequests::kCancelMs)) m_isWritten = true;
}

uint32_t DmaBuffers::lock(CardRequests& requests, int8_t port) {
    uint32_t code = TARNIS_SUCCESS;
    for (const auto& chunk : m_chunks) {
        code = requests
                   .issueDirect(wire::LockChunk::codeOf(port), m_base + chunk->offset,
                                static_cast<uint32_t>(chunk->length), chunk->lock)
                   .status;
        if (code != TARNIS_SUCCESS) break;
    }
    if (code == TARNIS_SUCCESS) {
        code = sendTable(requests, port);
        if (const uint32_t refused = refusedLock(requests)) code = refused;
    }
    if (code != TARNIS_SUCCESS) unlock(requests);
    return code;
}

/// 0 while all chunks are locked; else why one is not. A driver may take a lock request and refuse it a moment later.
uint32_t DmaBuffers::refusedLock(CardRequests& requests) const noexcept {
    for (const auto& chunk : m_chunks) {
        DWORD bytes = 0;
        if (chunk->lock.isPending()) continue;
        if (const DWORD error = requests.collect(chunk->lock, bytes)) return statusOf(error);
    }
    return TARNIS_SUCCESS;
}

uint32_t DmaBuffers::sendTable(CardRequests& requests, int8_t port) {
    const wire::ChunkTableHead head{0, static_cast<uint32_t>(m_chunks.size())};
    std::memcpy(m_table.data(), &head, sizeof head);
    for (size_t i = 0; i < m_chunks.size(); ++i) {
        const Chunk& chunk = *m_chunks[i];
        const wire::Chunk entry{reinterpret_cast<uint64_t>(m_base) + chunk.offset, chunk.length, chunk.firstBuffer,
                                chunk.bufferCount, 0};
        std::memcpy(m_table.data() + sizeof head + i * sizeof entry, &entry, sizeof entry);
    }
    const RequestResult result = requests.askDirect(wire::ChunkTable::codeOf(port), m_table.data(),
                                                    static_cast<uint32_t>(m_table.size()), INFINITE);
    if (result.status != TARNIS_SUCCESS) return result.status;
    return driverResultOf(m_table.data()) != 0 ? TARNIS_FAILURE : TARNIS_SUCCESS;
}

} // namespace kestra
