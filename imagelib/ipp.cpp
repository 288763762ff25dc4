#include "imagelib/ipp.h"

#include "imagelib/channel_sums.h"

IppStatus KESTRA_IPP_CALL ippiMean_8u_C3R(const uint8_t* pSrc, int srcStep, IppiSize roiSize, double mean[3]) {
    if (!pSrc || !mean) return ippStsNullPtrErr;
    if (roiSize.width < 1 || roiSize.height < 1) return ippStsSizeErr;
    if (srcStep < 1 || srcStep / 3 < roiSize.width) return ippStsStepErr;
    const auto width = static_cast<size_t>(roiSize.width), height = static_cast<size_t>(roiSize.height);
    const kestra::AddLine add = kestra::addLineVariants().back().add;
    uint64_t sums[3] = {};
    for (size_t y = 0; y < height; ++y)
        add(pSrc + y * static_cast<size_t>(srcStep), width, sums);
    const double pixels = static_cast<double>(width) * static_cast<double>(height);
    for (int channel = 0; channel < 3; ++channel)
        mean[channel] = static_cast<double>(sums[channel]) / pixels;
    return ippStsNoErr;
}
