#include "capture/pin_category.h"

#include <streams.h>

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

namespace kestra {
namespace {

constexpr HRESULT kPropertySetUnsupported = static_cast<HRESULT>(0x80070492);
constexpr HRESULT kPropertyIdUnsupported = static_cast<HRESULT>(0x80070490);

} // namespace

HRESULT getPinCategory(REFGUID guidPropSet, DWORD dwPropID, void* pPropData, DWORD cbPropData,
                       DWORD* pcbReturned) noexcept {
    if (guidPropSet != AMPROPSETID_Pin) return kPropertySetUnsupported;
    if (dwPropID != AMPROPERTY_PIN_CATEGORY) return kPropertyIdUnsupported;
    if (!pPropData && !pcbReturned) return E_POINTER;
    if (pcbReturned) *pcbReturned = sizeof(GUID);
    if (!pPropData) return S_OK;
    if (cbPropData < sizeof(GUID)) return E_UNEXPECTED;
    *static_cast<GUID*>(pPropData) = PIN_CATEGORY_CAPTURE;
    return S_OK;
}

HRESULT queryPinCategory(REFGUID guidPropSet, DWORD dwPropID, DWORD* pTypeSupport) noexcept {
    if (guidPropSet != AMPROPSETID_Pin) return kPropertySetUnsupported;
    if (dwPropID != AMPROPERTY_PIN_CATEGORY) return kPropertyIdUnsupported;
    if (pTypeSupport) *pTypeSupport = KSPROPERTY_SUPPORT_GET;
    return S_OK;
}

} // namespace kestra
