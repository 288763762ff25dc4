// The one property of a capture pin: its category. Any thread.
#pragma once

#include <windows.h>

namespace kestra {

/// Answers IKsPropertySet::Get of a capture pin.
/// @param pcbReturned receives the size that is needed as soon as set and property are right; may be null
/// @return E_UNEXPECTED if cbPropData is too small; E_POINTER if both pointers are null
HRESULT getPinCategory(REFGUID guidPropSet, DWORD dwPropID, void* pPropData, DWORD cbPropData,
                       DWORD* pcbReturned) noexcept;
/// Answers IKsPropertySet::QuerySupported of a capture pin.
HRESULT queryPinCategory(REFGUID guidPropSet, DWORD dwPropID, DWORD* pTypeSupport) noexcept;

} // namespace kestra
