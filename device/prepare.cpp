// Programming a channel and locking its DMA buffers; reading a register. Any thread; one prepare a channel at a time.
#include "device/grabber.h"
#include "log/log.h"

#include <new>

using namespace kestra;

namespace {

constexpr LogUnit kUnit{"\"Internal Functions\"", L".\\TARNIS_noexp.cpp"};

/// The largest region that one lock request may cover, by the operating system's version.
uint64_t largestChunk() noexcept {
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    GetVersionExW(&version);
    const DWORD v = version.dwMajorVersion * 10 + version.dwMinorVersion;
    return v >= 61 ? 0xFFFFF000 : v == 60 ? 0x7FFFF000 : 0x1FF9E00;
}

/// 0 while all chunks are locked; else why one is not. A driver may take a lock request and refuse it a moment later.
uint32_t refusedLock(HANDLE device, DmaBuffers& buffers) noexcept {
    for (const auto& chunk : buffers.chunks) {
        DWORD bytes = 0;
        if (chunk->lock.isPending()) continue;
        if (!GetOverlappedResult(device, &chunk->lock.overlapped, &bytes, FALSE)) return statusOf(GetLastError());
    }
    return TARNIS_SUCCESS;
}

/// Sends the table of chunks, which tells the card where in this process its buffers lie.
uint32_t sendChunkTable(TARNIS_GIS& instance, int8_t port, const DmaBuffers& buffers) {
    std::vector<std::byte> table(sizeof(wire::ChunkTableHead) + buffers.chunks.size() * sizeof(wire::Chunk));
    const wire::ChunkTableHead head{0, static_cast<uint32_t>(buffers.chunks.size())};
    std::memcpy(table.data(), &head, sizeof head);
    for (size_t i = 0; i < buffers.chunks.size(); ++i) {
        const DmaBuffers::Chunk& chunk = *buffers.chunks[i];
        const wire::Chunk entry{reinterpret_cast<uint64_t>(buffers.base) + chunk.offset, chunk.length,
                                chunk.firstBuffer, chunk.bufferCount, 0};
        std::memcpy(table.data() + sizeof head + i * sizeof entry, &entry, sizeof entry);
    }
    const uint32_t code = wire::ChunkTable::codeOf(port);
    const RequestResult result =
        instance.rawIOCtl(code, nullptr, 0, table.data(), static_cast<uint32_t>(table.size()), nullptr, false);
    uint32_t driverResult = 0;
    std::memcpy(&driverResult, table.data(), sizeof driverResult);
    if (result.status != TARNIS_SUCCESS) return result.status;
    return driverResult != 0 ? TARNIS_FAILURE : TARNIS_SUCCESS;
}

/// Frees the channel's buffers and allocates and locks new ones.
uint32_t allocateBuffers(TARNIS_GIS& instance, int8_t port, uint32_t count, uint32_t size) {
    Channel& channel = instance.channel(port);
    std::shared_ptr<DmaBuffers> old;
    {
        const std::lock_guard lock(instance.m_state);
        old = std::move(channel.buffers);
        channel.buffers.reset();
    }
    if (old) old->unlock(instance.deviceHandle());
    old.reset();
    if (size == 0) return TARNIS_FAILURE; // the driver prepared nothing
    const auto perChunk = static_cast<uint32_t>(largestChunk() / size);
    if (perChunk == 0) return TARNIS_OUT_OF_MEMORY;

    auto buffers = std::make_shared<DmaBuffers>();
    buffers->bufferSize = size;
    buffers->bufferCount = count;
    buffers->base =
        static_cast<std::byte*>(VirtualAlloc(nullptr, size_t{count} * size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    if (!buffers->base) return TARNIS_OUT_OF_MEMORY;
    for (uint32_t first = 0; first < count; first += perChunk) {
        auto chunk = std::make_unique<DmaBuffers::Chunk>();
        chunk->firstBuffer = first;
        chunk->bufferCount = std::min(perChunk, count - first);
        chunk->offset = uint64_t{first} * size;
        chunk->length = uint64_t{chunk->bufferCount} * size;
        buffers->chunks.push_back(std::move(chunk));
    }
    uint32_t code = TARNIS_SUCCESS;
    for (const auto& chunk : buffers->chunks) {
        const uint32_t lockCode = wire::LockChunk::codeOf(port);
        code = instance
                   .issueLasting(lockCode, nullptr, 0, buffers->base + chunk->offset,
                                 static_cast<uint32_t>(chunk->length), chunk->lock)
                   .status;
        if (code != TARNIS_SUCCESS) break;
    }
    if (code == TARNIS_SUCCESS) {
        code = sendChunkTable(instance, port, *buffers);
        if (const uint32_t refused = refusedLock(instance.deviceHandle(), *buffers)) code = refused;
    }
    if (code != TARNIS_SUCCESS) {
        buffers->unlock(instance.deviceHandle());
        return code;
    }
    const std::lock_guard lock(instance.m_state);
    channel.buffers = std::move(buffers);
    return TARNIS_SUCCESS;
}

/// True if the channel is prepared for just this already, with its buffers locked. Under m_state.
bool isPreparedFor(const Channel& channel, const TarnisCameraData& wanted) noexcept {
    if (!channel.prepared || !channel.buffers || !channel.buffers->isLocked()) return false;
    const TarnisCameraData& stored = *channel.prepared;
    return stored.outputSelector == wanted.outputSelector && stored.outputParameter == wanted.outputParameter &&
           stored.status.width == wanted.status.width && stored.status.height == wanted.status.height &&
           stored.status.signalFlags == wanted.status.signalFlags &&
           (!channel.alternateFormat || stored.extra == wanted.extra);
}

uint32_t prepareChannel(TARNIS_GIS& instance, int8_t port, TarnisCameraData& cameraData) {
    Channel& channel = instance.channel(port);
    const std::lock_guard oneAtATime(channel.prepareMutex);
    const uint32_t statusCode = TARNIS_GetCameraStatus(&instance, port, &cameraData.status);
    TarnisCameraData stored = cameraData;
    {
        const std::lock_guard lock(instance.m_state);
        if (isPreparedFor(channel, cameraData)) return statusCode;
        if (stored.status.interlaced == 0) stored.outputParameter = 0;
        channel.prepared = stored;
    }
    wire::PrepareRequest request{};
    request.selector = static_cast<uint8_t>(channel.alternateFormat ? stored.extra : stored.outputSelector);
    request.videoMode = static_cast<uint8_t>(stored.status.videoMode);
    request.outputParameter = static_cast<uint8_t>(stored.outputParameter);
    request.constants[1] = request.constants[3] = 1;
    wire::PrepareReply reply{};
    const RequestResult result = instance.ask(wire::kPrepare, port, request, reply);
    if (result.status != TARNIS_SUCCESS) {
        const std::lock_guard lock(instance.m_state);
        channel.prepared.reset();
        return result.status;
    }
    return allocateBuffers(instance, port, channel.bufferCount, reply.frameSizeBytes);
}

} // namespace

uint32_t noexp_TARNIS_Prepare(TARNIS_HANDLE hGrabber, int8_t port, TarnisCameraData* pCameraData) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    if (!pCameraData) {
        KESTRA_LOG(kUnit, __func__, LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"pCameraData is NULL");
        return TARNIS_INVALID_ARGUMENT;
    }
    if (!hGrabber->hasAccess(port)) return TARNIS_NO_DMA_ACCESS;
    try {
        return prepareChannel(*hGrabber, port, *pCameraData);
    } catch (const std::bad_alloc&) {
        return TARNIS_OUT_OF_MEMORY;
    }
}

uint32_t noexp_TARNIS_ReadI2C(TARNIS_HANDLE hGrabber, int8_t port, uint16_t registerNumber, uint16_t* pValue) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    wire::ReadRegisterRequest request{{}, registerNumber};
    wire::ReadRegisterReply reply{};
    const RequestResult result = hGrabber->ask(wire::kReadRegister, static_cast<int8_t>(port & ~1), request, reply);
    if (result.status == TARNIS_SUCCESS && pValue) *pValue = reply.value;
    return result.status;
}
