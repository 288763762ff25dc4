// The image library's interface: the one function that the module calls in ippLib.dll. C linkage, never throws, any
// thread.
#pragma once

#include <stdint.h>

#ifdef _WIN32
#define KESTRA_IPP_CALL __stdcall
#else
#define KESTRA_IPP_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef int IppStatus;
enum {
    ippStsNoErr = 0,
    ippStsSizeErr = -6,    ///< width or height below 1
    ippStsNullPtrErr = -8, ///< a pointer is null
    ippStsStepErr = -14    ///< the step is not positive, or shorter than a line
};

typedef struct IppiSize {
    int width;  ///< pixels
    int height; ///< lines
} IppiSize;

/// Means of the three channels of an image of three bytes a pixel.
/// @param pSrc    first byte of the top line
/// @param srcStep bytes from one line to the next, at least three a pixel
/// @param mean    receives the means in the channels' memory order; unchanged on failure
/// @return 0, or -8, -6 or -14, checked in that order
IppStatus KESTRA_IPP_CALL ippiMean_8u_C3R(const uint8_t* pSrc, int srcStep, IppiSize roiSize, double mean[3]);

#ifdef __cplusplus
}
#endif
