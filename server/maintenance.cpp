// list-config and clean-temp: maintenance of what the shared configuration
// store and the helper object leave on disk.
#include <windows.h>
#include <objbase.h>

#include <string>
#include <vector>

#include "com/object.h"
#include "com/raii.h"
#include "doverb.h"
#include "helpers/tempfolder.h"
#include "sharedconfig/journal.h"
#include "sharedconfig/sharedfile.h"

namespace ky {

namespace {

// Prints the children of `storage`, storages with their own children below them.
void ListElements(Console& out, IStorage* storage, const std::wstring& indent, int* streams, int* storages) {
    com::ComPtr<IEnumSTATSTG> elements;
    if (FAILED(storage->EnumElements(0, nullptr, 0, &elements))) return;
    STATSTG stat{};
    while (elements->Next(1, &stat, nullptr) == S_OK) {
        com::TaskMem<wchar_t> name(stat.pwcsName);
        if (stat.type == STGTY_STREAM) {
            ++*streams;
            out.Line(indent + L"stream   " + name.Get() + L"  " + std::to_wstring(stat.cbSize.QuadPart) + L" bytes");
        } else if (stat.type == STGTY_STORAGE) {
            ++*storages;
            out.Line(indent + L"storage  " + name.Get());
            com::ComPtr<IStorage> child;
            if (SUCCEEDED(storage->OpenStorage(name.Get(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                               &child)))
                ListElements(out, child.Get(), indent + L"  ", streams, storages);
        } else {
            out.Line(indent + L"other    " + name.Get());
        }
    }
}

}  // namespace

int ListConfig(Console& out, const std::vector<std::wstring>& args) {
    if (args.size() != 1 || args[0].empty()) {
        out.Line(L"Usage: list-config <file>");
        return 1;
    }
    const wchar_t* path = args[0].c_str();
    // Like every other user of the file: its named mutex first.
    com::Handle mutex;
    HANDLE handle = nullptr;
    HRESULT hr = sharedfile::OpenFileMutex(path, &handle);
    if (FAILED(hr)) {
        out.Line(L"Cannot open the lock of " + args[0] + L": " + HResultText(hr));
        return 1;
    }
    mutex.Attach(handle);
    sharedfile::FileLock lock(mutex.Get());
    if (!lock.Held()) {
        out.Line(L"The lock of " + args[0] + L" was not granted within " +
                 std::to_wstring(sharedfile::kLockTimeoutMs) + L" ms: the file is in use.");
        return 1;
    }
    // Opened as the store opens it, so a write-back killed half-way is
    // rolled back before anything is listed.
    com::ComPtr<sharedfile::CJournaledFile> file;
    com::ComPtr<IStorage> root;
    hr = sharedfile::CJournaledFile::Open(path, false, file);
    if (SUCCEEDED(hr)) hr = file->OpenStorage(STGM_READ | STGM_SHARE_EXCLUSIVE, false, &root);
    // A file that may not be written (read-only media) is listed as it is.
    if (hr == STG_E_ACCESSDENIED)
        hr = ::StgOpenStorage(path, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &root);
    if (FAILED(hr)) {
        out.Line(L"Cannot open " + args[0] + L": " + HResultText(hr));
        return 1;
    }
    out.Line(args[0] + L":");
    int streams = 0, storages = 0;
    ListElements(out, root.Get(), L"  ", &streams, &storages);
    out.Line(std::to_wstring(streams) + L" stream(s), " + std::to_wstring(storages) + L" storage(s).");
    return 0;
}

int CleanTemp(Console& out) {
    wchar_t temp[MAX_PATH + 1];
    DWORD length = ::GetTempPathW(MAX_PATH + 1, temp);
    if (length == 0 || length > MAX_PATH) {
        out.Line(L"Cannot find the temporary folder.");
        return 1;
    }
    const std::wstring base = temp;
    const std::wstring prefix = tempfolder::kTempFolderPrefix;
    WIN32_FIND_DATAW found;
    HANDLE search = ::FindFirstFileW((base + prefix + L"*").c_str(), &found);
    int removed = 0, kept = 0, failed = 0;
    if (search != INVALID_HANDLE_VALUE) {
        do {
            std::wstring name = found.cFileName;
            // Only folders named as this library names them: the prefix and a braced GUID.
            GUID guid;
            if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || name.size() != prefix.size() + 38 ||
                FAILED(::CLSIDFromString(name.substr(prefix.size()).c_str(), &guid)))
                continue;
            HRESULT hr = tempfolder::RemoveFolderIfAbandoned((base + name).c_str());
            if (hr == S_OK) {
                ++removed;
                out.Line(L"removed  " + base + name);
            } else if (hr == S_FALSE) {
                ++kept;
                out.Line(L"in use   " + base + name);
            } else {
                ++failed;
                out.Line(L"failed   " + base + name + L": " + HResultText(hr));
            }
        } while (::FindNextFileW(search, &found));
        ::FindClose(search);
    }
    out.Line(std::to_wstring(removed) + L" folder(s) removed, " + std::to_wstring(kept) + L" in use by live processes" +
             (failed ? L", " + std::to_wstring(failed) + L" could not be removed." : L"."));
    return failed ? 1 : 0;
}

}  // namespace ky
