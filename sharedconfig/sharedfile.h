// The lock of a shared configuration file. Every process that opens such a
// file (acquisitions and write-backs of the shared configuration store,
// maintenance) first takes a named mutex that depends on the file's path
// alone: the 64-bit FNV-1 hash of the lower-cased path, as sixteen
// hexadecimal digits, made into a machine-wide, per-user kernel object name
// by the helper object. The hash must stay exactly as it is: processes of
// other builds compute the same name for the same file.
//
// While a process holds the lock it opens the file through CJournaledFile
// (journal.h), which makes what it writes all-or-nothing should it die.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "com/fnv.h"
#include "kyutils.h"

namespace ky::sharedfile {

// How long a load, a write-back or a maintenance step waits for the lock.
inline constexpr DWORD kLockTimeoutMs = 1000;

// 64-bit FNV-1 (multiply, then XOR) of `size` bytes.
inline std::uint64_t Fnv1Hash64(const void* data, std::size_t size) {
    com::Fnv1 hash;
    hash.Add(data, size);
    return hash.Value();
}

// The sixteen upper-case hexadecimal digits of the hash of the path's
// UTF-16 text (low byte first, no terminator) after locale-aware
// lower-casing. Two spellings that differ only in case give the same digits.
inline std::wstring PathHashDigits(const wchar_t* path, std::size_t length) {
    std::wstring lower(path, length);
    if (length) ::CharLowerBuffW(&lower[0], static_cast<DWORD>(length));
    std::uint64_t hash = Fnv1Hash64(lower.data(), length * sizeof(wchar_t));
    std::wstring digits(16, L'0');
    for (int i = 15; i >= 0; --i, hash >>= 4) digits[i] = L"0123456789ABCDEF"[hash & 0xF];
    return digits;
}

// Creates or opens the named mutex of the shared file at `path` (`length`
// characters), its name made by `helper` with both flags set. E_FAIL when
// the mutex cannot be created or opened; a failure of the helper as it is.
HRESULT OpenFileMutex(IKyStdStrings* helper, const wchar_t* path, std::size_t length, HANDLE* mutex);
// The same with a helper object of its own.
HRESULT OpenFileMutex(const wchar_t* path, HANDLE* mutex);

// Holds a shared file's lock for a scope, after a wait of kLockTimeoutMs.
// Only a plain grant counts; after any other outcome (time-out, abandoned,
// failure) the mutex is released all the same, which gives back an
// abandoned mutex that was in fact granted and fails harmlessly otherwise.
class FileLock {
public:
    explicit FileLock(HANDLE mutex) : m_mutex(mutex) {
        m_held = ::WaitForSingleObject(mutex, kLockTimeoutMs) == WAIT_OBJECT_0;
        if (!m_held) ::ReleaseMutex(mutex);
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock() {
        if (m_held) ::ReleaseMutex(m_mutex);
    }
    bool Held() const { return m_held; }

private:
    HANDLE m_mutex;
    bool m_held;
};

}  // namespace ky::sharedfile
