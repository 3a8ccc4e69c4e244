// The shared configuration store between real processes: this program and
// copies of it started as peers ("peer <part> ..."; same prefix and server,
// so named kernel objects are shared). The stress and kill runs leave their
// files next to this program, for check_olefile.py.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "helpers/tempfolder.h"
#include "kytest.h"
#include "sharedconfig/sharedfile.h"
#include "sharedtest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr wchar_t kPeer[] = L"sharedconfig_crossprocess.exe";
constexpr DWORD kTimeout = 60000;

// The program of peer number `n`: this one, or for odd numbers, when
// KY_PEER_PROGRAM names the other architecture's build of it, that one, so
// that 32-bit and 64-bit processes share the files.
std::wstring PeerProgram(unsigned n = 1) {
    wchar_t other[MAX_PATH];
    DWORD length = ::GetEnvironmentVariableW(L"KY_PEER_PROGRAM", other, MAX_PATH);
    return n % 2 == 1 && length > 0 && length < MAX_PATH ? other : kPeer;
}

// Takes the file's lock (its name computed here, from the user and the
// path's hash) and keeps it until released, or killed.
int HoldLock(const std::wstring& file, const std::wstring& ready, const std::wstring& release) {
    wchar_t user[257];
    DWORD size = 257;
    ::GetUserNameW(user, &size);
    const std::wstring name = std::wstring(L"Global\\") + user + sharedfile::PathHashDigits(file.data(), file.size());
    com::Handle mutex(::CreateMutexW(nullptr, FALSE, name.c_str()));
    if (!mutex || ::WaitForSingleObject(mutex.Get(), INFINITE) == WAIT_FAILED) return 2;
    SignalEvent(ready);
    AwaitEvent(release);
    ::ReleaseMutex(mutex.Get());
    return 0;
}

// Acquires a stream, writes nothing, and releases it when told.
int HoldStream(const std::wstring& file, const std::wstring& name, const std::wstring& ready,
               const std::wstring& release) {
    ComPtr<IStream> stream;
    HRESULT hr = Manager().Stream(file, name, &stream);
    SignalEvent(ready);
    AwaitEvent(release);
    return SUCCEEDED(hr) ? 0 : 1;
}

// Acquires, checks, rewrites and releases streams of the file, `iterations`
// times or until killed. The exit code holds its failed acquisitions,
// 0x10000 for a torn read and 0x20000 for any other error.
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

// Rewrites a large element until killed.
int RewriteLarge(const std::wstring& file) {
    Manager manager;
    for (std::uint32_t round = 1; manager.Ok(); ++round) manager.Put(file, L"big", records::Make(1, round, 2 << 20));
    return 2;
}

// A peer's main part; 0 when its part went as it must.
int RunPeer(int argc, wchar_t** argv) {
    const std::wstring part = argc > 2 ? argv[2] : L"";
    int result = 2;
    if (part == L"hold-lock" && argc == 6) result = HoldLock(argv[3], argv[4], argv[5]);
    if (part == L"hold-stream" && argc == 7) result = HoldStream(argv[3], argv[4], argv[5], argv[6]);
    if (part == L"rewrite-large" && argc == 4) result = RewriteLarge(argv[3]);
    if (part == L"worker" && argc >= 6)
        result = Worker(argv[3], _wtoi(argv[4]), _wtoi(argv[5]), argc > 6 ? argv[6] : L"");
    return DllCanUnloadNow() == S_OK ? result : 3;  // every object of the library is gone
}

std::wstring Quoted(const std::wstring& text) { return L"\"" + text + L"\""; }

// A peer that says "ready" and then waits for "release".
struct Peer {
    explicit Peer(const std::wstring& command)
        : process(PeerProgram().c_str(), command + L" " + ready.Name() + L" " + release.Name()) {}
    bool Ready() { return process.Started() && AwaitEvent(ready.Name(), kTimeout); }
    DWORD Release() { return SignalEvent(release.Name()) ? process.Wait(kTimeout) : STILL_ACTIVE; }
    NamedEvent ready, release;
    ChildProcess process;
};

class CrossProcess : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_manager.Ok()); }
    void TearDown() override { ::DeleteFileW(m_file.c_str()); }

    // What an acquisition of the stream reads, or its failure.
    std::string Acquired(const std::wstring& file, const wchar_t* name) {
        ComPtr<IStream> stream;
        HRESULT hr = m_manager.Stream(file, name, &stream);
        return SUCCEEDED(hr) ? ReadStream(stream.Get()) : Hex(hr);
    }

    Manager m_manager;
    const std::wstring m_file = ScratchFile(L"cross");
};

TEST_F(CrossProcess, ALockHeldInAnotherProcessMakesAcquisitionsUnderAnySpellingFail) {
    ASSERT_HR(S_OK, m_manager.Put(m_file, L"s", "before"));
    Peer holder(L"peer hold-lock " + Quoted(m_file));
    ASSERT_TRUE(holder.Ready());
    // The holder keeps the lock past the second that an acquisition waits.
    std::wstring upper = m_file;
    ::CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
    EXPECT_EQ(Hex(E_FAIL), Acquired(upper, L"s"));
    ComPtr<IStorage> storage;
    EXPECT_HR(E_FAIL, m_manager.Storage(m_file, L"g", &storage));
    const std::wstring other = ScratchFile(L"other");  // a lock of its own
    EXPECT_EQ("", Acquired(other, L"s"));
    ::DeleteFileW(other.c_str());

    EXPECT_EQ(0u, holder.Release());
    // The failed acquisitions' write-backs met the same lock and gave up.
    EXPECT_EQ("s=before;", FileContents(m_file));
}

TEST_F(CrossProcess, OfTwoHoldersTheOneReleasedLastWinsThoughItWroteNothing) {
    ASSERT_HR(S_OK, m_manager.Put(m_file, L"s", "original"));
    Peer other(L"peer hold-stream " + Quoted(m_file) + L" s");
    ASSERT_TRUE(other.Ready());
    ASSERT_HR(S_OK, m_manager.Put(m_file, L"s", "written here"));
    EXPECT_EQ("written here", Acquired(m_file, L"s"));
    EXPECT_EQ(0u, other.Release());
    EXPECT_EQ("s=original;", FileContents(m_file));
}

std::vector<std::wstring> PrivateTempFolders() {
    std::vector<std::wstring> folders;
    WIN32_FIND_DATAW found;
    HANDLE find = ::FindFirstFileW((TempPath() + tempfolder::kTempFolderPrefix + L"*").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) return folders;
    do folders.push_back(TempPath() + found.cFileName + L"\\");
    while (::FindNextFileW(find, &found));
    ::FindClose(find);
    return folders;
}

TEST(CrossProcessRuns, ManyProcessesLeaveEveryElementAsOneCompleteWrite) {
    const std::wstring file = BesideThisProgram(L"stress.stg");
    ::DeleteFileW(file.c_str());
    std::vector<std::unique_ptr<ChildProcess>> workers;
    for (int id = 1; id <= 6; ++id)
        workers.push_back(std::make_unique<ChildProcess>(
            PeerProgram(id).c_str(), L"peer worker " + Quoted(file) + L" " + std::to_wstring(id) + L" 40"));
    unsigned failures = 0;
    for (auto& worker : workers) {
        const DWORD code = worker->Wait(600000);
        EXPECT_TRUE(code != STILL_ACTIVE && code < 0x10000) << "no torn reads, no errors: " << Hex(code);
        failures += code & 0xFFFF;
    }
    const FileCheck check = CheckFile(file);
    std::printf("stress: processes=6 iterations=40 failed-acquisitions=%u valid=%u empty=%u torn=%u\n", failures,
                check.valid, check.empty, check.torn);
    EXPECT_TRUE(check.readable);
    EXPECT_EQ(0u, check.torn);
    EXPECT_LT(0u, check.valid);
    // Only a failed acquisition's write-back puts an empty copy back.
    EXPECT_TRUE(failures > 0 || check.empty == 0) << check.empty << " empty elements";
}

// A peer rewrites a 2 MB element under one spelling of the path while this
// process reads it under another (another lock: the file's exclusive opening
// keeps them apart, and each read fails cleanly or finds one whole write).
// The peer is killed half-way through a write-back, once its journal is well
// under way: the next holder, under the other spelling, finds the element
// whole; and the journal, put back beside the file after later write-backs,
// undoes none of them.
TEST(CrossProcessRuns, AWriteBackKilledHalfWayIsRolledBackAndItsJournalNeverAgain) {
    const std::wstring file = BesideThisProgram(L"halfway.stg"), journal = file + L".kyjournal",
                       kept = file + L".old-journal";
    const std::wstring other = file.substr(0, file.find_last_of(L'\\')) + L"\\.\\halfway.stg";
    ::DeleteFileW(file.c_str());
    Manager manager;
    ASSERT_HR(S_OK, manager.Put(file, L"big", records::Make(0, 0, 2 << 20)));
    ChildProcess writer(PeerProgram().c_str(), L"peer rewrite-large " + Quoted(file));
    ComPtr<IStream> stream;
    for (int read = 0; read < 5; ++read) {
        const HRESULT hr = manager.Stream(other, L"big", &stream);
        if (FAILED(hr)) EXPECT_TRUE(hr == STG_E_SHAREVIOLATION || hr == E_FAIL) << Hex(hr);
        else EXPECT_EQ(records::Kind::Valid, records::Check(ReadStream(stream.Get())));
        stream.Reset();
    }
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    for (DWORD start = ::GetTickCount(); ::GetTickCount() - start < kTimeout; ::Sleep(1))
        if (::GetFileAttributesExW(journal.c_str(), GetFileExInfoStandard, &data) && data.nFileSizeLow > (256 << 10))
            break;
    writer.Kill();
    ASSERT_TRUE(::CopyFileW(journal.c_str(), kept.c_str(), FALSE));

    ASSERT_HR(S_OK, manager.Stream(other, L"big", &stream));
    EXPECT_EQ(records::Kind::Valid, records::Check(ReadStream(stream.Get())));
    stream.Reset();
    const std::string later = records::Make(2, 1, 1 << 20);
    ASSERT_HR(S_OK, manager.Put(file, L"big", later));
    ASSERT_HR(S_OK, manager.Put(file, L"small", records::Make(3, 1)));
    ASSERT_TRUE(::MoveFileExW(kept.c_str(), journal.c_str(), MOVEFILE_REPLACE_EXISTING));
    ASSERT_HR(S_OK, manager.Stream(file, L"big", &stream));
    EXPECT_TRUE(ReadStream(stream.Get()) == later);
    stream.Reset();
    EXPECT_EQ(0u, CheckFile(file).torn);
    ::DeleteFileW(journal.c_str());
    ::DeleteFileW(file.c_str());
}

TEST(CrossProcessRuns, KilledLockHoldersCostAtMostOneFailureEachAndNeverAnUnreadableFile) {
    const std::wstring file = BesideThisProgram(L"kills.stg");
    ::DeleteFileW(file.c_str());
    Manager manager;
    // Like any process that keeps a setting open, this one holds a handle to
    // the file's mutex all along, so a kill leaves it abandoned, not gone.
    ComPtr<IStream> keeper;
    ASSERT_TRUE(SUCCEEDED(manager.Stream(file, L"keeper", &keeper)));
    ASSERT_HR(S_OK, manager.Put(file, L"s0", records::Make(0, 0)));
    const unsigned rounds = 30;
    unsigned seed = ::GetTickCount(), paying = 0, maxFailures = 0, emptied = 0, unreadable = 0, torn = 0;
    for (unsigned round = 0; round < rounds; ++round) {
        NamedEvent started;
        ChildProcess worker(
            kPeer, L"peer worker " + Quoted(file) + L" " + std::to_wstring(100 + round) + L" 0 " + started.Name());
        ASSERT_TRUE(worker.Started() && AwaitEvent(started.Name(), kTimeout));
        seed = seed * 1103515245u + 12345u;
        ::Sleep((seed >> 16) % 150);
        worker.Kill();
        unsigned failures = 0;
        ComPtr<IStream> stream;
        HRESULT hr;
        while ((hr = manager.Stream(file, L"s0", &stream)) == E_FAIL && failures < 5) ++failures;
        ASSERT_TRUE(SUCCEEDED(hr)) << Hex(hr);
        paying += failures > 0;
        maxFailures = std::max(maxFailures, failures);
        emptied += ReadStream(stream.Get()).empty();
        ASSERT_HR(S_OK, ReplaceStream(stream.Get(), records::Make(0, round)));
        stream.Reset();
        const FileCheck check = CheckFile(file);
        unreadable += !check.readable;
        torn += check.torn;
    }
    // The killed workers' private folders are left for a cleaner, which tells
    // them from the folders of live processes (this one's, at least).
    unsigned removed = 0, live = 0;
    for (const auto& folder : PrivateTempFolders()) {
        const HRESULT hr = tempfolder::RemoveFolderIfAbandoned(folder.c_str());
        removed += hr == S_OK;
        live += hr == S_FALSE;
    }
    std::printf(
        "killrun: kills=%u paying-acquisitions=%u max-failures-per-kill=%u emptied-by-discarded-write-back=%u "
        "unreadable-files=%u torn-elements=%u abandoned-temp-folders-removed=%u live-ones-kept=%u\n",
        rounds, paying, maxFailures, emptied, unreadable, torn, removed, live);
    // A kill inside the lock leaves the mutex abandoned: the next acquisition
    // fails once, and its discarded empty copy replaces the element.
    EXPECT_LT(0u, paying);
    EXPECT_GE(1u, maxFailures);
    EXPECT_EQ(paying, emptied);
    EXPECT_EQ(0u, unreadable);
    EXPECT_EQ(0u, torn);
    EXPECT_LE(rounds, removed);
    EXPECT_LE(1u, live);
}

}  // namespace
}  // namespace ky::test

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "peer") return ky::test::RunProgram(&ky::test::RunPeer);
    return ky::test::RunAllTests(argc, argv, COINIT_MULTITHREADED, &ky::test::DllCanUnloadNow);
}
