// The cards of this machine: which there are, which one is meant, and one that is open. Every question to a card has a
// time limit, so that a driver that never answers cannot hold the program.
#pragma once

#include "device/tarnis.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestra::ctl {

/// One card as the system lists it, whether it opens or not.
struct CardEntry {
    uint32_t number = 0;    ///< its place in the system's list: what --card takes
    std::wstring path;      ///< of its device interface
    std::string slotText;   ///< from its driver; empty if there is none or it could not be asked
    uint32_t slotValue = 0; ///< likewise; 0 if it could not be asked
    uint32_t openError = 0; ///< the system's error if it does not open
};

/// All cards that are present now.
std::vector<CardEntry> findCards();

/// The card that is meant: by number, or by a part of its slot text without regard to case; empty: number 0. Throws
/// Failure if there is none or the text fits several.
CardEntry chooseCard(const std::string& wanted);

/// True if a card of that path is plugged in.
bool isPluggedIn(const std::wstring& path);

/// A card that is open. Follows it through removal and arrival, as the device library does. One thread's at a time.
class OpenCard {
public:
    /// Throws Failure.
    explicit OpenCard(const CardEntry& entry);
    /// Ends what the card is still doing; waits no longer than the library's own limits.
    ~OpenCard();
    OpenCard(const OpenCard&) = delete;
    OpenCard& operator=(const OpenCard&) = delete;

    const CardEntry& entry() const noexcept { return m_entry; }
    TARNIS_HANDLE handle() const noexcept { return m_handle; }

    /// Asks the card something, on a thread of its own, and waits for it.
    /// @param what      for the message, for example "what arrives"
    /// @param question  (TARNIS_HANDLE, Result&) -> TarnisResult; owns what it uses, as it may outlast the wait
    /// @param result    in and out
    /// @return TarnisResult. Throws Failure if it takes longer than kPatienceMs.
    template <class Result, class Question>
    uint32_t ask(const char* what, Result& result, Question question) {
        const auto kept = std::make_shared<Result>(result);
        const uint32_t code = run(what, [kept, question](TARNIS_HANDLE handle) { return question(handle, *kept); });
        result = *kept;
        return code;
    }
    /// The same for what must succeed: the Failure that it throws tells a pulled card, a refusal and other causes
    /// apart.
    template <class Result, class Question>
    void need(const char* what, Result& result, Question question) {
        const uint32_t code = ask(what, result, question);
        if (code != TARNIS_SUCCESS) fail(what, code);
    }
    /// The same for what has no result of its own.
    template <class Order>
    void order(const char* what, Order question) {
        const uint32_t code = run(what, question);
        if (code != TARNIS_SUCCESS) fail(what, code);
    }
    /// @return the TarnisResult
    uint32_t run(const char* what, std::function<uint32_t(TARNIS_HANDLE)> question);
    [[noreturn]] void fail(const char* what, uint32_t code) const;

    static constexpr uint32_t kPatienceMs = 10000;

private:
    struct Worker;

    const CardEntry m_entry;
    TARNIS_HANDLE m_handle = nullptr;
    std::shared_ptr<Worker> m_worker;
};

/// What arrives at the card. Throws Failure.
TarnisCameraStatus cameraStatus(OpenCard& card);
/// The same; throws Failure (no signal) unless something arrives.
TarnisCameraStatus needSignal(OpenCard& card);

} // namespace kestra::ctl
