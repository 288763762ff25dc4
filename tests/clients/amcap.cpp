// Programs on the pattern of AMCap: capture and preview from one pin, a file, a window.
#include "tests/clients/capture_program.h"

#include <ks.h>

#include <algorithm>

#include <ksmedia.h>
#include <shlwapi.h>

namespace kestra::test {

/// It reads the format back to know the size of its window, and sets the frame rate in it.
HRESULT AmCap::buildAndSetAgain(const std::wstring& device, const std::string& format) {
    HRESULT hr = buildWith(device, format);
    if (FAILED(hr)) return hr;
    AM_MEDIA_TYPE* now = nullptr;
    hr = m_config->GetFormat(&now);
    if (FAILED(hr)) return failed("GetFormat", hr);
    Type type = Type::taken(now);
    return set(type);
}

HRESULT AmCap::open(const std::wstring& device, const std::string& format) {
    HRESULT hr = buildAndSetAgain(device, format);
    if (FAILED(hr)) return hr;
    m_preview = ComRef<Sink>(new Sink);
    hr = m_graph->AddFilter(m_preview.get(), L"Preview");
    if (SUCCEEDED(hr)) hr = render(PIN_CATEGORY_CAPTURE, MEDIATYPE_Interleaved, m_sink.get());
    if (FAILED(hr)) hr = render(PIN_CATEGORY_CAPTURE, MEDIATYPE_Video, m_sink.get());
    if (SUCCEEDED(hr)) hr = render(PIN_CATEGORY_PREVIEW, MEDIATYPE_Video, m_preview.get());
    return FAILED(hr) ? hr : run();
}

HRESULT AmCap::openFile(const std::wstring& device, const std::string& format, const std::wstring& path) {
    HRESULT hr = buildAndSetAgain(device, format);
    if (SUCCEEDED(hr)) hr = addFile(path);
    if (FAILED(hr)) return hr;
    hr = render(PIN_CATEGORY_CAPTURE, MEDIATYPE_Interleaved, m_mux.get());
    if (FAILED(hr)) hr = render(PIN_CATEGORY_CAPTURE, MEDIATYPE_Video, m_mux.get());
    if (FAILED(hr)) return hr;
    hr = queryFor<IMediaControl>(m_graph.get(), IID_IMediaControl)->Pause();
    return FAILED(hr) ? failed("IMediaControl::Pause", hr) : S_OK;
}

HRESULT AmCap::addFile(const std::wstring& path) {
    HRESULT hr = m_builder->SetOutputFileName(&MEDIASUBTYPE_Avi, path.c_str(), m_mux.out(), nullptr);
    if (hr != E_NOTIMPL) return FAILED(hr) ? failed("SetOutputFileName", hr) : S_OK;
    // Wine's builder does not know how, and its file writer cannot be written to by its AVI multiplexer: a file of our
    // own.
    hr = CoCreateInstance(CLSID_AviDest, nullptr, CLSCTX_INPROC_SERVER, IID_IBaseFilter,
                          reinterpret_cast<void**>(m_mux.out()));
    if (SUCCEEDED(hr)) hr = m_graph->AddFilter(m_mux.get(), L"AVI");
    if (SUCCEEDED(hr)) // it knows one way to interleave
        hr = queryFor<IConfigInterleaving>(m_mux.get(), IID_IConfigInterleaving)->put_Mode(INTERLEAVE_FULL);
    if (FAILED(hr)) return failed("CoCreateInstance", hr);
    hr = SHCreateStreamOnFileEx(path.c_str(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_DENY_NONE,
                                FILE_ATTRIBUTE_NORMAL, TRUE, nullptr, m_file.out());
    if (FAILED(hr)) return failed("creating the file", hr);
    m_writer = ComRef<Sink>(new Sink);
    m_writer->besides = m_file.get();
    m_writer->onReceive = [this](IMediaSample* sample, int) {
        LARGE_INTEGER place{}; // is what the stamp says
        REFERENCE_TIME end = 0;
        BYTE* data = nullptr;
        sample->GetTime(&place.QuadPart, &end);
        sample->GetPointer(&data);
        const HRESULT hr = m_file->Seek(place, STREAM_SEEK_SET, nullptr);
        return FAILED(hr) ? hr : m_file->Write(data, static_cast<ULONG>(sample->GetActualDataLength()), nullptr);
    };
    hr = m_graph->AddFilter(m_writer.get(), L"File");
    ComRef<IPin> from;
    if (SUCCEEDED(hr)) hr = m_builder->FindPin(m_mux.get(), PINDIR_OUTPUT, nullptr, nullptr, TRUE, 0, from.out());
    if (SUCCEEDED(hr)) hr = m_graph->ConnectDirect(from.get(), m_writer->pin(), nullptr);
    return FAILED(hr) ? failed("ConnectDirect", hr) : S_OK;
}

HRESULT AmCap::openWindow(const std::wstring& device, const std::string& format, const std::wstring& title) {
    HRESULT hr = buildAndSetAgain(device, format);
    if (FAILED(hr)) return hr;
    hr = render(PIN_CATEGORY_PREVIEW, MEDIATYPE_Interleaved, nullptr);
    if (FAILED(hr)) hr = render(PIN_CATEGORY_PREVIEW, MEDIATYPE_Video, nullptr);
    if (FAILED(hr)) return hr;
    const auto window = queryFor<IVideoWindow>(m_graph.get(), IID_IVideoWindow);
    const BSTR caption = SysAllocString(title.c_str());
    hr = window->put_Caption(caption);
    SysFreeString(caption);
    if (SUCCEEDED(hr)) hr = window->put_Visible(OATRUE);
    return FAILED(hr) ? failed("IVideoWindow", hr) : run();
}

void AmCap::close() {
    CaptureProgram::close();
    m_preview = {};
    m_mux = {};
    m_writer = {};
    m_file = {};
}

size_t AmCap::received() const {
    return m_preview ? std::min(Client::received(), m_preview->samples().size()) : Client::received();
}

std::unique_ptr<Client> makeAmCap() {
    return std::make_unique<AmCap>();
}

} // namespace kestra::test
