// OpenCV's DirectShow capture. It has no list of formats: it reads the present one, writes RGB24 over its subtype and
// sample size, sets that with whatever header it has, and lets the graph builder connect its grabber.
#include "tests/clients/client.h"

#include <cstdlib>

#include <ks.h>

#include <ksmedia.h>

namespace kestra::test {
namespace {

class OpenCv : public Client {
public:
    const char* name() const override { return "OpenCV"; }
    std::vector<std::string> listFormats(const std::wstring& device) override {
        return bind(device) ? std::vector<std::string>{"RGB24"} : std::vector<std::string>{}; // it has no list
    }
    HRESULT open(const std::wstring& device, const std::string&) override {
        HRESULT hr = makeGraph(device);
        if (FAILED(hr)) return hr;
        ComRef<IAMStreamConfig> config;
        hr = m_builder->FindInterface(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, m_source.get(), IID_IAMStreamConfig,
                                      reinterpret_cast<void**>(config.out()));
        if (FAILED(hr)) return failed("FindInterface", hr);
        AM_MEDIA_TYPE* now = nullptr;
        hr = config->GetFormat(&now);
        if (FAILED(hr)) return failed("GetFormat", hr);
        Type wanted = Type::taken(now);
        wanted->subtype = MEDIASUBTYPE_RGB24;
        if (const BITMAPINFOHEADER* header = wanted.bitmap())
            wanted->lSampleSize = static_cast<ULONG>(header->biWidth * std::abs(header->biHeight) * 3);
        hr = config->SetFormat(wanted.get());
        if (FAILED(hr)) return failed("SetFormat", hr);
        m_sink->accepts = [](const AM_MEDIA_TYPE& offered) {
            return offered.majortype == MEDIATYPE_Video && offered.subtype == MEDIASUBTYPE_RGB24;
        };
        hr = m_builder->RenderStream(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, m_source.get(), nullptr, m_sink.get());
        return FAILED(hr) ? failed("RenderStream", hr) : run();
    }
};

} // namespace

std::unique_ptr<Client> makeOpenCv() {
    return std::make_unique<OpenCv>();
}

} // namespace kestra::test
