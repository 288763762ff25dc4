// One enumerator for both: a policy says how an item is fetched and released.
#include "enumerators.h"

#include "firewall.h"
#include "held.h"

#include <algorithm>
#include <utility>

namespace kestra::com {
namespace {

struct Pins {
    using Interface = IEnumPins;
    using Owner = CBaseFilter;
    using Item = IPin*;
    static constexpr const IID& iid = IID_IEnumPins;
    static LONG version(Owner& filter) { return filter.GetPinVersion(); }
    static HRESULT fetch(Owner& filter, int position, Item* item) {
        *item = position < filter.GetPinCount() ? counted(filter.GetPin(position)) : nullptr;
        return *item ? S_OK : S_FALSE;
    }
    static void letGo(Item pin) { pin->Release(); }
};

struct Types {
    using Interface = IEnumMediaTypes;
    using Owner = CBasePin;
    using Item = AM_MEDIA_TYPE*;
    static constexpr const IID& iid = IID_IEnumMediaTypes;
    static LONG version(Owner& pin) { return pin.GetMediaTypeVersion(); }
    static HRESULT fetch(Owner& pin, int position, Item* item) {
        const Question question(pin);
        if (!question.isAllowed()) return VFW_E_ENUM_OUT_OF_SYNC;
        CMediaType type;
        const HRESULT hr = pin.GetMediaType(position, &type);
        if (hr != S_OK) return hr == E_OUTOFMEMORY ? hr : S_FALSE; // there may be more, unlike after any other result
        *item = CreateMediaType(&type);
        return *item ? S_OK : E_OUTOFMEMORY;
    }
    static void letGo(Item type) { DeleteMediaType(type); }
};

template <class Kind>
class Enumerator final : public Kind::Interface {
public:
    using Item = typename Kind::Item;
    // Counted last: an exception of a derived class must not leak a reference.
    Enumerator(typename Kind::Owner& owner, LONG version, int position)
        : m_version(version), m_position(position), m_owner(counted(&owner)) {}
    virtual ~Enumerator() = default;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        CheckPointer(ppv, E_POINTER);
        if (riid == IID_IUnknown || riid == Kind::iid) return GetInterface(this, ppv);
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(InterlockedIncrement(&m_references)); }
    STDMETHODIMP_(ULONG) Release() override {
        const LONG left = InterlockedDecrement(&m_references);
        if (left == 0) delete this;
        return ULONG(left);
    }
    STDMETHODIMP Next(ULONG count, Item* items, ULONG* fetched) override {
        if (fetched) *fetched = 0;
        CheckPointer(items, E_POINTER);
        if (!fetched && count > 1) return E_INVALIDARG;
        std::fill_n(items, count, nullptr);
        ULONG got = 0;
        const HRESULT hr = whileInSync([&] {
            HRESULT next = S_OK;
            while (got < count && (next = Kind::fetch(*m_owner.get(), m_position + int(got), &items[got])) == S_OK)
                ++got;
            return next;
        });
        if (FAILED(hr)) { // all or none
            while (got > 0)
                Kind::letGo(std::exchange(items[--got], nullptr));
        }
        m_position += int(got);
        if (fetched) *fetched = got;
        return hr;
    }
    STDMETHODIMP Skip(ULONG count) override {
        return whileInSync([&] {
            ULONG there = 0;
            HRESULT next = S_OK;
            for (Item item; there < count; ++there) {
                next = Kind::fetch(*m_owner.get(), m_position + int(there), &item);
                if (next != S_OK) return next;
                Kind::letGo(item);
            }
            m_position += int(there);
            return next;
        });
    }
    STDMETHODIMP Reset() override {
        return guarded([&] {
            m_version = Kind::version(*m_owner.get());
            m_position = 0;
            return S_OK;
        });
    }
    STDMETHODIMP Clone(typename Kind::Interface** clone) override {
        CheckPointer(clone, E_POINTER);
        *clone = nullptr;
        return whileInSync([&] {
            *clone = new Enumerator(*m_owner.get(), m_version, m_position);
            return S_OK;
        });
    }

private:
    template <class Step>
    HRESULT whileInSync(Step step) {
        return guarded(
            [&]() -> HRESULT { return m_version == Kind::version(*m_owner.get()) ? step() : VFW_E_ENUM_OUT_OF_SYNC; });
    }

    LONG m_references = 1;
    LONG m_version;
    int m_position;
    const Held<typename Kind::Owner> m_owner;
};

} // namespace

IEnumPins* enumerate(CBaseFilter& filter) {
    return new Enumerator<Pins>(filter, filter.GetPinVersion(), 0);
}

IEnumMediaTypes* enumerate(CBasePin& pin) {
    return new Enumerator<Types>(pin, pin.GetMediaTypeVersion(), 0);
}

} // namespace kestra::com
