#include "sharedconfig/journal.h"

#include <ntsecapi.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "com/fnv.h"

namespace ky::sharedfile {

namespace {

// The compound file's header sector, and in it the transaction-signature
// field that carries a session's number.
constexpr std::uint64_t kHeaderSize = 512;
constexpr std::uint64_t kMarkerOffset = 0x34;
constexpr ULONG kMarkerSize = 4;
// Originals are kept per block of the header's size, in records of at most
// this many bytes.
constexpr std::uint64_t kBlock = 512;
constexpr ULONG kMaxRecord = 1 << 20;

constexpr char kMagic[8] = {'K', 'Y', 'J', 'R', 'N', 'L', '0', '1'};
// Journal header: magic, marker (4), volume (4), file index (8), original
// size (8), checksum of the 32 bytes before it (8).
constexpr ULONG kJournalHeaderSize = 40;
// Record: offset (8), length (4), checksum of offset, length, marker and data (8), data.
constexpr ULONG kRecordHeadSize = 20;

template <class T>
void Put(BYTE* at, T value) {
    for (size_t i = 0; i < sizeof(T); ++i) at[i] = static_cast<BYTE>(static_cast<std::uint64_t>(value) >> (8 * i));
}
template <class T>
T Get(const BYTE* at) {
    std::uint64_t value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) value |= static_cast<std::uint64_t>(at[i]) << (8 * i);
    return static_cast<T>(value);
}

std::uint64_t Checksum(const BYTE* data, size_t size, std::uint32_t salt = 0) {
    com::Fnv1 hash;
    BYTE saltBytes[4];
    Put(saltBytes, salt);
    hash.Add(saltBytes, sizeof saltBytes);
    hash.Add(data, size);
    return hash.Value();
}

// Positioned reads and writes move the file pointer rather than passing an
// OVERLAPPED offset: Wine answers the latter with a server round trip per
// call, some fifty times the cost of the write itself.
bool Seek(HANDLE file, std::uint64_t offset) {
    LARGE_INTEGER position;
    position.QuadPart = static_cast<LONGLONG>(offset);
    return ::SetFilePointerEx(file, position, nullptr, FILE_BEGIN) != FALSE;
}

// Reads up to `size` bytes at `offset`; the count read (less at the end).
ULONG ReadFileAt(HANDLE file, std::uint64_t offset, void* buffer, ULONG size) {
    if (!Seek(file, offset)) return 0;
    ULONG total = 0;
    while (total < size) {
        DWORD read = 0;
        if (!::ReadFile(file, static_cast<BYTE*>(buffer) + total, size - total, &read, nullptr) || read == 0) break;
        total += read;
    }
    return total;
}

bool WriteFileAt(HANDLE file, std::uint64_t offset, const void* buffer, ULONG size) {
    if (!Seek(file, offset)) return false;
    ULONG total = 0;
    while (total < size) {
        DWORD written = 0;
        if (!::WriteFile(file, static_cast<const BYTE*>(buffer) + total, size - total, &written, nullptr) ||
            written == 0)
            return false;
        total += written;
    }
    return true;
}

bool Truncate(HANDLE file, std::uint64_t size) { return Seek(file, size) && ::SetEndOfFile(file); }

std::uint64_t FileSize(HANDLE file) {
    LARGE_INTEGER size = {};
    return ::GetFileSizeEx(file, &size) ? static_cast<std::uint64_t>(size.QuadPart) : 0;
}

std::uint32_t Random() {
    std::uint32_t value = 0;
    if (!RtlGenRandom(&value, sizeof value)) {
        GUID guid = {};
        ::CoCreateGuid(&guid);
        value = guid.Data1 ^ Get<std::uint32_t>(guid.Data4);
    }
    return value;
}

// As the platform's compound-file opening reports a file it cannot open.
HRESULT OpenError(DWORD error) {
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
        return STG_E_FILENOTFOUND;
    case ERROR_PATH_NOT_FOUND:
        return STG_E_PATHNOTFOUND;
    case ERROR_ACCESS_DENIED:
    case ERROR_WRITE_PROTECT:
        return STG_E_ACCESSDENIED;
    case ERROR_SHARING_VIOLATION:
        return STG_E_SHAREVIOLATION;
    default:
        return E_FAIL;
    }
}

std::wstring FolderOf(const std::wstring& path) { return path.substr(0, path.find_last_of(L"\\/") + 1); }

// Whether `found` is the journal's name (`journal`, the file's own name and
// the suffix) or the name of one made while that was held ("-{GUID}" after
// it), in any letter case. Anything else beside the file is not looked at.
bool IsJournalName(const wchar_t* found, const std::wstring& journal) {
    const int length = static_cast<int>(std::wcslen(found)), size = static_cast<int>(journal.size());
    if (length < size || ::CompareStringOrdinal(found, size, journal.c_str(), size, TRUE) != CSTR_EQUAL) return false;
    return length == size || (length == size + 39 && found[size] == L'-' && found[size + 1] == L'{' &&
                              found[length - 1] == L'}');
}

}  // namespace

std::wstring CJournaledFile::JournalName(const std::wstring& path) { return path + L".kyjournal"; }

HRESULT CJournaledFile::Open(const wchar_t* path, bool create, com::ComPtr<CJournaledFile>& file) {
    HRESULT hr = Make(file);
    if (SUCCEEDED(hr)) hr = file->Init(path, create);
    if (FAILED(hr)) file.Reset();
    return hr;
}

HRESULT CJournaledFile::Init(const wchar_t* path, bool create) {
    try {
        m_path = path;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    // No sharing at all: while this handle is open nobody else reads or
    // writes the file, whatever name they use for it.
    const DWORD access = GENERIC_READ | GENERIC_WRITE;
    m_file.Attach(::CreateFileW(path, access, 0, nullptr, create ? OPEN_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                nullptr));
    // Where it cannot be created, what opening it gives is the answer.
    if (!m_file && create) m_file.Attach(::CreateFileW(path, access, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!m_file) return OpenError(::GetLastError());

    BY_HANDLE_FILE_INFORMATION info = {};
    if (!::GetFileInformationByHandle(m_file.Get(), &info)) return E_FAIL;
    m_identity.volume = info.dwVolumeSerialNumber;
    m_identity.index = (static_cast<std::uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    // The journal sits beside the file under the file's own final name, so
    // that every spelling of the path finds the same one.
    std::vector<wchar_t> finalPath(MAX_PATH);
    DWORD length = ::GetFinalPathNameByHandleW(m_file.Get(), finalPath.data(), MAX_PATH, FILE_NAME_NORMALIZED);
    if (length >= MAX_PATH) {
        finalPath.resize(length + 1);
        length = ::GetFinalPathNameByHandleW(m_file.Get(), finalPath.data(), length + 1, FILE_NAME_NORMALIZED);
    }
    try {
        m_journalName = JournalName(length > 0 && length < finalPath.size() ? std::wstring(finalPath.data(), length)
                                                                             : m_path);
        return RollBackLeftovers();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

HRESULT CJournaledFile::RollBackLeftovers() {
    const std::wstring folder = FolderOf(m_journalName), name = m_journalName.substr(folder.size());
    // Rolled back here but still there (someone kept them from being deleted):
    // never applied twice.
    std::vector<std::wstring> applied;
    for (bool again = true; again;) {
        again = false;
        // Sessions never use zero for their number: a file that carries zero
        // had no session cut short, and nothing beside it is even looked at.
        BYTE current[kMarkerSize] = {};
        const ULONG read = ReadFileAt(m_file.Get(), kMarkerOffset, current, kMarkerSize);
        if (read != kMarkerSize || Get<std::uint32_t>(current) == 0) return S_OK;
        WIN32_FIND_DATAW found;
        HANDLE search = ::FindFirstFileW((m_journalName + L"*").c_str(), &found);
        if (search == INVALID_HANDLE_VALUE) return S_OK;
        HRESULT hr = S_OK;
        do {
            const std::wstring path = folder + found.cFileName;
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || !IsJournalName(found.cFileName, name) ||
                std::find(applied.begin(), applied.end(), path) != applied.end())
                continue;
            // Nobody writes it while it is read. One that cannot even be read
            // (someone holds it with no sharing, or writes it) might be the
            // one: the file is not used until it can be.
            com::Handle journal(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, 0, nullptr));
            const Rollback result = journal ? RollBack(journal.Get()) : Rollback::Failed;
            if (result == Rollback::Failed) hr = STG_E_LOCKVIOLATION;
            if (result == Rollback::Done) {
                journal.Close();
                ::DeleteFileW(path.c_str());
                applied.push_back(path);
                // The file now carries what it carried before that session,
                // which may be the number of an earlier one cut short: look again.
                again = true;
            }
        } while (SUCCEEDED(hr) && !again && ::FindNextFileW(search, &found));
        ::FindClose(search);
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}

// Reads the record at `at` into `data` (offset, length, then the original
// bytes) and moves `at` past it: S_OK, or S_FALSE where there is no complete
// record whose checksum checks out (the journal's end).
HRESULT CJournaledFile::NextRecord(HANDLE journal, std::uint32_t marker, std::uint64_t& at, std::vector<BYTE>& data) {
    BYTE head[kRecordHeadSize];
    if (ReadFileAt(journal, at, head, kRecordHeadSize) != kRecordHeadSize) return S_FALSE;
    const auto length = Get<std::uint32_t>(head + 8);
    if (length == 0 || length > kMaxRecord) return S_FALSE;
    try {
        data.resize(12 + length);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    std::memcpy(data.data(), head, 12);
    if (ReadFileAt(journal, at + kRecordHeadSize, data.data() + 12, length) != length ||
        Checksum(data.data(), data.size(), marker) != Get<std::uint64_t>(head + 12))
        return S_FALSE;
    at += kRecordHeadSize + length;
    return S_OK;
}

// Writes the originals of a hot journal back into the file.
CJournaledFile::Rollback CJournaledFile::RollBack(HANDLE journal) {
    BYTE header[kJournalHeaderSize];
    if (ReadFileAt(journal, 0, header, kJournalHeaderSize) != kJournalHeaderSize ||
        std::memcmp(header, kMagic, sizeof kMagic) != 0 || Get<std::uint64_t>(header + 32) != Checksum(header, 32))
        return Rollback::NotHot;
    // A journal goes with the file whose name it bears and whose number it
    // carries, wherever that file now lives: a copy of the folder is rolled
    // back as the original would have been. The file's volume and index in
    // the header are only for older builds, which pair by them.
    const auto marker = Get<std::uint32_t>(header + 8);
    const auto originalSize = Get<std::uint64_t>(header + 24);
    BYTE current[kMarkerSize];
    if (ReadFileAt(m_file.Get(), kMarkerOffset, current, kMarkerSize) != kMarkerSize ||
        Get<std::uint32_t>(current) != marker)
        return Rollback::Stale;

    // Nothing is written before every complete record has been read and found
    // to be what a session writes: regions of the original file that start on
    // a block, the header's first (kept before the number went into the file).
    std::vector<BYTE> data, headerRecord;
    std::uint64_t end = kJournalHeaderSize;
    for (HRESULT hr; (hr = NextRecord(journal, marker, end, data)) != S_FALSE;) {
        if (FAILED(hr)) return Rollback::Failed;
        const auto offset = Get<std::uint64_t>(data.data());
        const std::uint64_t length = data.size() - 12;
        const bool first = headerRecord.empty();
        if (offset % kBlock != 0 || offset > originalSize || length > originalSize - offset ||
            first != (offset == 0) || (first && length < kHeaderSize))
            return Rollback::NotHot;
        if (first) headerRecord.swap(data);
    }
    if (originalSize > 0 && headerRecord.empty()) return Rollback::NotHot;

    // Every complete record goes back (the one cut short at the end never had
    // its region overwritten); the header goes back last, after the file has
    // its old size again: until then the file still carries the number, so a
    // rollback cut short is done again in full.
    std::uint64_t at = kJournalHeaderSize;
    if (!headerRecord.empty()) at += kRecordHeadSize + headerRecord.size() - 12;
    while (at < end) {
        if (NextRecord(journal, marker, at, data) != S_OK) return Rollback::Failed;  // unreadable now
        if (!WriteFileAt(m_file.Get(), Get<std::uint64_t>(data.data()), data.data() + 12,
                         static_cast<ULONG>(data.size() - 12)))
            return Rollback::Failed;
    }
    if (!Truncate(m_file.Get(), originalSize)) return Rollback::Failed;
    if (!headerRecord.empty() && !WriteFileAt(m_file.Get(), 0, headerRecord.data() + 12,
                                              static_cast<ULONG>(headerRecord.size() - 12)))
        return Rollback::Failed;
    return Rollback::Done;
}

HRESULT CJournaledFile::OpenStorage(DWORD mode, bool createIfEmpty, IStorage** root) {
    const std::uint64_t size = FileSize(m_file.Get());
    if (createIfEmpty && size == 0) return ::StgCreateDocfileOnILockBytes(this, mode | STGM_CREATE, 0, root);
    // A file that is no compound file answers as the platform's opening by
    // name answers it.
    if (size < 0x100) return STG_E_FILEALREADYEXISTS;
    HRESULT hr = ::StgOpenStorageOnILockBytes(this, nullptr, mode, nullptr, 0, root);
    return hr == STG_E_INVALIDHEADER ? STG_E_FILEALREADYEXISTS : hr;
}

HRESULT CJournaledFile::BeginSession() {
    m_originalSize = FileSize(m_file.Get());
    // Nothing in a file shorter than a header can be preserved in order;
    // such a file is no compound file, and nothing writes into one.
    if (m_originalSize > 0 && m_originalSize < kHeaderSize) return STG_E_WRITEFAULT;
    // A number other than the one the file carries: that may be the number
    // of a session cut short whose journal is elsewhere.
    BYTE current[kMarkerSize] = {};
    ReadFileAt(m_file.Get(), kMarkerOffset, current, kMarkerSize);
    do m_marker = Random();
    while (m_marker == 0 || m_marker == Get<std::uint32_t>(current));

    HRESULT hr = CreateJournal();
    if (FAILED(hr)) return hr;
    m_inSession = true;
    // The header's originals first, then the number: from that moment on the
    // journal is hot, and it holds everything needed to undo.
    if (m_originalSize > 0) hr = Preserve(0, kHeaderSize);
    if (SUCCEEDED(hr)) hr = WriteMarker(m_marker);
    return hr;
}

HRESULT CJournaledFile::CreateJournal() {
    // Others may read it, but nobody may delete or rename it while the
    // session may still need it.
    const DWORD access = GENERIC_READ | GENERIC_WRITE, share = FILE_SHARE_READ;
    try {
        m_journalPath = m_journalName;
        m_journal.Attach(::CreateFileW(m_journalPath.c_str(), access, share, nullptr, CREATE_ALWAYS, 0, nullptr));
        if (!m_journal) {
            // Something of that name that cannot be replaced: a name of our own.
            GUID guid = {};
            wchar_t text[40] = L"";
            ::CoCreateGuid(&guid);
            ::StringFromGUID2(guid, text, 40);
            m_journalPath = m_journalName + L"-" + text;
            m_journal.Attach(::CreateFileW(m_journalPath.c_str(), access, share, nullptr, CREATE_NEW, 0, nullptr));
        }
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    if (!m_journal) return STG_E_WRITEFAULT;
    BYTE header[kJournalHeaderSize];
    std::memcpy(header, kMagic, sizeof kMagic);
    Put(header + 8, m_marker);
    // Volume and file index: read only by older builds, which pair a journal
    // with its file by them.
    Put(header + 12, m_identity.volume);
    Put(header + 16, m_identity.index);
    Put(header + 24, m_originalSize);
    Put(header + 32, Checksum(header, 32));
    if (!WriteFileAt(m_journal.Get(), 0, header, kJournalHeaderSize)) {
        CloseJournal();
        return STG_E_WRITEFAULT;
    }
    m_journalEnd = kJournalHeaderSize;
    return S_OK;
}

HRESULT CJournaledFile::Preserve(std::uint64_t offset, std::uint64_t length) {
    const std::uint64_t end = std::min(offset + length, m_originalSize);
    std::vector<BYTE> original;
    for (std::uint64_t block = offset / kBlock; block * kBlock < end;) {
        if (m_preserved.count(block)) {
            ++block;
            continue;
        }
        // A run of blocks not preserved yet, in one record.
        std::uint64_t last = block;
        while ((last + 1) * kBlock < end && !m_preserved.count(last + 1) && (last + 2 - block) * kBlock <= kMaxRecord)
            ++last;
        const std::uint64_t from = block * kBlock;
        const auto size = static_cast<ULONG>(std::min((last + 1) * kBlock, m_originalSize) - from);
        try {
            original.resize(size);
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        if (ReadFileAt(m_file.Get(), from, original.data(), size) != size) return STG_E_READFAULT;
        HRESULT hr = Append(from, original.data(), size);
        if (FAILED(hr)) return hr;
        try {
            for (std::uint64_t b = block; b <= last; ++b) m_preserved.insert(b);
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        block = last + 1;
    }
    return S_OK;
}

HRESULT CJournaledFile::Append(std::uint64_t offset, const BYTE* data, ULONG size) {
    std::vector<BYTE> record;
    try {
        record.resize(kRecordHeadSize + size);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    Put(record.data(), offset);
    Put(record.data() + 8, size);
    std::memcpy(record.data() + kRecordHeadSize, data, size);
    // The checksum covers offset, length and data, as laid out while reading back.
    std::vector<BYTE> covered(record.begin(), record.begin() + 12);
    covered.insert(covered.end(), data, data + size);
    Put(record.data() + 12, Checksum(covered.data(), covered.size(), m_marker));
    if (!WriteFileAt(m_journal.Get(), m_journalEnd, record.data(), static_cast<ULONG>(record.size())))
        return STG_E_WRITEFAULT;
    m_journalEnd += record.size();
    return S_OK;
}

HRESULT CJournaledFile::WriteMarker(std::uint32_t value) {
    BYTE bytes[kMarkerSize];
    Put(bytes, value);
    return WriteFileAt(m_file.Get(), kMarkerOffset, bytes, kMarkerSize) ? S_OK : STG_E_WRITEFAULT;
}

void CJournaledFile::CloseJournal() {
    if (!m_journal) return;
    // A journal that cannot be deleted (someone holds it open) is emptied
    // through this handle, which nobody can keep from writing.
    BYTE zeros[kJournalHeaderSize] = {};
    WriteFileAt(m_journal.Get(), 0, zeros, kJournalHeaderSize);
    m_journal.Close();
    ::DeleteFileW(m_journalPath.c_str());
}

void CJournaledFile::EndSession() {
    if (!m_inSession) return;
    m_inSession = false;
    // The field goes back to zero, and with that the session is done, and so
    // is any session cut short before it whose journal was not found: its
    // journal, should it turn up, no longer applies. A failed write may have
    // left half a change: undo the session instead. A journal that could not
    // be rolled back stays, hot, for the next holder.
    if ((m_failed || FAILED(WriteMarker(0))) && RollBack(m_journal.Get()) == Rollback::Failed)
        m_journal.Close();
    CloseJournal();
    m_failed = false;
    m_preserved.clear();
}

void CJournaledFile::FinalRelease() { EndSession(); }

STDMETHODIMP CJournaledFile::ReadAt(ULARGE_INTEGER offset, void* buffer, ULONG size, ULONG* read) {
    if (!buffer) return STG_E_INVALIDPOINTER;
    ULONG count = ReadFileAt(m_file.Get(), offset.QuadPart, buffer, size);
    if (read) *read = count;
    return count == size ? S_OK : STG_E_READFAULT;
}

STDMETHODIMP CJournaledFile::WriteAt(ULARGE_INTEGER offset, const void* buffer, ULONG size, ULONG* written) {
    if (written) *written = 0;
    if (!buffer) return STG_E_INVALIDPOINTER;
    HRESULT hr = m_inSession ? S_OK : BeginSession();
    if (SUCCEEDED(hr)) hr = Preserve(offset.QuadPart, size);
    if (FAILED(hr)) {
        m_failed = m_inSession;
        return hr;
    }
    // The header's transaction signature keeps the session's number in
    // whatever the compound file writes there.
    const std::uint64_t from = offset.QuadPart, to = from + size;
    const BYTE* bytes = static_cast<const BYTE*>(buffer);
    std::vector<BYTE> patched;
    if (from < kMarkerOffset + kMarkerSize && to > kMarkerOffset) {
        try {
            patched.assign(bytes, bytes + size);
        } catch (const std::bad_alloc&) {
            m_failed = true;
            return E_OUTOFMEMORY;
        }
        BYTE marker[kMarkerSize];
        Put(marker, m_marker);
        for (std::uint64_t at = std::max(from, kMarkerOffset); at < std::min(to, kMarkerOffset + kMarkerSize); ++at)
            patched[at - from] = marker[at - kMarkerOffset];
        bytes = patched.data();
    }
    if (!WriteFileAt(m_file.Get(), from, bytes, size)) {
        m_failed = true;
        return STG_E_WRITEFAULT;
    }
    if (written) *written = size;
    return S_OK;
}

STDMETHODIMP CJournaledFile::SetSize(ULARGE_INTEGER size) {
    const std::uint64_t target = size.QuadPart;
    if (target == FileSize(m_file.Get())) return S_OK;
    // A compound file never shrinks below its header, where the number lives.
    if (target < kHeaderSize) return STG_E_INVALIDFUNCTION;
    HRESULT hr = m_inSession ? S_OK : BeginSession();
    if (SUCCEEDED(hr) && target < m_originalSize) hr = Preserve(target, m_originalSize - target);
    if (SUCCEEDED(hr) && !Truncate(m_file.Get(), target)) hr = STG_E_WRITEFAULT;
    if (FAILED(hr)) m_failed = m_inSession;
    return hr;
}

STDMETHODIMP CJournaledFile::Stat(STATSTG* stat, DWORD flags) {
    if (!stat) return STG_E_INVALIDPOINTER;
    *stat = STATSTG{};
    stat->type = STGTY_LOCKBYTES;
    stat->cbSize.QuadPart = FileSize(m_file.Get());
    if (!(flags & STATFLAG_NONAME)) {
        const size_t bytes = (m_path.size() + 1) * sizeof(wchar_t);
        stat->pwcsName = static_cast<wchar_t*>(::CoTaskMemAlloc(bytes));
        if (!stat->pwcsName) return STG_E_INSUFFICIENTMEMORY;
        std::memcpy(stat->pwcsName, m_path.c_str(), bytes);
    }
    return S_OK;
}

}  // namespace ky::sharedfile
