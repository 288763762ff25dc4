// The output pin: its allocator and what it delivers.
#include "firewall.h"
#include "held.h"
#include "pin.h"

#include <initializer_list>

using kestra::com::guarded;
using kestra::com::Held;

CBaseOutputPin::CBaseOutputPin(LPCTSTR pObjectName, CBaseFilter* pFilter, CCritSec* pLock, HRESULT* phr, LPCWSTR pName)
    : CBasePin(pObjectName, pFilter, pLock, phr, pName, PINDIR_OUTPUT) {}

CBaseOutputPin::~CBaseOutputPin() {
    if (m_pAllocator) m_pAllocator->Release();
    if (m_pInputPin) m_pInputPin->Release();
}

HRESULT CBaseOutputPin::CheckConnect(IPin* pPin) {
    const HRESULT hr = CBasePin::CheckConnect(pPin);
    if (FAILED(hr)) return hr;
    Held<IMemInputPin> input;
    const HRESULT found = pPin->QueryInterface(IID_IMemInputPin, input.outVoid());
    if (FAILED(found)) return found;
    if (m_pInputPin) m_pInputPin->Release();
    m_pInputPin = input.exchange();
    return S_OK;
}

HRESULT CBaseOutputPin::CompleteConnect(IPin*) {
    return DecideAllocator(m_pInputPin, &m_pAllocator);
}

HRESULT CBaseOutputPin::BreakConnect() {
    if (m_pAllocator) {
        const HRESULT hr = m_pAllocator->Decommit();
        if (FAILED(hr)) return hr;
        m_pAllocator->Release();
        m_pAllocator = nullptr;
    }
    if (m_pInputPin) {
        m_pInputPin->Release();
        m_pInputPin = nullptr;
    }
    return S_OK;
}

// The receiver's allocator first, then our own; each must take our buffer size and be taken by the receiver.
HRESULT CBaseOutputPin::DecideAllocator(IMemInputPin* pPin, IMemAllocator** ppAlloc) {
    *ppAlloc = nullptr;
    ALLOCATOR_PROPERTIES wanted{};
    if (FAILED(pPin->GetAllocatorRequirements(&wanted))) wanted = {}; // a receiver need not have any
    if (wanted.cbAlign == 0) wanted.cbAlign = 1;
    HRESULT hr = E_FAIL;
    for (const bool receivers : {true, false}) {
        Held<IMemAllocator> allocator; // DecideBufferSize may throw
        hr = receivers ? pPin->GetAllocator(allocator.out()) : InitAllocator(allocator.out());
        if (SUCCEEDED(hr) && !allocator) hr = VFW_E_NO_ALLOCATOR;
        ALLOCATOR_PROPERTIES request = wanted; // the second round starts from what the receiver asked for, too
        if (SUCCEEDED(hr)) hr = DecideBufferSize(allocator.get(), &request);
        if (SUCCEEDED(hr)) hr = pPin->NotifyAllocator(allocator.get(), FALSE);
        if (SUCCEEDED(hr)) {
            *ppAlloc = allocator.exchange();
            return S_OK;
        }
    }
    return hr;
}

HRESULT CBaseOutputPin::InitAllocator(IMemAllocator** ppAlloc) {
    return CoCreateInstance(CLSID_MemoryAllocator, nullptr, CLSCTX_INPROC_SERVER, IID_IMemAllocator,
                            reinterpret_cast<void**>(ppAlloc));
}

HRESULT CBaseOutputPin::Active() {
    return m_pAllocator ? m_pAllocator->Commit() : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseOutputPin::Inactive() {
    return m_pAllocator ? m_pAllocator->Decommit() : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseOutputPin::GetDeliveryBuffer(IMediaSample** ppSample, REFERENCE_TIME* pStartTime, REFERENCE_TIME* pEndTime,
                                          DWORD dwFlags) {
    *ppSample = nullptr;
    return m_pAllocator ? m_pAllocator->GetBuffer(ppSample, pStartTime, pEndTime, dwFlags) : E_NOINTERFACE;
}

HRESULT CBaseOutputPin::Deliver(IMediaSample* pSample) {
    if (!m_pInputPin) return VFW_E_NOT_CONNECTED;
    m_deliverer = GetCurrentThreadId();
    const HRESULT hr = guarded([&] { return m_pInputPin->Receive(pSample); });
    m_deliverer = 0;
    return hr;
}

HRESULT CBaseOutputPin::DeliverEndOfStream() {
    return m_Connected ? m_Connected->EndOfStream() : VFW_E_NOT_CONNECTED;
}
