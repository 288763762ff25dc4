// Collects what this process writes to the debugger output (OutputDebugStringW and ...A), exactly and in
// order, from any thread, for the life of an object. One at a time.
#pragma once

#include <string>
#include <vector>

namespace kestra::test {

class DebugOutputCapture {
public:
    DebugOutputCapture();
    ~DebugOutputCapture();
    DebugOutputCapture(const DebugOutputCapture&) = delete;
    DebugOutputCapture& operator=(const DebugOutputCapture&) = delete;

    /// Every text so far, one element per call of OutputDebugString.
    std::vector<std::wstring> lines() const;
    bool contains(const std::wstring& text) const;
    /// How often exactly this text was written.
    int count(const std::wstring& text) const;
    void clear();

private:
    void* m_handler;
};

} // namespace kestra::test
