// A file that is written from beginning to end, or the standard output. Its failures are Failures that name it.
#pragma once

#include "ctl/byte_sink.h"
#include "win32/handle.h"

#include <cstdint>
#include <string>

namespace kestra::ctl {

class OutputFile final : public ByteSink {
public:
    /// Creates it, in place of what has that name. @param name UTF-8; "-": the standard output. Throws Failure.
    explicit OutputFile(const std::string& name);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const void* bytes, size_t size) override;
    void rewrite(uint64_t at, const void* bytes, size_t size) override;
    void truncate(uint64_t bytes) noexcept override;
    void close() override;
    /// Closes it and takes it away.
    void remove() noexcept;

    uint64_t bytes() const noexcept override { return m_bytes; }
    const std::string& name() const noexcept override { return m_name; }

private:
    [[noreturn]] void fail(uint32_t error) const;

    const std::string m_name;
    UniqueFile m_file;
    HANDLE m_handle = INVALID_HANDLE_VALUE; ///< the file's, or the standard output's, which stays open
    uint64_t m_bytes = 0;
};

/// Writes a whole file; one that cannot be written whole is taken away again. Throws Failure.
void writeFile(const std::string& name, const void* bytes, size_t size);
/// Throws Failure.
std::string readFile(const std::string& name);
/// The whole path of a folder, ended by a backslash. Throws Failure if there is none.
std::string fullFolder(const std::string& folder);

} // namespace kestra::ctl
