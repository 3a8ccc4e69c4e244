#include "sharedconfig/outrigged.h"

#include "helpers/helpers.h"
#include "sharedconfig/journal.h"
#include "sharedconfig/sharedfile.h"

namespace ky {

namespace {

// The shared file and its elements: read-write, no one else in, direct mode.
constexpr DWORD kSharedMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
// The private copy: created over the reserved name, deleted when released.
constexpr DWORD kPrivateMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_CREATE | STGM_DELETEONRELEASE;

}  // namespace

HRESULT COutriggedMedium::OpenMedium(BSTR filePath, BSTR elementName) {
    HRESULT hr = m_filePath.Assign(filePath);
    if (SUCCEEDED(hr)) hr = m_elementName.Assign(elementName);
    if (FAILED(hr)) return hr;

    com::ComPtr<CCoKyHelpers> helper;
    hr = CCoKyHelpers::Make(helper);
    if (FAILED(hr)) return hr;
    HANDLE mutex = nullptr;
    hr = sharedfile::OpenFileMutex(helper.Get(), m_filePath, m_filePath.Length(), &mutex);
    if (FAILED(hr)) return hr;
    m_mutex.Attach(mutex);

    com::Bstr privateFile;
    hr = helper->CreateTemporaryFileName(nullptr, privateFile.Out());
    if (FAILED(hr)) return hr;
    return ::StgCreateDocfile(privateFile, kPrivateMode, 0, &m_privateRoot);
}

template <class CopyIn>
HRESULT COutriggedMedium::LoadUnderLock(CopyIn copyIn) {
    // Declared first, so released last: after the shared file.
    sharedfile::FileLock lock(m_mutex.Get());
    if (!lock.Held()) return E_FAIL;
    // Created where there is no file yet; otherwise opened, with what the
    // opening gives when it cannot be.
    com::ComPtr<sharedfile::CJournaledFile> file;
    HRESULT hr = sharedfile::CJournaledFile::Open(m_filePath, true, file);
    if (FAILED(hr)) return hr;
    {
        com::ComPtr<IStorage> root;
        hr = file->OpenStorage(kSharedMode, true, &root);
        if (SUCCEEDED(hr)) hr = copyIn(root.Get());
    }
    file->EndSession();
    return hr;
}

template <class CopyOut>
void COutriggedMedium::WriteBackUnderLock(CopyOut copyOut) {
    sharedfile::FileLock lock(m_mutex.Get());
    if (!lock.Held()) return;
    // Opening only: the file is never created at write-back.
    com::ComPtr<sharedfile::CJournaledFile> file;
    if (FAILED(sharedfile::CJournaledFile::Open(m_filePath, false, file))) return;
    {
        com::ComPtr<IStorage> root;
        if (SUCCEEDED(file->OpenStorage(kSharedMode, false, &root))) {
            HRESULT hr = root->DestroyElement(m_elementName);
            if ((SUCCEEDED(hr) || hr == STG_E_FILENOTFOUND) && SUCCEEDED(root->Commit(STGC_DEFAULT)))
                copyOut(root.Get());
        }
    }
    // A failed step leaves the file as it left it; only a process killed
    // half-way, or a failed write, has its writes rolled back.
    file->EndSession();
}

HRESULT COutriggedStorage::Load() {
    return LoadUnderLock([this](IStorage* root) -> HRESULT {
        // Whatever the reason of a failure, only whether a child came back counts.
        com::ComPtr<IStorage> child;
        root->OpenStorage(m_elementName, nullptr, kSharedMode, nullptr, 0, &child);
        if (!child) return S_FALSE;
        HRESULT hr = child->CopyTo(0, nullptr, nullptr, m_privateRoot.Get());
        return FAILED(hr) ? hr : S_OK;
    });
}

void COutriggedStorage::FinalRelease() {
    WriteBackUnderLock([this](IStorage* root) {
        com::ComPtr<IStorage> child;
        if (FAILED(root->CreateStorage(m_elementName, kSharedMode, 0, 0, &child))) return;
        if (!m_privateRoot || FAILED(m_privateRoot->CopyTo(0, nullptr, nullptr, child.Get()))) return;
        child->Commit(STGC_DEFAULT);
    });
    m_privateRoot.Reset();
}

HRESULT COutriggedStream::Load() {
    return LoadUnderLock([this](IStorage* root) -> HRESULT {
        com::ComPtr<IStream> shared;
        HRESULT hr = root->OpenStream(m_elementName, nullptr, kSharedMode, 0, &shared);
        if (FAILED(hr) && hr != STG_E_FILENOTFOUND) return hr;
        hr = m_privateRoot->CreateStream(m_elementName, kSharedMode, 0, 0, &m_privateStream);
        if (FAILED(hr)) return hr;
        if (!shared) return S_FALSE;
        STATSTG stat = {};
        hr = shared->Stat(&stat, STATFLAG_NONAME);
        if (SUCCEEDED(hr)) hr = shared->CopyTo(m_privateStream.Get(), stat.cbSize, nullptr, nullptr);
        LARGE_INTEGER start = {};
        if (SUCCEEDED(hr)) hr = m_privateStream->Seek(start, STREAM_SEEK_SET, nullptr);
        return FAILED(hr) ? hr : S_OK;
    });
}

void COutriggedStream::FinalRelease() {
    WriteBackUnderLock([this](IStorage* root) {
        com::ComPtr<IStream> shared;
        if (FAILED(root->CreateStream(m_elementName, kSharedMode, 0, 0, &shared))) return;
        // An acquisition that failed before its copy was made leaves the
        // element recreated empty.
        if (!m_privateStream) return;
        // The whole copy, wherever the caller left the seek pointer.
        STATSTG stat = {};
        LARGE_INTEGER start = {};
        if (FAILED(m_privateStream->Stat(&stat, STATFLAG_NONAME)) ||
            FAILED(m_privateStream->Seek(start, STREAM_SEEK_SET, nullptr)) ||
            FAILED(m_privateStream->CopyTo(shared.Get(), stat.cbSize, nullptr, nullptr)))
            return;
        shared->Commit(STGC_DEFAULT);  // its result does not matter: the root's commit follows
        root->Commit(STGC_DEFAULT);
    });
    m_privateRoot.Reset();
}

}  // namespace ky
