// Calls of what is the module's own: colours, bit depth, pages and class factories; and of the graph around a filter.
#include "simcard/ctl/control.h"
#include "tests/walk/filters_world.h"

#include <kestra_interfaces.h>

namespace kestra::walk {
namespace {

using namespace kestra::simcard;

constexpr wchar_t kSettings[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";
const CLSID* const kClasses[] = {&CLSID_KestraCapture, &CLSID_KestraAudioCapture, &CLSID_KestraStreamPropCSC,
                                 &CLSID_KestraStreamPropRGB, &CLSID_KestraAudioPropertyPage};

/// What an aggregated object belongs to. Lives on the stack.
class Outer : public IUnknown {
public:
    virtual ~Outer() = default;
    STDMETHODIMP QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
};

} // namespace

void FiltersWorld::noteConverters() {
    for (uint32_t i = 0; i < kCards; ++i) {
        wire::Converter converter = CardControl(i).state().converter;
        m_pictures.add(converter);
        // While a white balance is measured, gains and offsets are off.
        converter.redGain = converter.greenGain = converter.blueGain = 256;
        converter.redOffset = converter.greenOffset = converter.blueOffset = 0;
        m_pictures.add(converter);
    }
}

HRESULT FiltersWorld::getColours(Rig& rig, uint32_t b) {
    const auto converter = queryFor<IKestraStreamPropCSC>(
        b % 2 == 0 ? static_cast<IUnknown*>(rig.filter.get()) : rig.pin.get(), IID_IKestraStreamPropCSC);
    const auto gains = queryFor<IKestraStreamPropRGBGainOffset>(rig.filter.get(), IID_IKestraStreamPropRGBGainOffset);
    LONG number = 0;
    float real = 0;
    unsigned char byte = 0;
    signed char offset = 0;
    switch (b / 2 % 8) {
    case 0:
        return allowed(converter->get_YOff(&number), {S_OK}, "get_YOff");
    case 1:
        return allowed(converter->get_G2(&real), {S_OK}, "get_G2");
    case 2:
        return allowed(converter->get_BMax(&byte), {S_OK}, "get_BMax");
    case 3:
        return allowed(converter->get_RGBOut(&number), {S_OK}, "get_RGBOut");
    case 4:
        return allowed(converter->get_FreezeUpdate(&number), {S_OK}, "get_FreezeUpdate");
    case 5: {
        KestraConverterValues values{};
        return allowed(converter->get_DefaultColorSpaceConverter(b / 16 % 8 == 0 ? nullptr : &values),
                       {b / 16 % 8 == 0 ? E_POINTER : S_OK}, "get_DefaultColorSpaceConverter");
    }
    case 6:
        return allowed(gains->get_GreenOffset(&offset), {S_OK}, "get_GreenOffset");
    default:
        return allowed(gains->get_BlueGain(b / 16 % 8 == 0 ? nullptr : &real), {b / 16 % 8 == 0 ? E_POINTER : S_OK},
                       "get_BlueGain");
    }
}

HRESULT FiltersWorld::putColours(Rig& rig, uint32_t b) {
    const auto converter = queryFor<IKestraStreamPropCSC>(rig.filter.get(), IID_IKestraStreamPropCSC);
    const auto gains = queryFor<IKestraStreamPropRGBGainOffset>(rig.pin.get(), IID_IKestraStreamPropRGBGainOffset);
    const std::lock_guard lock(m_colours);
    const float real = static_cast<float>(b / 8 % 8) / 4;
    HRESULT hr = S_OK;
    switch (b % 8) {
    case 0:
        hr = converter->put_YOff(static_cast<LONG>(b / 8 % 4) * 20);
        break;
    case 1:
        hr = converter->put_Y1(real);
        break;
    case 2:
        hr = converter->put_RMin(static_cast<unsigned char>(b / 8 % 4 * 10));
        break;
    case 3:
        hr = converter->put_FreezeUpdate(static_cast<LONG>(b / 8 % 3));
        break;
    case 4:
        hr = gains->put_RedGain(real);
        break;
    case 5:
        hr = gains->put_BlueOffset(static_cast<signed char>(b / 8 % 4 * 10));
        break;
    case 6:
        hr = gains->Default();
        break;
    default:
        hr = converter->put_R1(b / 8 % 2 == 0 ? 1e30f : 1.5f);
        break;
    }
    noteConverters();
    return allowed(hr, {S_OK, E_FAIL, E_ACCESSDENIED, HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED), E_INVALIDARG},
                   "a colour");
}

HRESULT FiltersWorld::bitDepth(Rig& rig, uint32_t b) {
    const auto depth = queryFor<IKestraAudioPropertyPage>(rig.pin.get(), IID_IKestraAudioPropertyPage);
    unsigned char index = 7;
    if (b % 2 == 0)
        return allowed(depth->get_BitDepth(b % 16 == 0 ? nullptr : &index), {b % 16 == 0 ? E_POINTER : S_OK},
                       "get_BitDepth");
    // It stops the graph and starts it again.
    return allowed(rig.start([&] { return depth->put_BitDepth(static_cast<unsigned char>(b / 2 % 4)); }),
                   {S_OK, VFW_E_NOT_IN_GRAPH, VFW_E_INVALIDMEDIATYPE, VFW_E_NOT_STOPPED}, "put_BitDepth");
}

HRESULT FiltersWorld::page(Rig& rig, uint32_t b) {
    const CLSID& clsid = rig.isVideo ? (b % 2 == 0 ? CLSID_KestraStreamPropCSC : CLSID_KestraStreamPropRGB)
                                     : CLSID_KestraAudioPropertyPage;
    ComRef<IPropertyPage> page;
    const HRESULT made = m_module->create(clsid, nullptr, IID_IPropertyPage, reinterpret_cast<void**>(page.out()));
    allowed(made, {S_OK}, "CreateInstance of a page");
    if (!t_mine->frame) t_mine->frame.emplace();
    IUnknown* object = rig.isVideo ? static_cast<IUnknown*>(rig.filter.get()) : rig.pin.get();
    const std::lock_guard lock(m_colours);
    // The audio page stops the graph and starts it again.
    const HRESULT hr =
        rig.start([&] { return useOnce(page.get(), object, t_mine->frame->window(), b, [&] { noteConverters(); }); });
    return allowed(hr,
                   {S_OK, E_UNEXPECTED, E_INVALIDARG, E_FAIL, E_ACCESSDENIED, VFW_E_NOT_IN_GRAPH,
                    HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED), E_NOTIMPL, VFW_E_NOT_STOPPED, VFW_E_INVALIDMEDIATYPE,
                    E_NOINTERFACE},
                   "a page");
}

HRESULT FiltersWorld::factory(uint32_t b) {
    const CLSID& clsid = *kClasses[b % std::size(kClasses)];
    ComRef<IUnknown> object;
    switch (b / 8 % 5) {
    case 0:
        return allowed(m_module->factory(GUID_NULL, IID_IClassFactory, reinterpret_cast<void**>(object.out())),
                       {CLASS_E_CLASSNOTAVAILABLE}, "DllGetClassObject of no class");
    case 1:
        return allowed(m_module->factory(clsid, IID_IPin, reinterpret_cast<void**>(object.out())),
                       {E_NOINTERFACE, CLASS_E_CLASSNOTAVAILABLE}, "DllGetClassObject of no factory");
    case 2: {
        ComRef<IClassFactory> factory;
        allowed(m_module->factory(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out())), {S_OK},
                "DllGetClassObject");
        allowed(factory->LockServer(TRUE), {S_OK}, "LockServer");
        if (m_module->canUnload()) fail("unload", "a locked server can be unloaded");
        return allowed(factory->LockServer(FALSE), {S_OK}, "LockServer");
    }
    case 3: { // aggregated: only its own IUnknown may be asked for
        Outer outer;
        return allowed(m_module->create(clsid, &outer, IID_IBaseFilter, reinterpret_cast<void**>(object.out())),
                       {CLASS_E_NOAGGREGATION, E_NOINTERFACE, E_INVALIDARG}, "aggregation");
    }
    default: {
        Outer outer;
        const HRESULT hr = m_module->create(clsid, &outer, IID_IUnknown, reinterpret_cast<void**>(object.out()));
        return allowed(hr, {S_OK, E_FAIL}, "aggregation");
    }
    }
}

HRESULT FiltersWorld::onGraph(Rig& rig, uint32_t b) {
    if (!rig.graph) return static_cast<HRESULT>(kNotMade);
    const auto control = queryFor<IMediaControl>(rig.graph.get(), IID_IMediaControl);
    switch (b % 8) {
    case 0:
    case 1:
        return rig.start([&] { return control->Run(); });
    case 2:
        return rig.start([&] { return control->Pause(); });
    case 3:
    case 4:
        return rig.stop([&] { return control->Stop(); });
    case 5: {
        OAFilterState state = 0;
        return control->GetState(static_cast<LONG>(b / 8 % 20), &state);
    }
    case 6:
        return rig.graph->ConnectDirect(rig.pin.get(), rig.sinks[0]->pin(), nullptr);
    default:
        return rig.graph->Disconnect(rig.pin.get());
    }
}

void FiltersWorld::registry(uint32_t b) {
    const wchar_t* name = b % 2 == 0 ? L"VideoFormat" : L"AudioFormat";
    if (b / 2 % 4 == 0)
        m_registry.setText(kSettings, name, L"no number");
    else
        m_registry.setDword(kSettings, name, b / 8 % 6);
}

} // namespace kestra::walk
