// The shared configuration store between real processes: this program and
// the peer program it starts (same prefix, same server, so named kernel
// objects are shared).
#include <wrl/client.h>

#include <set>
#include <string>

#include "helpers/tempfolder.h"
#include "kytest.h"
#include "sharedtest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr wchar_t kPeer[] = L"sharedconfig_peer.exe";
constexpr DWORD kStartTimeout = 60000;

std::wstring Quoted(const std::wstring& text) { return L"\"" + text + L"\""; }

// A peer with its two events: it says "ready" and waits for "release".
struct Peer {
    explicit Peer(const std::wstring& command)
        : process(kPeer, command + L" " + ready.Name() + L" " + release.Name()) {}
    bool Ready() { return process.Started() && ready.Wait(kStartTimeout); }
    NamedEvent ready, release;
    ChildProcess process;
};

class CrossProcess : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_manager.Ok());
        m_file = ScratchFile(L"cross");
    }
    void TearDown() override { ::DeleteFileW(m_file.c_str()); }

    std::string Acquired(const std::wstring& file, const wchar_t* name) {
        ComPtr<IStream> stream;
        HRESULT hr = m_manager.Stream(file, name, &stream);
        return SUCCEEDED(hr) ? ReadStream(stream.Get()) : "<" + Hex(hr) + ">";
    }
    void Write(const wchar_t* name, const std::string& text) {
        ComPtr<IStream> stream;
        ASSERT_TRUE(SUCCEEDED(m_manager.Stream(m_file, name, &stream)));
        ASSERT_HR(S_OK, ReplaceStream(stream.Get(), text));
    }

    Manager m_manager;
    std::wstring m_file;
};

TEST_F(CrossProcess, ALockHeldInAnotherProcessMakesAcquisitionsFail) {
    Write(L"s", "before");
    Peer holder(L"hold-lock " + Quoted(m_file));
    ASSERT_TRUE(holder.Ready());

    // The holder keeps the lock for longer than both waits of an acquisition
    // (its own and its discarded write-back's); the path is spelled in
    // another case.
    std::wstring upper = m_file;
    ::CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
    EXPECT_EQ("<" + Hex(E_FAIL) + ">", Acquired(upper, L"s"));
    ComPtr<IStorage> storage;
    EXPECT_HR(E_FAIL, m_manager.Storage(m_file, L"g", &storage));

    holder.release.Set();
    EXPECT_EQ(0u, holder.process.Wait(kStartTimeout));
    EXPECT_EQ("before", Acquired(m_file, L"s"));
}

TEST_F(CrossProcess, OfTwoHoldersTheOneReleasedLastWins) {
    Write(L"s", "original");
    Peer other(L"hold-stream " + Quoted(m_file) + L" s");
    ASSERT_TRUE(other.Ready());

    Write(L"s", "written here");
    EXPECT_EQ("written here", Acquired(m_file, L"s"));
    // The other process wrote nothing, and is released last.
    other.release.Set();
    EXPECT_EQ(0u, other.process.Wait(kStartTimeout));
    EXPECT_EQ("original", Acquired(m_file, L"s"));
}

TEST_F(CrossProcess, AHolderKilledWithTheLockCostsTheNextAcquisitionAtMostOneFailure) {
    Write(L"s", "x");
    // While an object of this process lives, the mutex outlives the killed
    // holder, abandoned: exactly one acquisition pays. Without one, the
    // mutex goes with the holder's handle and nobody pays.
    for (bool keep : {true, true, true, false, false}) {
        SCOPED_TRACE(keep ? "with a live object here" : "with none");
        ComPtr<IStream> keeper;
        if (keep) {
            ASSERT_TRUE(SUCCEEDED(m_manager.Stream(m_file, L"keeper", &keeper)));
        }
        Peer holder(L"hold-lock " + Quoted(m_file));
        ASSERT_TRUE(holder.Ready());
        holder.process.Kill();
        int failures = 0;
        ComPtr<IStream> stream;
        HRESULT hr;
        while ((hr = m_manager.Stream(m_file, L"s", &stream)) == E_FAIL && failures < 5) ++failures;
        EXPECT_EQ(keep ? 1 : 0, failures);
        EXPECT_HR(S_OK, hr);
    }
}

TEST_F(CrossProcess, AKilledProcessLeavesATemporaryFolderThatACleanerRemoves) {
    const std::set<std::wstring> before = PrivateTempFolders();
    Peer peer(L"temp-folder");
    ASSERT_TRUE(peer.Ready());
    // Its folder is the new one, and its marker names its process.
    std::wstring folder;
    for (const auto& candidate : PrivateTempFolders())
        if (!before.count(candidate)) folder = candidate;
    ASSERT_FALSE(folder.empty());
    HANDLE marker = ::CreateFileW((folder + tempfolder::kOwnerMarkerName).c_str(), GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    char text[32] = {};
    DWORD read = 0;
    ::ReadFile(marker, text, sizeof text - 1, &read, nullptr);
    ::CloseHandle(marker);
    EXPECT_EQ(std::to_string(peer.process.Id()) + "\r\n", text);

    EXPECT_HR(S_FALSE, tempfolder::RemoveFolderIfAbandoned(folder.c_str()));
    peer.process.Kill();
    EXPECT_HR(S_OK, tempfolder::RemoveFolderIfAbandoned(folder.c_str()));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(folder.c_str()));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
