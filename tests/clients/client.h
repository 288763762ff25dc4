// An application as the module meets it: how it lists devices and formats, in which order it calls, what it refuses.
// Each is written from what the application documents and shows, in a file of its own. One thread's.
#pragma once

#include "compliance/sink.h"
#include "compliance/subject.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestra::test {

using compliance::Sink;
using compliance::Type;

/// The four formats by the names that users see.
std::string formatName(const AM_MEDIA_TYPE& type);

/// What an application does with a device, step by step. A step's failure is what its user meets.
class Client {
public:
    virtual ~Client();
    virtual const char* name() const = 0;

    /// Its list of devices. What it does to each on the way is part of its manners.
    virtual std::vector<std::wstring> listDevices();
    /// Its list of the device's formats. @return empty: none, or the device cannot be asked
    virtual std::vector<std::string> listFormats(const std::wstring& device) = 0;
    /// Opens the device in a format of its list and runs. @return the first failing call's result; `failedAt` names it
    virtual HRESULT open(const std::wstring& device, const std::string& format) = 0;
    /// Shows the open device's property pages in the system's frame until its user closes that, while the picture goes
    /// on.
    HRESULT showProperties();
    /// Stops and forgets the device.
    virtual void close();
    /// Whether it looks at the graph's events.
    virtual bool readsEvents() const { return false; }

    const char* failedAt() const { return m_failedAt; }
    /// Whether filters still ran when the graph had been stopped for the last time.
    bool leftActive() const { return m_leftActive; }
    struct Frame {
        std::vector<uint8_t> bytes;
        REFERENCE_TIME start;
    };
    /// The frames that it has received so far, at most `kKept` with their bytes.
    std::vector<Frame> frames() const;
    virtual size_t received() const;
    Type type() const { return m_sink->type(); }
    /// Codes of events that came since the last call.
    std::vector<long> events();

protected:
    static constexpr size_t kKept = 6;
    /// The device by its name, bound as an application does. @return null, after `failedAt` was set
    ComRef<IBaseFilter> bind(const std::wstring& device);
    HRESULT failed(const char* call, HRESULT hr) {
        m_failedAt = call;
        return hr;
    }
    /// The names of those capabilities whose type has a plain VIDEOINFOHEADER: all that many applications know.
    std::vector<std::string> plainFormats(const std::wstring& device);
    /// A graph with the device and the application's own receiver in it.
    HRESULT makeGraph(const std::wstring& device);
    HRESULT run();
    /// The pin of a category, by the category that each tells.
    static ComRef<IPin> findPin(IBaseFilter* filter, const GUID& category);
    /// Every capability's type.
    static std::vector<Type> capabilities(IPin* pin);
    enum class Header { Plain, Any };
    /// The capability of a format by its name. @return none, after `failedAt` was set
    std::optional<Type> choose(const std::string& format, Header header);

    ComRef<IGraphBuilder> m_graph;
    ComRef<ICaptureGraphBuilder2> m_builder;
    ComRef<IBaseFilter> m_source;
    ComRef<IPin> m_pin;
    ComRef<Sink> m_sink{new Sink};
    const char* m_failedAt = "";
    HRESULT m_bound = E_FAIL; ///< what the last bind answered

private:
    bool m_leftActive = false;
    mutable std::mutex m_mutex;
    std::vector<Frame> m_frames;
};

std::unique_ptr<Client> makeObs();
std::unique_ptr<Client> makeVlc();
std::unique_ptr<Client> makeGStreamer();
std::unique_ptr<Client> makeChromium();
std::unique_ptr<Client> makeMpcHc();
std::unique_ptr<Client> makeAmCap();
std::unique_ptr<Client> makeOpenCv();

} // namespace kestra::test
