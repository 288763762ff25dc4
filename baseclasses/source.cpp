#include "source.h"

#include "firewall.h"

#include <algorithm>
#include <cwchar>
#include <new>

using kestra::com::guarded;

namespace {

constexpr DWORD kDecommittedMs = 5; // between two attempts to get a buffer

} // namespace

CSource::CSource(LPCTSTR pName, LPUNKNOWN lpunk, CLSID clsid) : CBaseFilter(pName, lpunk, &m_cStateLock, clsid) {}

CSource::CSource(LPCTSTR pName, LPUNKNOWN lpunk, CLSID clsid, HRESULT*) : CSource(pName, lpunk, clsid) {}

CSource::~CSource() {
    // Whoever lets go of a filter that still runs must not be left waiting for its workers.
    for (int i = 0; i < m_streams; ++i)
        m_paStreams[i]->CSourceStream::BreakConnect();
    while (m_streams > 0)
        delete m_paStreams[m_streams - 1]; // each takes itself out
    delete[] m_paStreams;
}

// The streams that there are, not m_iPins: a derived class may keep something else in that member, and a filter whose
// count is wrong cannot be stopped.
int CSource::GetPinCount() {
    CAutoLock lock(&m_cStateLock);
    return m_streams;
}

CBasePin* CSource::GetPin(int n) {
    CAutoLock lock(&m_cStateLock);
    return n >= 0 && n < m_streams ? m_paStreams[n] : nullptr;
}

HRESULT CSource::AddPin(CSourceStream* pStream) {
    CAutoLock lock(&m_cStateLock);
    auto** streams = new (std::nothrow) CSourceStream*[m_streams + 1];
    if (!streams) return E_OUTOFMEMORY;
    std::copy_n(m_paStreams, m_streams, streams);
    streams[m_streams++] = pStream;
    delete[] m_paStreams;
    m_paStreams = streams;
    m_iPins = m_streams;
    IncrementPinVersion();
    return S_OK;
}

HRESULT CSource::RemovePin(CSourceStream* pStream) {
    CAutoLock lock(&m_cStateLock);
    CSourceStream** end = m_paStreams + m_streams;
    CSourceStream** found = std::find(m_paStreams, end, pStream);
    if (found == end) return S_FALSE;
    std::copy(found + 1, end, found);
    m_iPins = --m_streams;
    IncrementPinVersion();
    return S_OK;
}

// The identifier of a stream is its place, counted from 1.
STDMETHODIMP CSource::FindPin(LPCWSTR Id, IPin** ppPin) {
    CheckPointer(ppPin, E_POINTER);
    *ppPin = nullptr;
    CheckPointer(Id, E_POINTER);
    if (*Id < L'1' || *Id > L'9') return VFW_E_NOT_FOUND; // what wcstol takes besides: spaces, signs, leading zeros
    wchar_t* end = nullptr;
    const long place = std::wcstol(Id, &end, 10);
    if (*end) return VFW_E_NOT_FOUND;
    CAutoLock lock(&m_cStateLock);
    return guarded([&]() -> HRESULT {
        CBasePin* pin = GetPin(int(place - 1));
        if (!pin) return VFW_E_NOT_FOUND;
        pin->AddRef();
        *ppPin = pin;
        return S_OK;
    });
}

int CSource::FindPinNumber(IPin* iPin) {
    CAutoLock lock(&m_cStateLock);
    for (int i = 0; i < m_streams; ++i) {
        if (static_cast<IPin*>(m_paStreams[i]) == iPin) return i;
    }
    return -1;
}

CSourceStream::CSourceStream(LPCTSTR pObjectName, HRESULT* phr, CSource* pms, LPCWSTR pName)
    : CAMThread(phr), CBaseOutputPin(pObjectName, pms, pms->pStateLock(), phr, pName), m_pFilter(pms) {
    const HRESULT hr = m_pFilter->AddPin(this);
    if (FAILED(hr) && phr) *phr = hr;
}

CSourceStream::~CSourceStream() {
    m_pFilter->RemovePin(this);
}

STDMETHODIMP CSourceStream::QueryId(LPWSTR* Id) {
    CheckPointer(Id, E_POINTER);
    *Id = nullptr;
    const int place = m_pFilter->FindPinNumber(this) + 1;
    if (place < 1) return VFW_E_NOT_FOUND;
    constexpr size_t kLength = 12;
    *Id = static_cast<LPWSTR>(CoTaskMemAlloc(kLength * sizeof(WCHAR)));
    if (!*Id) return E_OUTOFMEMORY;
    std::swprintf(*Id, kLength, L"%d", place);
    return S_OK;
}

HRESULT CSourceStream::Active() {
    CAutoLock lock(m_pFilter->pStateLock());
    if (m_pFilter->IsActive()) return S_FALSE;
    if (!IsConnected()) return S_OK;
    HRESULT hr = CBaseOutputPin::Active();
    if (FAILED(hr)) return hr;
    if (!Create()) {
        CBaseOutputPin::Inactive();
        return E_FAIL;
    }
    hr = Init();
    if (SUCCEEDED(hr)) hr = Pause();
    if (FAILED(hr)) {
        Close(); // a worker that could not be prepared has ended by itself
        CBaseOutputPin::Inactive();
    }
    return hr;
}

// The worker must not be waiting for a buffer. It ends after its answers, or has ended by an exception.
HRESULT CSourceStream::endWorker() {
    if (!ThreadExists()) return S_OK;
    const HRESULT stopped = Stop();
    const HRESULT ended = Exit(); // in any case: Close waits for the end
    Close();
    return FAILED(stopped) ? stopped : ended;
}

HRESULT CSourceStream::Inactive() {
    CAutoLock lock(m_pFilter->pStateLock());
    if (!IsConnected()) return S_OK;
    const HRESULT hr = CBaseOutputPin::Inactive(); // frees a worker that waits for a buffer
    const HRESULT ended = endWorker();
    return FAILED(hr) ? hr : ended;
}

// A pin that is disconnected while active is not visited by its filter's Stop: its worker ends here.
HRESULT CSourceStream::BreakConnect() {
    if (ThreadExists()) {
        if (m_pAllocator) m_pAllocator->Decommit(); // frees a worker that waits for a buffer
        endWorker();                                // before the input pin goes that it delivers to
    }
    return CBaseOutputPin::BreakConnect();
}

HRESULT CSourceStream::CheckMediaType(const CMediaType* pMediaType) {
    CAutoLock lock(m_pFilter->pStateLock());
    CMediaType own;
    const HRESULT hr = GetMediaType(&own);
    if (FAILED(hr)) return hr;
    return own == *pMediaType ? S_OK : E_FAIL;
}

HRESULT CSourceStream::GetMediaType(int iPosition, CMediaType* pMediaType) {
    CAutoLock lock(m_pFilter->pStateLock());
    if (iPosition < 0) return E_INVALIDARG;
    return iPosition == 0 ? GetMediaType(pMediaType) : VFW_S_NO_MORE_ITEMS;
}

BOOL CSourceStream::CheckRequest(Command* pCom) {
    DWORD request = 0;
    if (!CAMThread::CheckRequest(&request)) return FALSE;
    *pCom = Command(request);
    return TRUE;
}

DWORD CSourceStream::ThreadProc() {
    while (GetRequest() != CMD_INIT)
        Reply(DWORD(E_UNEXPECTED));
    const HRESULT created = OnThreadCreate();
    if (FAILED(created)) {
        OnThreadDestroy();
        Reply(DWORD(created));
        return 1;
    }
    Reply(S_OK);
    for (;;) {
        switch (GetRequest()) {
        case CMD_EXIT: {
            const HRESULT destroyed = OnThreadDestroy();
            Reply(S_OK);
            return FAILED(destroyed) ? 1 : 0;
        }
        case CMD_RUN:
        case CMD_PAUSE:
            Reply(S_OK);
            DoBufferProcessingLoop();
            break;
        case CMD_STOP:
            Reply(S_OK);
            break;
        default:
            Reply(DWORD(E_NOTIMPL));
            break;
        }
    }
}

// Leaves with a request other than run and pause still waiting for ThreadProc to answer.
HRESULT CSourceStream::DoBufferProcessingLoop() {
    OnThreadStartPlay();
    for (;;) {
        Command command;
        while (!CheckRequest(&command)) {
            IMediaSample* sample = nullptr;
            if (FAILED(GetDeliveryBuffer(&sample, nullptr, nullptr, 0))) {
                // Decommitted: the request to stop is on its way, unless the receiver has done it for a while only.
                WaitForSingleObject(GetRequestHandle(), kDecommittedMs);
                continue;
            }
            HRESULT hr = guarded([&] { return FillBuffer(sample); });
            const bool filled = hr == S_OK;
            if (filled) hr = guarded([&] { return Deliver(sample); });
            sample->Release();
            if (hr == S_OK) continue;
            if (filled) return S_OK; // the receiver wants no more
            DeliverEndOfStream();
            if (FAILED(hr)) m_pFilter->NotifyEvent(EC_ERRORABORT, hr, 0);
            return hr;
        }
        if (command != CMD_RUN && command != CMD_PAUSE) return S_FALSE;
        Reply(S_OK);
    }
}
