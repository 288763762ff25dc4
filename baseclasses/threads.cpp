#include "threads.h"

#include <objbase.h>

CAMEvent::CAMEvent(BOOL fManualReset, HRESULT* phr) : m_hEvent(CreateEvent(nullptr, fManualReset, FALSE, nullptr)) {
    if (!m_hEvent && phr && SUCCEEDED(*phr)) *phr = E_OUTOFMEMORY;
}

CAMEvent::~CAMEvent() {
    if (m_hEvent) CloseHandle(m_hEvent);
}

// The send event stays set until the worker replies, so that CheckRequest may look any number of times.
CAMThread::CAMThread(HRESULT* phr) : m_EventSend(TRUE, phr), m_EventComplete(FALSE, phr), m_EventEnded(TRUE, phr) {}

CAMThread::~CAMThread() {
    Close();
}

BOOL CAMThread::Create() {
    CAutoLock lock(&m_AccessLock);
    if (ThreadExists() || !m_EventSend || !m_EventComplete || !m_EventEnded) return FALSE;
    m_EventSend.Reset();
    m_EventComplete.Reset();
    m_EventEnded.Reset();
    m_hThread = CreateThread(nullptr, 0, InitialThreadProc, this, 0, nullptr);
    return m_hThread != nullptr;
}

DWORD CAMThread::CallWorker(DWORD dwParam) {
    CAutoLock lock(&m_AccessLock);
    if (!ThreadExists()) return DWORD(E_FAIL);
    m_dwParam = dwParam;
    m_EventSend.Set();
    const HANDLE answers[] = {m_EventComplete, m_EventEnded}; // a reply counts even if the worker ended after it
    if (WaitForMultipleObjects(2, answers, FALSE, INFINITE) == WAIT_OBJECT_0) return m_dwReturnVal;
    m_EventSend.Reset();
    return DWORD(E_FAIL);
}

void CAMThread::Close() {
    // Whichever of two callers comes second finds nothing to close.
    if (const HANDLE thread = InterlockedExchangePointer(&m_hThread, nullptr)) {
        WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread);
    }
}

DWORD CAMThread::GetRequest() {
    m_EventSend.Wait();
    return m_dwParam;
}

BOOL CAMThread::CheckRequest(DWORD* pParam) {
    if (!m_EventSend.Check()) return FALSE;
    if (pParam) *pParam = m_dwParam;
    return TRUE;
}

void CAMThread::Reply(DWORD dwReturn) {
    m_dwReturnVal = dwReturn;
    m_EventSend.Reset();
    m_EventComplete.Set();
}

HRESULT CAMThread::CoInitializeHelper() {
    return CoInitializeEx(nullptr, COINIT_DISABLE_OLE1DDE);
}

DWORD WINAPI CAMThread::InitialThreadProc(LPVOID pv) {
    const HRESULT com = CoInitializeHelper();
    auto* thread = static_cast<CAMThread*>(pv);
    auto result = DWORD(E_UNEXPECTED);
    try {
        result = thread->ThreadProc();
    } catch (...) { // ends the thread, as the event tells whoever waits for its answer
    }
    if (SUCCEEDED(com)) CoUninitialize();
    thread->m_EventEnded.Set();
    return result;
}
