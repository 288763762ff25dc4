// A source filter and its streams.
#pragma once

#include "pin.h"

class CSourceStream;

/// A filter that has output streams only. Owns its streams and deletes those that are left; m_cStateLock is the
/// filter's lock. The list of streams is guarded on its own. The threads of CBaseFilter.
class CSource : public CBaseFilter {
public:
    CSource(LPCTSTR pName, LPUNKNOWN lpunk, CLSID clsid);
    ~CSource() override;

    int GetPinCount() override;
    CBasePin* GetPin(int n) override;
    CCritSec* pStateLock() { return &m_cStateLock; }
    HRESULT AddPin(CSourceStream* pStream);
    HRESULT RemovePin(CSourceStream* pStream);
    STDMETHODIMP FindPin(LPCWSTR Id, IPin** ppPin) override;
    /// @return the stream's place from 0, or -1.
    int FindPinNumber(IPin* iPin);

protected:
    int m_iPins = 0; // set by AddPin and RemovePin, not read here
    CSourceStream** m_paStreams = nullptr;
    CCritSec m_cStateLock;

private:
    CCritSec m_list;   // held for a moment
    int m_streams = 0; // entries of m_paStreams
};

/// The base of a stream's worker thread in the platform's layer. Empty here: streams are filled from outside.
class CAMThread {};

/// An output pin that adds itself to its filter, which then owns it. Samples are pushed by a thread of the derived
/// class; FillBuffer, which a worker thread would call, is never called.
class CSourceStream : public CAMThread, public CBaseOutputPin {
public:
    CSourceStream(LPCTSTR pObjectName, HRESULT* phr, CSource* pms, LPCWSTR pName);
    ~CSourceStream() override;

    STDMETHODIMP QueryId(LPWSTR* Id) override;

protected:
    virtual HRESULT FillBuffer(IMediaSample* pSamp) = 0;

    CSource* m_pFilter;
};
