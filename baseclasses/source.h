// A source filter and its streams, each with a worker thread that fills buffers.
#pragma once

#include "pin.h"
#include "threads.h"

class CSourceStream;

/// A filter that has output streams only. Owns its streams and deletes those that are left; m_cStateLock is the
/// filter's lock and guards their list. The threads of CBaseFilter.
class CSource : public CBaseFilter {
public:
    CSource(LPCTSTR pName, LPUNKNOWN lpunk, CLSID clsid);
    CSource(LPCTSTR pName, LPUNKNOWN lpunk, CLSID clsid, HRESULT* phr);
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
    int m_iPins = 0; // set by AddPin and RemovePin, read by nobody here
    CSourceStream** m_paStreams = nullptr;
    CCritSec m_cStateLock;

private:
    int m_streams = 0; // entries of m_paStreams
};

/// An output pin that adds itself to its filter, which then owns it. The worker lives from Active to Inactive, or until
/// the pin is disconnected; the requests to it come from the threads that hold the filter's lock, so that FillBuffer
/// and the OnThread... methods, which are the worker's, must not take that lock.
class CSourceStream : public CAMThread, public CBaseOutputPin {
public:
    CSourceStream(LPCTSTR pObjectName, HRESULT* phr, CSource* pms, LPCWSTR pName);
    ~CSourceStream() override;

    STDMETHODIMP QueryId(LPWSTR* Id) override;
    HRESULT Active() override;
    HRESULT Inactive() override;
    HRESULT BreakConnect() override; // ends the worker, too
    HRESULT CheckMediaType(const CMediaType* pMediaType) override;
    HRESULT GetMediaType(int iPosition, CMediaType* pMediaType) override;
    virtual HRESULT GetMediaType(CMediaType*) { return E_UNEXPECTED; }

    enum Command { CMD_INIT, CMD_PAUSE, CMD_RUN, CMD_STOP, CMD_EXIT };
    HRESULT Init() { return HRESULT(CallWorker(CMD_INIT)); }
    HRESULT Exit() { return HRESULT(CallWorker(CMD_EXIT)); }
    HRESULT Run() { return HRESULT(CallWorker(CMD_RUN)); }
    HRESULT Pause() { return HRESULT(CallWorker(CMD_PAUSE)); }
    HRESULT Stop() { return HRESULT(CallWorker(CMD_STOP)); }
    using CBaseOutputPin::Run;

protected:
    /// Fills one sample, on the worker. @return S_OK to deliver it, S_FALSE at the end of the stream.
    virtual HRESULT FillBuffer(IMediaSample* pSamp) = 0;
    virtual HRESULT OnThreadCreate() { return S_OK; }
    virtual HRESULT OnThreadDestroy() { return S_OK; }
    virtual HRESULT OnThreadStartPlay() { return S_OK; }
    virtual HRESULT DoBufferProcessingLoop();
    DWORD ThreadProc() override;
    Command GetRequest() { return Command(CAMThread::GetRequest()); }
    BOOL CheckRequest(Command* pCom);

    CSource* m_pFilter;

private:
    HRESULT endWorker();
};
