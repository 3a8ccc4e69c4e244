// Pieces shared by the shared-configuration tests, the peer processes they
// start and the benchmark.
#pragma once

#include <objidl.h>
#include <windows.h>
#include <wrl/client.h>

#include <cstdint>
#include <string>

#include "com/raii.h"
#include "kyutils.h"

namespace ky::test {

// Records whose every write is recognisable when read back: "KYR1", writer,
// sequence and payload length (32 bits, low byte first), then byte i of the
// payload is (writer * 31 + sequence * 7 + i) mod 256; 40 to 6039 bytes
// unless given, across the 4096-byte small-stream limit. check_olefile.py
// reads the same layout.
namespace records {
enum class Kind { Empty, Valid, Torn };
std::string Make(std::uint32_t writer, std::uint32_t sequence, std::uint32_t length = 0);
Kind Check(const std::string& bytes);
}  // namespace records

// A compound file's elements by name: "a=bytes;g={b=bytes;};".
std::string FileContents(const std::wstring& file);

class Manager {
public:
    Manager();
    bool Ok() const { return m_manager != nullptr; }
    IComStgOutriggedConfiguration* operator->() const { return m_manager.Get(); }
    HRESULT Stream(const std::wstring& file, const std::wstring& name, Microsoft::WRL::ComPtr<IStream>* stream) const;
    HRESULT Storage(const std::wstring& file, const std::wstring& name,
                    Microsoft::WRL::ComPtr<IStorage>* storage) const;
    // Acquires the stream, makes it hold `bytes` and releases it.
    HRESULT Put(const std::wstring& file, const std::wstring& name, const std::string& bytes) const;

private:
    Microsoft::WRL::ComPtr<IComStgOutriggedConfiguration> m_manager;
};

std::string ReadStream(IStream* stream);  // the whole stream, from offset 0
HRESULT ReplaceStream(IStream* stream, const std::string& bytes);
std::wstring ScratchFile(const wchar_t* tag);  // a fresh path in the temporary folder
std::wstring BesideThisProgram(const std::wstring& name);

std::wstring UniqueName(const wchar_t* tag);  // for kernel objects that peers share
// The auto-reset event of that name, created or opened.
com::Handle Event(const std::wstring& name);

// Runs a started program's `body` with its arguments in the multithreaded apartment.
int RunProgram(int (*body)(int argc, wchar_t** argv));

// A program given by its path, or by its name when next to this one; killed
// if still running when destroyed.
class ChildProcess {
public:
    ChildProcess(const wchar_t* program, const std::wstring& arguments);
    ~ChildProcess() { Kill(); }
    bool Started() const { return m_process.IsValid(); }
    DWORD Wait(DWORD ms = INFINITE);  // the exit code, or STILL_ACTIVE
    void Kill();

private:
    com::Handle m_process;
};

}  // namespace ky::test
