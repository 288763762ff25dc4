// Where bytes go that are written from beginning to end. Portable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kestra::ctl {

/// A file or a pipe. What fails throws Failure, which names it. One thread's.
class ByteSink {
public:
    virtual ~ByteSink() = default;

    /// If it fails, what was whole before stays whole: see truncate().
    virtual void write(const void* bytes, size_t size) = 0;
    /// Overwrites what is there; not for pipes.
    virtual void rewrite(uint64_t at, const void* bytes, size_t size) = 0;
    /// Cuts the file to its first bytes, as a failed write leaves an incomplete frame behind. A pipe stays as it is.
    virtual void truncate(uint64_t bytes) noexcept = 0;
    virtual void close() = 0;

    virtual uint64_t bytes() const noexcept = 0;
    virtual const std::string& name() const noexcept = 0;
};

} // namespace kestra::ctl
