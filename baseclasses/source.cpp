// A source filter, its list of streams, and what a stream is called.
#include "source.h"

#include "firewall.h"
#include "held.h"

#include <algorithm>
#include <cwchar>
#include <new>

using kestra::com::counted;
using kestra::com::guarded;

CSource::CSource(LPCTSTR pName, LPUNKNOWN lpunk, CLSID clsid) : CBaseFilter(pName, lpunk, &m_cStateLock, clsid) {}

CSource::~CSource() {
    while (m_streams > 0)
        delete m_paStreams[m_streams - 1]; // each removes itself
    delete[] m_paStreams;
}

// Counts the streams itself, not through m_iPins: a derived class may keep something else there, and a filter with a
// wrong count cannot be stopped.
int CSource::GetPinCount() {
    CAutoLock lock(&m_list);
    return m_streams;
}

CBasePin* CSource::GetPin(int n) {
    CAutoLock lock(&m_list);
    return n >= 0 && n < m_streams ? m_paStreams[n] : nullptr;
}

HRESULT CSource::AddPin(CSourceStream* pStream) {
    CAutoLock lock(&m_list);
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
    CAutoLock lock(&m_list);
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
    return guarded([&]() -> HRESULT {
        *ppPin = counted(GetPin(int(place - 1)));
        return *ppPin ? S_OK : VFW_E_NOT_FOUND;
    });
}

int CSource::FindPinNumber(IPin* iPin) {
    CAutoLock lock(&m_list);
    for (int i = 0; i < m_streams; ++i) {
        if (static_cast<IPin*>(m_paStreams[i]) == iPin) return i;
    }
    return -1;
}

CSourceStream::CSourceStream(LPCTSTR pObjectName, HRESULT* phr, CSource* pms, LPCWSTR pName)
    : CBaseOutputPin(pObjectName, pms, pms->pStateLock(), phr, pName), m_pFilter(pms) {
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
