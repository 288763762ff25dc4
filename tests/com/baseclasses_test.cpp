// A test source on the base classes, alone and in the system's filter graph with its null renderer.
#include <streams.h>

#include <gtest/gtest.h>

namespace {

class TestStream : public CSourceStream {
public:
    TestStream(HRESULT* phr, CSource* filter) : CSourceStream(NAME("stream"), phr, filter, L"Out") {}
    HRESULT GetMediaType(CMediaType* type) override {
        type->SetType(&MEDIATYPE_Stream);
        type->SetFormatType(&FORMAT_None);
        return S_OK;
    }
    HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* wanted) override {
        wanted->cBuffers = 1;
        wanted->cbBuffer = 16;
        ALLOCATOR_PROPERTIES actual;
        return allocator->SetProperties(wanted, &actual);
    }
    HRESULT FillBuffer(IMediaSample*) override { return S_FALSE; }
};

class TestSource : public CSource {
public:
    TestSource() : CSource(NAME("source"), nullptr, GUID_NULL) { new TestStream(&m_created, this); }
    HRESULT m_created = S_OK;
};

CLSID const kNullRenderer{0xC1F400A4, 0x3F08, 0x11D3, {0x9F, 0x0B, 0x00, 0x60, 0x08, 0x03, 0x9E, 0x37}};

TEST(BaseClasses, UnconnectedPinAnswersAndLeavesNoObject) {
    const LONG before = CBaseObject::ObjectsActive();
    auto* source = new TestSource;
    source->AddRef();
    IPin* pin = nullptr;
    ASSERT_EQ(source->FindPin(L"1", &pin), S_OK);
    IPin* peer = pin;
    EXPECT_EQ(pin->ConnectedTo(&peer), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(peer, nullptr);
    EXPECT_EQ(pin->Disconnect(), S_FALSE);
    EXPECT_EQ(pin->Connect(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(source->FindPin(L"2", &peer), VFW_E_NOT_FOUND);
    EXPECT_EQ(peer, nullptr);
    pin->Release();
    EXPECT_EQ(source->Release(), 0u);
    EXPECT_EQ(CBaseObject::ObjectsActive(), before);
}

TEST(BaseClasses, RunsAndStopsInTheSystemsGraph) {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    const LONG before = CBaseObject::ObjectsActive();
    IGraphBuilder* graph = nullptr;
    ASSERT_EQ(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder, (void**)&graph),
              S_OK);
    IBaseFilter* renderer = nullptr;
    ASSERT_EQ(CoCreateInstance(kNullRenderer, nullptr, CLSCTX_INPROC_SERVER, IID_IBaseFilter, (void**)&renderer), S_OK);
    auto* source = new TestSource;
    source->AddRef();
    ASSERT_EQ(graph->AddFilter(source, L"source"), S_OK);
    ASSERT_EQ(graph->AddFilter(renderer, L"renderer"), S_OK);
    IEnumPins* pins = nullptr;
    ASSERT_EQ(renderer->EnumPins(&pins), S_OK);
    IPin* in = nullptr;
    ASSERT_EQ(pins->Next(1, &in, nullptr), S_OK);
    ASSERT_EQ(graph->ConnectDirect(source->GetPin(0), in, nullptr), S_OK);
    for (int i = 1; i <= 20; ++i) {
        ASSERT_EQ(source->Pause(), S_OK);
        ASSERT_EQ(source->Stop(), S_OK);
    }
    in->Release();
    pins->Release();
    renderer->Release();
    graph->Release();
    EXPECT_EQ(source->Release(), 0u);
    EXPECT_EQ(CBaseObject::ObjectsActive(), before);
    CoUninitialize();
}

} // namespace

CFactoryTemplate g_Templates[] = {{L"none", &GUID_NULL, nullptr, nullptr, nullptr}};
int g_cTemplates = 0;
