// A module that decodes on several threads, for decode_unload_test to load and release.
#include "decode/decode.h"
#include "decode/parallel.h"

extern "C" __declspec(dllexport) uint32_t
    decodeOnce(const TarnisCameraData* data, const void* raw, void* rgb, int32_t* stride) {
    kestra::g_sharing = kestra::Sharing::Always;
    return TARNIS_Decode(data, raw, rgb, stride, 2, nullptr, nullptr);
}
