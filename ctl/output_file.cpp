// CreateFileW and WriteFile, with a remedy for what commonly goes wrong.
#include "ctl/output_file.h"

#include "ctl/exit_code.h"
#include "ctl/system_error.h"

#include <algorithm>

namespace kestra::ctl {

namespace {

const char* remedyOf(DWORD error) noexcept {
    switch (error) {
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
        return "the disk is full: make room or take another; what was written before is whole";
    case ERROR_NO_DATA:
    case ERROR_BROKEN_PIPE:
        return "whoever reads it has ended: look at its own messages";
    case ERROR_PATH_NOT_FOUND:
    case ERROR_FILE_NOT_FOUND:
        return "make the folder first";
    case ERROR_ACCESS_DENIED:
        return "choose a folder that you may write to; a file that is marked read-only stays as it is";
    case ERROR_SHARING_VIOLATION:
        return "another program has it open: close that, or choose another name";
    case ERROR_INVALID_NAME:
        return "choose a name without < > : \" | ? *";
    default:
        return "choose another name or folder";
    }
}

std::string shownName(const std::string& name) {
    return name == "-" ? "the standard output" : name;
}

} // namespace

OutputFile::OutputFile(const std::string& name) : m_name(name) {
    if (name == "-") {
        m_handle = GetStdHandle(STD_OUTPUT_HANDLE);
        DWORD mode = 0;
        if (GetConsoleMode(m_handle, &mode))
            throw Failure(ExitCode::Usage, "pictures cannot be shown on a terminal",
                          "pass the standard output on to a program, or name a file");
        return;
    }
    m_file = UniqueFile(CreateFileW(wideOfUtf8(name).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!m_file) fail(GetLastError());
    m_handle = m_file.get();
}

void OutputFile::fail(uint32_t error) const {
    throw Failure(ExitCode::Failure, shownName(m_name) + " cannot be written: " + systemErrorText(error),
                  remedyOf(error));
}

void OutputFile::write(const void* bytes, size_t size) {
    const auto* at = static_cast<const uint8_t*>(bytes);
    while (size != 0) {
        constexpr size_t kMost = 16u << 20;
        DWORD written = 0;
        if (!WriteFile(m_handle, at, static_cast<DWORD>(std::min(size, kMost)), &written, nullptr))
            fail(GetLastError());
        if (written == 0) fail(ERROR_DISK_FULL);
        at += written;
        size -= written;
        m_bytes += written;
    }
}

void OutputFile::rewrite(uint64_t at, const void* bytes, size_t size) {
    LARGE_INTEGER place{};
    place.QuadPart = static_cast<LONGLONG>(at);
    LARGE_INTEGER end{};
    end.QuadPart = static_cast<LONGLONG>(m_bytes);
    DWORD written = 0;
    if (!SetFilePointerEx(m_handle, place, nullptr, FILE_BEGIN) ||
        !WriteFile(m_handle, bytes, static_cast<DWORD>(size), &written, nullptr) ||
        !SetFilePointerEx(m_handle, end, nullptr, FILE_BEGIN))
        fail(GetLastError());
}

void OutputFile::truncate(uint64_t bytes) noexcept {
    if (!m_file) return;
    LARGE_INTEGER end{};
    end.QuadPart = static_cast<LONGLONG>(bytes);
    if (SetFilePointerEx(m_handle, end, nullptr, FILE_BEGIN) && SetEndOfFile(m_handle)) m_bytes = bytes;
}

void OutputFile::close() {
    const HANDLE file = m_file.release();
    m_handle = INVALID_HANDLE_VALUE;
    if (file != INVALID_HANDLE_VALUE && !CloseHandle(file)) fail(GetLastError());
}

void OutputFile::remove() noexcept {
    if (!m_file) return;
    m_file = UniqueFile();
    m_handle = INVALID_HANDLE_VALUE;
    DeleteFileW(wideOfUtf8(m_name).c_str());
}

void writeFile(const std::string& name, const void* bytes, size_t size) {
    OutputFile file(name);
    try {
        file.write(bytes, size);
        file.close();
    } catch (const Failure&) {
        file.remove();
        throw;
    }
}

std::string readFile(const std::string& name) {
    const UniqueFile file(CreateFileW(wideOfUtf8(name).c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0,
                                      nullptr));
    const auto fail = [&] {
        const DWORD error = GetLastError();
        return Failure(ExitCode::Failure, name + " cannot be read: " + systemErrorText(error),
                       "check its name and that you may read it");
    };
    if (!file) throw fail();
    std::string text;
    std::string piece(1u << 16, '\0');
    while (true) {
        DWORD bytes = 0;
        if (!ReadFile(file.get(), piece.data(), static_cast<DWORD>(piece.size()), &bytes, nullptr)) throw fail();
        if (bytes == 0) return text;
        text.append(piece, 0, bytes);
    }
}

std::string fullFolder(const std::string& folder) {
    wchar_t path[MAX_PATH];
    const DWORD length = GetFullPathNameW(wideOfUtf8(folder).c_str(), MAX_PATH, path, nullptr);
    const DWORD attributes = length != 0 && length < MAX_PATH ? GetFileAttributesW(path) : INVALID_FILE_ATTRIBUTES;
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        throw Failure(ExitCode::Usage, "there is no folder '" + folder + "'", "make it first");
    std::string full = utf8OfWide(path);
    if (full.back() != '\\') full += '\\';
    return full;
}

} // namespace kestra::ctl
