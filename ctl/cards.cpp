// Finding cards through the device-installation service and the device library, and asking one with a time limit.
#include "ctl/cards.h"

#include "ctl/exit_code.h"
#include "ctl/signal_text.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "protocol/card_interface.h"
#include "win32/device_set.h"

#include <windows.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace kestra::ctl {

namespace {

std::vector<std::wstring> cardPaths() {
    return interfacePaths(asGuid<GUID>(kCardInterface));
}

bool isSamePath(const std::wstring& a, const std::wstring& b) noexcept {
    return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

struct EnumeratorCloser {
    void operator()(CDeviceEnumerator* enumerator) const noexcept { TARNIS_EnumClose(enumerator); }
};

std::string lower(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

bool isNumber(const std::string& text) noexcept {
    return !text.empty() && text.size() < 9 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

constexpr char kListHint[] = "kestra-ctl list shows them";

} // namespace

std::vector<CardEntry> findCards() {
    std::vector<CardEntry> cards;
    for (std::wstring& path : cardPaths()) {
        CardEntry entry;
        entry.number = static_cast<uint32_t>(cards.size());
        entry.path = std::move(path);
        entry.openError = ERROR_GEN_FAILURE;
        cards.push_back(std::move(entry));
    }
    // The library leaves out what it cannot open; of those the system says why.
    const std::unique_ptr<CDeviceEnumerator, EnumeratorCloser> enumerator(TARNIS_EnumOpen());
    DeviceEnumData data{};
    data.size = sizeof data;
    while (enumerator && TARNIS_EnumNext(enumerator.get(), &data) == TARNIS_SUCCESS)
        for (CardEntry& entry : cards)
            if (isSamePath(entry.path, data.interfaceDetail->devicePath)) {
                entry.openError = ERROR_SUCCESS;
                entry.slotValue = data.slotValue;
                entry.slotText = utf8OfWide(data.slotText);
            }
    for (CardEntry& entry : cards) {
        if (entry.openError == ERROR_SUCCESS) continue;
        const UniqueFile device(CreateFileW(entry.path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
        if (!device) entry.openError = GetLastError();
    }
    return cards;
}

bool isPluggedIn(const std::wstring& path) {
    const std::vector<std::wstring> paths = cardPaths();
    return std::any_of(paths.begin(), paths.end(), [&](const std::wstring& other) { return isSamePath(path, other); });
}

CardEntry chooseCard(const std::string& wanted) {
    std::vector<CardEntry> cards = findCards();
    if (cards.empty())
        throw Failure(ExitCode::NoCard, "there is no card",
                      "plug one in and install its driver; the system's device manager shows whether it is found");
    if (wanted.empty() || isNumber(wanted)) {
        const size_t number = wanted.empty() ? 0 : std::stoul(wanted);
        if (number < cards.size()) return cards[number];
        throw Failure(ExitCode::NoCard, "there is no card " + wanted + ", only " + counted(cards.size(), "card"),
                      kListHint);
    }
    std::vector<CardEntry> fitting;
    std::copy_if(cards.begin(), cards.end(), std::back_inserter(fitting), [&](const CardEntry& entry) {
        return lower(entry.slotText).find(lower(wanted)) != std::string::npos;
    });
    if (fitting.size() == 1) return fitting[0];
    if (fitting.empty()) throw Failure(ExitCode::NoCard, "no card has '" + wanted + "' in its slot text", kListHint);
    throw Failure(ExitCode::Usage, "'" + wanted + "' fits " + counted(fitting.size(), "card"),
                  "give more of the slot text, or a number: kestra-ctl list shows both");
}

/// The thread that asks, and its question. Shared, since a thread that is stuck in a driver outlives its owner.
struct OpenCard::Worker {
    std::mutex mutex;
    std::condition_variable changed;
    std::function<uint32_t()> question; ///< empty: none
    uint32_t answer = 0;
    bool isAnswered = false, isLast = false, isStuck = false;
    std::thread thread;

    void loop() {
        std::unique_lock lock(mutex);
        while (true) {
            changed.wait(lock, [&] { return question || isLast; });
            if (!question) return;
            const std::function<uint32_t()> ask = std::move(question);
            question = nullptr;
            lock.unlock();
            const uint32_t result = ask();
            lock.lock();
            answer = result;
            isAnswered = true;
            changed.notify_all();
        }
    }
};

OpenCard::OpenCard(const CardEntry& entry) : m_entry(entry), m_worker(std::make_shared<Worker>()) {
    std::vector<std::byte> memory(sizeof(DeviceInterfaceDetail) + entry.path.size() * sizeof(wchar_t));
    auto* detail = reinterpret_cast<DeviceInterfaceDetail*>(memory.data());
    detail->size = static_cast<uint32_t>(memory.size());
    std::memcpy(memory.data() + offsetof(DeviceInterfaceDetail, devicePath), entry.path.c_str(),
                (entry.path.size() + 1) * sizeof(wchar_t));
    m_handle = TARNIS_InitByHandle(detail);
    if (!m_handle) {
        if (!isPluggedIn(entry.path)) fail("", TARNIS_FAILURE);
        const std::string why = entry.openError ? ": " + systemErrorText(entry.openError) : "";
        throw Failure(ExitCode::Failure, "card " + std::to_string(entry.number) + " cannot be opened" + why,
                      "its driver refuses or does not answer: take the card out and in again, or restart the system");
    }
    m_worker->thread = std::thread([worker = m_worker] { worker->loop(); });
}

OpenCard::~OpenCard() {
    TARNIS_Done(m_handle); // also ends a question that the driver never answers
    std::unique_lock lock(m_worker->mutex);
    m_worker->isLast = true;
    m_worker->changed.notify_all();
    constexpr auto kLongest = std::chrono::seconds(2);
    const bool over =
        !m_worker->isStuck || m_worker->changed.wait_for(lock, kLongest, [this] { return m_worker->isAnswered; });
    lock.unlock();
    if (over)
        m_worker->thread.join();
    else
        m_worker->thread.detach();
}

uint32_t OpenCard::run(const char* what, std::function<uint32_t(TARNIS_HANDLE)> question) {
    std::unique_lock lock(m_worker->mutex);
    if (!m_worker->isStuck) {
        m_worker->isAnswered = false;
        m_worker->question = [handle = m_handle, ask = std::move(question)] { return ask(handle); };
        m_worker->changed.notify_all();
        if (m_worker->changed.wait_for(lock, std::chrono::milliseconds(kPatienceMs),
                                       [this] { return m_worker->isAnswered; }))
            return m_worker->answer;
        m_worker->isStuck = true;
    }
    throw Failure(ExitCode::Failure,
                  "card " + std::to_string(m_entry.number) + " does not answer: its driver was asked for " + what +
                      " and said nothing for " + std::to_string(kPatienceMs / 1000) + " s",
                  "take the card out and in again, or restart the system");
}

void OpenCard::fail(const char* what, uint32_t code) const {
    const std::string card = "card " + std::to_string(m_entry.number);
    if (!isPluggedIn(m_entry.path)) throw Failure(ExitCode::NoCard, card + " has been pulled", "plug it in again");
    const std::string asked = card + " was asked for " + what;
    switch (code) {
    case TARNIS_ACCESS_DENIED:
        throw Failure(ExitCode::Failure, asked + ", and its driver denied access",
                      "the driver's event log may say why; try as an administrator");
    case TARNIS_NOT_SUPPORTED:
        throw Failure(ExitCode::Failure, asked + ", and its driver does not support that", "update the card's driver");
    case TARNIS_OUT_OF_MEMORY:
        throw Failure(ExitCode::Failure, asked + ", and there is not enough memory", "close other programs");
    default:
        throw Failure(ExitCode::Failure, asked + ", and its driver failed",
                      "the log says which request failed: kestra-ctl log set detail=3, then try again");
    }
}

TarnisCameraStatus cameraStatus(OpenCard& card) {
    TarnisCameraStatus status{};
    card.need("what arrives", status, [](TARNIS_HANDLE handle, TarnisCameraStatus& result) {
        return TARNIS_GetCameraStatus(handle, 0, &result);
    });
    return status;
}

TarnisCameraStatus needSignal(OpenCard& card) {
    const TarnisCameraStatus status = cameraStatus(card);
    if (!hasSignal(status))
        throw Failure(ExitCode::NoSignal, "nothing arrives at card " + std::to_string(card.entry().number),
                      "check the cable, and that the source sends HD-SDI; kestra-ctl watch shows when it comes");
    return status;
}

} // namespace kestra::ctl
