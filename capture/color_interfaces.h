// The two interfaces through which the property pages see the converter, implemented by both the filter and its pin.
#pragma once

#include "device/tarnis.h"

#include <streams.h>

#include <kestra_interfaces.h>

#include <type_traits>

class CKestraCapture;

namespace kestra {

/// Part of the object that exposes the interfaces; shares its identity and reference count. Any thread.
class ColorInterfaces : public IKestraStreamPropCSC, public IKestraStreamPropRGBGainOffset {
public:
    /// @param object the object it belongs to @param filter the filter whose converter it controls
    ColorInterfaces(CUnknown& object, CKestraCapture& filter) : m_object(object), m_filter(filter) {}
    virtual ~ColorInterfaces() = default;
    ColorInterfaces(const ColorInterfaces&) = delete;
    ColorInterfaces& operator=(const ColorInterfaces&) = delete;

    /// The interface if it is one of the two, without adding a reference; otherwise null.
    IUnknown* find(REFIID riid);

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return owner().QueryInterface(riid, ppv); }
    STDMETHODIMP_(ULONG) AddRef() override { return owner().AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return owner().Release(); }

    // Numbers that the card's record cannot hold are refused with E_INVALIDARG.
#define KESTRA_PROPERTY(name, Type)                                                                                    \
    STDMETHODIMP get_##name(std::add_pointer_t<Type> value) override {                                                 \
        return read(&TarnisConverterParams::name, value);                                                              \
    }                                                                                                                  \
    STDMETHODIMP put_##name(Type value) override { return write(&TarnisConverterParams::name, value); }
    KESTRA_PROPERTY(YOff, LONG)
    KESTRA_PROPERTY(CrOff, LONG)
    KESTRA_PROPERTY(CbOff, LONG)
    KESTRA_PROPERTY(Y1, FLOAT)
    KESTRA_PROPERTY(R1, FLOAT)
    KESTRA_PROPERTY(G1, FLOAT)
    KESTRA_PROPERTY(G2, FLOAT)
    KESTRA_PROPERTY(B1, FLOAT)
    KESTRA_PROPERTY(RMin, unsigned char)
    KESTRA_PROPERTY(RMax, unsigned char)
    KESTRA_PROPERTY(GMin, unsigned char)
    KESTRA_PROPERTY(GMax, unsigned char)
    KESTRA_PROPERTY(BMin, unsigned char)
    KESTRA_PROPERTY(BMax, unsigned char)
    KESTRA_PROPERTY(RedGain, FLOAT)
    KESTRA_PROPERTY(GreenGain, FLOAT)
    KESTRA_PROPERTY(BlueGain, FLOAT)
    KESTRA_PROPERTY(RedOffset, signed char)
    KESTRA_PROPERTY(GreenOffset, signed char)
    KESTRA_PROPERTY(BlueOffset, signed char)
#undef KESTRA_PROPERTY

    STDMETHODIMP get_DefaultColorSpaceConverter(KestraConverterValues* values) override;
    /// Gains 1, offsets 0.
    STDMETHODIMP Default() override;
    /// 1: values put are kept here. 0: they go to the card, now and with every further put.
    STDMETHODIMP get_FreezeUpdate(LONG* value) override;
    STDMETHODIMP put_FreezeUpdate(LONG value) override;
    /// 1 if the pin delivers RGB made by the card's converter; otherwise 0, and the converter is not used.
    STDMETHODIMP get_RGBOut(LONG* value) override;
    /// Measures a live frame with gains and offsets switched off, which also shows in a running picture. Takes about
    /// one frame, during which starts and stops wait. Means of 0 and gains of 1 say that there was no frame (the log
    /// explains why) or that it was black.
    /// @return E_POINTER: an argument is null; kImageLibraryMissing: ippLib.dll is not beside the module; else S_OK
    STDMETHODIMP WhiteBalance(unsigned char* meanRed, unsigned char* meanGreen, unsigned char* meanBlue, FLOAT* gainRed,
                              FLOAT* gainGreen, FLOAT* gainBlue) override;

private:
    IUnknown& owner() {
        return *m_object.GetOwner();
    }
    HRESULT read(int32_t TarnisConverterParams::*field, LONG* value);
    HRESULT read(float TarnisConverterParams::*field, FLOAT* value);
    HRESULT read(uint8_t TarnisConverterParams::*field, unsigned char* value);
    HRESULT read(int8_t TarnisConverterParams::*field, signed char* value);
    HRESULT write(int32_t TarnisConverterParams::*field, LONG value);
    HRESULT write(float TarnisConverterParams::*field, FLOAT value);
    HRESULT write(uint8_t TarnisConverterParams::*field, unsigned char value);
    HRESULT write(int8_t TarnisConverterParams::*field, signed char value);

    CUnknown& m_object;
    CKestraCapture& m_filter;
};

} // namespace kestra
