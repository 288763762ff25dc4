// A filter that takes what the pin under test delivers.
#include "tests/com/sink_filter.h"

#include <mmreg.h>

// The base classes want a class table; this program serves none.
CFactoryTemplate g_Templates[1];
int g_cTemplates = 0;

namespace kestra::test {

std::vector<ReceivedSample> SinkPin::samples() const {
    const std::lock_guard lock(m_mutex);
    return m_samples;
}

void SinkPin::forget() {
    const std::lock_guard lock(m_mutex);
    m_samples.clear();
    received = 0;
    endOfStreams = 0;
}

HRESULT SinkPin::CheckMediaType(const CMediaType* type) {
    if (!refuses24) return S_OK;
    return reinterpret_cast<const PCMWAVEFORMAT*>(type->Format())->wBitsPerSample == 24 ? E_FAIL : S_OK;
}

STDMETHODIMP SinkPin::EndOfStream() {
    ++endOfStreams;
    return S_OK;
}

STDMETHODIMP SinkPin::GetAllocator(IMemAllocator** offered) {
    *offered = allocator;
    if (!allocator) return VFW_E_NO_ALLOCATOR;
    allocator->AddRef();
    return S_OK;
}

STDMETHODIMP SinkPin::Receive(IMediaSample* sample) {
    ++insideReceive;
    if (const HANDLE event = blockUntil) WaitForSingleObject(event, 30000);
    if (onReceive) onReceive();
    BYTE* data = nullptr;
    sample->GetPointer(&data);
    ReceivedSample got{};
    got.timed = sample->GetTime(&got.start, &got.stop) == S_OK;
    got.syncPoint = sample->IsSyncPoint() == S_OK;
    {
        const std::lock_guard lock(m_mutex);
        if (m_samples.size() < keep) {
            got.bytes.assign(data, data + sample->GetActualDataLength());
            m_samples.push_back(std::move(got));
        }
    }
    const HRESULT result = receiveResult;
    if (result == S_OK) ++received;
    --insideReceive;
    return result;
}

} // namespace kestra::test
