// What the pages share: owners of what they hold, and their creation. Private to pages/.
#pragma once

#include <streams.h>

#include <windows.h>

#include <memory>
#include <new>
#include <type_traits>

namespace kestra {

struct ComRelease {
    void operator()(IUnknown* object) const noexcept { object->Release(); }
};
/// Owns one reference.
template <class Interface>
using ComOwner = std::unique_ptr<Interface, ComRelease>;

/// Asks an object for an interface. @return null: it has none
template <class Interface>
ComOwner<Interface> ask(IUnknown* object, REFIID riid) {
    void* found = nullptr;
    if (object) object->QueryInterface(riid, &found);
    return ComOwner<Interface>(static_cast<Interface*>(found));
}

struct BrushDelete {
    void operator()(HBRUSH brush) const noexcept { DeleteObject(brush); }
};
using Brush = std::unique_ptr<std::remove_pointer_t<HBRUSH>, BrushDelete>;

/// What the class table calls for a page.
template <class Page>
CUnknown* createPage(LPUNKNOWN pUnk, HRESULT* phr) {
    auto* page = new (std::nothrow) Page(pUnk);
    if (!page && phr) *phr = E_OUTOFMEMORY;
    return page;
}

} // namespace kestra
