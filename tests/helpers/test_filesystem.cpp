// IKyFileSystem: the application's folders, directory creation and the
// process's private temporary folder with its owner marker.
#include <shlobj.h>
#include <wrl/client.h>

#include <set>
#include <string>

#include "helpers/tempfolder.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr wchar_t kSettingsKey[] = L"Software\\Norvane\\Tessaly 3\\Settings";
constexpr wchar_t kRoamingValue[] = L"EnableApplicationDataRoaming";

std::wstring Take(BSTR text) {
    std::wstring result = text ? std::wstring(text, ::SysStringLen(text)) : L"<null>";
    ::SysFreeString(text);
    return result;
}

std::wstring ShellPath(int csidl) {
    wchar_t path[MAX_PATH] = {};
    EXPECT_TRUE(SUCCEEDED(::SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path)));
    return path;
}

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::wstring TempPath() {
    wchar_t path[MAX_PATH + 1];
    ::GetTempPathW(MAX_PATH + 1, path);
    return path;
}

// Files in a folder, the marker left out.
std::set<std::wstring> FilesIn(const std::wstring& folder) {
    std::set<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE find = ::FindFirstFileW((folder + L"*").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        std::wstring name = found.cFileName;
        if (name != L"." && name != L".." && name != tempfolder::kOwnerMarkerName) names.insert(name);
    } while (::FindNextFileW(find, &found));
    ::FindClose(find);
    return names;
}

class FileSystem : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_IKyFileSystem,
                                           &m_files));
    }
    std::wstring TemporaryFolder() {
        BSTR folder = nullptr;
        EXPECT_HR(S_OK, m_files->GetTemporaryFolder(&folder));
        return Take(folder);
    }
    std::wstring NewFile(const wchar_t* extension) {
        BSTR text = extension ? ::SysAllocString(extension) : nullptr;
        BSTR path = nullptr;
        EXPECT_HR(S_OK, m_files->CreateTemporaryFileName(text, &path));
        ::SysFreeString(text);
        return Take(path);
    }
    HRESULT TryNewFile(const std::wstring& extension) {
        BSTR text = ::SysAllocString(extension.c_str());
        BSTR path = nullptr;
        HRESULT hr = m_files->CreateTemporaryFileName(text, &path);
        ::SysFreeString(text);
        ::SysFreeString(path);
        return hr;
    }

    ComPtr<IKyFileSystem> m_files;
};

// The only test of this program that asks for the application data folder:
// the roaming setting is read once per process.
TEST_F(FileSystem, ApplicationDataFolderFollowsTheRoamingSettingReadOnce) {
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CURRENT_USER, kSettingsKey, 0, nullptr, 0, KEY_ALL_ACCESS,
                                               nullptr, &key, nullptr));
    DWORD on = 1;
    ASSERT_EQ(ERROR_SUCCESS,
              ::RegSetValueExW(key, kRoamingValue, 0, REG_DWORD, reinterpret_cast<BYTE*>(&on), sizeof on));
    ASSERT_FALSE(RegKeyExists(HKEY_LOCAL_MACHINE, kSettingsKey));  // the user's setting decides

    BSTR path = nullptr;
    ASSERT_HR(S_OK, m_files->GetApplicationDataFolder(&path));
    const std::wstring roaming = ShellPath(CSIDL_APPDATA) + L"\\Norvane\\Tessaly\\";
    EXPECT_EQ(roaming, Take(path));

    // Turned off later: this process keeps what it decided.
    DWORD off = 0;
    ::RegSetValueExW(key, kRoamingValue, 0, REG_DWORD, reinterpret_cast<BYTE*>(&off), sizeof off);
    ComPtr<IKyFileSystem> other;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_IKyFileSystem, &other));
    ASSERT_HR(S_OK, other->GetApplicationDataFolder(&path));
    EXPECT_EQ(roaming, Take(path));
    EXPECT_NE(ShellPath(CSIDL_APPDATA), ShellPath(CSIDL_LOCAL_APPDATA));

    ::RegDeleteValueW(key, kRoamingValue);
    ::RegCloseKey(key);
    ::RegDeleteKeyW(HKEY_CURRENT_USER, kSettingsKey);
    EXPECT_HR(E_POINTER, m_files->GetApplicationDataFolder(nullptr));
}

TEST_F(FileSystem, SharedAndDocumentsFolders) {
    std::wstring common;
    ASSERT_TRUE(ReadRegString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", L"CommonFilesDir",
                              &common));
    BSTR path = nullptr;
    ASSERT_HR(S_OK, m_files->GetSharedFolder(&path));
    EXPECT_EQ(common + L"\\Norvane Shared\\", Take(path));

    ASSERT_HR(S_OK, m_files->GetDocumentsFolder(&path));
    const std::wstring documents = Take(path);
    EXPECT_EQ(ShellPath(CSIDL_PERSONAL), documents);
    EXPECT_NE(L'\\', documents.back());

    EXPECT_HR(E_POINTER, m_files->GetSharedFolder(nullptr));
    EXPECT_HR(E_POINTER, m_files->GetDocumentsFolder(nullptr));
    EXPECT_HR(E_POINTER, m_files->GetTemporaryFolder(nullptr));
}

TEST_F(FileSystem, CreateDirectoryPathMakesMissingParentsAndTellsAnExistingOne) {
    const std::wstring base = TemporaryFolder() + L"made";
    const std::wstring deep = base + L"\\a\\b\\c";
    EXPECT_HR(S_OK, m_files->CreateDirectoryPath(deep.c_str()));
    EXPECT_TRUE(Exists(deep));
    EXPECT_HR(S_FALSE, m_files->CreateDirectoryPath(deep.c_str()));

    // A file in the way, and a relative path, are the system's errors.
    const std::wstring file = base + L"\\file";
    HANDLE handle = ::CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, handle);
    ::CloseHandle(handle);
    HRESULT hr = m_files->CreateDirectoryPath((file + L"\\below").c_str());
    EXPECT_TRUE(FAILED(hr)) << Hex(hr);
    EXPECT_EQ(FACILITY_WIN32, HRESULT_FACILITY(hr)) << Hex(hr);
    hr = m_files->CreateDirectoryPath(L"relative\\path");
    EXPECT_EQ(FACILITY_WIN32, HRESULT_FACILITY(hr)) << Hex(hr);
    EXPECT_HR(E_INVALIDARG, m_files->CreateDirectoryPath(nullptr));
    EXPECT_HR(E_INVALIDARG, m_files->CreateDirectoryPath(L""));
    EXPECT_HR(S_OK, m_files->RemoveTemporaryFolder());
}

TEST_F(FileSystem, TheTemporaryFolderIsThisProcesssAndMarkedAsOwned) {
    const std::wstring folder = TemporaryFolder();
    // <temp>\KyUtils-{GUID}\ and the same for every helper of the process.
    const std::wstring prefix = TempPath() + tempfolder::kTempFolderPrefix;
    ASSERT_EQ(prefix, folder.substr(0, prefix.size()));
    const std::wstring guid = folder.substr(prefix.size(), folder.size() - prefix.size() - 1);
    GUID parsed;
    EXPECT_HR(S_OK, ::CLSIDFromString(guid.c_str(), &parsed)) << Narrow(guid);
    EXPECT_EQ(L'\\', folder.back());
    ComPtr<IKyFileSystem> other;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_IKyFileSystem, &other));
    BSTR again = nullptr;
    ASSERT_HR(S_OK, other->GetTemporaryFolder(&again));
    EXPECT_EQ(folder, Take(again));

    // While this process lives, its marker cannot be deleted.
    const std::wstring marker = folder + tempfolder::kOwnerMarkerName;
    EXPECT_TRUE(Exists(marker));
    EXPECT_FALSE(::DeleteFileW(marker.c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_SHARING_VIOLATION), ::GetLastError());
    EXPECT_HR(S_FALSE, tempfolder::RemoveFolderIfAbandoned(folder.c_str()));
    EXPECT_TRUE(Exists(marker));
}

TEST_F(FileSystem, TemporaryFileNamesAreNewFilesInThePrivateFolder) {
    const std::wstring folder = TemporaryFolder();
    const std::wstring a = NewFile(nullptr);
    const std::wstring b = NewFile(L"");
    EXPECT_NE(a, b);
    for (const auto& path : {a, b}) {
        EXPECT_EQ(folder, path.substr(0, folder.size()));
        EXPECT_EQ(std::wstring::npos, path.find(L'\\', folder.size()));
        EXPECT_TRUE(Exists(path)) << Narrow(path);  // reserved
    }
    // An extension, given with or without its dot, replaces the system's.
    const std::wstring xml = NewFile(L"xml");
    const std::wstring dotted = NewFile(L".cfg.bak");
    EXPECT_EQ(L".xml", xml.substr(xml.size() - 4));
    EXPECT_EQ(L".cfg.bak", dotted.substr(dotted.size() - 8));
    EXPECT_TRUE(Exists(xml));
    EXPECT_TRUE(Exists(dotted));
    const std::set<std::wstring> files = FilesIn(folder);
    EXPECT_EQ(4u, files.size());  // nothing else reserved on the way

    for (const wchar_t* bad : {L".", L"a/b", L"a\\b", L"x:y", L"a*", L"q?", L"t.", L"t "})
        EXPECT_HR(E_INVALIDARG, TryNewFile(bad)) << Narrow(bad);
    // A name that would not fit MAX_PATH is refused and leaves nothing.
    // (The system's names are "ky", up to four hexadecimal digits and ".tmp".)
    EXPECT_HR(E_INVALIDARG, TryNewFile(std::wstring(MAX_PATH - folder.size() - 4, L'e')));
    EXPECT_HR(S_OK, TryNewFile(std::wstring(MAX_PATH - folder.size() - 12, L'e')));
    EXPECT_EQ(5u, FilesIn(folder).size());
    EXPECT_HR(E_POINTER, m_files->CreateTemporaryFileName(nullptr, nullptr));
}

TEST_F(FileSystem, TheOwnerRemovesItsFolderUnlessAFileIsInUse) {
    const std::wstring folder = TemporaryFolder();
    const std::wstring busy = NewFile(L"busy");
    NewFile(nullptr);
    ASSERT_EQ(ERROR_SUCCESS, ::SHCreateDirectoryExW(nullptr, (folder + L"sub\\deeper").c_str(), nullptr));

    HANDLE open = ::CreateFileW(busy.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, open);
    HRESULT hr = m_files->RemoveTemporaryFolder();
    EXPECT_TRUE(FAILED(hr)) << Hex(hr);
    // What could go went; the folder stays, still owned.
    EXPECT_EQ(std::set<std::wstring>{busy.substr(folder.size())}, FilesIn(folder));
    EXPECT_FALSE(::DeleteFileW((folder + tempfolder::kOwnerMarkerName).c_str()));
    EXPECT_EQ(folder, TemporaryFolder());
    ::CloseHandle(open);

    EXPECT_HR(S_OK, m_files->RemoveTemporaryFolder());
    EXPECT_FALSE(Exists(folder));
    EXPECT_HR(S_FALSE, m_files->RemoveTemporaryFolder());
    // The next use makes a new one.
    const std::wstring next = TemporaryFolder();
    EXPECT_NE(folder, next);
    EXPECT_TRUE(Exists(next + tempfolder::kOwnerMarkerName));
}

TEST_F(FileSystem, ACleanerRemovesFoldersThatNoLiveProcessOwns) {
    // What a process that died leaves: a folder whose marker nobody holds.
    GUID guid;
    ASSERT_HR(S_OK, ::CoCreateGuid(&guid));
    wchar_t text[40];
    ::StringFromGUID2(guid, text, 40);
    const std::wstring dead = TempPath() + tempfolder::kTempFolderPrefix + text;
    ASSERT_TRUE(::CreateDirectoryW(dead.c_str(), nullptr));
    ASSERT_TRUE(::CreateDirectoryW((dead + L"\\sub").c_str(), nullptr));
    for (const wchar_t* name : {tempfolder::kOwnerMarkerName, L"ky1.tmp", L"sub\\ky2.tmp"}) {
        HANDLE file = ::CreateFileW((dead + L"\\" + name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                    FILE_ATTRIBUTE_READONLY, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, file);
        ::CloseHandle(file);
    }
    EXPECT_HR(S_OK, tempfolder::RemoveFolderIfAbandoned(dead.c_str()));
    EXPECT_FALSE(Exists(dead));
    // One without a marker at all is nobody's either.
    ASSERT_TRUE(::CreateDirectoryW(dead.c_str(), nullptr));
    EXPECT_HR(S_OK, tempfolder::RemoveFolderIfAbandoned((dead + L"\\").c_str()));
    EXPECT_FALSE(Exists(dead));
    EXPECT_TRUE(FAILED(tempfolder::RemoveFolderIfAbandoned(dead.c_str())));
    EXPECT_HR(E_INVALIDARG, tempfolder::RemoveFolderIfAbandoned(nullptr));
}

TEST_F(FileSystem, TheFolderGoesWhenTheLibraryUnloads) {
    const std::wstring folder = TemporaryFolder();
    NewFile(nullptr);
    m_files.Reset();
    ASSERT_HR(S_OK, DllCanUnloadNow());
    ::CoFreeUnusedLibrariesEx(0, 0);
    ASSERT_EQ(nullptr, LoadedDll()) << "the library did not unload";
    EXPECT_FALSE(Exists(folder));
}

}  // namespace
}  // namespace ky::test
