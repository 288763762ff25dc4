// A file is begun when the first record asks for it, so that a process without requests leaves none.
#include "trace/trace_writer.h"

namespace kestra::trace {

TraceWriter::TraceWriter(TraceFiles& files, FileHead head, uint64_t limit)
    : m_files(files), m_head(head), m_fileLimit(limit / kFiles) {
    std::memcpy(m_head.magic, kMagic, sizeof kMagic);
    m_head.version = kVersion;
    m_head.headBytes = sizeof m_head;
    m_head.part = 0;
}

void TraceWriter::makeRoom(size_t bytes) {
    const bool isFirst = m_fileBytes == 0;
    if (!isFirst && m_fileBytes + bytes <= m_fileLimit) return;
    flush();
    if (!isFirst) ++m_head.part;
    if (!m_files.begin(m_head.part < kFiles ? m_head.part : 1 + (m_head.part - 1) % (kFiles - 1))) m_failed = true;
    m_fileBytes = sizeof m_head;
    const auto* head = reinterpret_cast<const uint8_t*>(&m_head);
    m_kept.insert(m_kept.end(), head, head + sizeof m_head);
}

void TraceWriter::add(std::span<const uint8_t> record) {
    add(record, {});
}

void TraceWriter::add(std::span<const uint8_t> record, std::span<const uint8_t> rest) {
    if (m_failed) return;
    makeRoom(record.size() + rest.size());
    m_fileBytes += record.size() + rest.size();
    m_kept.insert(m_kept.end(), record.begin(), record.end());
    m_kept.insert(m_kept.end(), rest.begin(), rest.end());
}

bool TraceWriter::flush() noexcept {
    if (!m_failed && !m_kept.empty() && !m_files.write(m_kept)) m_failed = true;
    m_kept.clear();
    return !m_failed;
}

} // namespace kestra::trace
