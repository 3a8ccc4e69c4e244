// The shared configuration store within one process: what outrigged streams
// and storages do with their private copies, and when the shared file changes.
#include <filesystem>
#include <fstream>

#include "kytest.h"
#include "sharedtest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr DWORD kShared = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

HRESULT PutStream(IStorage* storage, const wchar_t* name, const std::string& bytes) {
    ComPtr<IStream> stream;
    HRESULT hr = storage->CreateStream(name, kShared | STGM_CREATE, 0, 0, &stream);
    return SUCCEEDED(hr) ? ReplaceStream(stream.Get(), bytes) : hr;
}

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void WriteText(const std::wstring& path, const std::string& text) {
    std::ofstream(std::filesystem::path(path), std::ios::binary) << text;
}

// How many files this process's private temporary folder holds.
std::ptrdiff_t PrivateFiles() {
    ComPtr<IKyFileSystem> files;
    com::Bstr folder;
    ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&files));
    files->GetTemporaryFolder(folder.Out());
    return std::distance(std::filesystem::directory_iterator(std::wstring(folder)), {});
}

class SharedConfig : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_manager.Ok()); }
    void TearDown() override { ::DeleteFileW(m_file.c_str()); }

    HRESULT Stream(const wchar_t* name, ComPtr<IStream>* stream) { return m_manager.Stream(m_file, name, stream); }
    HRESULT Storage(const wchar_t* name, ComPtr<IStorage>* storage) { return m_manager.Storage(m_file, name, storage); }
    std::string Shared() { return FileContents(m_file); }

    Manager m_manager;
    const std::wstring m_file = ScratchFile(L"config");
};

// A file that cannot be used fails with what the storage functions say of it
// (created where missing, else opened) and is left as it was.
TEST_F(SharedConfig, BadArgumentsAndUnusableFilesFail) {
    com::Bstr path(m_file.c_str()), name(L"s"), empty(L"");
    ComPtr<IStream> stream;
    ComPtr<IStorage> storage;
    for (BSTR bad : {static_cast<BSTR>(nullptr), empty.Get()}) {
        EXPECT_HR(E_INVALIDARG, m_manager->AcquireStream(bad, name, &stream));
        EXPECT_HR(E_INVALIDARG, m_manager->AcquireStorage(path, bad, &storage));
    }
    EXPECT_HR(E_INVALIDARG, m_manager->AcquireStream(path, name, nullptr));
    EXPECT_FALSE(Exists(m_file));
    // Plain text, a missing folder, a folder.
    const std::wstring folder = m_file + L".folder";
    WriteText(m_file, "plain text");
    ::CreateDirectoryW(folder.c_str(), nullptr);
    const auto privateFiles = PrivateFiles();
    for (const std::wstring& unusable : {m_file, m_file + L".missing\\config.stg", folder}) {
        ComPtr<IStorage> plain;
        HRESULT expected = ::StgCreateDocfile(unusable.c_str(), kShared, 0, &plain);
        if (FAILED(expected)) expected = ::StgOpenStorage(unusable.c_str(), nullptr, kShared, nullptr, 0, &plain);
        EXPECT_TRUE(FAILED(expected));
        EXPECT_HR(expected, m_manager.Storage(unusable, L"g", &storage)) << Narrow(unusable);
    }
    EXPECT_EQ(privateFiles, PrivateFiles());  // no private copy left behind
    EXPECT_EQ("<no file>", FileContents(m_file));  // still the plain text
    ::RemoveDirectoryW(folder.c_str());
}

TEST_F(SharedConfig, EveryObjectIsFreeThreaded) {
    ComPtr<IStream> stream;
    ComPtr<IStorage> storage;
    ASSERT_HR(S_FALSE, Stream(L"s", &stream));
    ASSERT_HR(S_FALSE, Storage(L"g", &storage));
    // Handed to another apartment, each object arrives as itself.
    for (IUnknown* object : std::initializer_list<IUnknown*>{m_manager.operator->(), stream.Get(), storage.Get()}) {
        IStream* marshaled = nullptr;
        ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IUnknown, object, &marshaled));
        ComPtr<IUnknown> arrived, identity;
        RunInApartment(COINIT_APARTMENTTHREADED,
                       [&] { ::CoGetInterfaceAndReleaseStream(marshaled, IID_PPV_ARGS(&arrived)); });
        object->QueryInterface(IID_PPV_ARGS(&identity));
        EXPECT_EQ(identity.Get(), arrived.Get());
    }
}

// Copied in at offset zero (S_FALSE and empty when missing, the file created),
// written back whole at the final release only; the last release wins, and
// a clone's writes after it go nowhere.
TEST_F(SharedConfig, AStreamIsAPrivateCopyWrittenBackWholeAtItsFinalRelease) {
    const auto privateFiles = PrivateFiles();
    ComPtr<IStream> stream, other, clone;
    ASSERT_HR(S_FALSE, Stream(L"s", &stream));
    EXPECT_EQ("", Shared());
    ASSERT_HR(S_FALSE, Stream(L"untouched", &other));
    EXPECT_EQ(privateFiles + 2, PrivateFiles());
    other.Reset();
    ASSERT_HR(S_OK, ReplaceStream(stream.Get(), "0123456789"));
    stream.Reset();
    EXPECT_EQ("s=0123456789;untouched=;", Shared());

    ASSERT_HR(S_OK, Stream(L"s", &stream));
    ULARGE_INTEGER position = {1};
    LARGE_INTEGER offset = {};
    ASSERT_HR(S_OK, stream->Seek(offset, STREAM_SEEK_CUR, &position));
    EXPECT_EQ(0u, position.QuadPart);
    ASSERT_HR(S_OK, stream->Seek(offset, STREAM_SEEK_END, nullptr));
    ASSERT_HR(S_OK, stream->Write("ab", 2, nullptr));
    offset.QuadPart = 4;
    ASSERT_HR(S_OK, stream->Seek(offset, STREAM_SEEK_SET, nullptr));  // left in the middle
    EXPECT_HR(S_OK, stream->Commit(STGC_DEFAULT));
    ASSERT_HR(S_OK, stream->Clone(&clone));
    ASSERT_HR(S_OK, Stream(L"s", &other));  // a second holder, which writes nothing
    ComPtr<IStream> alias = stream;
    stream.Reset();
    EXPECT_EQ("s=0123456789;untouched=;", Shared());
    alias.Reset();
    EXPECT_EQ("s=0123456789ab;untouched=;", Shared());
    clone->Write("clone!", 6, nullptr);
    clone.Reset();
    EXPECT_EQ("s=0123456789ab;untouched=;", Shared());
    other.Reset();
    EXPECT_EQ("s=0123456789;untouched=;", Shared());
    EXPECT_EQ(privateFiles, PrivateFiles());  // the private copies and the journal go with their objects
    EXPECT_FALSE(Exists(m_file + L".kyjournal"));
}

// A storage's private copy replaces the element as a whole; a stream where a
// storage is asked for (and the reverse) counts as missing.
TEST_F(SharedConfig, AStorageIsAPrivateCopyThatReplacesTheElementAsAWhole) {
    ASSERT_HR(S_OK, m_manager.Put(m_file, L"g", "stream data"));
    ComPtr<IStorage> storage, nested;
    ASSERT_HR(S_FALSE, Storage(L"g", &storage));
    ASSERT_HR(S_OK, PutStream(storage.Get(), L"a", "1"));
    ASSERT_HR(S_OK, PutStream(storage.Get(), L"b", "2"));
    ASSERT_HR(S_OK, storage->CreateStorage(L"n", kShared, 0, 0, &nested));
    ASSERT_HR(S_OK, PutStream(nested.Get(), L"deep", "3"));
    nested.Reset();
    EXPECT_HR(S_OK, storage->Commit(STGC_DEFAULT));
    EXPECT_EQ("g=stream data;", Shared());
    storage.Reset();
    EXPECT_EQ("g={a=1;b=2;n={deep=3;};};", Shared());

    ASSERT_HR(S_OK, Storage(L"g", &storage));
    ASSERT_HR(S_OK, storage->DestroyElement(L"b"));
    ASSERT_HR(S_OK, storage->DestroyElement(L"n"));
    ASSERT_HR(S_OK, PutStream(storage.Get(), L"c", "4"));
    storage.Reset();
    EXPECT_EQ("g={a=1;c=4;};", Shared());  // not merged
    ComPtr<IStream> stream;
    ASSERT_HR(S_FALSE, Stream(L"g", &stream));
    stream.Reset();
    EXPECT_EQ("g=;", Shared());
}

// Whatever lies beside the shared file, a completed write-back stays: files of
// the journal's name (garbage, empty, a compound file with older contents),
// backup copies, and such files held open so that they cannot be deleted, or
// held with no sharing at all, so that they cannot even be read.
TEST_F(SharedConfig, NothingBesideTheFileUndoesOrBlocksACompletedWriteBack) {
    ASSERT_HR(S_OK, m_manager.Put(m_file, L"s", "old"));
    const std::wstring oldCopy = m_file + L".old";
    ASSERT_TRUE(::CopyFileW(m_file.c_str(), oldCopy.c_str(), FALSE));
    constexpr DWORD kFree = ~0u, kShared = FILE_SHARE_READ | FILE_SHARE_WRITE;
    const struct {
        const wchar_t* suffix;
        const char* content;  // null: a copy of the file with "old" in it
        DWORD held;           // the sharing it is held open with during the write-back
    } leftovers[] = {
        {L".kyjournal", "garbage", kFree}, {L".kyjournal", "", kFree},      {L".kyjournal", nullptr, kFree},
        {L".kyjournal-1", nullptr, kFree}, {L".kybackup", nullptr, kFree},  {L".kybackup", "garbage", kFree},
        {L".kyjournal", "", kShared},      {L".kybackup", nullptr, kShared}, {L".kyjournal", nullptr, 0},
    };
    int round = 0;
    for (const auto& leftover : leftovers) {
        const std::wstring path = m_file + leftover.suffix;
        SCOPED_TRACE(round);
        if (leftover.content) WriteText(path, leftover.content);
        else ASSERT_TRUE(::CopyFileW(oldCopy.c_str(), path.c_str(), FALSE));
        com::Handle holder(leftover.held != kFree ? ::CreateFileW(path.c_str(), GENERIC_READ, leftover.held, nullptr,
                                                                  OPEN_EXISTING, 0, nullptr)
                                                  : nullptr);
        const std::string value = "new " + std::to_string(++round);
        ASSERT_HR(S_OK, m_manager.Put(m_file, L"s", value));
        holder.Close();
        ComPtr<IStream> stream;  // an acquisition rolls back what it takes for a journal
        ASSERT_HR(S_OK, Stream(L"s", &stream));
        EXPECT_EQ(value, ReadStream(stream.Get()));
        ::DeleteFileW(path.c_str());
    }
    ::DeleteFileW(oldCopy.c_str());
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
