// Talks to the driver's control device, and installs the driver through the device-installation service.
#include "simcard/ctl/control.h"

#include "simcard/ctl/services.h"
#include "win32/device_set.h"

#include <windows.h>

#include <newdev.h>

#include <cstdio>
#include <cstring>

namespace kestra::simcard {

namespace {

const GUID kSystemClass = {0x4d36e97d, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
constexpr wchar_t kHardwareId[] = L"root\\kestrasim\0"; // a list: ends with two zeros

[[noreturn]] void fail(const char* what, DWORD error = GetLastError()) {
    throw ControlError(std::string(what) + " failed with error " + std::to_string(error), error);
}

/// Owns a set of devices of the installation service.
DeviceSet checked(HDEVINFO list) {
    DeviceSet set(list);
    if (!set) fail("Opening the list of devices");
    return set;
}

class ControlDevice {
public:
    ControlDevice()
        : m_handle(CreateFileW(L"\\\\.\\KestraSimControl", GENERIC_READ | GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr)) {
        if (!m_handle) fail("Opening the simulated card's control device (is a card installed?)");
    }

    DWORD call(const char* what, uint32_t code, const void* in, size_t inSize, void* out = nullptr,
               size_t outSize = 0) const {
        DWORD size = 0;
        if (!DeviceIoControl(m_handle.get(), code, const_cast<void*>(in), DWORD(inSize), out, DWORD(outSize), &size,
                             nullptr))
            fail(what);
        return size;
    }

private:
    const UniqueFile m_handle;
};

template <class Record>
void send(const char* what, uint32_t code, const Record& record) {
    ControlDevice().call(what, code, &record, sizeof record);
}

} // namespace

namespace {

/// New devices of the cards' kind, still without a driver.
void registerCards(unsigned count) {
    const DeviceSet set = checked(SetupDiCreateDeviceInfoList(&kSystemClass, nullptr));
    for (unsigned i = 0; i < count; ++i) {
        SP_DEVINFO_DATA device = {};
        device.cbSize = sizeof device;
        const std::wstring name = L"root\\kestrasim\\000" + std::to_wstring(i);
        if (!SetupDiCreateDeviceInfoW(set.get(), name.c_str(), &kSystemClass, nullptr, nullptr, 0, &device))
            fail("Creating a card's device");
        if (!SetupDiSetDeviceRegistryPropertyW(set.get(), &device, SPDRP_HARDWAREID,
                                               reinterpret_cast<const BYTE*>(kHardwareId), sizeof kHardwareId))
            fail("Naming a card's device");
        if (!SetupDiCallClassInstaller(DIF_REGISTERDEVICE, set.get(), &device)) fail("Registering a card's device");
    }
}

constexpr int kAttempts = 3;
constexpr ULONGLONG kStartMs = 10000; ///< for each attempt

bool haveStarted(unsigned count) {
    for (const ULONGLONG deadline = GetTickCount64() + kStartMs; installedCards().size() < count; Sleep(20))
        if (GetTickCount64() > deadline) return false;
    return true;
}

/// A card that goes away under a program cannot be told from one that fails.
void refuseWhileInUse() {
    for (const uint32_t card : installedCards())
        if (const uint32_t clients = CardControl(card).state().clients; clients != 0)
            throw ControlError("Card " + std::to_string(card) + " is in use by " + std::to_string(clients) +
                                   (clients == 1 ? " program; close it first" : " programs; close them first"),
                               ERROR_DEVICE_IN_USE);
}

} // namespace

ControlError::ControlError(const std::string& what, uint32_t error) : std::runtime_error(what), m_error(error) {}

unsigned removeCards() {
    refuseWhileInUse();
    const DeviceSet set = checked(SetupDiGetClassDevsW(&kSystemClass, L"root\\kestrasim", nullptr, 0));
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof device;
    unsigned removed = 0;
    for (DWORD i = 0; SetupDiEnumDeviceInfo(set.get(), i, &device); ++i) {
        if (!SetupDiCallClassInstaller(DIF_REMOVE, set.get(), &device)) fail("Removing a card");
        ++removed;
    }
    return removed;
}

void installCards(unsigned count, const std::wstring& infPath) {
    if (count == 0 || count > kMaxCards) throw ControlError("Between 1 and 8 cards can be installed", 87);
    if (GetFileAttributesW(infPath.c_str()) == INVALID_FILE_ATTRIBUTES) fail("Finding kestrasim.inf");
    awaitOneServiceManager();
    for (int attempt = 1;; ++attempt) {
        removeCards();
        registerCards(count);
        BOOL reboot = FALSE;
        if (!UpdateDriverForPlugAndPlayDevicesW(nullptr, L"root\\kestrasim", infPath.c_str(), INSTALLFLAG_FORCE,
                                                &reboot))
            fail("Installing the driver");
        if (haveStarted(count)) return;
        // A service manager that has only just begun may forget that it was told to start a driver.
        if (attempt == kAttempts) throw ControlError("The cards did not start within 30 s", WAIT_TIMEOUT);
        std::fprintf(stderr, "kestrasimctl: the cards have not started; installing them once more\n");
    }
}

std::vector<uint32_t> installedCards() {
    std::vector<uint32_t> cards;
    for (uint32_t i = 0; i < kMaxCards; ++i) {
        try {
            CardControl(i).state();
            cards.push_back(i);
        } catch (const ControlError&) { // no card of that number, or no driver at all
        }
    }
    return cards;
}

CardState CardControl::state() const {
    CardState state = {};
    const CardNumber request = {m_card};
    ControlDevice().call("Reading the card's state", kControlGetCards, &request, sizeof request, &state, sizeof state);
    return state;
}

std::wstring CardControl::devicePath() const {
    const CardState state = this->state();
    return std::wstring(reinterpret_cast<const wchar_t*>(&state) + offsetof(CardState, devicePath) / sizeof(wchar_t));
}

void CardControl::plug() const {
    send("Plugging the card", kControlSetPlugged, SetPlugged{m_card, 1});
}

void CardControl::unplug() const {
    send("Unplugging the card", kControlSetPlugged, SetPlugged{m_card, 0});
}

void CardControl::setSignal(const Signal& signal) const {
    send("Setting the signal", kControlSetSignal, SetSignal{m_card, signal});
}

void CardControl::setOptions(const Options& options) const {
    send("Setting the options", kControlSetOptions, SetOptions{m_card, options});
}

void CardControl::addFault(const Fault& fault) const {
    send("Adding a fault", kControlAddFault, AddFault{m_card, fault});
}

void CardControl::clearFaults() const {
    send("Clearing the faults", kControlClearFaults, CardNumber{m_card});
}

void CardControl::clearLog() const {
    send("Clearing the log", kControlClearLog, CardNumber{m_card});
}

void CardControl::setReplay(const std::vector<uint8_t>& script) const {
    std::vector<uint8_t> request(sizeof(CardNumber));
    const CardNumber card = {m_card};
    std::memcpy(request.data(), &card, sizeof card);
    request.insert(request.end(), script.begin(), script.end());
    ControlDevice().call("Setting the replay", kControlSetReplay, request.data(), request.size());
}

ReplayReport CardControl::replayReport() const {
    ReplayReport report = {};
    const CardNumber request = {m_card};
    ControlDevice().call("Reading the replay", kControlReadReplay, &request, sizeof request, &report, sizeof report);
    return report;
}

void CardControl::reset() const {
    send("Resetting the card", kControlReset, CardNumber{m_card});
    plug();
}

std::vector<LogEntry> CardControl::log(uint64_t firstSequence) const {
    std::vector<LogEntry> entries(2048);
    const LogRequest request = {m_card, firstSequence};
    const DWORD size = ControlDevice().call("Reading the log", kControlReadLog, &request, sizeof request,
                                            entries.data(), entries.size() * sizeof(LogEntry));
    entries.resize(size / sizeof(LogEntry));
    return entries;
}

std::vector<WrittenFrame> CardControl::writes() const {
    std::vector<WrittenFrame> frames(kWrittenFrames);
    const CardNumber request = {m_card};
    const DWORD size = ControlDevice().call("Reading the written frames", kControlReadWrites, &request, sizeof request,
                                            frames.data(), frames.size() * sizeof(WrittenFrame));
    frames.resize(size / sizeof(WrittenFrame));
    return frames;
}

void CardControl::failNext(uint32_t code, uint32_t ntStatus, uint32_t count, uint32_t skip) const {
    addFault({FaultKind::NtStatus, code, ntStatus, skip, count, {}});
}

void CardControl::refuseNext(uint32_t code, uint32_t driverResult, uint32_t count, uint32_t skip) const {
    addFault({FaultKind::DriverResult, code, driverResult, skip, count, {}});
}

void CardControl::dmaStatusNext(uint32_t port, uint32_t dmaStatus, uint32_t count, uint32_t skip) const {
    addFault({FaultKind::DmaStatus, port, dmaStatus, skip, count, {}});
}

} // namespace kestra::simcard
