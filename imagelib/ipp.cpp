// Means of an image's three channels.
#include "imagelib/ipp.h"

#include <stddef.h>

IppStatus KESTRA_IPP_CALL ippiMean_8u_C3R(const uint8_t* pSrc, int srcStep, IppiSize roiSize, double mean[3]) {
    if (!pSrc || !mean) return ippStsNullPtrErr;
    if (roiSize.width < 1 || roiSize.height < 1) return ippStsSizeErr;
    if (srcStep / 3 < roiSize.width) return ippStsStepErr;
    const auto width = static_cast<size_t>(roiSize.width), height = static_cast<size_t>(roiSize.height);
    uint64_t first = 0, second = 0, third = 0; // integers, so that the mean is exact
    for (size_t y = 0; y < height; ++y) {
        const uint8_t* pixel = pSrc + y * static_cast<size_t>(srcStep);
        for (size_t x = 0; x < width; ++x, pixel += 3) {
            first += pixel[0];
            second += pixel[1];
            third += pixel[2];
        }
    }
    const double pixels = static_cast<double>(width) * static_cast<double>(height);
    mean[0] = static_cast<double>(first) / pixels;
    mean[1] = static_cast<double>(second) / pixels;
    mean[2] = static_cast<double>(third) / pixels;
    return ippStsNoErr;
}
