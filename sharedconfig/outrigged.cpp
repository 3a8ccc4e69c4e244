#include "sharedconfig/outrigged.h"

#include "helpers/helpers.h"
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

HRESULT COutriggedMedium::OpenSharedFile(com::ComPtr<IStorage>* root) const {
    // Creating without STGM_CREATE succeeds only where there is no file yet.
    HRESULT hr = ::StgCreateDocfile(m_filePath, kSharedMode, 0, root->ReleaseAndGetAddressOf());
    if (FAILED(hr)) hr = ::StgOpenStorage(m_filePath, nullptr, kSharedMode, nullptr, 0, root->ReleaseAndGetAddressOf());
    return hr;
}

HRESULT COutriggedMedium::BeginWriteBack(com::ComPtr<IStorage>* root) const {
    HRESULT hr = ::StgOpenStorage(m_filePath, nullptr, kSharedMode, nullptr, 0, root->ReleaseAndGetAddressOf());
    if (FAILED(hr)) return hr;
    hr = (*root)->DestroyElement(m_elementName);
    if (FAILED(hr) && hr != STG_E_FILENOTFOUND) return hr;
    return (*root)->Commit(STGC_DEFAULT);
}

HRESULT COutriggedStorage::Load() {
    // Declared first, so released last: after the shared file.
    sharedfile::FileLock lock(m_mutex.Get());
    if (!lock.Held()) return E_FAIL;
    com::ComPtr<IStorage> root;
    HRESULT hr = OpenSharedFile(&root);
    if (FAILED(hr)) return hr;
    // Whatever the reason of a failure, only whether a child came back counts.
    com::ComPtr<IStorage> child;
    root->OpenStorage(m_elementName, nullptr, kSharedMode, nullptr, 0, &child);
    if (!child) return S_FALSE;
    hr = child->CopyTo(0, nullptr, nullptr, m_privateRoot.Get());
    return FAILED(hr) ? hr : S_OK;
}

void COutriggedStorage::WriteBack() {
    // Failures are dropped: nobody is left to hear of them.
    sharedfile::FileLock lock(m_mutex.Get());
    if (!lock.Held()) return;
    com::ComPtr<IStorage> root;
    if (FAILED(BeginWriteBack(&root))) return;
    com::ComPtr<IStorage> child;
    if (FAILED(root->CreateStorage(m_elementName, kSharedMode, 0, 0, &child))) return;
    if (!m_privateRoot) return;
    if (FAILED(m_privateRoot->CopyTo(0, nullptr, nullptr, child.Get()))) return;
    child->Commit(STGC_DEFAULT);
}

void COutriggedStorage::FinalRelease() {
    WriteBack();
    m_privateRoot.Reset();
}

HRESULT COutriggedStream::Load() {
    sharedfile::FileLock lock(m_mutex.Get());
    if (!lock.Held()) return E_FAIL;
    com::ComPtr<IStorage> root;
    HRESULT hr = OpenSharedFile(&root);
    if (FAILED(hr)) return hr;
    com::ComPtr<IStream> shared;
    hr = root->OpenStream(m_elementName, nullptr, kSharedMode, 0, &shared);
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
}

void COutriggedStream::WriteBack() {
    sharedfile::FileLock lock(m_mutex.Get());
    if (!lock.Held()) return;
    com::ComPtr<IStorage> root;
    if (FAILED(BeginWriteBack(&root))) return;
    com::ComPtr<IStream> shared;
    if (FAILED(root->CreateStream(m_elementName, kSharedMode, 0, 0, &shared))) return;
    // An acquisition that failed before its copy was made leaves the
    // element recreated empty.
    if (!m_privateStream) return;
    // The whole copy, wherever the caller left the seek pointer.
    STATSTG stat = {};
    if (FAILED(m_privateStream->Stat(&stat, STATFLAG_NONAME))) return;
    LARGE_INTEGER start = {};
    if (FAILED(m_privateStream->Seek(start, STREAM_SEEK_SET, nullptr))) return;
    if (FAILED(m_privateStream->CopyTo(shared.Get(), stat.cbSize, nullptr, nullptr))) return;
    shared->Commit(STGC_DEFAULT);
    root->Commit(STGC_DEFAULT);
}

void COutriggedStream::FinalRelease() {
    WriteBack();
    m_privateRoot.Reset();
}

}  // namespace ky
