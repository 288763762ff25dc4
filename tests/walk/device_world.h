// The world of the device library: two cards, six handles, and the grabs of their channels. Any thread.
#pragma once

#include "device/tarnis.h"
#include "tests/walk/cards_world.h"
#include "tests/walk/lock.h"

#include <windows.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestra::walk {

constexpr size_t kSlots = 6;
/// A stop waits that long for a callback; one that has waited nearly as long may have given up.
constexpr ULONGLONG kGivenUpMs = 900;

class DeviceWorld;

/// One TARNIS_StartGrab, and its callback's context.
struct Grab {
    DeviceWorld* world;
    TARNIS_HANDLE handle;
    size_t slot;
    int8_t port;
    uint32_t action, every;           ///< what the callback does in every so many-th frame
    std::atomic<bool> started{false}; ///< the start has returned, with success
    std::atomic<bool> over{false};    ///< nothing may call back any more
    std::atomic<bool> givenUp{false}; ///< a stop has waited for the callback as long as it is willing to
    std::atomic<bool> lost{false};    ///< the last callback, for another format, has come
    std::atomic<bool> ending{false};  ///< somebody has asked for its end, or for another in its place
    std::atomic<int> inside{0};
    std::atomic<DWORD> insideThread{0};
    std::atomic<ULONGLONG> insideSince{0};
    std::atomic<uint32_t> calls{0}, lastFrame{0};
};

/// One opened card. Calls hold it, so that TARNIS_Done comes after them.
struct Slot {
    Lock lock; ///< guards the next three
    TARNIS_HANDLE handle = nullptr;
    int users = 0;
    bool closing = false;
    /// Of each port: how often it is claimed, and how often that was asked to change.
    std::atomic<int> claims[2]{}, changing[2]{};
    std::atomic<uint32_t> changes[2]{};
};

class DeviceWorld final : public CardsWorld {
public:
    const std::vector<Call>& calls() const override;
    void begin(const Act& act) override;
    uint32_t step(const Step& step) override;
    void end() override;
    std::string summary() const override;

private:
    class Use;
    static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
        auto& grab = *reinterpret_cast<Grab*>(context);
        grab.world->called(grab, *frame);
    }
    void called(Grab& grab, const TarnisFrameInfo& frame);
    void failFrame(const TarnisFrameInfo& frame, const std::string& why);
    void callBack(Grab& grab);
    void check(Grab& grab, const TarnisFrameInfo& frame);
    /// @return empty: the bytes are what the card has made
    std::string whyWrong(const Grab& grab, const TarnisFrameInfo& frame);
    void checkAgain(const Grab& grab, const TarnisFrameInfo& frame, ULONGLONG since);

    Slot& slotOf(uint32_t a);
    uint32_t open(uint32_t a, uint32_t b);
    uint32_t openRefused(uint32_t a, uint32_t b);
    static std::string whyClosed(uint32_t number);
    uint32_t done(Slot& slot);
    uint32_t doneWhileAsked(Slot& slot, uint32_t which);
    uint32_t changeAccess(Slot& slot, TARNIS_HANDLE handle, int8_t port, bool claim);
    uint32_t start(Slot& slot, TARNIS_HANDLE handle, int8_t port, uint32_t b);
    uint32_t stop(TARNIS_HANDLE handle, int8_t port);
    uint32_t snap(TARNIS_HANDLE handle, uint32_t b);
    uint32_t enumerate(uint32_t a, uint32_t b);
    uint32_t invalid(TARNIS_HANDLE handle, uint32_t which);
    uint32_t awaitFrames(TARNIS_HANDLE handle, uint32_t b);
    /// A call that needs DMA access says so exactly if there is none. @param ask  makes it
    static uint32_t withAccess(Slot& slot, int8_t port, const char* call, const std::function<uint32_t()>& ask);

    std::vector<Grab*> grabsOf(TARNIS_HANDLE handle, int port);
    /// The same, of which somebody is about to ask for the end.
    std::vector<Grab*> endingGrabsOf(TARNIS_HANDLE handle, int port);
    /// None of these may call back any more, if nothing has taken so long that it may have been given up.
    static void areOver(const std::vector<Grab*>& grabs, ULONGLONG since);
    /// A stop waits for callbacks and for nothing else, as long as the cards answer. One slow stop may be the
    /// machine's.
    void judgeStop(TARNIS_HANDLE handle, ULONGLONG since);
    /// A result that the call's documentation names. In a calm act a handle's questions have answers.
    uint32_t expected(uint32_t result, std::initializer_list<uint32_t> named, const char* call) const;

    Slot m_slots[kSlots];
    Lock m_lock; ///< guards the next two
    std::deque<std::unique_ptr<Grab>> m_grabs;
    std::deque<std::unique_ptr<Grab>> m_former; ///< of the last act: a late callback shall find its grab
    std::atomic<uint64_t> m_callbacks{0}, m_otherStatus{0}, m_lost{0}, m_late{0}, m_twice{0};
    std::atomic<uint32_t> m_slowStops{0};         ///< of this act: without a callback that explains it
    std::atomic<ULONGLONG> m_lastLongCallback{0}; ///< when it ended
};

/// A call that uses a slot's handle, if there is one.
class DeviceWorld::Use {
public:
    explicit Use(Slot& slot) : m_slot(slot) {
        const std::lock_guard lock(slot.lock);
        if (slot.closing || !slot.handle) return;
        handle = slot.handle;
        ++slot.users;
    }
    ~Use() {
        if (!handle) return;
        const std::lock_guard lock(m_slot.lock);
        --m_slot.users;
        m_slot.lock.notify();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    TARNIS_HANDLE handle = nullptr;

private:
    Slot& m_slot;
};

} // namespace kestra::walk
