// MPC-HC's capture bar: what it captures is shown, from one pin.
#include "tests/clients/capture_program.h"

#include <ks.h>

#include <ksmedia.h>

namespace kestra::test {
namespace {

class MpcHc : public CaptureProgram {
public:
    const char* name() const override { return "MPC-HC"; }
    HRESULT open(const std::wstring& device, const std::string& format) override {
        HRESULT hr = buildWith(device, format);
        if (SUCCEEDED(hr)) hr = render(PIN_CATEGORY_CAPTURE, MEDIATYPE_Video, m_sink.get());
        return FAILED(hr) ? hr : run();
    }
};

} // namespace

std::unique_ptr<Client> makeMpcHc() {
    return std::make_unique<MpcHc>();
}

} // namespace kestra::test
