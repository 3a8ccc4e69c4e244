// The shared configuration store between real processes: this program and
// copies of it started as peers ("peer <part> ..."). The stress and kill runs
// leave their files next to this program: check_olefile.py checks that every
// element is one complete write.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "kytest.h"
#include "sharedconfig/sharedfile.h"
#include "sharedtest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr wchar_t kPeer[] = L"sharedconfig_crossprocess.exe";
constexpr DWORD kTimeout = 60000;

// This program, or for odd peers the other architecture's build of it when
// KY_PEER_PROGRAM names one, so that 32-bit and 64-bit processes share files.
std::wstring PeerProgram(unsigned n = 1) {
    wchar_t other[MAX_PATH];
    DWORD length = ::GetEnvironmentVariableW(L"KY_PEER_PROGRAM", other, MAX_PATH);
    return n % 2 == 1 && length > 0 && length < MAX_PATH ? other : kPeer;
}

// Takes the file's lock, its name computed here, and keeps it until "<events>-release".
int HoldLock(const std::wstring& file, const std::wstring& events) {
    wchar_t user[257];
    DWORD size = 257;
    ::GetUserNameW(user, &size);
    const std::wstring name = std::wstring(L"Global\\") + user + sharedfile::PathHashDigits(file.data(), file.size());
    com::Handle mutex(::CreateMutexW(nullptr, FALSE, name.c_str()));
    if (!mutex || ::WaitForSingleObject(mutex.Get(), INFINITE) == WAIT_FAILED) return 2;
    ::SetEvent(Event(events + L"-ready").Get());
    ::WaitForSingleObject(Event(events + L"-release").Get(), INFINITE);
    ::ReleaseMutex(mutex.Get());
    return 0;
}

// Acquires, checks, rewrites and releases streams of the file, `iterations`
// times or until killed. The exit code holds its failed acquisitions, and
// 0x10000 for a torn read or any other error.
int Worker(const std::wstring& file, unsigned id, unsigned iterations, const std::wstring& started) {
    Manager manager;
    unsigned seed = id * 7919u + ::GetTickCount(), failures = 0;
    bool bad = !manager.Ok();
    for (unsigned round = 0; manager.Ok() && (iterations == 0 || round < iterations); ++round) {
        seed = seed * 1103515245u + 12345u;
        const unsigned pick = (seed >> 16) % 4;  // mostly the shared streams, sometimes its own
        ComPtr<IStream> stream;
        const HRESULT hr =
            manager.Stream(file, pick < 3 ? L"s" + std::to_wstring(pick) : L"w" + std::to_wstring(id), &stream);
        failures += hr == E_FAIL;
        const bool torn = SUCCEEDED(hr) && records::Check(ReadStream(stream.Get())) == records::Kind::Torn;
        const bool unwritten = SUCCEEDED(hr) && FAILED(ReplaceStream(stream.Get(), records::Make(id, round)));
        bad = bad || torn || unwritten || (FAILED(hr) && hr != E_FAIL);
        if (round == 0 && !started.empty()) ::SetEvent(Event(started).Get());
    }
    return static_cast<int>((failures & 0xFFFF) | (bad ? 0x10000 : 0));
}

// A peer's main part; 0 when its part went as it must.
int RunPeer(int argc, wchar_t** argv) {
    const std::wstring part = argc > 3 ? argv[2] : L"";
    int result = 2;
    if (part == L"hold-lock" && argc == 5) result = HoldLock(argv[3], argv[4]);
    if (part == L"worker" && argc >= 6)
        result = Worker(argv[3], _wtoi(argv[4]), _wtoi(argv[5]), argc > 6 ? argv[6] : L"");
    // Rewrites a large element until killed.
    for (std::uint32_t round = 1; part == L"rewrite-large"; ++round)
        Manager().Put(argv[3], L"big", records::Make(1, round, 2 << 20));
    return DllCanUnloadNow() == S_OK ? result : 3;  // every object of the library is gone
}

std::wstring Quoted(const std::wstring& text) { return L"\"" + text + L"\""; }

// What an acquisition of the stream reads, or its failure.
std::string Acquired(const std::wstring& file, const wchar_t* name) {
    ComPtr<IStream> stream;
    HRESULT hr = Manager().Stream(file, name, &stream);
    return SUCCEEDED(hr) ? ReadStream(stream.Get()) : Hex(hr);
}

// The holder keeps the lock past the second that an acquisition waits; the
// failed acquisition's write-back meets the same lock and gives up.
TEST(CrossProcess, ALockHeldInAnotherProcessMakesAcquisitionsUnderAnySpellingFail) {
    const std::wstring file = ScratchFile(L"cross"), events = UniqueName(L"lock");
    com::Handle ready = Event(events + L"-ready"), release = Event(events + L"-release");
    ASSERT_HR(S_OK, Manager().Put(file, L"s", "before"));
    ChildProcess holder(PeerProgram().c_str(), L"peer hold-lock " + Quoted(file) + L" " + events);
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(ready.Get(), kTimeout));
    std::wstring upper = file;
    ::CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
    EXPECT_EQ(Hex(E_FAIL), Acquired(upper, L"s"));
    ::SetEvent(release.Get());
    EXPECT_EQ(0u, holder.Wait(kTimeout));
    EXPECT_EQ("s=before;", FileContents(file));
    ::DeleteFileW(file.c_str());
}

TEST(CrossProcessRuns, ManyProcessesLeaveEveryElementAsOneCompleteWrite) {
    const std::wstring file = BesideThisProgram(L"stress.stg");
    ::DeleteFileW(file.c_str());
    std::vector<std::unique_ptr<ChildProcess>> workers;
    for (int id = 1; id <= 4; ++id)
        workers.push_back(std::make_unique<ChildProcess>(
            PeerProgram(id).c_str(), L"peer worker " + Quoted(file) + L" " + std::to_wstring(id) + L" 20"));
    unsigned failures = 0;
    for (auto& worker : workers) {
        const DWORD code = worker->Wait(600000);
        EXPECT_TRUE(code != STILL_ACTIVE && code < 0x10000) << "no torn reads, no errors: " << Hex(code);
        failures += code & 0xFFFF;
    }
    std::printf("stress: failed-acquisitions=%u\n", failures);
}

// A peer rewrites a 2 MB element under one spelling of the path while this
// process reads it under another (another lock: the file's exclusive opening
// keeps them apart). Whichever of the two meets the other's opening fails;
// a peer's failed acquisition writes its empty copy back, as any discarded
// acquisition does, so a read may find the element empty, never torn. The
// peer is killed half-way through a write-back: the next holder finds the
// element as the last finished write-back left it, and so does the holder of
// a copy of the folder taken before (another folder, another file index);
// the journal beside a copy of the file that carries another number changes
// nothing; and the journal, put back beside the file, or beside a copy of the
// file alone, after later write-backs, undoes none of them.
TEST(CrossProcessRuns, AWriteBackKilledHalfWayIsRolledBackInCopiesOfTheFolderTooAndItsJournalNeverAgain) {
    const std::wstring file = BesideThisProgram(L"halfway.stg"), journal = file + L".kyjournal",
                       kept = file + L".old-journal";
    const std::wstring other = file.substr(0, file.find_last_of(L'\\')) + L"\\.\\halfway.stg";
    ::DeleteFileW(file.c_str());
    Manager manager;
    ASSERT_HR(S_OK, manager.Put(file, L"big", records::Make(0, 0, 2 << 20)));
    ChildProcess writer(PeerProgram().c_str(), L"peer rewrite-large " + Quoted(file));
    for (int read = 0; read < 3; ++read) {
        const std::string got = Acquired(other, L"big");
        EXPECT_TRUE(got == Hex(STG_E_SHAREVIOLATION) || got == Hex(E_FAIL) ||
                    records::Check(got) != records::Kind::Torn)
            << got.substr(0, 16);
    }
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    for (DWORD start = ::GetTickCount(); ::GetTickCount() - start < kTimeout; ::Sleep(1))
        if (::GetFileAttributesExW(journal.c_str(), GetFileExInfoStandard, &data) && data.nFileSizeLow > (256 << 10))
            break;
    writer.Kill();
    ASSERT_TRUE(::CopyFileW(journal.c_str(), kept.c_str(), FALSE));
    const std::wstring copies = BesideThisProgram(L"halfway-copies\\"), copy = copies + L"halfway.stg",
                       renumbered = copies + L"renumbered.stg", alone = copies + L"alone.stg";
    ::CreateDirectoryW(copies.c_str(), nullptr);
    for (const std::wstring& to : {copy, renumbered, alone}) ASSERT_TRUE(::CopyFileW(file.c_str(), to.c_str(), FALSE));
    for (const std::wstring& to : {copy, renumbered})
        ASSERT_TRUE(::CopyFileW(journal.c_str(), (to + L".kyjournal").c_str(), FALSE));
    std::fstream header(std::filesystem::path(renumbered), std::ios::in | std::ios::out | std::ios::binary);
    header.seekg(0x34);  // the compound file header's transaction-signature field, where the number is
    const char changed = static_cast<char>(header.get() ^ 0xFF);
    header.seekp(0x34).put(changed);
    header.close();
    const std::string asKilled = FileContents(renumbered);

    EXPECT_NE(records::Kind::Torn, records::Check(Acquired(other, L"big")));
    Acquired(copy, L"big");
    EXPECT_TRUE(FileContents(copy) == FileContents(file));
    Acquired(renumbered, L"probe");
    EXPECT_TRUE(FileContents(renumbered) == asKilled + "probe=;");
    const std::string lone = Acquired(alone, L"big");
    std::printf("halfway: the file copied alone reads %zu bytes, %s\n", lone.size(),
                records::Check(lone) == records::Kind::Valid ? "whole" : "not whole");
    const std::string later = records::Make(2, 1, 1 << 20);
    ASSERT_HR(S_OK, manager.Put(file, L"big", later));
    ASSERT_HR(S_OK, manager.Put(file, L"small", records::Make(3, 1)));
    ASSERT_HR(S_OK, manager.Put(alone, L"big", later));
    ASSERT_TRUE(::CopyFileW(kept.c_str(), (alone + L".kyjournal").c_str(), FALSE));
    EXPECT_TRUE(Acquired(alone, L"big") == later);
    ASSERT_TRUE(::MoveFileExW(kept.c_str(), journal.c_str(), MOVEFILE_REPLACE_EXISTING));
    EXPECT_TRUE(Acquired(file, L"big") == later);
    EXPECT_EQ(records::Kind::Valid, records::Check(Acquired(file, L"small")));
    ::DeleteFileW(journal.c_str());
    ::DeleteFileW(file.c_str());
    std::filesystem::remove_all(std::filesystem::path(copies));
}

// A kill inside the lock leaves the mutex abandoned: the next acquisition
// fails once, and its discarded empty copy replaces the element.
TEST(CrossProcessRuns, KilledLockHoldersCostAtMostOneFailureEachAndNeverAnUnreadableFile) {
    const std::wstring file = BesideThisProgram(L"kills.stg");
    ::DeleteFileW(file.c_str());
    Manager manager;
    // Held all along, as by any process that keeps a setting open: so a kill
    // leaves the file's mutex abandoned, not gone.
    ComPtr<IStream> keeper;
    ASSERT_TRUE(SUCCEEDED(manager.Stream(file, L"keeper", &keeper)));
    ASSERT_HR(S_OK, manager.Put(file, L"s0", records::Make(0, 0)));
    const unsigned rounds = 12;  // about half of the kills land inside the lock
    unsigned seed = ::GetTickCount(), paying = 0, maxFailures = 0, emptied = 0;
    for (unsigned round = 0; round < rounds; ++round) {
        const std::wstring started = UniqueName(L"started");
        com::Handle event = Event(started);
        ChildProcess worker(kPeer,
                            L"peer worker " + Quoted(file) + L" " + std::to_wstring(100 + round) + L" 0 " + started);
        ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(event.Get(), kTimeout));
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
    }
    std::printf("killrun: kills=%u paying=%u max-failures=%u emptied=%u\n", rounds, paying, maxFailures, emptied);
    EXPECT_LT(0u, paying);
    EXPECT_GE(1u, maxFailures);
    EXPECT_EQ(paying, emptied);
}

}  // namespace
}  // namespace ky::test

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "peer") return ky::test::RunProgram(&ky::test::RunPeer);
    return ky::test::RunAllTests(argc, argv, COINIT_MULTITHREADED, &ky::test::DllCanUnloadNow);
}
