// The colour space converter's parameters as the video filter keeps them, and their way to the card. Any thread.
#pragma once

#include "device/tarnis.h"

#include <windows.h>

#include <mutex>

namespace kestra {

/// What a result of the device library is called in COM.
HRESULT hresultOf(uint32_t tarnisResult) noexcept;

class ColorControls {
public:
    /// The card that the parameters are for; reads them from it, or takes the defaults. Before anybody else comes.
    void attach(TARNIS_HANDLE grabber) noexcept;

    TarnisConverterParams params() const;
    bool isFrozen() const;
    /// Changes the parameters, and sends them unless they are frozen. They stay changed if the card refuses them.
    /// @param change called with the parameters, under the lock
    template <class Change>
    HRESULT update(Change change) {
        const std::lock_guard lock(m_mutex);
        change(m_params);
        return m_frozen ? S_OK : transmit(m_params);
    }
    /// Freezing holds every update back, so that no half-written set reaches the card; the end of it sends them all.
    HRESULT freeze(bool frozen);
    /// Shows the card's picture without gains and offsets while `body` runs, and then as it was. Updates wait.
    /// @param body returns an HRESULT; it is not called if the card refuses
    /// @return the body's answer, or why it was not called
    template <class Body>
    HRESULT withNeutralGains(Body body) {
        const std::lock_guard lock(m_mutex);
        const TarnisConverterParams own = m_frozen ? m_atFreeze : m_params;
        TarnisConverterParams neutral = own;
        resetGains(neutral);
        HRESULT hr = transmit(neutral);
        if (SUCCEEDED(hr)) hr = body();
        // Whatever came before: the card may have taken what it refused. Nobody else would send the gains again.
        for (int attempt = 0; attempt < kRestoreAttempts && FAILED(transmit(own)); ++attempt) {
        }
        return hr;
    }
    /// Gains 1, offsets 0.
    static void resetGains(TarnisConverterParams& params) noexcept;

private:
    static constexpr int kRestoreAttempts = 3;

    HRESULT transmit(const TarnisConverterParams& params) const noexcept;

    mutable std::mutex m_mutex;
    TARNIS_HANDLE m_grabber = nullptr;
    TarnisConverterParams m_params{};
    TarnisConverterParams m_atFreeze{}; ///< what the card shows while updates are held back
    bool m_frozen = false;
};

} // namespace kestra
