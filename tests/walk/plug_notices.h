// Waits until this process has been told of all that has come and gone: a notice that is late would close a card that
// is there.
#pragma once

#include "device/device_notifier.h"
#include "protocol/card_interface.h"
#include "tests/support/wait_until.h"
#include "tests/walk/card_events.h"

#include <array>
#include <atomic>

namespace kestra::walk {

class PlugNotices final : public IDeviceAddRemove {
public:
    PlugNotices() {
        for (uint32_t i = 0; i < kCards; ++i) {
            const simcard::CardControl card(i);
            m_cards[i].path = card.devicePath();
            m_cards[i].before = card.state().plugChanges;
        }
        m_notifier.registerCallback(*this, asGuid<GUID>(kCardInterface));
    }
    /// @return false: one has not come within 20 s
    bool await() {
        for (uint32_t i = 0; i < kCards; ++i) {
            Card& card = m_cards[i];
            const uint32_t changes = simcard::CardControl(i).state().plugChanges;
            if (!test::waitUntil([&] { return card.before + card.told == changes; }, std::chrono::seconds(20))) {
                card.told = changes - card.before; // the system gives one up that nobody takes for two seconds
                return false;
            }
        }
        return true;
    }
    void DeviceRemoved(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept override { note(device); }
    void DeviceArrived(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept override { note(device); }

private:
    struct Card {
        std::wstring path;
        uint32_t before = 0;
        std::atomic<uint32_t> told{0};
    };
    void note(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept {
        for (Card& card : m_cards)
            if (lstrcmpiW(device.dbcc_name, card.path.c_str()) == 0) ++card.told;
    }
    std::array<Card, kCards> m_cards;
    DeviceNotifier m_notifier;
};

} // namespace kestra::walk
