// Puts records into a trace's files, which together stay below a limit. Portable; one thread.
#pragma once

#include "trace/trace_format.h"

#include <cstdint>
#include <span>
#include <vector>

namespace kestra::trace {

/// Where the files are.
class TraceFiles {
public:
    virtual ~TraceFiles() = default;
    /// Begins the file with this index (0 to kFiles - 1) in place of the one before. @return false: it cannot be
    virtual bool begin(uint32_t index) noexcept = 0;
    /// Appends to the file that was begun last. @return false: not all was written
    virtual bool write(std::span<const uint8_t> bytes) noexcept = 0;
};

class TraceWriter {
public:
    /// @param head   of all files, but for the part; what does not vary is filled in
    /// @param limit  bytes of all files together
    TraceWriter(TraceFiles& files, FileHead head, uint64_t limit);

    /// Keeps a record until the next flush. Throws std::bad_alloc.
    void add(std::span<const uint8_t> record);
    void add(std::span<const uint8_t> record, std::span<const uint8_t> rest);
    /// Hands everything to the system. @return false: the files cannot be written, and nothing more will be
    bool flush() noexcept;

private:
    void makeRoom(size_t bytes);

    TraceFiles& m_files;
    FileHead m_head;
    const uint64_t m_fileLimit;
    uint64_t m_fileBytes = 0; ///< of the file that was begun last, with what is still kept
    std::vector<uint8_t> m_kept;
    bool m_failed = false;
};

} // namespace kestra::trace
