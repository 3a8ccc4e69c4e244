// The shared configuration store within one process: the manager's
// contract, what outrigged storages and streams do with their private copies,
// when the shared file changes, and the lock as other threads meet it.
#include <wrl/client.h>

#include <cwchar>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kytest.h"
#include "sharedconfig/sharedfile.h"
#include "sharedtest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr DWORD kShared = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

template <class T>
T* Sentinel() {
    return reinterpret_cast<T*>(static_cast<ULONG_PTR>(0x10));
}

HRESULT Put(IStorage* storage, const wchar_t* name, const std::string& bytes) {
    ComPtr<IStream> stream;
    HRESULT hr = storage->CreateStream(name, kShared | STGM_CREATE, 0, 0, &stream);
    return SUCCEEDED(hr) ? ReplaceStream(stream.Get(), bytes) : hr;
}

ULONGLONG Position(IStream* stream) {
    LARGE_INTEGER zero = {};
    ULARGE_INTEGER position = {};
    stream->Seek(zero, STREAM_SEEK_CUR, &position);
    return position.QuadPart;
}

// Files of this process's private temporary folder.
std::set<std::wstring> PrivateFiles() {
    ComPtr<IKyFileSystem> files;
    ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_IKyFileSystem, &files);
    BSTR folder = nullptr;
    files->GetTemporaryFolder(&folder);
    std::set<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE find = ::FindFirstFileW((std::wstring(folder) + L"*.tmp").c_str(), &found);
    ::SysFreeString(folder);
    if (find == INVALID_HANDLE_VALUE) return names;
    do names.insert(found.cFileName);
    while (::FindNextFileW(find, &found));
    ::FindClose(find);
    return names;
}

// Takes a file's lock on a thread of its own, as another holder would, and
// gives it back, or dies with it (abandoned).
class LockHolder {
public:
    explicit LockHolder(const std::wstring& path) : m_release(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        HANDLE held = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        m_thread = std::thread([this, held, name = LockName(path)] {
            HANDLE mutex = ::CreateMutexW(nullptr, FALSE, name.c_str());
            ::WaitForSingleObject(mutex, INFINITE);
            ::SetEvent(held);
            ::WaitForSingleObject(m_release, INFINITE);
            if (!m_abandon) ::ReleaseMutex(mutex);
            ::CloseHandle(mutex);
        });
        ::WaitForSingleObject(held, INFINITE);
        ::CloseHandle(held);
    }
    ~LockHolder() {
        ::SetEvent(m_release);
        m_thread.join();
        ::CloseHandle(m_release);
    }
    void Abandon() { m_abandon = true; }

private:
    HANDLE m_release;
    bool m_abandon = false;
    std::thread m_thread;
};

class SharedConfig : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_manager.Ok());
        m_file = ScratchFile(L"config");
    }
    void TearDown() override { ::DeleteFileW(m_file.c_str()); }

    HRESULT Stream(const wchar_t* name, ComPtr<IStream>* stream) { return m_manager.Stream(m_file, name, stream); }
    HRESULT Storage(const wchar_t* name, ComPtr<IStorage>* storage) { return m_manager.Storage(m_file, name, storage); }
    // The shared file as it is on disk (nobody else uses it here).
    std::string Shared() { return FileContents(m_file); }
    void PutShared(const wchar_t* name, const std::string& bytes) {
        ComPtr<IStorage> root;
        if (FAILED(::StgOpenStorage(m_file.c_str(), nullptr, kShared, nullptr, 0, &root))) {
            ASSERT_HR(S_OK, ::StgCreateDocfile(m_file.c_str(), kShared | STGM_CREATE, 0, &root));
        }
        ASSERT_HR(S_OK, Put(root.Get(), name, bytes));
    }

    Manager m_manager;
    std::wstring m_file;
};

TEST_F(SharedConfig, TheManagerRefusesMissingArgumentsAndLeavesTheResultAlone) {
    BSTR path = ::SysAllocString(m_file.c_str()), name = ::SysAllocString(L"s"), empty = ::SysAllocString(L"");
    IStream* stream = Sentinel<IStream>();
    IStorage* storage = Sentinel<IStorage>();
    for (BSTR bad : {static_cast<BSTR>(nullptr), empty}) {
        EXPECT_HR(E_INVALIDARG, m_manager->AcquireStream(bad, name, &stream));
        EXPECT_HR(E_INVALIDARG, m_manager->AcquireStorage(path, bad, &storage));
    }
    EXPECT_HR(E_INVALIDARG, m_manager->AcquireStream(path, name, nullptr));
    EXPECT_EQ(static_cast<DWORD>(INVALID_FILE_ATTRIBUTES), ::GetFileAttributesW(m_file.c_str()));

    // A file that is not a compound file, and a folder that does not exist:
    // the storage functions' own answers; the file is left as it was.
    HANDLE file = ::CreateFileW(m_file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    DWORD written = 0;
    ::WriteFile(file, "plain text", 10, &written, nullptr);
    ::CloseHandle(file);
    HRESULT hr = m_manager->AcquireStream(path, name, &stream);
    EXPECT_TRUE(FAILED(hr) && hr != E_FAIL) << Hex(hr);
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    ::GetFileAttributesExW(m_file.c_str(), GetFileExInfoStandard, &data);
    EXPECT_EQ(10u, data.nFileSizeLow);
    BSTR nowhere = ::SysAllocString((m_file + L".missing\\config.stg").c_str());
    hr = m_manager->AcquireStorage(nowhere, name, &storage);
    EXPECT_TRUE(FAILED(hr) && hr != E_FAIL) << Hex(hr);
    EXPECT_EQ(Sentinel<IStream>(), stream);
    EXPECT_EQ(Sentinel<IStorage>(), storage);
    for (BSTR text : {path, name, empty, nowhere}) ::SysFreeString(text);
}

TEST_F(SharedConfig, OnlyTheManagersInterfaceSupportsErrorInfoAndEveryObjectIsFreeThreaded) {
    ComPtr<ISupportErrorInfo> errorInfo;
    ASSERT_HR(S_OK, m_manager->QueryInterface(IID_PPV_ARGS(&errorInfo)));
    EXPECT_HR(S_OK, errorInfo->InterfaceSupportsErrorInfo(IID_IComStgOutriggedConfiguration));
    EXPECT_HR(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IStream));

    ComPtr<IStream> stream;
    ComPtr<IStorage> storage;
    ASSERT_HR(S_FALSE, Stream(L"s", &stream));
    ASSERT_HR(S_FALSE, Storage(L"g", &storage));
    // Handed to another apartment, each object arrives as itself.
    for (IUnknown* object : {static_cast<IUnknown*>(m_manager.operator->()), static_cast<IUnknown*>(stream.Get()),
                             static_cast<IUnknown*>(storage.Get())}) {
        IStream* marshaled = nullptr;
        ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IUnknown, object, &marshaled));
        ComPtr<IUnknown> arrived, identity;
        RunInApartment(COINIT_APARTMENTTHREADED,
                       [&] { ::CoGetInterfaceAndReleaseStream(marshaled, IID_PPV_ARGS(&arrived)); });
        object->QueryInterface(IID_PPV_ARGS(&identity));
        EXPECT_EQ(identity.Get(), arrived.Get());
    }
    // Each answers its own interface and nothing more.
    ComPtr<IUnknown> other;
    EXPECT_HR(E_NOINTERFACE, stream->QueryInterface(IID_ISequentialStream, &other));
    EXPECT_HR(E_NOINTERFACE, stream->QueryInterface(IID_IStorage, &other));
    EXPECT_HR(E_NOINTERFACE, storage->QueryInterface(IID_IPersist, &other));
}

TEST_F(SharedConfig, AStreamFromAMissingFileCreatesTheFileAndComesBackEmpty) {
    ComPtr<IStream> stream;
    ASSERT_HR(S_FALSE, Stream(L"settings", &stream));
    EXPECT_EQ("", Shared());  // the file exists now, with an empty root
    STATSTG stat = {};
    ASSERT_HR(S_OK, stream->Stat(&stat, STATFLAG_DEFAULT));
    EXPECT_EQ(0u, stat.cbSize.QuadPart);
    EXPECT_STREQ(L"settings", stat.pwcsName);
    ::CoTaskMemFree(stat.pwcsName);
    ASSERT_HR(S_OK, ReplaceStream(stream.Get(), "hello"));
    stream.Reset();
    EXPECT_EQ("settings=hello;", Shared());

    // From nothing and released untouched: an empty stream is left.
    ASSERT_HR(S_FALSE, Stream(L"untouched", &stream));
    stream.Reset();
    EXPECT_EQ("settings=hello;untouched=;", Shared());
}

TEST_F(SharedConfig, AStreamIsCopiedInAtOffsetZeroAndOutFromOffsetZero) {
    PutShared(L"s", "0123456789");
    ComPtr<IStream> stream;
    ASSERT_HR(S_OK, Stream(L"s", &stream));
    EXPECT_EQ(0u, Position(stream.Get()));
    // Appended at the end, then left in the middle: the whole goes back.
    LARGE_INTEGER offset = {};
    ASSERT_HR(S_OK, stream->Seek(offset, STREAM_SEEK_END, nullptr));
    ASSERT_HR(S_OK, stream->Write("ab", 2, nullptr));
    offset.QuadPart = 4;
    ASSERT_HR(S_OK, stream->Seek(offset, STREAM_SEEK_SET, nullptr));
    stream.Reset();
    EXPECT_EQ("s=0123456789ab;", Shared());

    // Beyond the small-stream limit, in and out.
    const std::string large = records::Make(5, 0);
    ASSERT_GT(large.size(), 4096u);
    ASSERT_HR(S_OK, Stream(L"s", &stream));
    ASSERT_HR(S_OK, ReplaceStream(stream.Get(), large));
    stream.Reset();
    ASSERT_HR(S_OK, Stream(L"s", &stream));
    EXPECT_EQ(large, ReadStream(stream.Get()));
}

TEST_F(SharedConfig, NothingReachesTheFileBeforeTheFinalReleaseAndTheLastReleaseWins) {
    PutShared(L"s", "old");
    ComPtr<IStream> first, second;
    ASSERT_HR(S_OK, Stream(L"s", &first));
    ASSERT_HR(S_OK, ReplaceStream(first.Get(), "first"));
    EXPECT_HR(S_OK, first->Commit(STGC_DEFAULT));
    EXPECT_EQ("s=old;", Shared());
    ASSERT_HR(S_OK, Stream(L"s", &second));
    EXPECT_EQ("old", ReadStream(second.Get()));

    ComPtr<IStream> alias = first;  // not the final release yet
    first.Reset();
    EXPECT_EQ("s=old;", Shared());
    alias.Reset();
    EXPECT_EQ("s=first;", Shared());
    // The other holder never wrote, but is released last: its copy stands.
    second.Reset();
    EXPECT_EQ("s=old;", Shared());
}

TEST_F(SharedConfig, ACloneReleasedAfterItsParentChangesNothing) {
    ComPtr<IStream> stream, clone;
    ASSERT_HR(S_FALSE, Stream(L"s", &stream));
    ASSERT_HR(S_OK, ReplaceStream(stream.Get(), "parent"));
    ASSERT_HR(S_OK, stream->Clone(&clone));
    LARGE_INTEGER start = {};
    ASSERT_HR(S_OK, clone->Seek(start, STREAM_SEEK_SET, nullptr));
    EXPECT_EQ(6u, Position(stream.Get()));  // a seek pointer of its own
    stream.Reset();
    clone->Write("clone!", 6, nullptr);  // into a copy that is gone
    clone.Reset();
    EXPECT_EQ("s=parent;", Shared());
}

TEST_F(SharedConfig, AStorageWorksOnItsPrivateCopyAndReplacesTheElementAsAWhole) {
    ComPtr<IStorage> storage;
    ASSERT_HR(S_FALSE, Storage(L"g", &storage));
    ASSERT_HR(S_OK, Put(storage.Get(), L"a", "1"));
    ASSERT_HR(S_OK, Put(storage.Get(), L"b", "2"));
    ComPtr<IStorage> nested;
    ASSERT_HR(S_OK, storage->CreateStorage(L"n", kShared, 0, 0, &nested));
    ASSERT_HR(S_OK, Put(nested.Get(), L"deep", "3"));
    nested.Reset();
    ComPtr<IStream> child;
    EXPECT_HR(STG_E_FILEALREADYEXISTS, storage->CreateStream(L"a", kShared, 0, 0, &child));
    EXPECT_HR(STG_E_FILENOTFOUND, storage->OpenStream(L"x", nullptr, kShared, 0, &child));
    EXPECT_HR(S_OK, storage->Commit(STGC_DEFAULT));
    EXPECT_EQ("", Shared());
    // Stat describes the private file in the private folder.
    STATSTG stat = {};
    ASSERT_HR(S_OK, storage->Stat(&stat, STATFLAG_DEFAULT));
    EXPECT_NE(nullptr, std::wcsstr(stat.pwcsName, L"\\KyUtils-")) << Narrow(stat.pwcsName);
    ::CoTaskMemFree(stat.pwcsName);
    // A child still held when its outrigged parent goes loses its backing.
    ASSERT_HR(S_OK, storage->OpenStream(L"a", nullptr, kShared, 0, &child));
    storage.Reset();
    EXPECT_TRUE(FAILED(child->Write("x", 1, nullptr)));
    EXPECT_EQ("g={a=1;b=2;n={deep=3;};};", Shared());

    ASSERT_HR(S_OK, Storage(L"g", &storage));
    ASSERT_HR(S_OK, storage->DestroyElement(L"b"));
    ASSERT_HR(S_OK, storage->DestroyElement(L"n"));
    ASSERT_HR(S_OK, Put(storage.Get(), L"c", "4"));
    storage.Reset();
    EXPECT_EQ("g={a=1;c=4;};", Shared());  // not merged
}

TEST_F(SharedConfig, AStorageAndAStreamOfOneNameReplaceEachOther) {
    PutShared(L"e", "stream data");
    ComPtr<IStorage> storage;
    ASSERT_HR(S_FALSE, Storage(L"e", &storage));  // a stream is no storage
    ASSERT_HR(S_OK, Put(storage.Get(), L"a", "inside"));
    storage.Reset();
    EXPECT_EQ("e={a=inside;};", Shared());
    ComPtr<IStream> stream;
    ASSERT_HR(S_FALSE, Stream(L"e", &stream));  // and a storage no stream
    ASSERT_HR(S_OK, ReplaceStream(stream.Get(), "again"));
    stream.Reset();
    EXPECT_EQ("e=again;", Shared());
}

TEST_F(SharedConfig, PrivateCopiesLiveExactlyAsLongAsTheirObjects) {
    const std::set<std::wstring> before = PrivateFiles();
    ComPtr<IStream> stream;
    ComPtr<IStorage> storage;
    ASSERT_HR(S_FALSE, Stream(L"s", &stream));
    ASSERT_HR(S_FALSE, Storage(L"g", &storage));
    EXPECT_EQ(before.size() + 2, PrivateFiles().size());
    stream.Reset();
    storage.Reset();
    EXPECT_EQ(before, PrivateFiles());
    EXPECT_TRUE(FAILED(m_manager.Stream(m_file + L".missing\\x.stg", L"s", &stream)));
    EXPECT_EQ(before, PrivateFiles());
    // Nor does a write-back leave its backup of the shared file.
    EXPECT_EQ(static_cast<DWORD>(INVALID_FILE_ATTRIBUTES),
              ::GetFileAttributesW(sharedfile::BackupPath(m_file.c_str()).c_str()));
}

TEST_F(SharedConfig, AWriteBackCutShortIsUndoneByTheNextLockHolder) {
    // What a write-back killed half-way leaves: its backup, and a file
    // rewritten up to some point.
    PutShared(L"s", "before");
    const std::wstring backup = sharedfile::BackupPath(m_file.c_str());
    ASSERT_TRUE(::CopyFileW(m_file.c_str(), backup.c_str(), FALSE));
    HANDLE file = ::CreateFileW(m_file.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    DWORD written = 0;
    ::WriteFile(file, "torn", 4, &written, nullptr);
    ::CloseHandle(file);

    ComPtr<IStream> stream;
    ASSERT_HR(S_OK, Stream(L"s", &stream));
    EXPECT_EQ("before", ReadStream(stream.Get()));
    EXPECT_EQ(static_cast<DWORD>(INVALID_FILE_ATTRIBUTES), ::GetFileAttributesW(backup.c_str()));
    stream.Reset();
    EXPECT_EQ("s=before;", Shared());
}

TEST_F(SharedConfig, AHolderOfTheLockUnderAnySpellingOfThePathMakesAcquisitionsFail) {
    PutShared(L"s", "kept");
    std::wstring upper = m_file;
    ::CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
    {
        LockHolder holder(m_file);  // the name computed here, from the user and the hash
        ComPtr<IStream> stream;
        EXPECT_HR(E_FAIL, m_manager.Stream(upper, L"s", &stream));
        ComPtr<IStorage> storage;
        EXPECT_HR(E_FAIL, Storage(L"g", &storage));
        // Another file has a lock of its own.
        const std::wstring other = ScratchFile(L"other");
        EXPECT_HR(S_FALSE, m_manager.Stream(other, L"s", &stream));
        stream.Reset();
        ::DeleteFileW(other.c_str());
    }
    // The discarded acquisitions' write-backs met the same lock and gave up.
    EXPECT_EQ("s=kept;", Shared());
}

TEST_F(SharedConfig, AnAbandonedLockCostsOneFailureAndTheDiscardedCopyReplacesTheElement) {
    PutShared(L"s", "data");
    PutShared(L"t", "other");
    // A live object keeps the mutex in existence while its holder dies
    // (with no handle left, the next acquisition would make a new one).
    ComPtr<IStream> keeper;
    ASSERT_HR(S_FALSE, Stream(L"keeper", &keeper));
    LockHolder(m_file).Abandon();
    ComPtr<IStream> stream;
    EXPECT_HR(E_FAIL, Stream(L"s", &stream));
    // That failure gave the lock back; its write-back then put its empty
    // copy in place of the element.
    EXPECT_EQ("s=;t=other;", Shared());
    ASSERT_HR(S_OK, Stream(L"s", &stream));

    LockHolder(m_file).Abandon();
    ComPtr<IStorage> storage;
    EXPECT_HR(E_FAIL, Storage(L"t", &storage));
    EXPECT_EQ("s=;t={};", Shared());
}

TEST_F(SharedConfig, ThreadsWorkingOnDifferentElementsKeepAllTheirUpdates) {
    // A manager made in a single-threaded apartment serves these threads
    // directly; each thread counts in an element of its own.
    Manager* fromSta = nullptr;
    RunInApartment(COINIT_APARTMENTTHREADED, [&] { fromSta = new Manager; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 25; ++round) {
                ComPtr<IStream> stream;
                if (FAILED(fromSta->Stream(m_file, std::to_wstring(t), &stream))) continue;
                const std::string text = ReadStream(stream.Get());
                ReplaceStream(stream.Get(), std::to_string(text.empty() ? 1 : std::stoi(text) + 1));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    delete fromSta;
    EXPECT_EQ("0=25;1=25;2=25;3=25;", Shared());
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
