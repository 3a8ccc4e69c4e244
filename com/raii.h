// Small owners for the platform's resources: BSTR, VARIANT, kernel handles,
// critical sections and registry keys. None of them throws.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <atomic>
#include <iterator>
#include <utility>

namespace com {

// Owns one BSTR. A null BSTR is a valid value (the empty string to most
// automation code), so "null" and "allocation failed" are told apart by the
// HRESULT of the call that filled it.
class Bstr {
public:
    Bstr() = default;
    explicit Bstr(const wchar_t* text) : m_str(text ? ::SysAllocString(text) : nullptr) {}
    Bstr(const wchar_t* text, UINT length) : m_str(::SysAllocStringLen(text, length)) {}
    Bstr(const Bstr&) = delete;
    Bstr& operator=(const Bstr&) = delete;
    Bstr(Bstr&& other) noexcept : m_str(other.Detach()) {}
    Bstr& operator=(Bstr&& other) noexcept {
        if (this != &other) Attach(other.Detach());
        return *this;
    }
    ~Bstr() { ::SysFreeString(m_str); }

    // Copies `source` keeping its byte length (embedded zeros survive).
    static HRESULT CopyOf(BSTR source, BSTR* target) {
        *target = nullptr;
        if (!source) return S_OK;
        *target = ::SysAllocStringByteLen(reinterpret_cast<const char*>(source), ::SysStringByteLen(source));
        return *target ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT Assign(BSTR source) {
        BSTR copy = nullptr;
        HRESULT hr = CopyOf(source, &copy);
        if (SUCCEEDED(hr)) Attach(copy);
        return hr;
    }
    HRESULT AssignText(const wchar_t* text) {
        BSTR copy = text ? ::SysAllocString(text) : nullptr;
        if (text && !copy) return E_OUTOFMEMORY;
        Attach(copy);
        return S_OK;
    }
    // Hands a copy to a caller's out-parameter.
    HRESULT CopyTo(BSTR* target) const { return CopyOf(m_str, target); }

    void Attach(BSTR str) {
        if (m_str != str) ::SysFreeString(m_str);
        m_str = str;
    }
    BSTR Detach() { return std::exchange(m_str, nullptr); }
    void Reset() { Attach(nullptr); }
    // For out-parameters: frees the current value first.
    BSTR* Out() {
        Reset();
        return &m_str;
    }

    BSTR Get() const { return m_str; }
    operator BSTR() const { return m_str; }
    UINT Length() const { return ::SysStringLen(m_str); }
    UINT ByteLength() const { return ::SysStringByteLen(m_str); }
    bool IsNull() const { return m_str == nullptr; }
    bool IsEmpty() const { return Length() == 0; }

private:
    BSTR m_str = nullptr;
};

// Owns one VARIANT.
class Variant : public VARIANT {
public:
    Variant() { ::VariantInit(this); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;
    Variant(Variant&& other) noexcept { other.Detach(this); }
    Variant& operator=(Variant&& other) noexcept {
        if (this != &other) {
            Clear();
            other.Detach(this);
        }
        return *this;
    }
    ~Variant() { ::VariantClear(this); }

    HRESULT CopyFrom(const VARIANT* source) {
        Clear();
        return ::VariantCopy(this, const_cast<VARIANT*>(source));
    }
    HRESULT ChangeType(VARTYPE type, USHORT flags = 0) { return ::VariantChangeType(this, this, flags, type); }
    void Clear() { ::VariantClear(this); }
    // Moves the value out to a caller's VARIANT, leaving this one empty.
    void Detach(VARIANT* target) {
        *target = *static_cast<VARIANT*>(this);
        ::VariantInit(this);
    }
    VARIANT* Out() {
        Clear();
        return this;
    }
};

// Owns a kernel handle; null and INVALID_HANDLE_VALUE both mean "none".
class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : m_handle(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    Handle(Handle&& other) noexcept : m_handle(other.Detach()) {}
    Handle& operator=(Handle&& other) noexcept {
        if (this != &other) Attach(other.Detach());
        return *this;
    }
    ~Handle() { Close(); }

    void Attach(HANDLE handle) {
        Close();
        m_handle = handle;
    }
    HANDLE Detach() { return std::exchange(m_handle, nullptr); }
    void Close() {
        if (IsValid()) ::CloseHandle(m_handle);
        m_handle = nullptr;
    }
    HANDLE Get() const { return m_handle; }
    bool IsValid() const { return m_handle != nullptr && m_handle != INVALID_HANDLE_VALUE; }
    explicit operator bool() const { return IsValid(); }

private:
    HANDLE m_handle = nullptr;
};

namespace detail {

// Where threads wait for a CriticalSection that another thread holds: a
// small table shared by every lock and picked by the lock's address, so that
// a lock itself is a few words and needs no kernel object. A waiter woken
// for a neighbour in the same slot only checks its own lock again. Each
// module has its own table, so a lock must be taken only by code of the
// module that holds the object (as every object's own methods are).
struct WaitSlot {
    SRWLOCK lock = SRWLOCK_INIT;
    CONDITION_VARIABLE ready = CONDITION_VARIABLE_INIT;
};
inline WaitSlot g_waitSlots[64];
inline WaitSlot& WaitSlotOf(const void* lock) {
    return g_waitSlots[(reinterpret_cast<UINT_PTR>(lock) / alignof(LONG)) % std::size(g_waitSlots)];
}

}  // namespace detail

// A re-entrant lock, one per object. Taking and leaving a free lock is one
// atomic operation each, with nothing to create or delete: deleting a Win32
// critical section costs a call into the system (under Wine a round trip to
// its server), and leaving a slim reader/writer lock under Wine always wakes
// through the system, which made loading and releasing large models slow.
class CriticalSection {
public:
    CriticalSection() = default;
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    void Enter() {
        const DWORD self = ::GetCurrentThreadId();
        // Only this thread ever stores its own id, so seeing it means this
        // thread holds the lock.
        if (m_owner.load(std::memory_order_relaxed) == self) {
            ++m_depth;
            return;
        }
        LONG free = kFree;
        if (!m_state.compare_exchange_strong(free, kHeld, std::memory_order_acquire)) Wait();
        m_owner.store(self, std::memory_order_relaxed);
        m_depth = 1;
    }
    void Leave() {
        if (--m_depth == 0) {
            m_owner.store(0, std::memory_order_relaxed);
            if (m_state.exchange(kFree, std::memory_order_release) == kContended) Wake();
        }
    }

private:
    // Free, held, or held with threads (perhaps) waiting for it.
    enum : LONG { kFree, kHeld, kContended };

    void Wait() {
        for (int spin = 0; spin < 64; ++spin) {
            LONG free = kFree;
            if (m_state.load(std::memory_order_relaxed) == kFree &&
                m_state.compare_exchange_weak(free, kHeld, std::memory_order_acquire))
                return;
            YieldProcessor();
        }
        // Marked contended before sleeping, under the slot's lock: the
        // holder's Wake takes that lock too, so it cannot slip in between
        // the mark and the sleep.
        detail::WaitSlot& slot = detail::WaitSlotOf(this);
        ::AcquireSRWLockExclusive(&slot.lock);
        while (m_state.exchange(kContended, std::memory_order_acquire) != kFree)
            ::SleepConditionVariableSRW(&slot.ready, &slot.lock, INFINITE, 0);
        ::ReleaseSRWLockExclusive(&slot.lock);
    }
    void Wake() {
        detail::WaitSlot& slot = detail::WaitSlotOf(this);
        ::AcquireSRWLockExclusive(&slot.lock);
        ::WakeAllConditionVariable(&slot.ready);
        ::ReleaseSRWLockExclusive(&slot.lock);
    }

    std::atomic<LONG> m_state{kFree};
    std::atomic<DWORD> m_owner{0};
    DWORD m_depth = 0;
};

// A Win32 critical section, for the few locks that live as long as the
// process and must report a failed initialisation.
class SystemCriticalSection {
public:
    SystemCriticalSection() { m_ok = ::InitializeCriticalSectionEx(&m_cs, 0, 0) != FALSE; }
    SystemCriticalSection(const SystemCriticalSection&) = delete;
    SystemCriticalSection& operator=(const SystemCriticalSection&) = delete;
    ~SystemCriticalSection() {
        if (m_ok) ::DeleteCriticalSection(&m_cs);
    }
    void Enter() { ::EnterCriticalSection(&m_cs); }
    void Leave() { ::LeaveCriticalSection(&m_cs); }
    bool Initialized() const { return m_ok; }

private:
    CRITICAL_SECTION m_cs;
    bool m_ok = false;
};

// Holds a lock for a scope; Unlock() leaves it early.
template <class Section>
class Lock {
public:
    explicit Lock(Section& section) : m_section(&section) { m_section->Enter(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock() { Unlock(); }
    void Unlock() {
        if (m_section) {
            m_section->Leave();
            m_section = nullptr;
        }
    }

private:
    Section* m_section;
};

// Owns an open registry key.
class RegKey {
public:
    RegKey() = default;
    RegKey(const RegKey&) = delete;
    RegKey& operator=(const RegKey&) = delete;
    RegKey(RegKey&& other) noexcept : m_key(std::exchange(other.m_key, nullptr)) {}
    ~RegKey() { Close(); }

    LSTATUS Open(HKEY parent, const wchar_t* path, REGSAM access = KEY_READ) {
        Close();
        return ::RegOpenKeyExW(parent, path, 0, access, &m_key);
    }
    LSTATUS Create(HKEY parent, const wchar_t* path, REGSAM access = KEY_READ | KEY_WRITE) {
        Close();
        return ::RegCreateKeyExW(parent, path, 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, &m_key, nullptr);
    }
    void Close() {
        if (m_key) ::RegCloseKey(m_key);
        m_key = nullptr;
    }
    HKEY Get() const { return m_key; }
    explicit operator bool() const { return m_key != nullptr; }

private:
    HKEY m_key = nullptr;
};

// Memory from the COM task allocator.
template <class T>
class TaskMem {
public:
    TaskMem() = default;
    explicit TaskMem(T* p) : m_p(p) {}
    TaskMem(const TaskMem&) = delete;
    TaskMem& operator=(const TaskMem&) = delete;
    ~TaskMem() { ::CoTaskMemFree(m_p); }
    T* Get() const { return m_p; }
    T** Out() {
        ::CoTaskMemFree(m_p);
        m_p = nullptr;
        return &m_p;
    }
    T* Detach() { return std::exchange(m_p, nullptr); }

private:
    T* m_p = nullptr;
};

}  // namespace com
