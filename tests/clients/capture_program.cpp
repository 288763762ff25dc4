#include "tests/clients/capture_program.h"

#include <ks.h>

#include <ksmedia.h>

namespace kestra::test {

template <class Interface>
HRESULT CaptureProgram::find(const GUID& type, REFIID riid, ComRef<Interface>& found) {
    return m_builder->FindInterface(&PIN_CATEGORY_CAPTURE, &type, m_source.get(), riid,
                                    reinterpret_cast<void**>(found.out()));
}

std::vector<std::string> CaptureProgram::listFormats(const std::wstring& device) {
    std::vector<std::string> names;
    if (SUCCEEDED(build(device)))
        for (const Type& type : capabilities(m_pin.get()))
            names.push_back(formatName(*type));
    close();
    return names;
}

void CaptureProgram::close() {
    m_config = {};
    Client::close();
}

HRESULT CaptureProgram::build(const std::wstring& device) {
    HRESULT hr = makeGraph(device);
    if (FAILED(hr)) return hr;
    // An interleaved stream first, then a picture: as the pattern goes.
    hr = find(MEDIATYPE_Interleaved, IID_IAMStreamConfig, m_config);
    if (FAILED(hr)) hr = find(MEDIATYPE_Video, IID_IAMStreamConfig, m_config);
    if (FAILED(hr)) return failed("FindInterface", hr);
    m_pin = queryFor<IPin>(m_config.get(), IID_IPin);
    ComRef<IAMDroppedFrames> dropped;
    m_droppedFrames = find(MEDIATYPE_Video, IID_IAMDroppedFrames, dropped); // a counter to show, if there is one
    return S_OK;
}

HRESULT CaptureProgram::buildWith(const std::wstring& device, const std::string& format) {
    const HRESULT hr = build(device);
    if (FAILED(hr)) return hr;
    auto type = choose(format, Header::Any);
    return type ? set(*type) : E_FAIL;
}

HRESULT CaptureProgram::set(Type& type) {
    const HRESULT hr = m_config->SetFormat(type.get());
    return FAILED(hr) ? failed("SetFormat", hr) : S_OK;
}

HRESULT CaptureProgram::render(const GUID& category, const GUID& type, IBaseFilter* receiver) {
    const HRESULT hr = m_builder->RenderStream(&category, &type, m_source.get(), nullptr, receiver);
    return FAILED(hr) ? failed("RenderStream", hr) : hr;
}

} // namespace kestra::test
