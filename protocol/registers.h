// The receiver's registers that are read. Portable; plain data.
#pragma once

#include <cstdint>

namespace kestra {

constexpr uint16_t kRegisterInput = 0x22;           ///< flags of the input format
constexpr uint16_t kRegisterAudio = 0x202;          ///< audio groups present
constexpr uint16_t kRegisterAudioAlternate = 0x403; ///< the same for some formats, see kInputAudioAlternate

/// Bits of kRegisterInput.
constexpr uint16_t kInputInterlaced = 1u << 11;
constexpr uint16_t kInputRateIs24 = 1u << 13;       ///< a measured 25 is really 24
constexpr uint16_t kInputAudioAlternate = 1u << 14; ///< audio groups are in kRegisterAudioAlternate

/// Audio is present if any of these bits is set.
constexpr uint16_t kAudioMask = 0x1E;          ///< in kRegisterAudio
constexpr uint16_t kAudioAlternateMask = 0xF0; ///< in kRegisterAudioAlternate

} // namespace kestra
