// Pieces shared by the shared-configuration tests, the peer program they
// start and the benchmark: records whose every write is recognisable when
// read back, the manager as a client holds it, and other processes.
#pragma once

#include <windows.h>
#include <objidl.h>
#include <wrl/client.h>

#include <cstdint>
#include <string>

#include "com/raii.h"
#include "kyutils.h"

namespace ky::test {

// A record: "KYR1", writer, sequence and payload length (32 bits each, low
// byte first), then the payload, byte i being (writer * 31 + sequence * 7 + i)
// mod 256. Lengths run from 40 to 6039 bytes, on both sides of the compound
// file's 4096-byte small-stream limit. check_olefile.py reads the same layout.
// A storage element holds the record twice, in its streams "record" and "copy".
namespace records {
enum class Kind { Empty, Valid, Torn };
std::string Make(std::uint32_t writer, std::uint32_t sequence);
Kind Check(const std::string& bytes);
Kind Check(IStorage* storage);
HRESULT Write(IStorage* storage, const std::string& record);
}  // namespace records

// Every top-level element of a compound file, classified.
struct FileCheck {
    bool readable = false;
    unsigned valid = 0, empty = 0, torn = 0;
};
FileCheck CheckFile(const std::wstring& file);

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

// The whole stream from offset 0.
std::string ReadStream(IStream* stream);
// Makes the stream hold exactly `bytes`.
HRESULT ReplaceStream(IStream* stream, const std::string& bytes);
// A compound file's elements as text, by name: "a=bytes;g={b=bytes;};".
std::string FileContents(const std::wstring& file);
// A fresh path in the temporary folder for a shared file.
std::wstring ScratchFile(const wchar_t* tag);
// A file next to this program.
std::wstring BesideThisProgram(const std::wstring& name);

// An auto-reset event with a unique name, for another process to open.
class NamedEvent {
public:
    NamedEvent();
    const std::wstring& Name() const { return m_name; }

private:
    std::wstring m_name;
    com::Handle m_event;
};
// Sets, or waits for, an event that a process made.
bool SignalEvent(const std::wstring& name);
bool AwaitEvent(const std::wstring& name, DWORD ms = INFINITE);

// The main function of a program that other programs start: runs `body`
// with the program's arguments in the multithreaded apartment.
int RunProgram(int (*body)(int argc, wchar_t** argv));

// A program next to this one, started with `arguments`; killed if still
// running when destroyed.
class ChildProcess {
public:
    ChildProcess(const wchar_t* program, const std::wstring& arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    bool Started() const { return m_process != nullptr; }
    // The exit code, or STILL_ACTIVE when it has not ended within `ms`.
    DWORD Wait(DWORD ms = INFINITE);
    // Ends it at once, wherever it is.
    void Kill();

private:
    HANDLE m_process = nullptr;
};

}  // namespace ky::test
