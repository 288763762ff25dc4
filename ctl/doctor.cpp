// doctor: why an application does not see, start or keep the card. From the system to the running filter, in the order
// in which one thing needs the other; what cannot work for a reason that was named already is not tried.
#include "ctl/bundle.h"
#include "ctl/cards.h"
#include "ctl/console.h"
#include "ctl/doctor_module.h"
#include "ctl/doctor_probe.h"
#include "ctl/doctor_report.h"
#include "ctl/signal_text.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "ctl/verbs.h"
#include "protocol/card_interface.h"
#include "protocol/frame_rate.h"
#include "protocol/user_settings.h"
#include "win32/registry_key.h"

#include <objbase.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>

namespace kestra::ctl {

namespace {

constexpr char kLogHint[] = "the log says what failed: kestra-ctl log set detail=3, then try again";

void examineWindows(DoctorReport& report) {
    using GetVersion = LONG(WINAPI*)(OSVERSIONINFOW*);
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    const auto get = reinterpret_cast<GetVersion>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    if (get) get(&version);
    const std::string text =
        format("%lu.%lu, build %lu, 64 bit", version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber);
    if (version.dwMajorVersion >= 10)
        report.add({"windows", Mark::Good, "Windows", text, ""});
    else
        report.add(
            {"windows", Mark::Note, "Windows", text + ": older than what this is made for", "Windows 10 or later"});
}

/// Whether the card's driver has ever entered its interface with this system.
bool isDriverKnown() {
    const GUID id = asGuid<GUID>(kCardInterface);
    wchar_t text[64];
    StringFromGUID2(id, text, 64);
    UniqueKey key;
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                         (L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\" + std::wstring(text)).c_str(), 0,
                         KEY_READ, key.out()) == ERROR_SUCCESS;
}

/// What is known of one card.
struct Patient {
    explicit Patient(CardEntry found) : entry(std::move(found)) {}

    CardEntry entry;
    std::unique_ptr<OpenCard> card;           ///< while it is examined; null: it does not open
    std::optional<TarnisCameraStatus> status; ///< empty: it does not open or answer
    std::optional<Failure> failure;           ///< why
    bool hasInput() const noexcept { return status && hasSignal(*status); }
    bool hasInputSound() const noexcept { return hasInput() && hasSound(*status); }
};

/// Whether another program holds a channel: claims it and lets it go at once, which nobody sees.
/// @return a TarnisResult
uint32_t claimForAMoment(OpenCard& card, int8_t port) {
    return card.run("its channel", [port](TARNIS_HANDLE handle) {
        const uint32_t code = TARNIS_GetDMAAccess(handle, port);
        if (code == TARNIS_SUCCESS) TARNIS_ReleaseDMAAccess(handle, port);
        return code;
    });
}

class CardExamination {
public:
    CardExamination(DoctorReport& report, const std::string& wanted) : m_report(report) {
        std::vector<CardEntry> cards = wanted.empty() ? findCards() : std::vector<CardEntry>{chooseCard(wanted)};
        if (cards.empty()) {
            if (isDriverKnown())
                m_report.add({"driver", Mark::Bad, "Driver", "has been installed, but no card is there",
                              "plug the card in; the device manager shows whether the system finds it"});
            else
                m_report.add({"driver", Mark::Bad, "Driver", "not installed: the system knows no card",
                              "install the card's driver, then look again"});
            return;
        }
        m_report.add({"driver", Mark::Good, "Driver", counted(cards.size(), "card"), ""});
        // Whether a card's missing input is a problem depends on the others: all are asked before one is reported.
        for (CardEntry& entry : cards)
            ask(m_patients.emplace_back(std::move(entry)));
        for (const Patient& patient : m_patients)
            examine(patient);
        for (Patient& patient : m_patients)
            patient.card.reset();
    }

    /// The card that a filter takes: the first one that brings what it is for. Null: it cannot be run.
    const Patient* runnableFor(const FilterKind& kind) const {
        const bool isVideo = &kind == &kVideoFilter;
        for (const Patient& patient : m_patients)
            if (isVideo ? patient.hasInput() : patient.hasInputSound())
                return m_report.isGood(idOf(patient, isVideo ? "picture" : "sound")) ? &patient : nullptr;
        return nullptr;
    }

private:
    static std::string idOf(const Patient& patient, const char* what) {
        return "card." + std::to_string(patient.entry.number) + "." + what;
    }
    static std::string nameOf(const Patient& patient) { return "Card " + std::to_string(patient.entry.number); }

    static void ask(Patient& patient) {
        if (patient.entry.openError != 0) return;
        try {
            patient.card = std::make_unique<OpenCard>(patient.entry);
            patient.status = cameraStatus(*patient.card);
        } catch (const Failure& failure) {
            patient.failure = failure;
        }
    }

    void examine(const Patient& patient) {
        const CardEntry& entry = patient.entry;
        if (entry.openError != 0)
            return m_report.add({idOf(patient, "opens"), Mark::Bad, nameOf(patient),
                                 "cannot be opened: " + systemErrorText(entry.openError),
                                 entry.openError == ERROR_ACCESS_DENIED
                                     ? "another program has it for itself, or this user may not use it"
                                     : "take the card out and in again, or install its driver again"});
        if (patient.failure) return addFailure(patient, "opens", *patient.failure);
        m_report.add({idOf(patient, "opens"), Mark::Good, nameOf(patient),
                      (entry.slotText.empty() ? std::string("no slot text") : entry.slotText) + ": opens and answers",
                      ""});
        examineInput(patient);
        if (patient.hasInput()) examineChannel(patient, 0, "picture");
        if (patient.hasInputSound()) examineChannel(patient, 1, "sound");
    }

    void addFailure(const Patient& patient, const char* check, const Failure& failure) {
        m_report.add({idOf(patient, check), Mark::Bad, nameOf(patient), failure.what(), failure.remedy()});
    }

    void examineChannel(const Patient& patient, int8_t port, const char* what) try {
        const std::string id = idOf(patient, what);
        switch (claimForAMoment(*patient.card, port)) {
        case TARNIS_SUCCESS:
            return m_report.add(
                {id, Mark::Good, nameOf(patient), "its " + std::string(what) + " is free to be grabbed", ""});
        case TARNIS_ACCESS_DENIED:
            return m_report.add({id, Mark::Bad, nameOf(patient), "another program grabs its " + std::string(what),
                                 "close that program; a card gives its " + std::string(what) + " to one at a time"});
        default:
            return m_report.add({id, Mark::Bad, nameOf(patient),
                                 "its " + std::string(what) + " cannot be claimed: the driver failed", kLogHint});
        }
    } catch (const Failure& failure) {
        addFailure(patient, what, failure);
    }

    template <class Condition>
    bool any(Condition condition) const {
        return std::any_of(m_patients.begin(), m_patients.end(), condition);
    }

    /// A card without an input is a problem if no other has one.
    void examineInput(const Patient& patient) {
        const TarnisCameraStatus& status = *patient.status;
        const std::string id = idOf(patient, "signal"), line = signalLine(status);
        if (!hasSignal(status))
            return m_report.add({id, any([](const Patient& p) { return p.hasInput(); }) ? Mark::Note : Mark::Bad,
                                 nameOf(patient), "no signal", "check cable and source: SDI, switched on"});
        if (isSettling(status.videoMode))
            m_report.add({id, Mark::Bad, nameOf(patient), line,
                          "look again in a moment; if it stays so, the source sends what the card does not know"});
        else if (status.frameRate == 0)
            m_report.add({id, Mark::Note, nameOf(patient), line,
                          "look again in a moment: applications that open it now take 25 frames a second"});
        else
            m_report.add({id, Mark::Good, nameOf(patient), line, ""});
        if (!hasSound(status))
            m_report.add({idOf(patient, "audio"),
                          any([](const Patient& p) { return p.hasInputSound(); }) ? Mark::Note : Mark::Bad,
                          nameOf(patient), "no sound in its signal: the audio filter cannot be opened",
                          "have the source embed sound, or use the picture alone"});
    }

    DoctorReport& m_report;
    std::vector<Patient> m_patients;
};

/// A value of the current user's, as it is stored, of whatever type.
struct StoredValue {
    std::optional<DWORD> type; ///< empty: there is none
    std::vector<BYTE> bytes;

    static StoredValue read(const wchar_t* keyPath, const wchar_t* name) {
        StoredValue value;
        UniqueKey key;
        DWORD type = 0, size = 0;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, keyPath, 0, KEY_READ, key.out()) != ERROR_SUCCESS ||
            RegQueryValueExW(key.get(), name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS)
            return value;
        value.bytes.resize(size);
        if (RegQueryValueExW(key.get(), name, nullptr, nullptr, value.bytes.data(), &size) == ERROR_SUCCESS)
            value.type = type;
        return value;
    }
    /// @return empty: it is no number
    std::optional<uint32_t> number() const {
        if (type != REG_DWORD || bytes.size() != sizeof(uint32_t)) return {};
        return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
    }
    /// @return empty: it is no text
    std::wstring text() const {
        if (type != REG_SZ) return {};
        std::wstring wide(bytes.size() / sizeof(wchar_t), L'\0');
        std::memcpy(wide.data(), bytes.data(), wide.size() * sizeof(wchar_t));
        return wide.c_str(); // up to its end, wherever that stands
    }
    bool operator==(const StoredValue&) const = default;
};

/// A filter that is opened writes the choice that it has made of what it found: the doctor leaves it as it was.
class KeptChoice {
public:
    explicit KeptChoice(const wchar_t* name) : m_name(name), m_before(StoredValue::read(kFormatsKey, name)) {}
    ~KeptChoice() {
        if (StoredValue::read(kFormatsKey, m_name) == m_before) return;
        if (m_before.type)
            RegSetKeyValueW(HKEY_CURRENT_USER, kFormatsKey, m_name, *m_before.type, m_before.bytes.data(),
                            static_cast<DWORD>(m_before.bytes.size()));
        else
            RegDeleteKeyValueW(HKEY_CURRENT_USER, kFormatsKey, m_name);
    }
    KeptChoice(const KeptChoice&) = delete;
    KeptChoice& operator=(const KeptChoice&) = delete;

private:
    const wchar_t* const m_name;
    const StoredValue m_before;
};

struct Choices {
    const char* id;
    const char* name;
    const wchar_t* value;
    std::vector<const char*> texts;
};

void examineChoice(DoctorReport& report, const Choices& choices) {
    const StoredValue stored = StoredValue::read(kFormatsKey, choices.value);
    const std::string valueName = utf8OfWide(choices.value);
    const std::optional<uint32_t> number = stored.number();
    if (!stored.type)
        return report.add(
            {choices.id, Mark::Good, choices.name, std::string(choices.texts[0]) + ", as nothing else was chosen", ""});
    if (!number || *number >= choices.texts.size())
        return report.add({choices.id, Mark::Bad, choices.name,
                           valueName +
                               (number ? " holds " + std::to_string(*number) : std::string(" holds no number")) +
                               ", which stands for no format",
                           "kestra-ctl formats restore"});
    if (choices.value == kAudioFormatValue && *number == 1)
        return report.add({choices.id, Mark::Note, choices.name,
                           std::string(choices.texts[1]) + ", which FFmpeg does not take: it records no sound",
                           "kestra-ctl formats set audio=16"});
    report.add({choices.id, Mark::Good, choices.name, choices.texts[*number], ""});
}

void examineFilter(DoctorReport& report, const FilterKind& kind, const Patient* patient, Console& console) {
    const bool isVideo = &kind == &kVideoFilter;
    const std::string id = std::string("run.") + kind.id, name = isVideo ? "Video filter" : "Audio filter";
    if (!patient) return report.add({id, Mark::Note, name, "not run, for a reason that is named above", ""});
    const Json result = probe(kind.id, {}, console);
    if (result.contains("failed"))
        return report.add({id, Mark::Bad, name, "hangs or crashes: " + result["failed"].get<std::string>(), kLogHint});
    if (result.contains("error")) {
        const std::string step = result["step"].get<std::string>();
        const std::string error = format(" (0x%08X)", result["error"].get<uint32_t>());
        const char* what = step == "bind" ? "cannot be opened" : step == "run" ? "cannot be started" : "cannot be used";
        return report.add({id, Mark::Bad, name, what + error + ", though the card is free", kLogHint});
    }
    const auto samples = result["samples"].get<uint32_t>();
    if (result["streamHasEnded"].get<bool>())
        return report.add({id, Mark::Note, name, "the input changed or was lost while it ran", "try again"});
    if (samples == 0)
        return report.add({id, Mark::Bad, name, "starts, and not one sample comes",
                           "the card sends no frames: take it out and in again; " + std::string(kLogHint)});
    const double seconds = result["milliseconds"].get<double>() / 1000;
    const std::string counts = counted(samples, isVideo ? "frame" : "block") + format(" in %.1f s", seconds) + ", " +
                               byteCount(result["bytes"].get<uint64_t>());
    const uint32_t rate = framesOfRate(reportedRate(*patient->status), patient->status->interlaced != 0);
    constexpr double kEnough = 0.9; // of what the signal has; the machine was busy otherwise
    if (rate != 0 && samples < kEnough * rate * seconds)
        return report.add({id, Mark::Note, name, "runs: " + counts + format("; the signal has %u a second", rate),
                           "the machine is too slow or too busy for this format"});
    report.add({id, Mark::Good, name, "runs: " + counts, ""});
}

void examineLog(DoctorReport& report) {
    const uint32_t detail = StoredValue::read(kLogKey, L"FileOutDetail").number().value_or(0);
    if (detail == 0) return report.add({"log", Mark::Good, "Log", "off", ""});
    const std::wstring path = StoredValue::read(kLogKey, L"LogDir").text();
    const DWORD attributes = path.empty() ? INVALID_FILE_ATTRIBUTES : GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
        return report.add({"log", Mark::Note, "Log",
                           path.empty() ? "on, without a folder: each application writes into its current one"
                                        : "on, but its folder is not there: " + utf8OfWide(path.c_str()),
                           "kestra-ctl log set --help"});
    report.add({"log", Mark::Good, "Log", format("on, detail %u, in ", detail) + utf8OfWide(path.c_str()), ""});
}

/// What no check can find out and many users ask.
void addLimits(DoctorReport& report) {
    report.add({"clients", Mark::Note, "Applications", "32-bit and Media-Foundation-only ones cannot see the filters",
                "use 64-bit applications that take DirectShow devices"});
}

} // namespace

ExitCode runDoctor(const Options& options, Console& console) {
    if (!options.doctor.probe.empty()) {
        runProbe(options.doctor.probe, options.doctor.probeFile, console);
        return ExitCode::Done;
    }
    std::optional<Bundle> bundle;
    if (!options.doctor.bundle.empty()) bundle.emplace(options.doctor.bundle, console);
    DoctorReport report;
    const HRESULT com = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    examineWindows(report);
    const bool hasModule = examineModule(report, console);
    if (!options.doctor.isInstalledOnly) {
        examineChoice(report,
                      {"formats.video", "Picture format", kVideoFormatValue, {"YUY2", "RGB24", "UYVY", "RGB32"}});
        examineChoice(report, {"formats.audio", "Sound format", kAudioFormatValue, {"16 bits", "24 bits"}});
        const CardExamination cards(report, options.card);
        const KeptChoice video(kVideoFormatValue), audio(kAudioFormatValue);
        for (const FilterKind* kind : {&kVideoFilter, &kAudioFilter})
            examineFilter(report, *kind, hasModule ? cards.runnableFor(*kind) : nullptr, console);
        examineLog(report);
        addLimits(report);
    }
    if (SUCCEEDED(com)) CoUninitialize();
    const std::string text = report.text(options.doctor.ascii || !console.showsEverySign());
    const std::string made = bundle ? '\n' + bundle->fill({}, report.text(false)) : "";
    console.write(options.json ? jsonLine(report.json()) : text + made);
    return static_cast<ExitCode>(report.problems());
}

} // namespace kestra::ctl
