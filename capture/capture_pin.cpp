// The pin's COM methods: formats, connection, start and stop, in the words of its kind.
#include "capture/capture_pin.h"

#include "capture/capture_filter.h"
#include "capture/trace.h"
#include "protocol/user_settings.h"
#include "win32/registry_key.h"

#include <algorithm>
#include <new>

namespace kestra {
namespace {

constexpr uint32_t kBuffers = 10;
constexpr HRESULT kPropertySetUnsupported = static_cast<HRESULT>(0x80070492);
constexpr HRESULT kPropertyIdUnsupported = static_cast<HRESULT>(0x80070490);

/// Fails for a type that has a length but no block, and if memory runs out.
/// @return VFW_E_INVALIDMEDIATYPE, E_OUTOFMEMORY
HRESULT copyOf(const AM_MEDIA_TYPE& type, CMediaType& copy) {
    if (type.cbFormat != 0 && !type.pbFormat) return VFW_E_INVALIDMEDIATYPE;
    const HRESULT hr = copy.Set(type);
    return SUCCEEDED(hr) && copy.cbFormat != type.cbFormat ? E_OUTOFMEMORY : hr;
}

/// @return 0 if the key or value is missing or is not four bytes long
uint32_t readSetting(const wchar_t* name) noexcept {
    UniqueKey key;
    DWORD value = 0, size = sizeof value;
    if (RegOpenKeyW(HKEY_CURRENT_USER, kFormatsKey, key.out()) != ERROR_SUCCESS) return 0;
    const LSTATUS status = RegQueryValueExW(key.get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
    return status == ERROR_SUCCESS && size == sizeof value ? value : 0;
}

void writeSetting(const wchar_t* name, uint32_t value) noexcept {
    UniqueKey key;
    if (RegCreateKeyW(HKEY_CURRENT_USER, kFormatsKey, key.out()) != ERROR_SUCCESS) return;
    RegSetValueExW(key.get(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

HRESULT checkProperty(REFGUID set, DWORD id) {
    if (set != AMPROPSETID_Pin) return kPropertySetUnsupported;
    return id == AMPROPERTY_PIN_CATEGORY ? S_OK : kPropertyIdUnsupported;
}

} // namespace

CapturePin::CapturePin(LPCTSTR name, HRESULT* phr, CaptureFilter* filter, LPCWSTR pinName, const PinKind& kind)
    : CSourceStream(name, phr, filter, pinName), m_capture(*filter), m_kind(kind) {}

HRESULT STDMETHODCALLTYPE CapturePin::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IKsPropertySet) return GetInterface(static_cast<IKsPropertySet*>(this), ppv);
    if (riid == IID_IAMStreamConfig) return GetInterface(static_cast<IAMStreamConfig*>(this), ppv);
    if (riid == IID_ISpecifyPropertyPages) return GetInterface(static_cast<ISpecifyPropertyPages*>(this), ppv);
    return CSourceStream::NonDelegatingQueryInterface(riid, ppv);
}

void CapturePin::useCard(TARNIS_HANDLE grabber) {
    m_hGrabber = grabber;
    AM_MEDIA_TYPE* persisted = nullptr;
    if (FAILED(GetFormat(&persisted))) return;
    SetFormat(persisted);
    DeleteMediaType(persisted);
}

void CapturePin::setRunState(CaptureRun::State state) const {
    if (m_run) m_run->setState(state);
}

STDMETHODIMP CapturePin::Set(REFGUID, DWORD, void*, DWORD, void*, DWORD) {
    return E_NOTIMPL;
}

STDMETHODIMP CapturePin::Get(REFGUID guidPropSet, DWORD dwPropID, void*, DWORD, void* pPropData, DWORD cbPropData,
                             DWORD* pcbReturned) {
    if (const HRESULT hr = checkProperty(guidPropSet, dwPropID); hr != S_OK) return hr;
    if (!pPropData && !pcbReturned) return E_POINTER;
    if (pcbReturned) *pcbReturned = sizeof(GUID); // even if the size is wrong
    if (!pPropData) return S_OK;
    if (cbPropData < sizeof(GUID)) return E_UNEXPECTED;
    *static_cast<GUID*>(pPropData) = PIN_CATEGORY_CAPTURE;
    return S_OK;
}

STDMETHODIMP CapturePin::QuerySupported(REFGUID guidPropSet, DWORD dwPropID, DWORD* pTypeSupport) {
    const HRESULT hr = checkProperty(guidPropSet, dwPropID);
    if (hr == S_OK && pTypeSupport) *pTypeSupport = KSPROPERTY_SUPPORT_GET;
    return hr;
}

// Formats

std::shared_ptr<const CMediaType> CapturePin::setFormat() const {
    const std::lock_guard lock(m_setFormatMutex);
    return m_setFormat;
}

HRESULT CapturePin::GetMediaType(int iPosition, CMediaType* pmt) {
    return offer(iPosition, pmt, setFormat().get());
}

HRESULT CapturePin::offer(int position, CMediaType* pmt, const CMediaType* set) {
    const PinTexts::GetMediaType& texts = m_kind.texts.getMediaType;
    trace(texts.start);
    if (position >= m_kind.formats) return traced(texts.noMoreItems, VFW_S_NO_MORE_ITEMS);
    HRESULT hr = S_OK;
    if (set) { // before the lock, at any position
        if (!pmt) return E_POINTER;
        hr = pmt->Set(*set);
    } else {
        CAutoLock lock(m_pFilter->pStateLock());
        if (!pmt) return E_POINTER;
        hr = makeType(static_cast<uint32_t>(std::max(position, 0)), *pmt);
    }
    return FAILED(hr) ? traced(texts.noMemory, E_OUTOFMEMORY) : traced(texts.done, S_OK);
}

HRESULT CapturePin::CheckMediaType(const CMediaType* pmt) {
    CAutoLock lock(m_pFilter->pStateLock());
    return accept(pmt, setFormat().get());
}

STDMETHODIMP CapturePin::QueryAccept(const AM_MEDIA_TYPE* pmt) {
    if (!pmt) return E_POINTER;
    return accept(pmt, setFormat().get()) == S_OK ? S_OK : S_FALSE;
}

HRESULT CapturePin::accept(const AM_MEDIA_TYPE* pmt, const CMediaType* set) {
    const PinTexts::CheckMediaType& texts = m_kind.texts.checkMediaType;
    trace(texts.start);
    if (!pmt) return E_POINTER;
    if (const HRESULT hr = checkCard(); FAILED(hr)) return hr;
    bool matching = set && m_kind.matches(*pmt, *set);
    CMediaType offered;
    for (int position = 0; !set && !matching && offer(position, &offered, nullptr) == S_OK; ++position)
        matching = m_kind.matches(*pmt, offered);
    return matching ? traced(texts.done, S_OK) : traced(texts.failed, E_FAIL);
}

STDMETHODIMP CapturePin::SetFormat(AM_MEDIA_TYPE* pmt) {
    const PinTexts::SetFormat& texts = m_kind.texts.setFormat;
    std::shared_ptr<CMediaType> wanted;
    bool connected = false;
    {
        CAutoLock lock(m_pFilter->pStateLock());
        trace(texts.start);
        if (!pmt) return E_POINTER;
        if (m_pFilter->IsActive()) return traced(texts.notStopped, VFW_E_NOT_STOPPED);
        wanted.reset(new (std::nothrow) CMediaType);
        const HRESULT copied = wanted ? copyOf(*pmt, *wanted) : E_OUTOFMEMORY;
        const bool noMemory = copied == E_OUTOFMEMORY;
        if (!noMemory && (FAILED(copied) || FAILED(accept(wanted.get(), nullptr))))
            return traced(texts.invalid, VFW_E_INVALIDMEDIATYPE);
        const std::lock_guard setLock(m_setFormatMutex);
        m_setFormat = noMemory ? nullptr : wanted;
        IncrementTypeVersion();
        if (noMemory) return traced(texts.noMemory, E_OUTOFMEMORY);
        connected = IsConnected() != FALSE;
    }
    // Without the lock: the graph takes its own first when it starts and stops, then this one.
    if (connected && FAILED(m_pFilter->ReconnectPin(this, wanted.get())))
        return traced(texts.notReconnected, VFW_E_INVALIDMEDIATYPE);
    CAutoLock lock(m_pFilter->pStateLock());
    m_format = m_kind.indexOf(*wanted);
    writeSetting(m_kind.setting, m_format);
    return traced(texts.done, S_OK);
}

STDMETHODIMP CapturePin::GetFormat(AM_MEDIA_TYPE** ppmt) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(m_kind.texts.getFormat.start);
    if (!ppmt) return E_POINTER;
    *ppmt = nullptr;
    m_format = readSetting(m_kind.setting);
    if (m_format >= static_cast<uint32_t>(m_kind.formats)) m_format = 0;
    const std::shared_ptr<const CMediaType> set = setFormat();
    CMediaType own;
    if (!IsConnected() && !set) {
        const HRESULT hr = offer(static_cast<int>(m_format), &own, nullptr);
        if (FAILED(hr)) return hr;
    }
    *ppmt = CreateMediaType(IsConnected() ? &m_mt : set ? set.get() : &own);
    if (!*ppmt) return E_OUTOFMEMORY;
    return traced(m_kind.texts.getFormat.done, S_OK);
}

STDMETHODIMP CapturePin::GetNumberOfCapabilities(int* piCount, int* piSize) {
    trace(m_kind.texts.getNumberOfCapabilities.start);
    if (!piCount || !piSize) return E_POINTER;
    *piCount = m_kind.formats;
    *piSize = m_kind.capabilityBytes;
    return traced(m_kind.texts.getNumberOfCapabilities.done, S_OK);
}

STDMETHODIMP CapturePin::GetStreamCaps(int iIndex, AM_MEDIA_TYPE** ppmt, BYTE* pSCC) {
    const PinTexts::GetStreamCaps& texts = m_kind.texts.getStreamCaps;
    CAutoLock lock(m_pFilter->pStateLock());
    trace(texts.start);
    if (iIndex >= m_kind.formats) return texts.none ? traced(texts.none, S_FALSE) : S_FALSE;
    if (!ppmt || !pSCC) return E_POINTER;
    *ppmt = nullptr;
    CMediaType type;
    const HRESULT hr = offer(iIndex, &type, nullptr); // each index describes its own format, even after SetFormat
    if (FAILED(hr)) return traced(texts.failed, hr);
    *ppmt = CreateMediaType(&type);
    if (!*ppmt) return traced(texts.failed, E_OUTOFMEMORY);
    describe(type, pSCC);
    return traced(texts.done, S_OK);
}

STDMETHODIMP CapturePin::GetPages(CAUUID* pPages) {
    trace(m_kind.texts.getPages.start);
    if (!pPages) return E_POINTER;
    *pPages = {};
    pPages->pElems = static_cast<GUID*>(CoTaskMemAlloc(sizeof(GUID)));
    if (!pPages->pElems) return E_OUTOFMEMORY;
    pPages->cElems = 1;
    pPages->pElems[0] = m_kind.page;
    return traced(m_kind.texts.getPages.done, S_OK);
}

// Connection

STDMETHODIMP CapturePin::Connect(IPin* pReceivePin, const AM_MEDIA_TYPE* pmt) {
    const PinTexts::Connect& texts = m_kind.texts.connect;
    CAutoLock lock(m_pLock);
    trace(texts.start);
    if (!pReceivePin) return E_POINTER;
    if (IsConnected()) return traced(texts.alreadyConnected, VFW_E_ALREADY_CONNECTED);
    if (!IsStopped() && !CanReconnectWhenActive()) return traced(texts.notStopped, VFW_E_NOT_STOPPED);
    CMediaType wanted;
    HRESULT hr = pmt ? copyOf(*pmt, wanted) : S_OK;
    if (SUCCEEDED(hr)) hr = AgreeMediaType(pReceivePin, pmt ? &wanted : nullptr);
    if (SUCCEEDED(hr)) return traced(texts.done, S_OK);
    trace(texts.failed);
    BreakConnect();
    return hr;
}

// Not the base class's: that one finds pins through m_iPins, see docs/compatibility.md.
STDMETHODIMP CapturePin::QueryId(LPWSTR* Id) {
    if (!Id) return E_POINTER;
    *Id = static_cast<LPWSTR>(CoTaskMemAlloc(sizeof L"1"));
    if (!*Id) return E_OUTOFMEMORY;
    std::copy_n(L"1", 2, *Id);
    return S_OK;
}

/// A pin that failed to start, or was started while its own filter is stopped, is deactivated here: nobody would do it
/// after it is disconnected.
HRESULT CapturePin::BreakConnect() {
    if (m_begun) takeBack();
    return CSourceStream::BreakConnect();
}

HRESULT CapturePin::DecideBufferSize(IMemAllocator* pAlloc, ALLOCATOR_PROPERTIES* pProp) {
    const PinTexts::DecideBufferSize& texts = m_kind.texts.decideBufferSize;
    CAutoLock lock(m_pFilter->pStateLock());
    trace(texts.start);
    if (!pAlloc || !pProp) return E_POINTER;
    requestBuffers(*pProp);
    ALLOCATOR_PROPERTIES actual{};
    // A type may state a sample size that no buffer has, and not every allocator looks: one ends the process then.
    const HRESULT hr = pProp->cbBuffer >= 0 ? pAlloc->SetProperties(pProp, &actual) : VFW_E_SIZENOTSET;
    return FAILED(hr) ? traced(texts.failed, hr) : traced(texts.done, S_OK);
}

// Runs

HRESULT CapturePin::Active() {
    const PinTexts::Active& texts = m_kind.texts.active;
    CAutoLock lock(m_pFilter->pStateLock());
    trace(texts.start);
    if (m_pFilter->IsActive()) return traced(texts.isActive, S_FALSE);
    if (!IsConnected()) return traced(texts.notConnected, S_OK);
    // The base's base on purpose: the stream's own worker thread is not used.
    const HRESULT hr = CBaseOutputPin::Active(); // NOLINT(bugprone-parent-virtual-call): see above
    if (FAILED(hr)) return traced(texts.failed, hr);
    m_begun = true;
    return begin();
}

HRESULT CapturePin::startRun() {
    const PinTexts::Active& texts = m_kind.texts.active;
    if (m_run && !m_run->hasEnded()) takeBack(); // an earlier stop failed
    m_begun = true;
    if (TARNIS_GetDMAAccess(m_hGrabber, m_kind.port) != TARNIS_SUCCESS) return traced(texts.noAccess, E_UNEXPECTED);
    ++m_accessClaims;
    TARNIS_SetBufferCount(m_hGrabber, m_kind.port, kBuffers);
    uint64_t number = 0;
    try {
        m_run = makeRun({m_capture, ComRef<IUnknown>::share(GetOwner()), ComRef<IPin>::share(m_Connected),
                         ComRef<IMemInputPin>::share(m_pInputPin), ComRef<IMemAllocator>::share(m_pAllocator)},
                        m_capture.isStarting() ? CaptureRun::State::Starting : CaptureRun::State::Stopped);
        number = CaptureRun::enlist(m_run);
    } catch (const std::bad_alloc&) {
        return traced(texts.notStarted, E_UNEXPECTED);
    }
    if (TARNIS_StartGrab(m_hGrabber, m_kind.port, 0, &m_run->camera, CaptureRun::onFrame, number) != TARNIS_SUCCESS) {
        m_run->end();
        return traced(texts.notStarted, E_UNEXPECTED);
    }
    m_run->rate = framesPerSecond(m_run->camera.status);
    return S_OK;
}

HRESULT CapturePin::Inactive() {
    const PinTexts::Inactive& texts = m_kind.texts.inactive;
    CAutoLock lock(m_pFilter->pStateLock());
    trace(texts.start);
    if (!IsConnected()) return traced(texts.notConnected, S_OK);
    setRunState(CaptureRun::State::Stopped); // so that a callback that arrives now returns
    // Frees a callback that waits for a buffer. The base's base, as in Active.
    const HRESULT hr = CBaseOutputPin::Inactive(); // NOLINT(bugprone-parent-virtual-call): see above
    if (FAILED(hr)) return traced(texts.failed, hr);
    ComRef<IPin>::share(m_Connected)->EndOfStream();
    takeBack();
    return traced(texts.done, S_OK);
}

void CapturePin::takeBack() {
    TARNIS_StopGrab(m_hGrabber, m_kind.port);
    for (; m_accessClaims > 0; --m_accessClaims)
        TARNIS_ReleaseDMAAccess(m_hGrabber, m_kind.port);
    if (m_run) m_run->end(); // releases the owner, held by the run since the start
    m_begun = false;
}

} // namespace kestra
