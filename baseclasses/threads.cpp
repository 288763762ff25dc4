#include "threads.h"

#include <objbase.h>

#include <utility>

CAMEvent::CAMEvent(BOOL fManualReset, HRESULT* phr) : m_hEvent(CreateEvent(nullptr, fManualReset, FALSE, nullptr)) {
    if (!m_hEvent && phr && SUCCEEDED(*phr)) *phr = E_OUTOFMEMORY;
}

CAMEvent::~CAMEvent() {
    if (m_hEvent) CloseHandle(m_hEvent);
}

// The send event stays set until the worker replies, so that CheckRequest may look any number of times.
CAMThread::CAMThread(HRESULT* phr) : m_EventSend(TRUE, phr), m_EventComplete(FALSE, phr) {}

CAMThread::~CAMThread() {
    Close();
}

BOOL CAMThread::Create() {
    CAutoLock lock(&m_AccessLock);
    if (ThreadExists()) return FALSE;
    m_hThread = CreateThread(nullptr, 0, InitialThreadProc, this, 0, nullptr);
    return m_hThread != nullptr;
}

DWORD CAMThread::CallWorker(DWORD dwParam) {
    CAutoLock lock(&m_AccessLock);
    if (!ThreadExists()) return DWORD(E_FAIL);
    m_dwParam = dwParam;
    m_EventSend.Set();
    m_EventComplete.Wait();
    return m_dwReturnVal;
}

void CAMThread::Close() {
    if (const HANDLE thread = std::exchange(m_hThread, nullptr)) {
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
    DWORD result = 1;
    try {
        result = static_cast<CAMThread*>(pv)->ThreadProc();
    } catch (...) {
        result = DWORD(E_UNEXPECTED);
    }
    if (SUCCEEDED(com)) CoUninitialize();
    return result;
}
