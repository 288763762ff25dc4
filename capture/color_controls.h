// The colour space converter's parameters as the video filter keeps them, and their way to the card. Any thread.
#pragma once

#include "device/tarnis.h"

#include <windows.h>

#include <mutex>

namespace kestra {

/// The HRESULT for a result of the device library.
HRESULT hresultOf(uint32_t tarnisResult) noexcept;

class ColorControls {
public:
    /// Sets the card and reads the parameters from it, or takes the defaults. Call before anyone else uses the object.
    void attach(TARNIS_HANDLE grabber) noexcept;

    TarnisConverterParams params() const;
    bool isFrozen() const;
    /// Changes the parameters and, unless frozen, sends them. They stay changed even if the card refuses them.
    /// @param change called with the parameters and the lock held
    template <class Change>
    HRESULT update(Change change) {
        const std::lock_guard lock(m_mutex);
        change(m_params);
        return m_frozen ? S_OK : transmit(m_params);
    }
    /// Freezing holds updates back, so that no half-written set reaches the card; unfreezing sends them all.
    HRESULT freeze(bool frozen);
    /// Switches the card's gains and offsets off while `body` runs. Updates wait.
    /// @param body returns an HRESULT; not called if the card refuses
    /// @return the body's result, or the reason it was not called
    template <class Body>
    HRESULT withNeutralGains(Body body) {
        const std::lock_guard lock(m_mutex);
        const TarnisConverterParams own = m_frozen ? m_atFreeze : m_params;
        TarnisConverterParams neutral = own;
        resetGains(neutral);
        HRESULT hr = transmit(neutral);
        if (SUCCEEDED(hr)) hr = body();
        // In any case: the card may have accepted what it reported as refused, and nobody else would send the gains
        // again.
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
    TarnisConverterParams m_atFreeze{}; ///< what the card holds while updates are frozen
    bool m_frozen = false;
};

} // namespace kestra
