// MPC-HC's capture bar and programs on the pattern of AMCap: a capture graph builder, the stream configuration by
// FindInterface, the counter of dropped frames asked for in vain, capture and preview from one pin.
#include "tests/clients/client.h"

#include <ks.h>

#include <ksmedia.h>

#include <algorithm>

namespace kestra::test {
namespace {

/// Both list what GetStreamCaps gives, whatever its header.
class CaptureProgram : public Client {
public:
    bool readsEvents() const override { return true; }
    std::vector<std::string> listFormats(const std::wstring& device) override {
        std::vector<std::string> names;
        if (SUCCEEDED(build(device)))
            for (const Type& type : capabilities(m_pin.get()))
                names.push_back(formatName(*type));
        close();
        return names;
    }
    void close() override {
        m_config = {};
        Client::close();
    }

protected:
    /// A graph with the device in it, and the device's configuration.
    HRESULT build(const std::wstring& device) {
        HRESULT hr = makeGraph(device);
        if (FAILED(hr)) return hr;
        // An interleaved stream first, then a picture: as the pattern goes.
        hr = find(MEDIATYPE_Interleaved, IID_IAMStreamConfig, m_config);
        if (FAILED(hr)) hr = find(MEDIATYPE_Video, IID_IAMStreamConfig, m_config);
        if (FAILED(hr)) return failed("FindInterface", hr);
        m_pin = queryFor<IPin>(m_config.get(), IID_IPin);
        ComRef<IAMDroppedFrames> dropped;
        find(MEDIATYPE_Video, IID_IAMDroppedFrames, dropped); // there is none, and nobody minds
        return S_OK;
    }
    HRESULT buildWith(const std::wstring& device, const std::string& format) {
        const HRESULT hr = build(device);
        if (FAILED(hr)) return hr;
        auto type = choose(format, Header::Any);
        return type ? set(*type) : E_FAIL;
    }
    HRESULT set(Type& type) {
        const HRESULT hr = m_config->SetFormat(type.get());
        return FAILED(hr) ? failed("SetFormat", hr) : S_OK;
    }
    HRESULT render(const GUID& category, const GUID& type, Sink& receiver) {
        const HRESULT hr = m_builder->RenderStream(&category, &type, m_source.get(), nullptr, &receiver);
        return FAILED(hr) ? failed("RenderStream", hr) : hr;
    }

    ComRef<IAMStreamConfig> m_config;

private:
    template <class Interface>
    HRESULT find(const GUID& type, REFIID riid, ComRef<Interface>& found) {
        return m_builder->FindInterface(&PIN_CATEGORY_CAPTURE, &type, m_source.get(), riid,
                                        reinterpret_cast<void**>(found.out()));
    }
};

class MpcHc : public CaptureProgram {
public:
    const char* name() const override { return "MPC-HC"; }
    HRESULT open(const std::wstring& device, const std::string& format) override {
        HRESULT hr = buildWith(device, format);
        if (SUCCEEDED(hr)) hr = render(PIN_CATEGORY_CAPTURE, MEDIATYPE_Video, *m_sink.get());
        return FAILED(hr) ? hr : run();
    }
};

/// It shows a picture of its own while it captures.
class AmCap : public CaptureProgram {
public:
    const char* name() const override { return "AMCap"; }
    HRESULT open(const std::wstring& device, const std::string& format) override {
        HRESULT hr = buildWith(device, format);
        if (FAILED(hr)) return hr;
        // It reads the format back to know the size of its window, and sets the frame rate in it.
        AM_MEDIA_TYPE* now = nullptr;
        hr = m_config->GetFormat(&now);
        if (FAILED(hr)) return failed("GetFormat", hr);
        Type type = Type::taken(now);
        hr = set(type);
        if (FAILED(hr)) return hr;
        m_preview = ComRef<Sink>(new Sink);
        hr = m_graph->AddFilter(m_preview.get(), L"Preview");
        if (SUCCEEDED(hr)) hr = render(PIN_CATEGORY_CAPTURE, MEDIATYPE_Interleaved, *m_sink.get());
        if (FAILED(hr)) hr = render(PIN_CATEGORY_CAPTURE, MEDIATYPE_Video, *m_sink.get());
        if (SUCCEEDED(hr)) hr = render(PIN_CATEGORY_PREVIEW, MEDIATYPE_Video, *m_preview.get());
        return FAILED(hr) ? hr : run();
    }
    void close() override {
        CaptureProgram::close();
        m_preview = {};
    }
    size_t received() const override {
        return m_preview ? std::min(Client::received(), m_preview->samples().size()) : Client::received();
    }

private:
    ComRef<Sink> m_preview;
};

} // namespace

std::unique_ptr<Client> makeMpcHc() {
    return std::make_unique<MpcHc>();
}

std::unique_ptr<Client> makeAmCap() {
    return std::make_unique<AmCap>();
}

} // namespace kestra::test
