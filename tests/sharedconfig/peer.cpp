// The second (and third, and n-th) process of the shared configuration
// tests. Each command plays one part:
//   hold-lock <file> <ready event> <release event>
//       takes the file's lock, says ready, keeps it until released (or killed)
//   hold-stream <file> <stream> <ready event> <release event>
//       acquires a stream, says ready, releases it when told; writes nothing
//   temp-folder <ready event> <release event>
//       makes its private temporary folder, says ready, waits (to be killed)
//   worker <file> <id> <iterations, 0: until killed> [<started event>]
//       acquires, checks, rewrites and releases elements of the file
//   stress <file> <processes> <iterations>
//       runs that many workers on one new file and checks what they leave
//   killrun <file> <rounds>
//       kills a worker at a random point, again and again, measures what
//       later acquisitions pay and whether the file stays readable, then
//       removes the private folders the killed workers left
// Exit code 0 means the part went as it must.
#include <windows.h>
#include <objbase.h>
#include <wrl/client.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "helpers/tempfolder.h"
#include "kytest.h"
#include "kyutils.h"
#include "sharedtest.h"

using Microsoft::WRL::ComPtr;
using namespace ky::test;

namespace {

constexpr wchar_t kPeer[] = L"sharedconfig_peer.exe";

int HoldLock(const std::wstring& file, const std::wstring& ready, const std::wstring& release) {
    HANDLE mutex = ::CreateMutexW(nullptr, FALSE, LockName(file).c_str());
    if (!mutex) return 2;
    DWORD wait = ::WaitForSingleObject(mutex, INFINITE);
    if (wait != WAIT_OBJECT_0 && wait != WAIT_ABANDONED) return 2;
    SetNamedEvent(ready);
    WaitNamedEvent(release, INFINITE);
    ::ReleaseMutex(mutex);
    ::CloseHandle(mutex);
    return 0;
}

int HoldStream(const std::wstring& file, const std::wstring& name, const std::wstring& ready,
               const std::wstring& release) {
    Manager manager;
    ComPtr<IStream> stream;
    HRESULT hr = manager.Stream(file, name, &stream);
    SetNamedEvent(ready);
    WaitNamedEvent(release, INFINITE);
    stream.Reset();  // the write-back
    return SUCCEEDED(hr) ? 0 : 1;
}

int TempFolder(const std::wstring& ready, const std::wstring& release) {
    ComPtr<IKyFileSystem> files;
    if (FAILED(::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_IKyFileSystem, &files))) return 2;
    BSTR folder = nullptr;
    if (FAILED(files->GetTemporaryFolder(&folder))) return 2;
    ::SysFreeString(folder);
    SetNamedEvent(ready);
    WaitNamedEvent(release, INFINITE);
    return 0;
}

struct Counts {
    unsigned acquisitions = 0, failures = 0, torn = 0, errors = 0;
};

// One round of a worker: acquire an element, check what it holds, write
// this round's record and release it.
void WorkOnce(Manager& manager, const std::wstring& file, unsigned id, unsigned round, unsigned pick, Counts* counts) {
    static const wchar_t* const kShared[] = {L"s0", L"s1", L"s2"};
    static const wchar_t* const kStorages[] = {L"g0", L"g1"};
    const std::string record = records::Make(id, round);
    HRESULT hr, written = S_OK;
    records::Kind kind = records::Kind::Empty;
    if (pick < 8) {
        const std::wstring own = L"w" + std::to_wstring(id);
        ComPtr<IStream> stream;
        hr = manager.Stream(file, pick < 6 ? kShared[pick % 3] : own.c_str(), &stream);
        if (SUCCEEDED(hr)) {
            kind = records::Check(ReadStream(stream.Get()));
            written = ReplaceStream(stream.Get(), record);
        }
    } else {
        ComPtr<IStorage> storage;
        hr = manager.Storage(file, kStorages[pick % 2], &storage);
        if (SUCCEEDED(hr)) {
            kind = records::CheckStorage(storage.Get());
            written = records::WriteStorage(storage.Get(), record);
        }
    }
    if (hr == E_FAIL) {
        ++counts->failures;
    } else if (FAILED(hr) || FAILED(written)) {
        ++counts->errors;
        std::printf("worker %u: 0x%08lX\n", id, static_cast<unsigned long>(FAILED(hr) ? hr : written));
    }
    if (SUCCEEDED(hr)) ++counts->acquisitions;
    if (kind == records::Kind::Torn) ++counts->torn;
}

int Worker(const std::wstring& file, unsigned id, unsigned iterations, const std::wstring& started) {
    Manager manager;
    if (!manager.Ok()) return 0x40000;
    unsigned seed = id * 7919u + ::GetTickCount();
    Counts counts;
    for (unsigned round = 0; iterations == 0 || round < iterations; ++round) {
        seed = seed * 1103515245u + 12345u;
        WorkOnce(manager, file, id, round, (seed >> 16) % 10, &counts);
        if (round == 0 && !started.empty()) SetNamedEvent(started);
    }
    std::printf("worker %u: acquisitions=%u failures=%u torn=%u errors=%u\n", id, counts.acquisitions, counts.failures,
                counts.torn, counts.errors);
    return static_cast<int>((counts.failures & 0xFFFF) | (counts.torn ? 0x10000 : 0) | (counts.errors ? 0x20000 : 0));
}

struct FileCheck {
    bool readable = false;
    unsigned elements = 0, valid = 0, empty = 0, torn = 0;
    std::set<std::wstring> tornNames;
};

// Opens the file as a reader would and checks every element.
FileCheck CheckFile(const std::wstring& file) {
    FileCheck check;
    ComPtr<IStorage> root;
    if (FAILED(::StgOpenStorage(file.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &root)))
        return check;
    ComPtr<IEnumSTATSTG> elements;
    if (FAILED(root->EnumElements(0, nullptr, 0, &elements))) return check;
    check.readable = true;
    STATSTG stat;
    while (elements->Next(1, &stat, nullptr) == S_OK) {
        records::Kind kind = records::Kind::Torn;
        if (stat.type == STGTY_STREAM) {
            ComPtr<IStream> stream;
            if (SUCCEEDED(root->OpenStream(stat.pwcsName, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream))) {
                std::string bytes = ReadStream(stream.Get());
                if (bytes.size() != stat.cbSize.QuadPart) check.readable = false;
                kind = records::Check(bytes);
            } else {
                check.readable = false;
            }
        } else {
            ComPtr<IStorage> storage;
            if (SUCCEEDED(
                    root->OpenStorage(stat.pwcsName, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &storage)))
                kind = records::CheckStorage(storage.Get());
            else
                check.readable = false;
        }
        const std::wstring name = stat.pwcsName;
        ::CoTaskMemFree(stat.pwcsName);
        ++check.elements;
        if (kind == records::Kind::Valid) ++check.valid;
        if (kind == records::Kind::Empty) ++check.empty;
        if (kind == records::Kind::Torn) {
            ++check.torn;
            check.tornNames.insert(name);
        }
    }
    return check;
}

int Stress(const std::wstring& file, unsigned processes, unsigned iterations) {
    ::DeleteFileW(file.c_str());
    std::vector<std::unique_ptr<ChildProcess>> workers;
    for (unsigned i = 1; i <= processes; ++i)
        workers.push_back(std::make_unique<ChildProcess>(
            kPeer, L"worker \"" + file + L"\" " + std::to_wstring(i) + L" " + std::to_wstring(iterations)));
    unsigned failures = 0, torn = 0, errors = 0;
    for (auto& worker : workers) {
        DWORD code = worker->Started() ? worker->Wait(600000) : 0x40000;
        if (code == STILL_ACTIVE || code & 0x40000) ++errors;
        failures += code & 0xFFFF;
        if (code & 0x10000) ++torn;
        if (code & 0x20000) ++errors;
    }
    FileCheck check = CheckFile(file);
    std::printf(
        "stress: processes=%u iterations=%u failures=%u torn-reads=%u errors=%u readable=%d elements=%u "
        "valid=%u empty=%u torn=%u\n",
        processes, iterations, failures, torn, errors, check.readable ? 1 : 0, check.elements, check.valid, check.empty,
        check.torn);
    // An element is empty only where a failed acquisition's write-back put
    // its empty copy back.
    bool ok = torn == 0 && errors == 0 && check.readable && check.torn == 0 && (failures > 0 || check.empty == 0);
    return ok ? 0 : 1;
}

int KillRun(const std::wstring& file, unsigned rounds) {
    ::DeleteFileW(file.c_str());
    Manager manager;
    if (!manager.Ok()) return 2;
    // Like any process that keeps a setting open, this one holds a handle to
    // the file's mutex all along, so a kill leaves it abandoned, not gone.
    ComPtr<IStream> keeper;
    if (FAILED(manager.Stream(file, L"keeper", &keeper))) return 2;
    unsigned seed = ::GetTickCount();
    unsigned insideLock = 0, failedTotal = 0, maxFailures = 0, unreadable = 0, halfWritten = 0, emptied = 0;
    std::set<std::wstring> tornBefore;
    for (unsigned round = 0; round < rounds; ++round) {
        NamedEvent started;
        ChildProcess worker(kPeer,
                            L"worker \"" + file + L"\" " + std::to_wstring(100 + round) + L" 0 " + started.Name());
        if (!worker.Started() || !started.Wait(60000)) {
            std::printf("killrun: the worker of round %u did not start\n", round);
            return 2;
        }
        seed = seed * 1103515245u + 12345u;
        ::Sleep((seed >> 16) % 150);
        worker.Kill();

        // What the next acquirer pays.
        unsigned failures = 0;
        HRESULT hr;
        ComPtr<IStream> stream;
        while ((hr = manager.Stream(file, L"s0", &stream)) == E_FAIL && failures < 5) ++failures;
        if (failures) ++insideLock;
        failedTotal += failures;
        if (failures > maxFailures) maxFailures = failures;
        if (SUCCEEDED(hr)) {
            if (ReadStream(stream.Get()).empty()) ++emptied;
            ReplaceStream(stream.Get(), records::Make(0, round));
        }
        stream.Reset();

        FileCheck check = CheckFile(file);
        if (!check.readable) ++unreadable;
        // A kill inside a write-back's copy leaves that element half-written
        // (the shared file is written in direct mode) until it is next written.
        for (const auto& name : check.tornNames)
            if (!tornBefore.count(name)) ++halfWritten;
        tornBefore = check.tornNames;
    }
    // The killed workers' private folders are left for a cleaner, which
    // tells them from the folders of live processes (this one's, at least).
    unsigned removed = 0, live = 0;
    for (const auto& folder : PrivateTempFolders()) {
        HRESULT hr = ky::tempfolder::RemoveFolderIfAbandoned(folder.c_str());
        if (hr == S_OK) ++removed;
        if (hr == S_FALSE) ++live;
    }
    std::printf(
        "killrun: kills=%u inside-lock=%u failed-acquisitions=%u max-per-kill=%u unreadable-files=%u "
        "kills-leaving-a-half-written-element=%u emptied-by-discarded-write-back=%u "
        "abandoned-temp-folders-removed=%u live-ones-kept=%u\n",
        rounds, insideLock, failedTotal, maxFailures, unreadable, halfWritten, emptied, removed, live);
    return maxFailures <= 1 && unreadable == 0 && removed >= rounds && live >= 1 ? 0 : 1;
}

int Usage() {
    std::printf("usage: see the head of peer.cpp\n");
    return 2;
}

int Run(int argc, wchar_t** argv) {
    if (argc < 3) return Usage();
    const std::wstring command = argv[1];
    const std::wstring file = argv[2];
    if (command == L"hold-lock" && argc == 5) return HoldLock(file, argv[3], argv[4]);
    if (command == L"hold-stream" && argc == 6) return HoldStream(file, argv[3], argv[4], argv[5]);
    if (command == L"temp-folder" && argc == 4) return TempFolder(argv[2], argv[3]);
    if (command == L"worker" && (argc == 5 || argc == 6))
        return Worker(file, static_cast<unsigned>(_wtoi(argv[3])), static_cast<unsigned>(_wtoi(argv[4])),
                      argc == 6 ? argv[5] : L"");
    if (command == L"stress" && argc == 5)
        return Stress(file, static_cast<unsigned>(_wtoi(argv[3])), static_cast<unsigned>(_wtoi(argv[4])));
    if (command == L"killrun" && argc == 4) return KillRun(file, static_cast<unsigned>(_wtoi(argv[3])));
    return Usage();
}

}  // namespace

int main() {
    return RunProgram([](int argc, wchar_t** argv) {
        int result = Run(argc, argv);
        // Every object of the library is gone by now.
        if (ky::test::DllCanUnloadNow() != S_OK) {
            std::printf("peer: the library is still locked at the end\n");
            result = 3;
        }
        return result;
    });
}
