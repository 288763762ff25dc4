// Chromium. It resets each enumerator before the first element, wants the pin's category in exactly 16 bytes, knows
// types by a plain VIDEOINFOHEADER, sets the format and its frame rate, and keeps filter and graph: a second start
// stops, disconnects and connects the same filter again.
#include "tests/clients/client.h"

#include <ks.h>

#include <ksmedia.h>

namespace kestra::test {
namespace {

class Chromium : public Client {
public:
    const char* name() const override { return "Chromium"; }
    std::vector<std::string> listFormats(const std::wstring& device) override { return plainFormats(device); }
    HRESULT open(const std::wstring& device, const std::string& format) override {
        HRESULT hr = makeGraph(device);
        if (FAILED(hr)) return hr;
        m_pin = findPin(m_source.get(), PIN_CATEGORY_CAPTURE);
        for (int start = 0; start < 2; ++start) {
            hr = connectAndRun(format);
            if (FAILED(hr)) return hr;
            if (start == 1) break;
            queryFor<IMediaControl>(m_graph.get(), IID_IMediaControl)->StopWhenReady();
            hr = m_graph->Disconnect(m_pin.get());
            if (SUCCEEDED(hr)) hr = m_graph->Disconnect(m_sink->pin());
            if (FAILED(hr)) return failed("Disconnect", hr);
            m_sink->forget();
        }
        return S_OK;
    }

private:
    HRESULT connectAndRun(const std::string& format) {
        auto type = choose(format, Header::Plain);
        if (!type) return E_FAIL;
        HRESULT hr = queryFor<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig)->SetFormat(type->get());
        if (FAILED(hr)) return failed("SetFormat", hr);
        m_sink->accepts = [format](const AM_MEDIA_TYPE& offered) {
            return offered.formattype == FORMAT_VideoInfo && formatName(offered) == format;
        };
        hr = m_graph->ConnectDirect(m_pin.get(), m_sink->pin(), nullptr);
        if (FAILED(hr)) return failed("ConnectDirect", hr);
        hr = queryFor<IMediaControl>(m_graph.get(), IID_IMediaControl)->Pause();
        return FAILED(hr) ? failed("IMediaControl::Pause", hr) : run();
    }
};

} // namespace

std::unique_ptr<Client> makeChromium() {
    return std::make_unique<Chromium>();
}

} // namespace kestra::test
