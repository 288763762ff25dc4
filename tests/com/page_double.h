// A test double with the interfaces of the property pages: does as a test says and records what it is asked.
#pragma once

#include <windows.h>

#include <kestra_interfaces.h>

#include <string>
#include <vector>

namespace kestra::test {

/// Lives on the stack: its reference count is only counted.
class PageDouble : public IKestraStreamPropCSC, public IKestraStreamPropRGBGainOffset, public IKestraAudioPropertyPage {
public:
    virtual ~PageDouble() = default;

    KestraConverterValues values{64, 512, 512, 1.164f, 1.596f, 0.813f, 0.392f, 2.017f, 0, 255, 0, 255, 0, 255};
    FLOAT gains[3] = {1, 1, 1};
    signed char offsets[3] = {};
    LONG frozen = 0, rgbOut = 1;
    unsigned char bitDepth = 0;
    HRESULT getResult = S_OK, putResult = S_OK, unfreezeResult = S_OK, defaultResult = S_OK, analysisResult = S_OK;
    unsigned char means[3] = {};
    FLOAT foundGains[3] = {1, 1, 1};
    std::vector<std::string> puts; ///< names, in order
    int analyses = 0;
    long references = 1;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = nullptr;
        if (riid == IID_IUnknown || riid == IID_IKestraStreamPropCSC) *ppv = static_cast<IKestraStreamPropCSC*>(this);
        if (riid == IID_IKestraStreamPropRGBGainOffset) *ppv = static_cast<IKestraStreamPropRGBGainOffset*>(this);
        if (riid == IID_IKestraAudioPropertyPage) *ppv = static_cast<IKestraAudioPropertyPage*>(this);
        if (*ppv) AddRef();
        return *ppv ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--references); }

#define KESTRA_PROPERTY(name, Type, field)                                                                             \
    STDMETHODIMP get_##name(Type* value) override {                                                                    \
        if (FAILED(getResult)) return getResult;                                                                       \
        *value = field;                                                                                                \
        return S_OK;                                                                                                   \
    }                                                                                                                  \
    STDMETHODIMP put_##name(Type value) override {                                                                     \
        puts.push_back(#name);                                                                                         \
        if (SUCCEEDED(putResult)) field = value;                                                                       \
        return putResult;                                                                                              \
    }
    KESTRA_PROPERTY(YOff, LONG, values.YOff)
    KESTRA_PROPERTY(CrOff, LONG, values.CrOff)
    KESTRA_PROPERTY(CbOff, LONG, values.CbOff)
    KESTRA_PROPERTY(Y1, FLOAT, values.Y1)
    KESTRA_PROPERTY(R1, FLOAT, values.R1)
    KESTRA_PROPERTY(G1, FLOAT, values.G1)
    KESTRA_PROPERTY(G2, FLOAT, values.G2)
    KESTRA_PROPERTY(B1, FLOAT, values.B1)
    KESTRA_PROPERTY(RMin, unsigned char, values.RMin)
    KESTRA_PROPERTY(RMax, unsigned char, values.RMax)
    KESTRA_PROPERTY(GMin, unsigned char, values.GMin)
    KESTRA_PROPERTY(GMax, unsigned char, values.GMax)
    KESTRA_PROPERTY(BMin, unsigned char, values.BMin)
    KESTRA_PROPERTY(BMax, unsigned char, values.BMax)
    KESTRA_PROPERTY(RedGain, FLOAT, gains[0])
    KESTRA_PROPERTY(GreenGain, FLOAT, gains[1])
    KESTRA_PROPERTY(BlueGain, FLOAT, gains[2])
    KESTRA_PROPERTY(RedOffset, signed char, offsets[0])
    KESTRA_PROPERTY(GreenOffset, signed char, offsets[1])
    KESTRA_PROPERTY(BlueOffset, signed char, offsets[2])
    KESTRA_PROPERTY(BitDepth, unsigned char, bitDepth)
#undef KESTRA_PROPERTY

    STDMETHODIMP get_DefaultColorSpaceConverter(KestraConverterValues* defaults) override {
        if (SUCCEEDED(defaultResult)) *defaults = PageDouble().values;
        return defaultResult;
    }
    STDMETHODIMP Default() override {
        return S_OK;
    }
    STDMETHODIMP get_FreezeUpdate(LONG* value) override {
        *value = frozen;
        return S_OK;
    }
    STDMETHODIMP put_FreezeUpdate(LONG value) override {
        puts.push_back(value ? "freeze" : "unfreeze");
        frozen = value;
        return value ? S_OK : unfreezeResult;
    }
    STDMETHODIMP get_RGBOut(LONG* value) override {
        *value = rgbOut;
        return getResult;
    }
    STDMETHODIMP WhiteBalance(unsigned char* meanRed, unsigned char* meanGreen, unsigned char* meanBlue, FLOAT* gainRed,
                              FLOAT* gainGreen, FLOAT* gainBlue) override {
        ++analyses;
        *meanRed = means[0];
        *meanGreen = means[1];
        *meanBlue = means[2];
        *gainRed = foundGains[0];
        *gainGreen = foundGains[1];
        *gainBlue = foundGains[2];
        return analysisResult;
    }
};

} // namespace kestra::test
