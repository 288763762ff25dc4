// What the pages share: the owner of a brush, and their creator. Private to pages/.
#pragma once

#include <streams.h>

#include <windows.h>

#include <memory>
#include <new>
#include <type_traits>

namespace kestra {

struct BrushDelete {
    void operator()(HBRUSH brush) const noexcept { DeleteObject(brush); }
};
using Brush = std::unique_ptr<std::remove_pointer_t<HBRUSH>, BrushDelete>;

/// Creates a page, for the class table.
template <class Page>
CUnknown* createPage(LPUNKNOWN pUnk, HRESULT* phr) {
    auto* page = new (std::nothrow) Page(pUnk);
    if (!page && phr) *phr = E_OUTOFMEMORY;
    return page;
}

} // namespace kestra
