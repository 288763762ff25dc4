// What the driver needs from the system beyond ntoskrnl.exe. The driver runs in a user-mode host and may import
// nothing else, so these functions are found at run time in the module that the host already has loaded.
#pragma once

// The kernel headers define two functions that the compiler's own headers have defined already.
#include <intrin.h>
#define InterlockedBitTestAndSet kernelBitTestAndSet
#define InterlockedBitTestAndReset kernelBitTestAndReset
#include <ntddk.h>
#undef InterlockedBitTestAndSet
#undef InterlockedBitTestAndReset

namespace kestra::simcard {

struct System {
    NTSTATUS(NTAPI* openProcess)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, CLIENT_ID*);
    NTSTATUS(NTAPI* close)(HANDLE);
    NTSTATUS(NTAPI* writeMemory)(HANDLE, void*, const void*, SIZE_T, SIZE_T*);
    NTSTATUS(NTAPI* duplicate)(HANDLE, HANDLE, HANDLE, HANDLE*, ACCESS_MASK, ULONG, ULONG);
    NTSTATUS(NTAPI* setEvent)(HANDLE, LONG*);
    NTSTATUS(NTAPI* delay)(BOOLEAN, const LARGE_INTEGER*);
    NTSTATUS(NTAPI* initLock)(void*);
    NTSTATUS(NTAPI* enter)(void*);
    NTSTATUS(NTAPI* leave)(void*);
    NTSTATUS(NTAPI* queryCounter)(LARGE_INTEGER*, LARGE_INTEGER*);
    NTSTATUS(NTAPI* openFile)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, IO_STATUS_BLOCK*, ULONG share, ULONG options);
    NTSTATUS(NTAPI* createPipe)
    (HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, IO_STATUS_BLOCK*, ULONG share, ULONG disposition, ULONG options,
     ULONG type, ULONG readMode, ULONG completion, ULONG instances, ULONG inBytes, ULONG outBytes, LARGE_INTEGER*);
    NTSTATUS(NTAPI* createMailslot)
    (HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, IO_STATUS_BLOCK*, ULONG options, ULONG quota, ULONG longest,
     LARGE_INTEGER*);

    /// @return false if the host lacks one of them.
    bool load() noexcept;
};

extern System g_system;

/// A lock that one thread may take repeatedly. Lives as long as the driver.
class Lock {
public:
    void init() noexcept { g_system.initLock(m_section); }
    void lock() noexcept { g_system.enter(m_section); }
    void unlock() noexcept { g_system.leave(m_section); }

private:
    alignas(16) unsigned char m_section[64]; // a critical section of the host, 40 bytes
};

class Locked {
public:
    explicit Locked(Lock& lock) noexcept : m_lock(lock) { m_lock.lock(); }
    ~Locked() { m_lock.unlock(); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    Lock& m_lock;
};

} // namespace kestra::simcard
