// The private temporary folder of a process that uses this library.
//
// Convention (the maintenance verbs clean up after processes that died):
//   - The folder is <system temporary path>\KyUtils-{GUID}\ : kTempFolderPrefix
//     followed by a braced GUID (38 characters). It is made on first use,
//     once per loaded library, and holds the unique file names handed out
//     by CreateTemporaryFileName (the private compound files of the shared
//     configuration store among them).
//   - Its first file is the owner marker kOwnerMarkerName. The owning process
//     keeps the marker open, without FILE_SHARE_DELETE, for as long as it
//     uses the folder; the handle goes with the process.
//   - A cleaner removes a folder only after deleting its marker: while the
//     owner lives, DeleteFileW of the marker fails with
//     ERROR_SHARING_VIOLATION. A folder without a marker belongs to nobody
//     (its owner died, or left it); an owner that loses its folder before its
//     marker is in place starts again under a new GUID.
//   - The owner removes the folder itself when the library unloads, or when
//     asked (IKyFileSystem::RemoveTemporaryFolder); files that someone still
//     holds open are left behind, and the folder with them.
#pragma once

#include <windows.h>

#include <string>

namespace ky::tempfolder {

inline constexpr wchar_t kTempFolderPrefix[] = L"KyUtils-";
inline constexpr wchar_t kOwnerMarkerName[] = L"KyUtils.owner";

// This process's folder, with a trailing backslash; made on first use.
HRESULT GetFolder(std::wstring* folder);

// A new unique file in the folder, created empty (GetTempFileNameW), renamed
// to the extension when one is given (with or without its dot). E_INVALIDARG
// for an extension that is no file-name part, or a result that does not fit
// MAX_PATH.
HRESULT CreateFileName(const wchar_t* extension, std::wstring* path);

// Removes this process's folder with everything in it. S_OK when removed,
// S_FALSE when there was none; when a file in it is still in use, the folder
// stays this process's (marker kept) and the failure is returned.
HRESULT RemoveOwnFolder();

// For cleaners: removes `folder` (a full path, with or without a trailing
// backslash) when its owner is gone. S_OK when removed, S_FALSE when a live
// process owns it, otherwise the failure.
HRESULT RemoveFolderIfAbandoned(const wchar_t* folder);

}  // namespace ky::tempfolder
