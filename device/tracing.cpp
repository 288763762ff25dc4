// A queue that the library's threads add to, and a thread that empties it into files ten times a second, so that the
// end of the process loses little.
#include "device/tracing.h"

#include "log/log.h"
#include "protocol/records.h"
#include "protocol/requests.h"
#include "protocol/user_settings.h"
#include "sync/mutex.h"
#include "trace/record_queue.h"
#include "trace/trace_writer.h"
#include "win32/handle.h"

#include <algorithm>
#include <cwchar>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include <process.h>

namespace kestra {
namespace {

using namespace trace;

constexpr LogUnit kUnit{"Request tracer", L".\\TARNIS_trace.cpp"};
constexpr size_t kQueueBytes = size_t{1} << 21;
constexpr DWORD kWriteMs = 100;
constexpr DWORD kLooks = 10; ///< so many writes between two looks at whether the user still wants a trace
constexpr size_t kMostPath = 1024;

uint64_t now100ns() noexcept {
    LARGE_INTEGER ticks, frequency;
    QueryPerformanceCounter(&ticks);
    QueryPerformanceFrequency(&frequency);
    const auto t = static_cast<uint64_t>(ticks.QuadPart), f = static_cast<uint64_t>(frequency.QuadPart);
    return t / f * 10000000 + t % f * 10000000 / f;
}

/// What the user wants.
struct Wish {
    std::wstring folder; ///< empty: no trace
    bool isOfProcess = false;
    uint32_t megabytes = kTraceMegabytes, frames = 0;

    static std::wstring variable(const wchar_t* name) {
        wchar_t text[kMostPath];
        const DWORD length = GetEnvironmentVariableW(name, text, kMostPath);
        return length < kMostPath ? std::wstring(text, length) : std::wstring();
    }
    static uint32_t number(const wchar_t* name, uint32_t missing) {
        DWORD value = 0, bytes = sizeof value;
        return RegGetValueW(HKEY_CURRENT_USER, kLogKey, name, RRF_RT_REG_DWORD, nullptr, &value, &bytes) ==
                       ERROR_SUCCESS
                   ? value
                   : missing;
    }
    static Wish read() {
        Wish wish;
        wish.folder = variable(kTraceVariable);
        if (!wish.folder.empty()) {
            wish.isOfProcess = true;
            wish.frames = static_cast<uint32_t>(std::wcstoul(variable(kTraceFramesVariable).c_str(), nullptr, 10));
            return wish;
        }
        wchar_t text[kMostPath];
        DWORD bytes = sizeof text;
        if (RegGetValueW(HKEY_CURRENT_USER, kLogKey, kTraceFolderValue, RRF_RT_REG_SZ, nullptr, text, &bytes) ==
            ERROR_SUCCESS)
            wish.folder = text;
        wish.megabytes = number(kTraceMegabytesValue, kTraceMegabytes);
        wish.frames = number(kTraceFramesValue, 0);
        return wish;
    }
};

/// The files of this process's trace: their name tells when it began.
class Files final : public TraceFiles {
public:
    explicit Files(const std::wstring& folder) {
        SYSTEMTIME time;
        GetSystemTime(&time);
        wchar_t name[64];
        std::swprintf(name, std::size(name), L"\\kestra-%04u%02u%02u-%02u%02u%02u-%lu", time.wYear, time.wMonth,
                      time.wDay, time.wHour, time.wMinute, time.wSecond, GetCurrentProcessId());
        m_stem = folder + name;
    }
    bool begin(uint32_t index) noexcept override {
        try {
            const std::wstring path = m_stem + (index == 0 ? L"" : L"." + std::to_wstring(index)) + L".ktrace";
            m_file = UniqueFile(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                            CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        } catch (const std::bad_alloc&) {
            m_file = UniqueFile();
        }
        return bool(m_file);
    }
    bool write(std::span<const uint8_t> bytes) noexcept override {
        DWORD written = 0;
        return WriteFile(m_file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
               written == bytes.size();
    }

private:
    std::wstring m_stem;
    UniqueFile m_file;
};

/// A frame that is kept, on its way through the queue.
struct KeptFrame {
    RecordHead head;
    uint8_t* bytes; ///< the writer's to free
    uint32_t size;
};

template <class Record>
std::span<const uint8_t> bytesOf(const Record& record) noexcept {
    return {reinterpret_cast<const uint8_t*>(&record), sizeof record};
}

class Tracer {
public:
    /// A thread's number stands here: a system's thread id is used again, this is not. Lives as long as the module.
    Tracer() noexcept : m_threadSlot(TlsAlloc()) {}
    ~Tracer() {
        g_isTracing = false; // nobody records any more: a card in use keeps the module loaded
        if (m_threadSlot != TLS_OUT_OF_INDEXES) TlsFree(m_threadSlot);
        delete m_queue.load();
    }
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

    void use() noexcept {
        const LockGuard lock(m_mutex);
        if (m_users++ != 0) return;
        try {
            begin(Wish::read());
        } catch (const std::bad_alloc&) {
            g_isTracing = false;
        }
    }
    void leave() noexcept {
        const LockGuard lock(m_mutex);
        if (--m_users != 0) return;
        if (m_thread) {
            SetEvent(m_stop.get());
            WaitForSingleObject(m_thread.get(), INFINITE);
            m_thread = UniqueObject();
        }
        g_isTracing = false;
    }

    RecordHead head(RecordKind kind, int8_t port, uint32_t number, size_t bytes) noexcept {
        return {static_cast<uint32_t>(bytes),
                kind,
                static_cast<uint8_t>(port),
                threadNumber(),
                number,
                now100ns() - m_begin100ns.load(std::memory_order_relaxed)};
    }
    template <class Record>
    bool add(const Record& record, std::span<const uint8_t> rest = {}) noexcept {
        RecordQueue* queue = m_queue.load(std::memory_order_acquire);
        return queue && queue->add(bytesOf(record), rest);
    }
    uint32_t nextRequest() noexcept { return m_requests.fetch_add(1, std::memory_order_relaxed) + 1; }
    uint32_t nextEvent() noexcept { return m_events.fetch_add(1, std::memory_order_relaxed) + 1; }

    void keepFrame(uint32_t event, std::span<const uint8_t> frame) noexcept {
        if (m_framesLeft.load(std::memory_order_relaxed) <= 0 ||
            m_framesLeft.fetch_sub(1, std::memory_order_relaxed) <= 0)
            return;
        std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[frame.size()]);
        if (!copy) return;
        std::memcpy(copy.get(), frame.data(), frame.size());
        const KeptFrame kept{head(RecordKind::Content, 0, event, 0), copy.get(), static_cast<uint32_t>(frame.size())};
        if (add(kept)) (void)copy.release();
    }

private:
    void begin(Wish wish) REQUIRES(m_mutex) {
        if (wish.folder.empty()) return;
        if (!m_stop) m_stop = UniqueObject(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!m_queue.load()) m_queue.store(new RecordQueue(kQueueBytes), std::memory_order_release);
        if (!m_writer || wish.folder != m_wish.folder) {
            FILETIME utc;
            GetSystemTimeAsFileTime(&utc);
            FileHead head{};
            head.start100ns = uint64_t{utc.dwHighDateTime} << 32 | utc.dwLowDateTime;
            head.trace = head.start100ns ^ uint64_t { GetCurrentProcessId() } << 48;
            m_writer.reset();
            m_files.emplace(wish.folder);
            m_writer.emplace(*m_files, head, uint64_t{wish.megabytes} * 1000000);
            m_begin100ns = now100ns();
            m_framesLeft = static_cast<int32_t>(std::min<uint32_t>(wish.frames, INT32_MAX));
        }
        m_wish = std::move(wish);
        ResetEvent(m_stop.get());
        g_isTracing = true;
        m_thread = UniqueObject(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, threadEntry, this, 0, nullptr)));
        if (!m_thread) g_isTracing = false;
    }

    static unsigned __stdcall threadEntry(void* self) noexcept {
        static_cast<Tracer*>(self)->write();
        return 0;
    }

    // The thread's: whoever begins and ends it waits meanwhile.
    void write() noexcept NO_THREAD_SAFETY_ANALYSIS {
        for (DWORD writes = 1;; ++writes) {
            const bool isLast = WaitForSingleObject(m_stop.get(), kWriteMs) != WAIT_TIMEOUT;
            if (!writeQueue()) {
                g_isTracing = false;
                KESTRA_LOG(kUnit, "TraceWriter", LOG_ERROR, TARNIS_FAILURE, L"The trace in %ls cannot be written",
                           m_wish.folder.c_str());
                return;
            }
            if (isLast) return;
            if (writes % kLooks == 0 && !isStillWanted()) g_isTracing = false;
        }
    }

    bool isStillWanted() const noexcept NO_THREAD_SAFETY_ANALYSIS {
        try {
            return m_wish.isOfProcess || Wish::read().folder == m_wish.folder;
        } catch (const std::bad_alloc&) {
            return true;
        }
    }

    bool writeQueue() noexcept NO_THREAD_SAFETY_ANALYSIS {
        RecordQueue& queue = *m_queue.load();
        try {
            queue.drain([&](std::span<const uint8_t> bytes) { writeRecord(bytes); });
            if (const uint64_t lost = queue.takeLost())
                m_writer->add(bytesOf(head(RecordKind::Lost, 0, static_cast<uint32_t>(lost), sizeof(RecordHead))));
        } catch (const std::bad_alloc&) {
            return false;
        }
        return m_writer->flush();
    }

    void writeRecord(std::span<const uint8_t> bytes) NO_THREAD_SAFETY_ANALYSIS {
        RecordHead head{};
        std::memcpy(&head, bytes.data(), sizeof head);
        if (head.kind != RecordKind::Content) return m_writer->add(bytes);
        KeptFrame kept{};
        std::memcpy(&kept, bytes.data(), sizeof kept);
        const std::unique_ptr<uint8_t[]> frame(kept.bytes);
        head.bytes = static_cast<uint32_t>(sizeof head) + kept.size;
        m_writer->add(bytesOf(head), {frame.get(), kept.size});
    }

    uint16_t threadNumber() noexcept {
        auto number = reinterpret_cast<uintptr_t>(TlsGetValue(m_threadSlot));
        if (number == 0) {
            number = m_threads.fetch_add(1, std::memory_order_relaxed) + 1;
            TlsSetValue(m_threadSlot, reinterpret_cast<void*>(number));
        }
        return static_cast<uint16_t>(number);
    }

    const DWORD m_threadSlot;
    std::atomic<uint32_t> m_threads{0}, m_requests{0}, m_events{0};
    std::atomic<uint64_t> m_begin100ns{0};
    std::atomic<int32_t> m_framesLeft{0};
    std::atomic<RecordQueue*> m_queue{nullptr};

    Mutex m_mutex; ///< held while the thread begins and ends
    unsigned m_users GUARDED_BY(m_mutex) = 0;
    Wish m_wish GUARDED_BY(m_mutex);
    std::optional<Files> m_files GUARDED_BY(m_mutex);
    std::optional<TraceWriter> m_writer GUARDED_BY(m_mutex);
    UniqueObject m_stop, m_thread;
};

Tracer& tracer() noexcept {
    static Tracer instance;
    return instance;
}

/// Of a chunk table the memory is what is sent; that of the other direct requests is for frames.
bool isChunkTable(uint32_t code) noexcept {
    return code == wire::ChunkTable::codeOf(0) || code == wire::ChunkTable::codeOf(1);
}
bool isFrameMemory(uint32_t code) noexcept {
    const wire::RequestShape* shape = wire::shapeOf(code);
    return shape && shape->sentBytes == 0 && !isChunkTable(code);
}

std::span<const uint8_t> kept(const void* bytes, uint32_t size) noexcept {
    return {static_cast<const uint8_t*>(bytes), bytes ? std::min(size, kMostBytes) : 0};
}

} // namespace

TraceUse::TraceUse() noexcept {
    tracer().use();
}

TraceUse::~TraceUse() {
    tracer().leave();
}

uint32_t nextTraceOpening() noexcept {
    static std::atomic<uint32_t> openings{0};
    return openings.fetch_add(1, std::memory_order_relaxed) + 1;
}

void TracedRequest::recordBegin(const What& what) noexcept {
    m_what = what;
    m_number = tracer().nextRequest();
    if (isChunkTable(what.code)) {
        m_what.sent = what.answer;
        m_what.sentBytes = what.answerBytes;
    }
    const std::span<const uint8_t> sent = kept(m_what.sent, m_what.sentBytes);
    const SentRecord record{tracer().head(RecordKind::Sent, what.port, m_number, sizeof record + sent.size()),
                            what.code,
                            what.opening,
                            GetCurrentThreadId(),
                            m_what.sentBytes,
                            what.answerBytes};
    tracer().add(record, sent);
}

void TracedRequest::recordEnd(DWORD error, uint32_t bytes) noexcept {
    const uint32_t answered = error == ERROR_SUCCESS ? std::min(bytes, m_what.answerBytes) : 0;
    const bool isFrame = isFrameMemory(m_what.code);
    const std::span<const uint8_t> reply = kept(isFrame ? nullptr : m_what.answer, answered);
    const EndedRecord record{tracer().head(RecordKind::Ended, m_what.port, m_number, sizeof record + reply.size()),
                             m_what.code, error, answered};
    tracer().add(record, reply);
    if (m_what.code == wire::Snap::codeOf(0) && answered != 0)
        recordEvent(EventKind::Snapped, m_what.port, m_number, m_what.opening, m_what.answer, answered);
    m_number = 0;
}

void recordEvent(EventKind kind, int8_t port, uint32_t value, uint32_t opening, const void* frame,
                 uint32_t frameBytes) noexcept {
    const std::span<const uint8_t> bytes(static_cast<const uint8_t*>(frame), frame ? frameBytes : 0);
    const uint32_t number = tracer().nextEvent();
    const EventRecord record{tracer().head(RecordKind::Event, port, number, sizeof record),
                             kind,
                             {},
                             value,
                             opening,
                             static_cast<uint32_t>(bytes.size()),
                             frame ? frameHash(bytes) : 0};
    if (tracer().add(record) && frame) tracer().keepFrame(number, bytes);
}

} // namespace kestra
