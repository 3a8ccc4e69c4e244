// A shared configuration file as the bytes under a compound file, opened by
// this process alone, with a rollback journal that makes every session of
// writes all-or-nothing for a process that is killed half-way.
//
// The compound file is rewritten in place, in direct mode, so a writer that
// dies half-way would leave a file rewritten up to some sector. Before a
// session's first write changes anything, the original bytes of every region
// it is about to overwrite go to a journal beside the file; the next process
// that opens the file finds the journal and writes the originals back.
//
// What makes a journal "hot" (to be rolled back) is the shared file itself, not
// the journal's presence: the session first writes a random number into the
// file header's transaction-signature field (a field the compound file leaves
// to transacted implementations, unused in direct mode), keeps it there in
// every header write, and at the end sets the field to zero. A journal is
// rolled back only when it bears the file's name (as found through the open
// file, so every spelling of the path finds it), is well formed, carries the
// number the file carries, and its records check out: each a region within the
// file's original size, the header's first. The file's identity (volume, index)
// plays no part: a copy of the folder taken after a kill, before anyone opened
// the file again, is rolled back like the original. A journal of a finished
// session (one that could not be deleted, an old copy put back), of another
// file, junk, never undoes anything: the file does not carry its number. Ending
// every session at zero keeps it so: once a session has finished, the number of
// one cut short before it (whose journal was not beside the file then) no
// longer applies either. The number has 32 bits: a journal of another session
// matches by chance once in 2^32. Rolling back restores the header last, so a
// rollback cut short is rolled back again.
//
// The journal is read and written only while this process holds the file
// open with no sharing at all: no other holder can change the file under it.
// Its cost grows with what a session overwrites, never with the file's size.
// It protects against processes that die, not against the machine losing
// power: nothing is forced to the disk.
#pragma once

#include <objidl.h>

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "com/object.h"
#include "com/raii.h"

namespace ky::sharedfile {

class CJournaledFile : public com::Object<CJournaledFile, ILockBytes> {
public:
    // Opens the file at `path` to read and write, shared with no one, after
    // rolling back what a killed session left. With `create` a missing file is
    // created (empty). Failures come as the platform's compound-file opening
    // gives them for the same file: STG_E_SHAREVIOLATION while anyone else
    // has it open, STG_E_FILENOTFOUND, STG_E_PATHNOTFOUND, STG_E_ACCESSDENIED.
    static HRESULT Open(const wchar_t* path, bool create, com::ComPtr<CJournaledFile>& file);

    // Opens the compound file on it; with `createIfEmpty` an empty file
    // (a new one) gets a new compound file.
    HRESULT OpenStorage(DWORD mode, bool createIfEmpty, IStorage** root);

    // Ends the session of writes: they stay, for good. If one of them failed
    // (the file may then hold half a change) they are rolled back instead.
    void EndSession();

    // ILockBytes. Writes go through the journal; locking is not offered
    // (the file is open to this process alone).
    STDMETHODIMP ReadAt(ULARGE_INTEGER offset, void* buffer, ULONG size, ULONG* read) override;
    STDMETHODIMP WriteAt(ULARGE_INTEGER offset, const void* buffer, ULONG size, ULONG* written) override;
    STDMETHODIMP Flush() override { return S_OK; }
    STDMETHODIMP SetSize(ULARGE_INTEGER size) override;
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    STDMETHODIMP Stat(STATSTG* stat, DWORD flags) override;

    // The journal's name for the file at `path` (leftovers take this name
    // with a suffix).
    static std::wstring JournalName(const std::wstring& path);

    void FinalRelease();

private:
    struct Identity {
        std::uint32_t volume = 0;
        std::uint64_t index = 0;
    };

    // No journal (or not one a session wrote), another number than the
    // file's, rolled back, or of the file's number but not rolled back.
    enum class Rollback { NotHot, Stale, Done, Failed };

    HRESULT Init(const wchar_t* path, bool create);
    HRESULT RollBackLeftovers();
    Rollback RollBack(HANDLE journal);
    static HRESULT NextRecord(HANDLE journal, std::uint32_t marker, std::uint64_t& at, std::vector<BYTE>& data);
    HRESULT BeginSession();
    HRESULT CreateJournal();
    HRESULT Preserve(std::uint64_t offset, std::uint64_t length);
    HRESULT Append(std::uint64_t offset, const BYTE* data, ULONG size);
    HRESULT WriteMarker(std::uint32_t value);
    void CloseJournal();

    com::Handle m_file;
    std::wstring m_path;
    std::wstring m_journalName;
    Identity m_identity;

    // The session: its journal, its number, what it has preserved.
    bool m_inSession = false;
    bool m_failed = false;
    com::Handle m_journal;
    std::wstring m_journalPath;
    std::uint64_t m_journalEnd = 0;
    std::uint32_t m_marker = 0;
    std::uint64_t m_originalSize = 0;
    std::unordered_set<std::uint64_t> m_preserved;  // block numbers
};

}  // namespace ky::sharedfile
