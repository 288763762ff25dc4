// OBS Studio. Its dialog binds every device to read what it offers, knows types by a plain VIDEOINFOHEADER only, and
// asks again for each property that is shown. It sets the format, connects its own filter directly with that type,
// runs, and never looks at an event.
#include "tests/clients/client.h"

#include <ks.h>

#include <ksmedia.h>

namespace kestra::test {
namespace {

class Obs : public Client {
public:
    const char* name() const override { return "OBS"; }
    std::vector<std::wstring> listDevices() override {
        const auto names = Client::listDevices();
        for (const std::wstring& name : names)
            listFormats(name);
        return names;
    }
    std::vector<std::string> listFormats(const std::wstring& device) override {
        std::vector<std::string> names;
        for (int dialog = 0; dialog < 3; ++dialog) // devices, resolutions, rates
            names = plainFormats(device);
        return names;
    }
    HRESULT open(const std::wstring& device, const std::string& format) override {
        HRESULT hr = makeGraph(device);
        if (FAILED(hr)) return hr;
        m_pin = findPin(m_source.get(), PIN_CATEGORY_CAPTURE);
        auto type = choose(format, Header::Plain);
        if (!type) return E_FAIL;
        hr = queryFor<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig)->SetFormat(type->get());
        if (FAILED(hr)) return failed("SetFormat", hr);
        // Its own pin takes what was asked for and nothing else.
        m_sink->accepts = [wanted = *type](const AM_MEDIA_TYPE& offered) {
            return offered.subtype == wanted->subtype && offered.formattype == FORMAT_VideoInfo;
        };
        hr = m_graph->ConnectDirect(m_pin.get(), m_sink->pin(), nullptr);
        return FAILED(hr) ? failed("ConnectDirect", hr) : run();
    }
};

} // namespace

std::unique_ptr<Client> makeObs() {
    return std::make_unique<Obs>();
}

} // namespace kestra::test
