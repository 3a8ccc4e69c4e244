// Pieces shared by the shared-configuration tests, the peer program they
// start and the benchmark: records whose every write is recognisable when
// read back, the lock's name computed on the test's side, and processes.
#pragma once

#include <windows.h>
#include <objidl.h>
#include <wrl/client.h>

#include <cstdint>
#include <set>
#include <string>

#include "kyutils.h"

namespace ky::test {

// A record: "KYR1", writer, sequence and payload length (each 32 bits, low
// byte first), then the payload, byte i being (writer * 31 + sequence * 7 + i)
// mod 256. Lengths run from 40 to 6039 bytes, on both sides of the
// compound file's 4096-byte small-stream limit. check_olefile.py reads the
// same layout.
namespace records {

std::string Make(std::uint32_t writer, std::uint32_t sequence);

enum class Kind { Empty, Valid, Torn };
Kind Check(const std::string& bytes);

// A storage element holds the record twice, in "record" and "copy": both
// missing (empty), or both the same valid record.
Kind CheckStorage(IStorage* storage);
HRESULT WriteStorage(IStorage* storage, const std::string& record);

}  // namespace records

// The configuration manager as a client holds it.
class Manager {
public:
    Manager();
    bool Ok() const { return m_manager != nullptr; }
    IComStgOutriggedConfiguration* operator->() const { return m_manager.Get(); }
    HRESULT Stream(const std::wstring& file, const std::wstring& name, Microsoft::WRL::ComPtr<IStream>* stream) const;
    HRESULT Storage(const std::wstring& file, const std::wstring& name,
                    Microsoft::WRL::ComPtr<IStorage>* storage) const;

private:
    Microsoft::WRL::ComPtr<IComStgOutriggedConfiguration> m_manager;
};

// The whole stream from offset 0; the seek pointer is left at the end.
std::string ReadStream(IStream* stream);
// Makes the stream hold exactly `bytes`.
HRESULT ReplaceStream(IStream* stream, const std::string& bytes);

// A compound file's elements as text, by name: "a=bytes;g={b=bytes;};".
std::string FileContents(const std::wstring& file);

// The name of a shared file's lock, computed here from the user name and
// the hash of the lower-cased path.
std::wstring LockName(const std::wstring& path);

// The private temporary folders of every process, with trailing backslashes.
std::set<std::wstring> PrivateTempFolders();

// A fresh path in the temporary folder for a shared file.
std::wstring ScratchFile(const wchar_t* tag);

// A named auto-reset event with a unique name, for another process to open.
class NamedEvent {
public:
    NamedEvent();
    ~NamedEvent();
    NamedEvent(const NamedEvent&) = delete;
    NamedEvent& operator=(const NamedEvent&) = delete;
    const std::wstring& Name() const { return m_name; }
    void Set() { ::SetEvent(m_event); }
    bool Wait(DWORD ms) { return ::WaitForSingleObject(m_event, ms) == WAIT_OBJECT_0; }
    HANDLE Handle() const { return m_event; }

private:
    std::wstring m_name;
    HANDLE m_event;
};

// Sets or waits for an event that another process made.
bool SetNamedEvent(const std::wstring& name);
bool WaitNamedEvent(const std::wstring& name, DWORD ms);

// The main function of a program that other programs start: runs `body`
// with the program's arguments in the multithreaded apartment.
int RunProgram(int (*body)(int argc, wchar_t** argv));

// A program started from this one (same Wine prefix and server).
class ChildProcess {
public:
    // `program` is a file name next to this program's own.
    ChildProcess(const wchar_t* program, const std::wstring& arguments);
    ~ChildProcess();  // kills a child still running
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    bool Started() const { return m_process != nullptr; }
    // The exit code, or STILL_ACTIVE when it has not ended within `ms`.
    DWORD Wait(DWORD ms = INFINITE);
    // Ends it at once, wherever it is, and waits until it has gone.
    void Kill();
    HANDLE Handle() const { return m_process; }
    DWORD Id() const { return m_id; }

private:
    HANDLE m_process = nullptr;
    DWORD m_id = 0;
};

}  // namespace ky::test
