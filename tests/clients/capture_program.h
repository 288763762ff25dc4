// What programs on the pattern of the platform's samples share: a capture graph builder, the stream configuration by
// FindInterface, the counter of dropped frames asked for in vain.
#pragma once

#include "tests/clients/client.h"

namespace kestra::test {

/// Lists what GetStreamCaps gives, whatever its header.
class CaptureProgram : public Client {
public:
    bool readsEvents() const override { return true; }
    std::vector<std::string> listFormats(const std::wstring& device) override;
    void close() override;
    /// Of the last opening: how the question for IAMDroppedFrames was answered.
    HRESULT askedForDroppedFrames() const { return m_droppedFrames; }

protected:
    /// A graph with the device in it, and the device's configuration.
    HRESULT build(const std::wstring& device);
    HRESULT buildWith(const std::wstring& device, const std::string& format);
    HRESULT set(Type& type);
    /// @param receiver  null: what the system chooses
    HRESULT render(const GUID& category, const GUID& type, IBaseFilter* receiver);

    ComRef<IAMStreamConfig> m_config;

private:
    template <class Interface>
    HRESULT find(const GUID& type, REFIID riid, ComRef<Interface>& found);
    HRESULT m_droppedFrames = E_UNEXPECTED;
};

/// Shows a picture of its own while it captures; or captures to a file; or shows the picture only, in the system's
/// window.
class AmCap : public CaptureProgram {
public:
    const char* name() const override { return "AMCap"; }
    HRESULT open(const std::wstring& device, const std::string& format) override;
    /// An AVI file: the graph is paused, and goes on by start().
    HRESULT openFile(const std::wstring& device, const std::string& format, const std::wstring& path);
    HRESULT start() { return run(); }
    /// The system's video renderer: its window is then titled `title`.
    HRESULT openWindow(const std::wstring& device, const std::string& format, const std::wstring& title);
    void close() override;
    size_t received() const override;

private:
    HRESULT buildAndSetAgain(const std::wstring& device, const std::string& format);
    HRESULT addFile(const std::wstring& path);

    ComRef<Sink> m_preview;
    ComRef<IBaseFilter> m_mux;
    ComRef<Sink> m_writer;
    ComRef<IStream> m_file;
};

} // namespace kestra::test
