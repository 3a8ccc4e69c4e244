// The price of the shared configuration store's protection: an acquisition
// and release of a 4 KB stream next to the structured-storage calls that it
// makes (opening the shared file and the stream, copying it into a new
// private compound file, copying it back and committing), measured in the
// same run; and what four processes that contend for one file get through,
// next to one process doing the same work alone.
//   sharedconfig_bench                      runs the measurements
//   sharedconfig_bench worker <file> <n>    one contending process
#include <windows.h>
#include <objbase.h>
#include <wrl/client.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "sharedtest.h"

using ky::bench::Report;
using ky::bench::Seconds;
using Microsoft::WRL::ComPtr;

namespace {

constexpr DWORD kShared = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kPrivate = kShared | STGM_CREATE | STGM_DELETEONRELEASE;
constexpr int kRounds = 200;
constexpr int kWorkerRounds = 100;

std::wstring TempFile(const wchar_t* name) {
    wchar_t temp[MAX_PATH + 1];
    ::GetTempPathW(MAX_PATH + 1, temp);
    return std::wstring(temp) + L"kybench-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + name;
}

// The file with a 4 KB stream.
bool MakeSharedFile(const std::wstring& file) {
    ComPtr<IStorage> root;
    ComPtr<IStream> stream;
    return SUCCEEDED(::StgCreateDocfile(file.c_str(), kShared | STGM_CREATE, 0, &root)) &&
           SUCCEEDED(root->CreateStream(L"bench", kShared, 0, 0, &stream)) &&
           SUCCEEDED(ky::test::ReplaceStream(stream.Get(), std::string(4096, 'c')));
}

// What one acquisition and its write-back do to the files, without the
// lock, the helper and the temporary name; with `replacement`, the private
// copy is given those bytes in between.
bool RawCycle(const std::wstring& file, const std::wstring& privateFile, const wchar_t* name = L"bench",
              const std::string* replacement = nullptr) {
    ComPtr<IStorage> root, copy;
    ComPtr<IStream> shared, mine;
    if (SUCCEEDED(::StgCreateDocfile(file.c_str(), kShared, 0, &root))) return false;  // it exists
    if (FAILED(::StgOpenStorage(file.c_str(), nullptr, kShared, nullptr, 0, &root))) return false;
    if (FAILED(root->OpenStream(name, nullptr, kShared, 0, &shared))) return false;
    if (FAILED(::StgCreateDocfile(privateFile.c_str(), kPrivate, 0, &copy))) return false;
    if (FAILED(copy->CreateStream(name, kShared, 0, 0, &mine))) return false;
    STATSTG stat = {};
    LARGE_INTEGER start = {};
    shared->Stat(&stat, STATFLAG_NONAME);
    if (FAILED(shared->CopyTo(mine.Get(), stat.cbSize, nullptr, nullptr))) return false;
    mine->Seek(start, STREAM_SEEK_SET, nullptr);
    if (replacement && FAILED(ky::test::ReplaceStream(mine.Get(), *replacement))) return false;
    shared.Reset();
    root.Reset();

    if (FAILED(::StgOpenStorage(file.c_str(), nullptr, kShared, nullptr, 0, &root))) return false;
    if (FAILED(root->DestroyElement(name)) || FAILED(root->Commit(STGC_DEFAULT))) return false;
    if (FAILED(root->CreateStream(name, kShared, 0, 0, &shared))) return false;
    mine->Stat(&stat, STATFLAG_NONAME);
    mine->Seek(start, STREAM_SEEK_SET, nullptr);
    if (FAILED(mine->CopyTo(shared.Get(), stat.cbSize, nullptr, nullptr))) return false;
    shared->Commit(STGC_DEFAULT);
    return SUCCEEDED(root->Commit(STGC_DEFAULT));
}

// One contending process: acquire, change every byte, release.
int Worker(const std::wstring& file, int rounds) {
    ky::test::Manager manager;
    int failures = 0;
    for (int i = 0; i < rounds; ++i) {
        ComPtr<IStream> stream;
        if (FAILED(manager.Stream(file, L"bench", &stream))) {
            ++failures;
            continue;
        }
        std::string bytes = ky::test::ReadStream(stream.Get());
        for (char& c : bytes) ++c;
        ky::test::ReplaceStream(stream.Get(), bytes);
    }
    return failures;
}

// Seconds for `processes` workers sharing `rounds` cycles on one file.
double Contended(const std::wstring& file, int processes, int rounds, int* failures) {
    return Seconds(
        [&] {
            std::vector<std::unique_ptr<ky::test::ChildProcess>> workers;
            for (int i = 0; i < processes; ++i)
                workers.push_back(std::make_unique<ky::test::ChildProcess>(
                    L"sharedconfig_bench.exe", L"worker \"" + file + L"\" " + std::to_wstring(rounds / processes)));
            for (auto& worker : workers) *failures += static_cast<int>(worker->Wait());
        },
        1);
}

int Measure() {
    const std::wstring file = TempFile(L"shared.stg"), privateFile = TempFile(L"private.stg");
    ky::test::Manager manager;
    if (!manager.Ok() || !MakeSharedFile(file)) {
        std::printf("setup failed\n");
        return 1;
    }
    bool ok = true;
    double raw = Seconds([&] {
        for (int i = 0; i < kRounds; ++i) ok = RawCycle(file, privateFile) && ok;
    });
    double outrigged = Seconds([&] {
        for (int i = 0; i < kRounds; ++i) {
            ComPtr<IStream> stream;
            ok = manager.Stream(file, L"bench", &stream) == S_OK && ok;
        }
    });
    Report("acquire + release, 4 KB stream", outrigged, "the storage calls alone", raw, kRounds);

    // A small write-back costs the same in a small and in a large file: the
    // crash safety's cost follows what changes. The file's size is a second
    // stream that nobody touches.
    double small[2] = {};
    const std::uint32_t sizes[2] = {1u << 20, 256u << 20};
    for (int i = 0; i < 2; ++i) {
        const std::wstring sized = TempFile(i ? L"large.stg" : L"small.stg");
        ::DeleteFileW(sized.c_str());
        std::printf("making a file of %u MB...\n", sizes[i] >> 20);
        ok = SUCCEEDED(manager.Put(sized, L"bulk", std::string(sizes[i], 'b'))) && ok;
        ok = SUCCEEDED(manager.Put(sized, L"s", "abc")) && ok;
        small[i] = Seconds([&] {
            for (int round = 0; round < 20; ++round)
                ok = SUCCEEDED(manager.Put(sized, L"s", std::to_string(round % 10) + "bc")) && ok;
        });
        ::DeleteFileW(sized.c_str());
    }
    Report("3-byte write-back, 256 MB file", small[1], "the same, 1 MB file", small[0], 20);
    // A large element next to the same storage calls without the store.
    const std::string large(4u << 20, 'L');
    ok = SUCCEEDED(manager.Put(file, L"large", large)) && ok;
    double largeStore = Seconds([&] { ok = SUCCEEDED(manager.Put(file, L"large", large)) && ok; });
    double largeRaw = Seconds([&] { ok = RawCycle(file, privateFile, L"large", &large) && ok; });
    Report("acquire + rewrite + release, 4 MB stream", largeStore, "the storage calls alone", largeRaw);

    int failures = 0;
    const int total = 4 * kWorkerRounds;
    double alone = Contended(file, 1, total, &failures);
    double contended = Contended(file, 4, total, &failures);
    Report("4 processes contending, per cycle", contended, "1 process, the same cycles", alone, total);
    std::printf("throughput: 4 contending processes %.0f cycles/s, 1 process %.0f cycles/s, failed acquisitions %d\n",
                total / contended, total / alone, failures);
    ::DeleteFileW(file.c_str());
    if (!ok || failures) std::printf("some calls failed\n");
    return ok && !failures ? 0 : 1;
}

}  // namespace

int main() {
    return ky::test::RunProgram([](int argc, wchar_t** argv) {
        return argc == 4 && std::wstring(argv[1]) == L"worker" ? Worker(argv[2], _wtoi(argv[3])) : Measure();
    });
}
