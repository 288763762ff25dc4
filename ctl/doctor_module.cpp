// Registration, file, loading, version, image library.
#include "ctl/doctor_module.h"

#include "ctl/doctor_probe.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "kestra_interfaces.h"

#include <kestra_version.h>

#include <array>
#include <filesystem>
#include <vector>

namespace kestra::ctl {

namespace {

std::wstring keyText(const CLSID& clsid) {
    std::array<wchar_t, 64> text{};
    StringFromGUID2(clsid, text.data(), static_cast<int>(text.size()));
    return text.data();
}

/// The file that COM would load for a class; empty: the class is not registered.
std::wstring serverOf(const CLSID& clsid) {
    std::wstring path(32768, L'\0');
    auto bytes = static_cast<DWORD>(path.size() * sizeof(wchar_t));
    const std::wstring key = L"CLSID\\" + keyText(clsid) + L"\\InprocServer32";
    if (RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), nullptr, RRF_RT_REG_SZ, nullptr, path.data(), &bytes) !=
        ERROR_SUCCESS)
        return {};
    return path.c_str();
}

std::wstring besideThisProgram(const wchar_t* fileName) {
    std::array<wchar_t, 32768> self{};
    GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size()));
    return (std::filesystem::path(self.data()).parent_path() / fileName).wstring();
}

bool isFile(const std::wstring& path) noexcept {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::string registerHint() {
    return "as administrator: regsvr32 \"" + utf8OfWide(besideThisProgram(L"KestraCapture.dll").c_str()) + "\"";
}

/// The text of the version in the file's resources; empty: it has none.
std::string versionOf(const std::wstring& path) {
    DWORD unused = 0;
    std::vector<std::byte> block(GetFileVersionInfoSizeW(path.c_str(), &unused));
    void* text = nullptr;
    UINT length = 0;
    if (block.empty() || !GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) ||
        !VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\FileVersion", &text, &length))
        return {};
    return utf8OfWide(static_cast<const wchar_t*>(text));
}

/// @return the file of both filters; empty: they are not registered from one and the same
std::wstring examineRegistration(DoctorReport& report) {
    std::wstring files[2];
    const std::pair<const FilterKind&, const char*> filters[] = {{kVideoFilter, "Video filter"},
                                                                 {kAudioFilter, "Audio filter"}};
    for (int i = 0; i < 2; ++i) {
        const auto& [kind, name] = filters[i];
        const std::string id = "module." + std::string(kind.id);
        files[i] = serverOf(kind.clsid);
        if (files[i].empty())
            report.add({id + ".class", Mark::Bad, name, "not registered", registerHint()});
        else
            report.add({id + ".class", Mark::Good, name, "registered", ""});
        const std::string list = "the system's list of " + std::string(kind.id) + " capture devices";
        if (isListed(kind))
            report.add({id + ".list", Mark::Good, name, "in " + list, ""});
        else
            report.add({id + ".list", Mark::Bad, name, "missing in " + list, registerHint()});
    }
    if (files[0].empty() || files[1].empty()) return {};
    if (CompareStringOrdinal(files[0].c_str(), -1, files[1].c_str(), -1, TRUE) != CSTR_EQUAL) {
        report.add({"module.file", Mark::Bad, "Module",
                    "the filters are registered from two files: " + utf8OfWide(files[0].c_str()) + " and " +
                        utf8OfWide(files[1].c_str()),
                    registerHint()});
        return {};
    }
    bool hasPages = true;
    for (const CLSID& page : {CLSID_KestraStreamPropCSC, CLSID_KestraStreamPropRGB, CLSID_KestraAudioPropertyPage})
        hasPages = hasPages && !serverOf(page).empty();
    if (hasPages)
        report.add({"module.pages", Mark::Good, "Property pages", "registered", ""});
    else
        report.add({"module.pages", Mark::Bad, "Property pages", "not registered", registerHint()});
    return files[0];
}

bool examineFile(DoctorReport& report, const std::wstring& file, Console& console) {
    const std::string path = utf8OfWide(file.c_str());
    if (!isFile(file)) {
        report.add({"module.file", Mark::Bad, "Module", "registered as " + path + ", which is not there",
                    "put it back, or " + registerHint()});
        return false;
    }
    report.add({"module.file", Mark::Good, "Module", path, ""});
    const Json result = probe("module", file, console);
    const std::string failure = result.contains("failed")  ? result["failed"].get<std::string>()
                                : result.contains("error") ? systemErrorText(result["error"].get<uint32_t>())
                                                           : "";
    if (!failure.empty()) {
        report.add({"module.loads", Mark::Bad, "Module", "cannot be loaded: " + failure,
                    "the file is damaged or another one: install it again, then " + registerHint()});
        return false;
    }
    report.add({"module.loads", Mark::Good, "Module", "64 bit, can be loaded", ""});
    const std::string version = versionOf(file);
    if (version == KESTRA_VERSION_TEXT)
        report.add({"module.version", Mark::Good, "Module", "version " + version, ""});
    else
        report.add({"module.version", Mark::Note, "Module",
                    (version.empty() ? "without a version" : "version " + version) + ", and this program is " +
                        KESTRA_VERSION_TEXT,
                    "another copy may be registered; " + registerHint()});
    const std::wstring images = (std::filesystem::path(file).parent_path() / L"ippLib.dll").wstring();
    if (isFile(images))
        report.add({"module.images", Mark::Good, "Image library", "beside the module", ""});
    else
        report.add({"module.images", Mark::Note, "Image library",
                    "ippLib.dll is not beside the module: no white balance; all else works", "put it there"});
    return true;
}

} // namespace

bool examineModule(DoctorReport& report, Console& console) {
    const std::wstring file = examineRegistration(report);
    return !file.empty() && examineFile(report, file, console);
}

} // namespace kestra::ctl
