// Events and the worker thread that answers one request at a time.
#pragma once

#include "objects.h"

/// Owns a Win32 event; null if the system had none, which `phr` tells. Any thread.
class CAMEvent {
public:
    explicit CAMEvent(BOOL fManualReset = FALSE, HRESULT* phr = nullptr);
    ~CAMEvent();
    CAMEvent(const CAMEvent&) = delete;
    CAMEvent& operator=(const CAMEvent&) = delete;
    operator HANDLE() const { return m_hEvent; }
    void Set() { SetEvent(m_hEvent); }
    void Reset() { ResetEvent(m_hEvent); }
    /// @return TRUE if the event came within the time.
    BOOL Wait(DWORD dwTimeout = INFINITE) { return WaitForSingleObject(m_hEvent, dwTimeout) == WAIT_OBJECT_0; }
    BOOL Check() { return Wait(0); }

protected:
    HANDLE m_hEvent;
};

/// Owns a thread that waits for requests. Create, CallWorker and Close belong to the owner's threads, ThreadProc,
/// GetRequest, CheckRequest and Reply to the worker. m_AccessLock is held while a request waits for its answer, so that
/// callers queue; the worker must not take it. The derived class ends the worker before it is destroyed.
class CAMThread {
public:
    explicit CAMThread(HRESULT* phr = nullptr);
    virtual ~CAMThread();
    CAMThread(const CAMThread&) = delete;
    CAMThread& operator=(const CAMThread&) = delete;

    CCritSec m_AccessLock;

    /// @return FALSE if there is a thread already or none can be made.
    BOOL Create();
    /// Hands the request over and waits for the answer. @return Reply's value; E_FAIL if there is no thread or it
    /// ends without an answer.
    DWORD CallWorker(DWORD dwParam);
    /// Waits until the thread has ended, if there is one. The worker must have been told to end.
    void Close();
    BOOL ThreadExists() const { return m_hThread != nullptr; }
    HANDLE GetRequestHandle() const { return m_EventSend; }
    /// Waits for a request. The same one comes again until Reply.
    DWORD GetRequest();
    /// @return TRUE and the request if one waits for its reply.
    BOOL CheckRequest(DWORD* pParam);
    void Reply(DWORD dwReturn);
    static HRESULT CoInitializeHelper();
    static DWORD WINAPI InitialThreadProc(LPVOID pv);

protected:
    virtual DWORD ThreadProc() = 0;

private:
    CAMEvent m_EventSend;
    CAMEvent m_EventComplete;
    CAMEvent m_EventEnded; // set by the worker's last breath, so that no caller waits for a dead one
    DWORD m_dwParam = 0;
    DWORD m_dwReturnVal = 0;
    HANDLE m_hThread = nullptr;
};
