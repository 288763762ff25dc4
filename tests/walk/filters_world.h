// The world of the filters: the module, four filters with what they may be connected to, and each thread's enumerators.
// Any thread.
#pragma once

#include "tests/walk/cards_world.h"
#include "tests/walk/lock.h"
#include "tests/walk/page_session.h"
#include "tests/walk/rig.h"
#include "tests/walk/sample_check.h"
#include "win32/com_ref.h"

#include <windows.h>

#include <dshow.h>

#include <cstdio>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestra::walk {

constexpr size_t kSlots = 4; ///< the first two for video filters, the others for audio filters

enum : uint16_t {
    kCreate,
    kRelease,
    kStop,
    kPause,
    kRun,
    kGetState,
    kSyncSource,
    kEnumPins,
    kFindPin,
    kFilterInfo,
    kJoin,
    kQuery,
    kClassAndVendor,
    kPages,
    kConnect,
    kDisconnect,
    kConnectedTo,
    kMediaType,
    kPinQuestions,
    kQueryAccept,
    kEnumTypes,
    kReceiveConnection,
    kStreamCalls,
    kPropertySet,
    kSetFormat,
    kGetFormat,
    kCapabilities,
    kNegotiation,
    kGetColours,
    kPutColours,
    kWhiteBalance,
    kBitDepth,
    kPage,
    kFactory,
    kGraph,
    kRegistry,
    kAwaitSamples,
    kSleep,
    kCardSteps
};
/// The module. It stays loaded: what its compiler's libraries keep of a load is not the filters' doing.
class Module {
public:
    Module() : m_module(LoadLibraryW(KESTRA_MODULE)) {
        if (!m_module) fail("module", "it cannot be loaded");
        m_class = find<decltype(m_class)>("DllGetClassObject");
        m_canUnload = find<decltype(m_canUnload)>("DllCanUnloadNow");
    }
    ~Module() { FreeLibrary(m_module); }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    HRESULT factory(const CLSID& clsid, REFIID riid, void** object) const { return m_class(clsid, riid, object); }
    HRESULT create(const CLSID& clsid, IUnknown* outer, REFIID riid, void** object) const {
        *object = nullptr;
        ComRef<IClassFactory> factory;
        const HRESULT hr = m_class(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out()));
        return FAILED(hr) ? hr : factory->CreateInstance(outer, riid, object);
    }
    bool canUnload() const { return m_canUnload() == S_OK; }

private:
    template <class Function>
    Function find(const char* name) const {
        return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(m_module, name)));
    }
    const HMODULE m_module;
    HRESULT(STDAPICALLTYPE* m_class)(REFCLSID, REFIID, void**) = nullptr;
    HRESULT(STDAPICALLTYPE* m_canUnload)() = nullptr;
};

/// What a thread keeps between its steps.
struct Mine {
    ComRef<IEnumPins> pins;
    ComRef<IEnumMediaTypes> types;
    std::optional<PageFrame> frame;
};
inline thread_local Mine* t_mine =
    nullptr; // made and deleted by the thread: MinGW may end what is thread_local too late

class FiltersWorld final : public CardsWorld {
public:
    const std::vector<Call>& calls() const override;
    void begin(const Act& act) override;
    uint32_t step(const Step& step) override;
    void end() override;
    void rescue() override;
    std::string summary() const override;
    int handlesOfTheSystem() const override { return Rig::graphsMade(); }
    int gdiObjectsOfTheSystem() const override { return PageFrame::objectsLeft(); }
    void threadBegins() override {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        t_mine = new Mine;
    }
    void threadEnds() override {
        delete t_mine;
        CoUninitialize();
    }
    std::string resultText(uint32_t result) const override {
        char text[16];
        std::snprintf(text, sizeof text, "%lX", static_cast<unsigned long>(result));
        return text;
    }

private:
    using RigPointer = std::shared_ptr<Rig>;

    RigPointer rigOf(uint32_t a, int isVideo = -1);
    HRESULT create(uint32_t a, uint32_t b);
    HRESULT onFilter(Rig& rig, uint16_t call, uint32_t b);
    HRESULT onPin(Rig& rig, uint16_t call, uint32_t b);
    HRESULT connect(Rig& rig, uint32_t b);
    HRESULT enumeratePins(Rig& rig, uint32_t b);
    HRESULT enumerateTypes(Rig& rig, uint32_t b);
    HRESULT questions(Rig& rig, uint32_t b);
    HRESULT propertySet(Rig& rig, uint32_t b);
    HRESULT capabilities(Rig& rig, uint32_t b);
    HRESULT getColours(Rig& rig, uint32_t b);
    HRESULT putColours(Rig& rig, uint32_t b);
    HRESULT bitDepth(Rig& rig, uint32_t b);
    HRESULT page(Rig& rig, uint32_t b);
    HRESULT factory(uint32_t b);
    HRESULT onGraph(Rig& rig, uint32_t b);
    void registry(uint32_t b);
    compliance::Type oddType(Rig& rig, uint32_t b);
    static uint32_t awaitSamples(Rig& rig, uint32_t b);
    uint32_t onRig(Rig& rig, uint16_t call, uint32_t b);
    /// What a thread that is alone sees before and after a call must fit the call's result.
    struct Seen {
        bool connected;
        FILTER_STATE state;
    };
    static Seen look(const Rig& rig);
    static void judge(const Rig& rig, uint16_t call, HRESULT hr, const Seen& before, const Seen& after);
    /// The converters that the cards have now may be in the pictures to come.
    void noteConverters();

    /// A result that the call may give.
    static HRESULT allowed(HRESULT hr, std::initializer_list<HRESULT> results, const char* call) {
        for (const HRESULT result : results)
            if (hr == result) return hr;
        char text[100];
        std::snprintf(text, sizeof text, "%s gave 0x%08lX", call, static_cast<unsigned long>(hr));
        fail("result", text);
    }

    Lock m_lock; ///< guards the slots
    RigPointer m_rigs[kSlots];
    std::optional<Module> m_module;
    SampleCheck m_check{m_pictures};
    Lock m_colours; ///< one change at a time, so that each is seen
};

} // namespace kestra::walk
