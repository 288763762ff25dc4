// The frame decoder: one raw frame of the card becomes one 24-bit RGB image. Portable, C linkage, never throws.
// The filters decode RGB24 and, for white balance, 8-bit frames; 10-bit frames come only from programs that have the
// card make them (outputSelector 0).
#pragma once

#include "protocol/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Decodes one raw frame to 24-bit RGB: bytes B, G, R per pixel, interlaced fields woven. 4:2:2 input: ITU-R BT.601,
/// studio to full range, with the default converter parameters whatever the card was given; the last pixel of an odd
/// width stays unwritten.
/// @param cameraData   geometry and raw format; read during the call only. outputParameter 1 with interlaced 1 asks for
///                     the first field alone, as an image of half the height.
/// @param pRawPixels   the frame as the card wrote it; may be null in a stride query.
/// @param pDst         top line of the image; null asks only for the stride. Not kept.
/// @param pStrideSize  in: bytes from one output line to the next, negative for a bottom-up image;
///                     out, if it was too small or pDst is null: the least, (width * 3 + 3) & ~3.
/// @param outputFormat, reserved1, reserved2  accepted and not used: the record alone decides.
/// @return 0 decoded; 1 null argument, stride query or stride too small; 5 out of memory; 254 unknown raw format.
///         pDst is written only when the result is 0.
/// @note Blocks until all worker threads are done. Any number of threads may decode at once. The first decode that uses
///       several threads keeps the module in its process.
uint32_t TARNIS_Decode(const TarnisCameraData* cameraData, const void* pRawPixels, void* pDst, int32_t* pStrideSize,
                       uint32_t outputFormat, const void* reserved1, const void* reserved2);

#ifdef __cplusplus
}
#endif
