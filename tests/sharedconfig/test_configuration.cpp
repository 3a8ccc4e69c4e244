// The shared configuration store within one process: the manager's
// contract, what outrigged storages and streams do with their private copies,
// when the shared file changes, and the lock as other threads meet it.
#include <wrl/client.h>

#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kytest.h"
#include "sharedtest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr DWORD kShared = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

template <class T>
T* Sentinel() {
    return reinterpret_cast<T*>(static_cast<ULONG_PTR>(0x10));
}

class SharedConfig : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_manager.Ok());
        m_file = ScratchFile(L"config");
    }
    void TearDown() override { ::DeleteFileW(m_file.c_str()); }

    HRESULT Stream(const wchar_t* name, ComPtr<IStream>* stream, const std::wstring* file = nullptr) {
        return m_manager.Stream(file ? *file : m_file, name, stream);
    }
    HRESULT Storage(const wchar_t* name, ComPtr<IStorage>* storage) { return m_manager.Storage(m_file, name, storage); }

    // The shared file as it is on disk (nobody else uses it in these tests).
    ComPtr<IStorage> SharedRoot(DWORD mode = STGM_READ | STGM_SHARE_EXCLUSIVE) {
        ComPtr<IStorage> root;
        ::StgOpenStorage(m_file.c_str(), nullptr, mode, nullptr, 0, &root);
        return root;
    }
    // The element's type in the shared file; 0 when it is missing.
    DWORD SharedType(const wchar_t* name) {
        ComPtr<IStorage> root = SharedRoot();
        if (!root) return 0;
        ComPtr<IEnumSTATSTG> elements;
        root->EnumElements(0, nullptr, 0, &elements);
        STATSTG stat;
        DWORD type = 0;
        while (elements->Next(1, &stat, nullptr) == S_OK) {
            if (std::wstring(stat.pwcsName) == name) type = stat.type;
            ::CoTaskMemFree(stat.pwcsName);
        }
        return type;
    }
    std::string SharedStream(const wchar_t* name) {
        ComPtr<IStorage> root = SharedRoot();
        ComPtr<IStream> stream;
        if (!root || FAILED(root->OpenStream(name, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream)))
            return "<missing>";
        return ReadStream(stream.Get());
    }
    // The streams of a child storage of the shared file, with their contents.
    std::map<std::wstring, std::string> SharedStorage(const wchar_t* name) {
        std::map<std::wstring, std::string> streams;
        ComPtr<IStorage> root = SharedRoot();
        ComPtr<IStorage> storage;
        if (!root || FAILED(root->OpenStorage(name, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &storage)))
            return {{L"<missing>", ""}};
        return Streams(storage.Get());
    }
    static std::map<std::wstring, std::string> Streams(IStorage* storage) {
        std::map<std::wstring, std::string> streams;
        ComPtr<IEnumSTATSTG> elements;
        storage->EnumElements(0, nullptr, 0, &elements);
        STATSTG stat;
        while (elements->Next(1, &stat, nullptr) == S_OK) {
            ComPtr<IStream> stream;
            storage->OpenStream(stat.pwcsName, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream);
            streams[stat.pwcsName] = stream ? ReadStream(stream.Get()) : "<storage>";
            ::CoTaskMemFree(stat.pwcsName);
        }
        return streams;
    }
    void PutSharedStream(const wchar_t* name, const std::string& bytes) {
        ComPtr<IStorage> root;
        if (FAILED(::StgOpenStorage(m_file.c_str(), nullptr, kShared, nullptr, 0, &root))) {
            ASSERT_HR(S_OK, ::StgCreateDocfile(m_file.c_str(), kShared | STGM_CREATE, 0, &root));
        }
        ComPtr<IStream> stream;
        ASSERT_HR(S_OK, root->CreateStream(name, kShared | STGM_CREATE, 0, 0, &stream));
        ASSERT_HR(S_OK, ReplaceStream(stream.Get(), bytes));
    }

    Manager m_manager;
    std::wstring m_file;
};

std::string Text(IStream* stream) { return ReadStream(stream); }

ULONGLONG Position(IStream* stream) {
    LARGE_INTEGER zero = {};
    ULARGE_INTEGER position = {};
    EXPECT_HR(S_OK, stream->Seek(zero, STREAM_SEEK_CUR, &position));
    return position.QuadPart;
}

HRESULT Put(IStorage* storage, const wchar_t* name, const std::string& bytes) {
    ComPtr<IStream> stream;
    HRESULT hr = storage->CreateStream(name, kShared | STGM_CREATE, 0, 0, &stream);
    return SUCCEEDED(hr) ? ReplaceStream(stream.Get(), bytes) : hr;
}

// Files of this process's private temporary folder, its marker left out.
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

// Holds a file's lock on a thread of its own, as another holder would.
class LockHolder {
public:
    explicit LockHolder(const std::wstring& path) {
        m_held = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        m_release = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        m_thread = std::thread([this, name = LockName(path)] {
            HANDLE mutex = ::CreateMutexW(nullptr, FALSE, name.c_str());
            ::WaitForSingleObject(mutex, INFINITE);
            ::SetEvent(m_held);
            if (::WaitForSingleObject(m_release, INFINITE) == WAIT_OBJECT_0 && !m_abandon) ::ReleaseMutex(mutex);
            ::CloseHandle(mutex);
        });
        ::WaitForSingleObject(m_held, INFINITE);
    }
    // Ends the holding thread without releasing: the mutex is abandoned.
    void Abandon() {
        m_abandon = true;
        Release();
    }
    void Release() {
        if (!m_thread.joinable()) return;
        ::SetEvent(m_release);
        m_thread.join();
    }
    ~LockHolder() {
        Release();
        ::CloseHandle(m_held);
        ::CloseHandle(m_release);
    }

private:
    HANDLE m_held, m_release;
    bool m_abandon = false;
    std::thread m_thread;
};

TEST_F(SharedConfig, TheManagerRefusesMissingArgumentsAndLeavesTheResultAlone) {
    BSTR path = ::SysAllocString(m_file.c_str()), name = ::SysAllocString(L"s"), empty = ::SysAllocString(L"");
    IStream* stream = Sentinel<IStream>();
    IStorage* storage = Sentinel<IStorage>();
    for (BSTR badPath : {static_cast<BSTR>(nullptr), empty}) {
        EXPECT_HR(E_INVALIDARG, m_manager->AcquireStream(badPath, name, &stream));
        EXPECT_HR(E_INVALIDARG, m_manager->AcquireStorage(badPath, name, &storage));
        EXPECT_HR(E_INVALIDARG, m_manager->AcquireStream(path, badPath, &stream));
        EXPECT_HR(E_INVALIDARG, m_manager->AcquireStorage(path, badPath, &storage));
    }
    EXPECT_HR(E_INVALIDARG, m_manager->AcquireStream(path, name, nullptr));
    EXPECT_HR(E_INVALIDARG, m_manager->AcquireStorage(path, name, nullptr));
    EXPECT_EQ(Sentinel<IStream>(), stream);
    EXPECT_EQ(Sentinel<IStorage>(), storage);
    EXPECT_EQ(static_cast<DWORD>(INVALID_FILE_ATTRIBUTES), ::GetFileAttributesW(m_file.c_str()));

    // A file that is not a compound file, and a folder that does not exist:
    // the storage functions' own answers, and the file is left as it was.
    HANDLE file = ::CreateFileW(m_file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    DWORD written = 0;
    ::WriteFile(file, "plain text", 10, &written, nullptr);
    ::CloseHandle(file);
    HRESULT hr = m_manager->AcquireStream(path, name, &stream);
    EXPECT_TRUE(FAILED(hr) && hr != E_FAIL) << Hex(hr);
    EXPECT_EQ(Sentinel<IStream>(), stream);
    WIN32_FILE_ATTRIBUTE_DATA data;
    ASSERT_TRUE(::GetFileAttributesExW(m_file.c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(10u, data.nFileSizeLow);
    BSTR nowhere = ::SysAllocString((m_file + L".missing\\config.stg").c_str());
    hr = m_manager->AcquireStorage(nowhere, name, &storage);
    EXPECT_TRUE(FAILED(hr) && hr != E_FAIL) << Hex(hr);
    EXPECT_EQ(Sentinel<IStorage>(), storage);
    for (BSTR text : {path, name, empty, nowhere}) ::SysFreeString(text);
}

TEST_F(SharedConfig, OnlyTheManagersInterfaceSupportsErrorInfoAndEveryObjectIsFreeThreaded) {
    ComPtr<ISupportErrorInfo> errorInfo;
    ASSERT_HR(S_OK, m_manager->QueryInterface(IID_PPV_ARGS(&errorInfo)));
    EXPECT_HR(S_OK, errorInfo->InterfaceSupportsErrorInfo(IID_IComStgOutriggedConfiguration));
    EXPECT_HR(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IUnknown));
    EXPECT_HR(S_FALSE, errorInfo->InterfaceSupportsErrorInfo(IID_IStream));
    ComPtr<IDispatch> dispatch;
    EXPECT_HR(E_NOINTERFACE, m_manager->QueryInterface(IID_PPV_ARGS(&dispatch)));

    // Handed to another apartment, each object arrives as itself, not as a proxy.
    auto expectFreeThreaded = [](IUnknown* object) {
        IStream* marshaled = nullptr;
        ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IUnknown, object, &marshaled));
        IUnknown* arrived = nullptr;
        RunInApartment(COINIT_APARTMENTTHREADED, [&] {
            EXPECT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_IUnknown,
                                                             reinterpret_cast<void**>(&arrived)));
        });
        ComPtr<IUnknown> identity;
        object->QueryInterface(IID_PPV_ARGS(&identity));
        EXPECT_EQ(identity.Get(), arrived);
        if (arrived) arrived->Release();
    };
    expectFreeThreaded(m_manager.operator->());
    ComPtr<IStream> stream;
    ASSERT_HR(S_FALSE, Stream(L"s", &stream));
    expectFreeThreaded(stream.Get());
    ComPtr<IStorage> storage;
    ASSERT_HR(S_FALSE, Storage(L"g", &storage));
    expectFreeThreaded(storage.Get());
    // Each answers its own interface and nothing else.
    ComPtr<IUnknown> other;
    EXPECT_HR(E_NOINTERFACE, stream->QueryInterface(IID_IStorage, &other));
    EXPECT_HR(E_NOINTERFACE, stream->QueryInterface(IID_ISequentialStream, &other));
    EXPECT_HR(E_NOINTERFACE, storage->QueryInterface(IID_IStream, &other));
    EXPECT_HR(E_NOINTERFACE, storage->QueryInterface(IID_IPersist, &other));
    EXPECT_HR(E_NOINTERFACE, storage->QueryInterface(IID_ISupportErrorInfo, &other));
}

TEST_F(SharedConfig, AStreamFromAMissingFileCreatesTheFileAndComesBackEmpty) {
    ComPtr<IStream> stream;
    ASSERT_HR(S_FALSE, Stream(L"settings", &stream));
    EXPECT_EQ(0u, Position(stream.Get()));
    STATSTG stat = {};
    ASSERT_HR(S_OK, stream->Stat(&stat, STATFLAG_DEFAULT));
    EXPECT_EQ(0u, stat.cbSize.QuadPart);
    EXPECT_STREQ(L"settings", stat.pwcsName);  // the private stream bears the element's name
    ::CoTaskMemFree(stat.pwcsName);
    // The file exists now, with an empty root.
    EXPECT_EQ(0u, Streams(SharedRoot().Get()).size());

    ASSERT_HR(S_OK, ReplaceStream(stream.Get(), "hello"));
    stream.Reset();
    EXPECT_EQ("hello", SharedStream(L"settings"));

    // Acquired from nothing and released untouched: an empty stream is left.
    ASSERT_HR(S_FALSE, Stream(L"untouched", &stream));
    stream.Reset();
    EXPECT_EQ(static_cast<DWORD>(STGTY_STREAM), SharedType(L"untouched"));
    EXPECT_EQ("", SharedStream(L"untouched"));
}

TEST_F(SharedConfig, AStreamIsCopiedInAtOffsetZeroAndOutFromOffsetZero) {
    PutSharedStream(L"s", "0123456789");
    ComPtr<IStream> stream;
    ASSERT_HR(S_OK, Stream(L"s", &stream));
    EXPECT_EQ(0u, Position(stream.Get()));
    char head[4] = {};
    ULONG read = 0;
    ASSERT_HR(S_OK, stream->Read(head, 3, &read));
    EXPECT_EQ(std::string("012"), std::string(head, read));

    // Appended at the end, then left in the middle: the whole stream goes back.
    LARGE_INTEGER offset = {};
    ASSERT_HR(S_OK, stream->Seek(offset, STREAM_SEEK_END, nullptr));
    ASSERT_HR(S_OK, stream->Write("ab", 2, nullptr));
    offset.QuadPart = 4;
    ASSERT_HR(S_OK, stream->Seek(offset, STREAM_SEEK_SET, nullptr));
    stream.Reset();
    EXPECT_EQ("0123456789ab", SharedStream(L"s"));

    // Larger than the small-stream limit, in and out.
    const std::string large = records::Make(5, 0);
    ASSERT_GT(large.size(), 4096u);
    ASSERT_HR(S_OK, Stream(L"s", &stream));
    ASSERT_HR(S_OK, ReplaceStream(stream.Get(), large));
    stream.Reset();
    EXPECT_EQ(large, SharedStream(L"s"));
    ASSERT_HR(S_OK, Stream(L"s", &stream));
    EXPECT_EQ(large, Text(stream.Get()));
}

TEST_F(SharedConfig, NothingReachesTheSharedFileBeforeTheFinalReleaseAndTheLastReleaseWins) {
    PutSharedStream(L"s", "old");
    ComPtr<IStream> first, second;
    ASSERT_HR(S_OK, Stream(L"s", &first));
    ASSERT_HR(S_OK, ReplaceStream(first.Get(), "first"));
    EXPECT_HR(S_OK, first->Commit(STGC_DEFAULT));
    EXPECT_EQ("old", SharedStream(L"s"));
    ASSERT_HR(S_OK, Stream(L"s", &second));
    EXPECT_EQ("old", Text(second.Get()));

    // A second reference keeps the first holder alive: no write-back yet.
    ComPtr<IStream> alias = first;
    first.Reset();
    EXPECT_EQ("old", SharedStream(L"s"));
    alias.Reset();
    EXPECT_EQ("first", SharedStream(L"s"));
    // The other holder never wrote, but is released last: its copy stands.
    second.Reset();
    EXPECT_EQ("old", SharedStream(L"s"));
}

TEST_F(SharedConfig, ACloneReleasedAfterItsParentChangesNothing) {
    ComPtr<IStream> stream, clone;
    ASSERT_HR(S_FALSE, Stream(L"s", &stream));
    ASSERT_HR(S_OK, ReplaceStream(stream.Get(), "parent"));
    ASSERT_HR(S_OK, stream->Clone(&clone));
    // The clone shares the data but has its own seek pointer.
    EXPECT_EQ(6u, Position(stream.Get()));
    EXPECT_EQ(6u, Position(clone.Get()));
    LARGE_INTEGER start = {};
    ASSERT_HR(S_OK, clone->Seek(start, STREAM_SEEK_SET, nullptr));
    EXPECT_EQ(6u, Position(stream.Get()));

    stream.Reset();
    EXPECT_EQ("parent", SharedStream(L"s"));
    clone->Write("clone!", 6, nullptr);  // into a copy that is gone
    clone.Reset();
    EXPECT_EQ("parent", SharedStream(L"s"));
}

TEST_F(SharedConfig, AStorageCallsGoToItsPrivateCopy) {
    ComPtr<IStorage> storage;
    ASSERT_HR(S_FALSE, Storage(L"g", &storage));
    EXPECT_EQ(0u, Streams(storage.Get()).size());
    ASSERT_HR(S_OK, Put(storage.Get(), L"a", "alpha"));
    ComPtr<IStream> child;
    EXPECT_HR(STG_E_FILEALREADYEXISTS, storage->CreateStream(L"a", kShared, 0, 0, &child));
    EXPECT_HR(STG_E_FILENOTFOUND, storage->OpenStream(L"nothing", nullptr, kShared, 0, &child));
    EXPECT_HR(S_OK, storage->Commit(STGC_DEFAULT));
    EXPECT_EQ(0u, SharedType(L"g"));  // the load made the file, and nothing else

    // Stat describes the private file, which lives in the private folder.
    STATSTG stat = {};
    ASSERT_HR(S_OK, storage->Stat(&stat, STATFLAG_DEFAULT));
    const std::wstring name = stat.pwcsName;
    ::CoTaskMemFree(stat.pwcsName);
    EXPECT_EQ(static_cast<DWORD>(STGTY_STORAGE), stat.type);
    EXPECT_NE(std::wstring::npos, name.find(L"\\KyUtils-")) << Narrow(name);

    // A child still held when its outrigged parent goes loses its backing.
    ASSERT_HR(S_OK, storage->OpenStream(L"a", nullptr, kShared, 0, &child));
    storage.Reset();
    EXPECT_EQ((std::map<std::wstring, std::string>{{L"a", "alpha"}}), SharedStorage(L"g"));
    EXPECT_TRUE(FAILED(child->Write("x", 1, nullptr)));
}

TEST_F(SharedConfig, AStorageReplacesItsElementAsAWhole) {
    {
        ComPtr<IStorage> storage;
        ASSERT_HR(S_FALSE, Storage(L"g", &storage));
        ASSERT_HR(S_OK, Put(storage.Get(), L"a", "1"));
        ASSERT_HR(S_OK, Put(storage.Get(), L"b", "2"));
        ComPtr<IStorage> nested;
        ASSERT_HR(S_OK, storage->CreateStorage(L"n", kShared, 0, 0, &nested));
        ASSERT_HR(S_OK, Put(nested.Get(), L"deep", "3"));
    }
    EXPECT_EQ((std::map<std::wstring, std::string>{{L"a", "1"}, {L"b", "2"}, {L"n", "<storage>"}}),
              SharedStorage(L"g"));
    {
        ComPtr<IStorage> storage;
        ASSERT_HR(S_OK, Storage(L"g", &storage));
        EXPECT_EQ((std::map<std::wstring, std::string>{{L"a", "1"}, {L"b", "2"}, {L"n", "<storage>"}}),
                  Streams(storage.Get()));
        ASSERT_HR(S_OK, storage->DestroyElement(L"b"));
        ASSERT_HR(S_OK, storage->DestroyElement(L"n"));
        ASSERT_HR(S_OK, Put(storage.Get(), L"c", "4"));
    }
    // Not merged: what the copy lost is gone from the file.
    EXPECT_EQ((std::map<std::wstring, std::string>{{L"a", "1"}, {L"c", "4"}}), SharedStorage(L"g"));
}

TEST_F(SharedConfig, AStorageAndAStreamOfOneNameReplaceEachOther) {
    PutSharedStream(L"e", "stream data");
    {
        ComPtr<IStorage> storage;
        ASSERT_HR(S_FALSE, Storage(L"e", &storage));  // a stream is no storage
        EXPECT_EQ(0u, Streams(storage.Get()).size());
        ASSERT_HR(S_OK, Put(storage.Get(), L"a", "inside"));
    }
    EXPECT_EQ(static_cast<DWORD>(STGTY_STORAGE), SharedType(L"e"));
    EXPECT_EQ((std::map<std::wstring, std::string>{{L"a", "inside"}}), SharedStorage(L"e"));
    {
        ComPtr<IStream> stream;
        ASSERT_HR(S_FALSE, Stream(L"e", &stream));  // and a storage no stream
        EXPECT_EQ("", Text(stream.Get()));
        ASSERT_HR(S_OK, ReplaceStream(stream.Get(), "again"));
    }
    EXPECT_EQ(static_cast<DWORD>(STGTY_STREAM), SharedType(L"e"));
    EXPECT_EQ("again", SharedStream(L"e"));
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
    // A failed acquisition leaves nothing behind either.
    BSTR path = ::SysAllocString((m_file + L".missing\\x.stg").c_str()), name = ::SysAllocString(L"s");
    IStream* failed = nullptr;
    EXPECT_TRUE(FAILED(m_manager->AcquireStream(path, name, &failed)));
    ::SysFreeString(path);
    ::SysFreeString(name);
    EXPECT_EQ(before, PrivateFiles());
}

TEST_F(SharedConfig, AHolderOfTheLockUnderAnySpellingOfThePathMakesAcquisitionsFail) {
    PutSharedStream(L"s", "kept");
    std::wstring upper = m_file;
    ::CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
    {
        // The name computed here from the user and the path's hash.
        LockHolder holder(m_file);
        IStream* stream = Sentinel<IStream>();
        BSTR path = ::SysAllocString(upper.c_str()), name = ::SysAllocString(L"s");
        EXPECT_HR(E_FAIL, m_manager->AcquireStream(path, name, &stream));
        EXPECT_EQ(Sentinel<IStream>(), stream);
        IStorage* storage = Sentinel<IStorage>();
        EXPECT_HR(E_FAIL, m_manager->AcquireStorage(path, name, &storage));
        ::SysFreeString(path);
        ::SysFreeString(name);
        // Another file has a lock of its own.
        const std::wstring other = ScratchFile(L"other");
        ComPtr<IStream> free;
        EXPECT_HR(S_FALSE, Stream(L"s", &free, &other));
        free.Reset();
        ::DeleteFileW(other.c_str());
    }
    // The discarded acquisitions' write-backs met the same lock and gave up.
    EXPECT_EQ("kept", SharedStream(L"s"));
}

TEST_F(SharedConfig, AnAbandonedLockCostsOneFailureAndTheDiscardedCopyReplacesTheElement) {
    PutSharedStream(L"s", "data");
    {
        ComPtr<IStorage> storage;
        ASSERT_HR(S_FALSE, Storage(L"g", &storage));
        ASSERT_HR(S_OK, Put(storage.Get(), L"a", "1"));
    }
    // A live object keeps the mutex in existence while its holder dies
    // (with no handle left, the next acquisition would make a new one).
    ComPtr<IStream> keeper;
    ASSERT_HR(S_FALSE, Stream(L"keeper", &keeper));

    LockHolder(m_file).Abandon();
    ComPtr<IStream> stream;
    EXPECT_HR(E_FAIL, Stream(L"s", &stream));
    // That failure gave the lock back; its write-back then put its empty
    // copy in place of the element.
    ASSERT_HR(S_OK, Stream(L"s", &stream));
    EXPECT_EQ("", Text(stream.Get()));
    stream.Reset();

    LockHolder(m_file).Abandon();
    ComPtr<IStorage> storage;
    EXPECT_HR(E_FAIL, Storage(L"g", &storage));
    ASSERT_HR(S_OK, Storage(L"g", &storage));
    EXPECT_EQ(0u, Streams(storage.Get()).size());
}

TEST_F(SharedConfig, ThreadsWorkingOnDifferentElementsKeepAllTheirUpdates) {
    // A manager made in a single-threaded apartment serves these threads
    // directly; each thread counts in an element of its own.
    Manager* fromSta = nullptr;
    RunInApartment(COINIT_APARTMENTTHREADED, [&] { fromSta = new Manager; });
    ASSERT_TRUE(fromSta->Ok());
    constexpr int kThreads = 4, kRounds = 25;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            const std::wstring name = L"count" + std::to_wstring(t);
            for (int round = 0; round < kRounds; ++round) {
                ComPtr<IStream> stream;
                if (FAILED(fromSta->Stream(m_file, name, &stream))) {
                    ++failures[t];
                    continue;
                }
                const std::string text = Text(stream.Get());
                ReplaceStream(stream.Get(), std::to_string(text.empty() ? 1 : std::stoi(text) + 1));
            }
            ::CoUninitialize();
        });
    }
    for (auto& thread : threads) thread.join();
    delete fromSta;
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(0, failures[t]);
        EXPECT_EQ(std::to_string(kRounds), SharedStream((L"count" + std::to_wstring(t)).c_str()));
    }
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
