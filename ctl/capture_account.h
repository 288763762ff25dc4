// What a capture tells at its end, and on the way. Portable.
#pragma once

#include "ctl/json.h"
#include "ctl/loss_account.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestra::ctl {

struct CapturedFile {
    std::string picture, sound; ///< names; no sound: empty
    TarnisCameraStatus input{};
    uint64_t frames = 0, pictureBytes = 0;
    double soundSeconds = 0;
    double soundStartMs = 0; ///< by the card's numbers of frames
};

struct CaptureAccount {
    uint32_t card = 0, depth = 8;
    std::vector<CapturedFile> files;
    LossAccount picture, sound;
    RateMeter pictureClock, soundClock; ///< of frames, and of samples, by the wall clock; since the last start
    uint64_t signalChanges = 0;
    uint64_t framesWritten = 0;
    size_t bufferFrames = 0, bufferMostUsed = 0, bufferUsed = 0;

    bool hasLost() const noexcept { return picture.losses.total() + sound.losses.total() != 0; }
    /// How much later than the picture the sound came at the start, and how much later it is at the end, by the
    /// clock.
    double soundOffsetMs() const noexcept;
    double soundDriftMs() const noexcept;
};

/// "0", or "3: 2 dropped by the card, 1 overrun".
std::string lossText(const Losses& losses);
Json lossJson(const Losses& losses);

std::string accountText(const CaptureAccount& account);
/// @param type  "progress" or "summary"
Json accountJson(const CaptureAccount& account, const char* type);
/// One line of at most 79 columns.
std::string progressLine(const CaptureAccount& account, double seconds);

} // namespace kestra::ctl
