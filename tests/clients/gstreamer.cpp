// GStreamer's DirectShow source. It takes types with a plain VIDEOINFOHEADER, connects with the very type that it has
// chosen, and its receiver refuses any type that differs from it in a single byte.
#include "tests/clients/client.h"

#include <ks.h>

#include <ksmedia.h>

namespace kestra::test {
namespace {

class GStreamer : public Client {
public:
    const char* name() const override { return "GStreamer"; }
    bool readsEvents() const override { return true; }
    std::vector<std::string> listFormats(const std::wstring& device) override { return plainFormats(device); }
    HRESULT open(const std::wstring& device, const std::string& format) override {
        HRESULT hr = makeGraph(device);
        if (FAILED(hr)) return hr;
        m_pin = findPin(m_source.get(), PIN_CATEGORY_CAPTURE);
        const auto type = choose(format, Header::Plain);
        if (!type) return E_FAIL;
        m_sink->accepts = [wanted = *type](const AM_MEDIA_TYPE& offered) { return Type(offered) == wanted; };
        hr = m_graph->ConnectDirect(m_pin.get(), m_sink->pin(), &**type);
        return FAILED(hr) ? failed("ConnectDirect", hr) : run();
    }
};

} // namespace

std::unique_ptr<Client> makeGStreamer() {
    return std::make_unique<GStreamer>();
}

} // namespace kestra::test
