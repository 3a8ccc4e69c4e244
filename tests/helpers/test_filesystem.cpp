// IKyFileSystem: the application's folders, directory creation and the
// process's private temporary folder with its owner marker.
#include <shlobj.h>
#include <wrl/client.h>

#include <set>
#include <string>

#include "com/raii.h"
#include "helpers/tempfolder.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

std::wstring ShellPath(int csidl) {
    wchar_t path[MAX_PATH] = {};
    ::SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path);
    return path;
}

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// Entries of a folder, the marker left out.
std::set<std::wstring> FilesIn(const std::wstring& folder) {
    std::set<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE find = ::FindFirstFileW((folder + L"*").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) return names;
    do names.insert(found.cFileName);
    while (::FindNextFileW(find, &found));
    ::FindClose(find);
    for (const wchar_t* skip : {L".", L"..", tempfolder::kOwnerMarkerName}) names.erase(skip);
    return names;
}

class FileSystem : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&m_files)));
    }
    std::wstring Folder(HRESULT (STDMETHODCALLTYPE IKyFileSystem::*get)(BSTR*)) {
        com::Bstr path;
        EXPECT_HR(S_OK, (m_files.Get()->*get)(path.Out()));
        EXPECT_HR(E_POINTER, (m_files.Get()->*get)(nullptr));
        return path.IsNull() ? L"<null>" : path.Get();
    }
    std::wstring TemporaryFolder() { return Folder(&IKyFileSystem::GetTemporaryFolder); }
    HRESULT NewFile(const std::wstring& extension, std::wstring* path = nullptr) {
        com::Bstr result;
        HRESULT hr = m_files->CreateTemporaryFileName(com::Bstr(extension.c_str()), result.Out());
        if (path) *path = result.IsNull() ? L"" : result.Get();
        return hr;
    }

    ComPtr<IKyFileSystem> m_files;
};

// The only test that asks for the application data folder: roaming is
// decided once per loaded library.
TEST_F(FileSystem, TheApplicationsFoldersFollowTheSettingsAndTheShell) {
    const wchar_t* const key = L"Software\\Norvane\\Tessaly 3\\Settings";
    ASSERT_FALSE(RegKeyExists(HKEY_LOCAL_MACHINE, key));  // the user's setting decides
    ASSERT_NE(ShellPath(CSIDL_APPDATA), ShellPath(CSIDL_LOCAL_APPDATA));
    for (DWORD value : {1u, 0u}) {
        ::RegSetKeyValueW(HKEY_CURRENT_USER, key, L"EnableApplicationDataRoaming", REG_DWORD, &value, sizeof value);
        // Turned off later, it still roams: the process keeps what it decided.
        EXPECT_EQ(ShellPath(CSIDL_APPDATA) + L"\\Norvane\\Tessaly\\", Folder(&IKyFileSystem::GetApplicationDataFolder));
    }
    ::RegDeleteKeyW(HKEY_CURRENT_USER, key);

    std::wstring common;
    ASSERT_TRUE(
        ReadRegString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", L"CommonFilesDir", &common));
    EXPECT_EQ(common + L"\\Norvane Shared\\", Folder(&IKyFileSystem::GetSharedFolder));
    EXPECT_EQ(ShellPath(CSIDL_PERSONAL), Folder(&IKyFileSystem::GetDocumentsFolder));
}

TEST_F(FileSystem, TheTemporaryFolderIsThisProcesssAndHoldsNewUniqueFiles) {
    // <temp>\KyUtils-{GUID}\, the same for every helper of the process.
    const std::wstring folder = TemporaryFolder();
    const std::wstring prefix = TempPath() + tempfolder::kTempFolderPrefix;
    ASSERT_EQ(prefix, folder.substr(0, prefix.size()));
    EXPECT_EQ(prefix.size() + 39, folder.size());
    ComPtr<IKyFileSystem> other;
    com::Bstr again;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&other)));
    ASSERT_HR(S_OK, other->GetTemporaryFolder(again.Out()));
    EXPECT_EQ(folder, again.Get());
    // While this process lives, its marker cannot be deleted.
    EXPECT_FALSE(::DeleteFileW((folder + tempfolder::kOwnerMarkerName).c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_SHARING_VIOLATION), ::GetLastError());
    EXPECT_HR(S_FALSE, tempfolder::RemoveFolderIfAbandoned(folder.c_str()));

    // Each name is a new empty file there; an extension, given with or
    // without its dot, replaces the system's.
    std::set<std::wstring> made;
    for (const wchar_t* extension : {L"", L"", L"xml", L".cfg.bak"}) {
        std::wstring path;
        ASSERT_HR(S_OK, NewFile(extension, &path));
        const std::wstring end = *extension == L'.' ? extension : *extension ? std::wstring(L".") + extension : L".tmp";
        EXPECT_EQ(end, path.substr(path.size() - end.size()));
        made.insert(path.substr(folder.size()));
    }
    EXPECT_EQ(4u, made.size());
    EXPECT_EQ(made, FilesIn(folder));  // nothing else reserved on the way
    for (const wchar_t* bad : {L".", L"a\\b", L"x:y", L"q?", L"t."})
        EXPECT_HR(E_INVALIDARG, NewFile(bad)) << Narrow(bad);
    // A name that would not fit MAX_PATH is refused and leaves nothing.
    // (The system's names are "ky", up to four hexadecimal digits, ".tmp".)
    EXPECT_HR(E_INVALIDARG, NewFile(std::wstring(MAX_PATH - folder.size() - 4, L'e')));
    EXPECT_EQ(made, FilesIn(folder));
    EXPECT_HR(S_OK, NewFile(std::wstring(MAX_PATH - folder.size() - 12, L'e')));
    EXPECT_HR(E_POINTER, m_files->CreateTemporaryFileName(nullptr, nullptr));
}

TEST_F(FileSystem, TheOwnerRemovesItsFolderAndDirectoriesUnlessAFileIsInUse) {
    const std::wstring folder = TemporaryFolder(), deep = folder + L"made\\a\\b";
    EXPECT_HR(S_OK, m_files->CreateDirectoryPath(deep.c_str()));  // with its parents
    EXPECT_HR(S_FALSE, m_files->CreateDirectoryPath(deep.c_str()));
    EXPECT_HR(E_INVALIDARG, m_files->CreateDirectoryPath(nullptr));
    std::wstring busy;
    ASSERT_HR(S_OK, NewFile(L"busy", &busy));
    // A file in the way, and a relative path: the system's errors.
    for (const std::wstring& bad : {busy + L"\\below", std::wstring(L"relative\\path")}) {
        HRESULT hr = m_files->CreateDirectoryPath(bad.c_str());
        EXPECT_TRUE(FAILED(hr) && HRESULT_FACILITY(hr) == FACILITY_WIN32) << Hex(hr);
    }
    com::Handle open(::CreateFileW(busy.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(FAILED(m_files->RemoveTemporaryFolder()));
    // What could go went; the folder stays, still owned.
    EXPECT_EQ(std::set<std::wstring>{busy.substr(folder.size())}, FilesIn(folder));
    EXPECT_EQ(folder, TemporaryFolder());
    EXPECT_FALSE(::DeleteFileW((folder + tempfolder::kOwnerMarkerName).c_str()));
    open.Close();

    EXPECT_HR(S_OK, m_files->RemoveTemporaryFolder());
    EXPECT_FALSE(Exists(folder));
    EXPECT_HR(S_FALSE, m_files->RemoveTemporaryFolder());
    const std::wstring next = TemporaryFolder();  // a new one
    EXPECT_NE(folder, next);
    EXPECT_TRUE(Exists(next + tempfolder::kOwnerMarkerName));
}

TEST_F(FileSystem, ACleanerRemovesFoldersThatNoLiveProcessOwns) {
    // What a process that died leaves: a folder whose marker nobody holds,
    // or none at all.
    GUID guid;
    ::CoCreateGuid(&guid);
    const std::wstring dead = TempPath() + tempfolder::kTempFolderPrefix + GuidText(guid);
    for (bool marked : {true, false}) {
        ASSERT_TRUE(::CreateDirectoryW(dead.c_str(), nullptr) &&
                    ::CreateDirectoryW((dead + L"\\sub").c_str(), nullptr));
        for (const wchar_t* name : {marked ? tempfolder::kOwnerMarkerName : L"ky0.tmp", L"ky1.tmp", L"sub\\ky2.tmp"})
            ::CloseHandle(::CreateFileW((dead + L"\\" + name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_READONLY, nullptr));
        EXPECT_HR(S_OK, tempfolder::RemoveFolderIfAbandoned((marked ? dead : dead + L"\\").c_str()));
        EXPECT_FALSE(Exists(dead));
    }
    EXPECT_TRUE(FAILED(tempfolder::RemoveFolderIfAbandoned(dead.c_str())));
}

TEST_F(FileSystem, TheFolderGoesWhenTheLibraryUnloads) {
    const std::wstring folder = TemporaryFolder();
    ASSERT_HR(S_OK, NewFile(L""));
    m_files.Reset();
    ASSERT_HR(S_OK, DllCanUnloadNow());
    ::CoFreeUnusedLibrariesEx(0, 0);
    ASSERT_EQ(nullptr, LoadedDll()) << "the library did not unload";
    EXPECT_FALSE(Exists(folder));
}

}  // namespace
}  // namespace ky::test
