// The second (and n-th) process of the cross-process tests. Each command
// plays one part; exit code 0 means it went as it must.
//   hold-lock <file> <ready event> <release event>
//       takes the file's lock, says ready, keeps it until released (or killed)
//   hold-stream <file> <stream> <ready event> <release event>
//       acquires a stream, says ready, releases it when told; writes nothing
//   worker <file> <id> <iterations, 0: until killed> [<started event>]
//       acquires, checks, rewrites and releases streams of the file; the
//       exit code holds its failed acquisitions, 0x10000 for a torn read and
//       0x20000 for any other error
#include <cstdio>
#include <string>

#include "kytest.h"
#include "sharedconfig/sharedfile.h"
#include "sharedtest.h"

using Microsoft::WRL::ComPtr;
using namespace ky::test;

namespace {

int HoldLock(const std::wstring& file, const std::wstring& ready, const std::wstring& release) {
    // The lock's name computed here, from the user and the path's hash.
    wchar_t user[257];
    DWORD size = 257;
    ::GetUserNameW(user, &size);
    const std::wstring name =
        std::wstring(L"Global\\") + user + ky::sharedfile::PathHashDigits(file.data(), file.size());
    com::Handle mutex(::CreateMutexW(nullptr, FALSE, name.c_str()));
    if (!mutex || ::WaitForSingleObject(mutex.Get(), INFINITE) == WAIT_FAILED) return 2;
    SignalEvent(ready);
    AwaitEvent(release);
    ::ReleaseMutex(mutex.Get());
    return 0;
}

int HoldStream(const std::wstring& file, const std::wstring& name, const std::wstring& ready,
               const std::wstring& release) {
    ComPtr<IStream> stream;
    HRESULT hr = Manager().Stream(file, name, &stream);
    SignalEvent(ready);
    AwaitEvent(release);
    return SUCCEEDED(hr) ? 0 : 1;
}

int Worker(const std::wstring& file, unsigned id, unsigned iterations, const std::wstring& started) {
    Manager manager;
    unsigned seed = id * 7919u + ::GetTickCount(), failures = 0;
    bool torn = false, errors = !manager.Ok();
    for (unsigned round = 0; manager.Ok() && (iterations == 0 || round < iterations); ++round) {
        // Mostly the shared streams, sometimes one of its own.
        seed = seed * 1103515245u + 12345u;
        const unsigned pick = (seed >> 16) % 4;
        ComPtr<IStream> stream;
        const HRESULT hr =
            manager.Stream(file, pick < 3 ? L"s" + std::to_wstring(pick) : L"w" + std::to_wstring(id), &stream);
        const records::Kind kind = SUCCEEDED(hr) ? records::Check(ReadStream(stream.Get())) : records::Kind::Empty;
        const HRESULT written = SUCCEEDED(hr) ? ReplaceStream(stream.Get(), records::Make(id, round)) : S_OK;
        failures += hr == E_FAIL;
        torn = torn || kind == records::Kind::Torn;
        if ((FAILED(hr) && hr != E_FAIL) || FAILED(written)) {
            errors = true;
            std::printf("worker %u: 0x%08lX\n", id, static_cast<unsigned long>(FAILED(hr) ? hr : written));
        }
        if (round == 0 && !started.empty()) SignalEvent(started);
    }
    return static_cast<int>((failures & 0xFFFF) | (torn ? 0x10000 : 0) | (errors ? 0x20000 : 0));
}

int Run(int argc, wchar_t** argv) {
    const std::wstring command = argc > 1 ? argv[1] : L"";
    if (command == L"hold-lock" && argc == 5) return HoldLock(argv[2], argv[3], argv[4]);
    if (command == L"hold-stream" && argc == 6) return HoldStream(argv[2], argv[3], argv[4], argv[5]);
    if (command == L"worker" && (argc == 5 || argc == 6))
        return Worker(argv[2], static_cast<unsigned>(_wtoi(argv[3])), static_cast<unsigned>(_wtoi(argv[4])),
                      argc == 6 ? argv[5] : L"");
    std::printf("usage: see the head of peer.cpp\n");
    return 2;
}

}  // namespace

int main() {
    return RunProgram([](int argc, wchar_t** argv) {
        int result = Run(argc, argv);
        if (ky::test::DllCanUnloadNow() != S_OK) {
            std::printf("peer: the library is still locked at the end\n");
            result = 3;
        }
        return result;
    });
}
