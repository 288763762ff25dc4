// VLC. It sets each capability to see whether the device takes it, knows the four formats by their subtypes, and lets
// the capture graph builder connect its own filter.
#include "tests/clients/client.h"

#include <ks.h>

#include <ksmedia.h>

namespace kestra::test {
namespace {

class Vlc : public Client {
public:
    const char* name() const override { return "VLC"; }
    std::vector<std::string> listFormats(const std::wstring& device) override {
        std::vector<std::string> names;
        const auto filter = bind(device);
        if (!filter) return names;
        const auto pin = findPin(filter.get(), PIN_CATEGORY_CAPTURE);
        const auto config = queryFor<IAMStreamConfig>(pin.get(), IID_IAMStreamConfig);
        for (Type& type : capabilities(pin.get()))
            if (config->SetFormat(type.get()) == S_OK) names.push_back(formatName(*type));
        return names;
    }
    HRESULT open(const std::wstring& device, const std::string& format) override {
        HRESULT hr = makeGraph(device);
        if (FAILED(hr)) return hr;
        m_pin = findPin(m_source.get(), PIN_CATEGORY_CAPTURE);
        auto type = choose(format, Header::Any);
        if (!type) return E_FAIL;
        hr = queryFor<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig)->SetFormat(type->get());
        if (FAILED(hr)) return failed("SetFormat", hr);
        m_sink->accepts = [format](const AM_MEDIA_TYPE& offered) { return formatName(offered) == format; };
        hr = m_builder->RenderStream(&PIN_CATEGORY_CAPTURE, nullptr, m_source.get(), nullptr, m_sink.get());
        return FAILED(hr) ? failed("RenderStream", hr) : run();
    }
};

} // namespace

std::unique_ptr<Client> makeVlc() {
    return std::make_unique<Vlc>();
}

} // namespace kestra::test
