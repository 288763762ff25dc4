// A pin that records what it is given.
#include "tests/com/test_sink.h"

namespace kestra::test {

TestSink::~TestSink() {
    Disconnect();
    CoTaskMemFree(mediaType.pbFormat);
}

std::vector<ReceivedSample> TestSink::samples() const {
    const std::lock_guard lock(m_mutex);
    return m_samples;
}

void TestSink::forget() {
    const std::lock_guard lock(m_mutex);
    m_samples.clear();
    received = 0;
    endOfStreams = 0;
}

STDMETHODIMP TestSink::QueryInterface(REFIID riid, void** object) {
    *object = nullptr;
    if (riid == IID_IUnknown || riid == IID_IPin)
        *object = static_cast<IPin*>(this);
    else if (riid == IID_IMemInputPin)
        *object = static_cast<IMemInputPin*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

STDMETHODIMP TestSink::ReceiveConnection(IPin* pin, const AM_MEDIA_TYPE* type) {
    if (m_peer) return VFW_E_ALREADY_CONNECTED;
    if (acceptResult != S_OK) return acceptResult;
    if (accepts && !accepts(*type)) return VFW_E_TYPE_NOT_ACCEPTED;
    CoTaskMemFree(mediaType.pbFormat);
    mediaType = *type;
    mediaType.pUnk = nullptr;
    mediaType.pbFormat = static_cast<BYTE*>(CoTaskMemAlloc(type->cbFormat));
    memcpy(mediaType.pbFormat, type->pbFormat, type->cbFormat);
    m_peer = pin;
    m_peer->AddRef();
    return S_OK;
}

STDMETHODIMP TestSink::Disconnect() {
    if (!m_peer) return S_FALSE;
    m_peer->Release();
    m_peer = nullptr;
    return S_OK;
}

STDMETHODIMP TestSink::ConnectedTo(IPin** pin) {
    *pin = m_peer;
    if (!m_peer) return VFW_E_NOT_CONNECTED;
    m_peer->AddRef();
    return S_OK;
}

STDMETHODIMP TestSink::QueryPinInfo(PIN_INFO* info) {
    *info = {};
    info->dir = PINDIR_INPUT;
    return S_OK;
}

STDMETHODIMP TestSink::QueryDirection(PIN_DIRECTION* direction) {
    *direction = PINDIR_INPUT;
    return S_OK;
}

STDMETHODIMP TestSink::QueryAccept(const AM_MEDIA_TYPE* type) {
    return !accepts || accepts(*type) ? S_OK : S_FALSE;
}

STDMETHODIMP TestSink::EndOfStream() {
    ++endOfStreams;
    return S_OK;
}

STDMETHODIMP TestSink::GetAllocator(IMemAllocator** own) {
    *own = allocator;
    if (!allocator) return VFW_E_NO_ALLOCATOR;
    allocator->AddRef();
    return S_OK;
}

STDMETHODIMP TestSink::NotifyAllocator(IMemAllocator*, BOOL) {
    return notifyAllocatorResult;
}

STDMETHODIMP TestSink::Receive(IMediaSample* sample) {
    ++insideReceive;
    if (onReceive) onReceive(sample);
    if (const HANDLE event = blockUntil) WaitForSingleObject(event, 30000);
    BYTE* data = nullptr;
    sample->GetPointer(&data);
    ReceivedSample got{};
    got.timed = sample->GetTime(&got.start, &got.stop) == S_OK;
    got.syncPoint = sample->IsSyncPoint() == S_OK;
    ComRef<IMediaSample2> second;
    if (SUCCEEDED(sample->QueryInterface(IID_IMediaSample2, reinterpret_cast<void**>(second.out())))) {
        AM_SAMPLE2_PROPERTIES properties{};
        if (SUCCEEDED(second->GetProperties(sizeof properties, reinterpret_cast<BYTE*>(&properties))))
            got.typeSpecificFlags = properties.dwTypeSpecificFlags;
    }
    {
        const std::lock_guard lock(m_mutex);
        if (m_samples.size() < keep) {
            got.bytes.assign(data, data + sample->GetActualDataLength());
            m_samples.push_back(std::move(got));
        }
    }
    if (const long length = leaveActualLength) sample->SetActualDataLength(length);
    const HRESULT result = receiveResult;
    if (result == S_OK) ++received;
    --insideReceive;
    return result;
}

STDMETHODIMP TestSink::ReceiveMultiple(IMediaSample** samples, long count, long* processed) {
    for (*processed = 0; *processed < count; ++*processed)
        if (const HRESULT hr = Receive(samples[*processed]); hr != S_OK) return hr;
    return S_OK;
}

} // namespace kestra::test
