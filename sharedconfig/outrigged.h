// Outrigged storages and streams: each holds a private copy of one element
// (a child storage or a stream at the top) of a shared compound file. The
// element is copied into a private temporary compound file at acquisition,
// under the file's lock; the caller then works on the copy with no lock
// held; when the last reference goes, the copy replaces the element in the
// shared file as a whole, under the lock again. That write-back happens at
// every final release, a discarded acquisition's included: the object cannot
// tell one from the other. Only the configuration manager makes them.
#pragma once

#include <objidl.h>

#include "com/object.h"
#include "com/raii.h"

namespace ky {

class COutriggedMedium {
public:
    // Keeps the path and element name, opens the file's mutex and creates
    // the private temporary compound file (deleted when released).
    HRESULT OpenMedium(BSTR filePath, BSTR elementName);

protected:
    COutriggedMedium() = default;
    ~COutriggedMedium() = default;

    // Runs `copyIn(IStorage* sharedRoot)` under the lock on the shared file,
    // which is made when missing; E_FAIL when the lock is not granted.
    template <class CopyIn>
    HRESULT LoadUnderLock(CopyIn copyIn);
    // Under the lock, opens a working copy of the shared file (never making
    // the file), removes the element, runs `copyOut(IStorage* sharedRoot)` and
    // renames the copy over the file. Failures are dropped: at a final
    // release nobody is left to hear of them.
    template <class CopyOut>
    void WriteBackUnderLock(CopyOut copyOut);

    com::Handle m_mutex;
    com::Bstr m_filePath;
    com::Bstr m_elementName;
    com::ComPtr<IStorage> m_privateRoot;
};

// Every IStorage call goes to the private root, unchanged.
class COutriggedStorage : public com::Object<COutriggedStorage, IStorage, com::FreeThreaded>, public COutriggedMedium {
public:
    // Copies the element in: S_OK, or S_FALSE when the file has no child
    // storage of that name (the copy stays empty).
    HRESULT Load();
    void FinalRelease();

    STDMETHODIMP CreateStream(const OLECHAR* name, DWORD mode, DWORD reserved1, DWORD reserved2,
                              IStream** stream) override {
        return m_privateRoot ? m_privateRoot->CreateStream(name, mode, reserved1, reserved2, stream) : E_UNEXPECTED;
    }
    STDMETHODIMP OpenStream(const OLECHAR* name, void* reserved1, DWORD mode, DWORD reserved2,
                            IStream** stream) override {
        return m_privateRoot ? m_privateRoot->OpenStream(name, reserved1, mode, reserved2, stream) : E_UNEXPECTED;
    }
    STDMETHODIMP CreateStorage(const OLECHAR* name, DWORD mode, DWORD reserved1, DWORD reserved2,
                               IStorage** storage) override {
        return m_privateRoot ? m_privateRoot->CreateStorage(name, mode, reserved1, reserved2, storage) : E_UNEXPECTED;
    }
    STDMETHODIMP OpenStorage(const OLECHAR* name, IStorage* priority, DWORD mode, SNB exclude, DWORD reserved,
                             IStorage** storage) override {
        return m_privateRoot ? m_privateRoot->OpenStorage(name, priority, mode, exclude, reserved, storage)
                             : E_UNEXPECTED;
    }
    STDMETHODIMP CopyTo(DWORD excludedCount, const IID* excludedIids, SNB exclude, IStorage* target) override {
        return m_privateRoot ? m_privateRoot->CopyTo(excludedCount, excludedIids, exclude, target) : E_UNEXPECTED;
    }
    STDMETHODIMP MoveElementTo(const OLECHAR* name, IStorage* target, const OLECHAR* newName, DWORD flags) override {
        return m_privateRoot ? m_privateRoot->MoveElementTo(name, target, newName, flags) : E_UNEXPECTED;
    }
    STDMETHODIMP Commit(DWORD flags) override { return m_privateRoot ? m_privateRoot->Commit(flags) : E_UNEXPECTED; }
    STDMETHODIMP Revert() override { return m_privateRoot ? m_privateRoot->Revert() : E_UNEXPECTED; }
    STDMETHODIMP EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3, IEnumSTATSTG** elements) override {
        return m_privateRoot ? m_privateRoot->EnumElements(reserved1, reserved2, reserved3, elements) : E_UNEXPECTED;
    }
    STDMETHODIMP DestroyElement(const OLECHAR* name) override {
        return m_privateRoot ? m_privateRoot->DestroyElement(name) : E_UNEXPECTED;
    }
    STDMETHODIMP RenameElement(const OLECHAR* oldName, const OLECHAR* newName) override {
        return m_privateRoot ? m_privateRoot->RenameElement(oldName, newName) : E_UNEXPECTED;
    }
    STDMETHODIMP SetElementTimes(const OLECHAR* name, const FILETIME* created, const FILETIME* accessed,
                                 const FILETIME* modified) override {
        return m_privateRoot ? m_privateRoot->SetElementTimes(name, created, accessed, modified) : E_UNEXPECTED;
    }
    STDMETHODIMP SetClass(REFCLSID clsid) override {
        return m_privateRoot ? m_privateRoot->SetClass(clsid) : E_UNEXPECTED;
    }
    STDMETHODIMP SetStateBits(DWORD bits, DWORD mask) override {
        return m_privateRoot ? m_privateRoot->SetStateBits(bits, mask) : E_UNEXPECTED;
    }
    STDMETHODIMP Stat(STATSTG* stat, DWORD flags) override {
        return m_privateRoot ? m_privateRoot->Stat(stat, flags) : E_UNEXPECTED;
    }
};

// Every IStream call goes to the private stream, unchanged.
class COutriggedStream : public com::Object<COutriggedStream, IStream, com::FreeThreaded>, public COutriggedMedium {
public:
    // Copies the element in, at offset 0: S_OK, or S_FALSE when the file has
    // no stream of that name (the copy stays empty).
    HRESULT Load();
    void FinalRelease();

    STDMETHODIMP Read(void* data, ULONG size, ULONG* read) override {
        return m_privateStream ? m_privateStream->Read(data, size, read) : E_UNEXPECTED;
    }
    STDMETHODIMP Write(const void* data, ULONG size, ULONG* written) override {
        return m_privateStream ? m_privateStream->Write(data, size, written) : E_UNEXPECTED;
    }
    STDMETHODIMP Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* position) override {
        return m_privateStream ? m_privateStream->Seek(move, origin, position) : E_UNEXPECTED;
    }
    STDMETHODIMP SetSize(ULARGE_INTEGER size) override {
        return m_privateStream ? m_privateStream->SetSize(size) : E_UNEXPECTED;
    }
    STDMETHODIMP CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read, ULARGE_INTEGER* written) override {
        return m_privateStream ? m_privateStream->CopyTo(target, size, read, written) : E_UNEXPECTED;
    }
    STDMETHODIMP Commit(DWORD flags) override {
        return m_privateStream ? m_privateStream->Commit(flags) : E_UNEXPECTED;
    }
    STDMETHODIMP Revert() override { return m_privateStream ? m_privateStream->Revert() : E_UNEXPECTED; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) override {
        return m_privateStream ? m_privateStream->LockRegion(offset, size, type) : E_UNEXPECTED;
    }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) override {
        return m_privateStream ? m_privateStream->UnlockRegion(offset, size, type) : E_UNEXPECTED;
    }
    STDMETHODIMP Stat(STATSTG* stat, DWORD flags) override {
        return m_privateStream ? m_privateStream->Stat(stat, flags) : E_UNEXPECTED;
    }
    STDMETHODIMP Clone(IStream** clone) override {
        return m_privateStream ? m_privateStream->Clone(clone) : E_UNEXPECTED;
    }

private:
    // Released after the private root, when the object is destroyed.
    com::ComPtr<IStream> m_privateStream;
};

}  // namespace ky
