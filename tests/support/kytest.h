// Shared pieces of the test programs: the main function with its leak check,
// access to the library's exports, apartments and small conversions.
#pragma once

#include <windows.h>
#include <objbase.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "kyutils.h"

namespace ky::test {

// kyutils.dll as the test run registered it.
std::wstring DllPath();
// The DLL if COM (or the test) has loaded it, else null.
HMODULE LoadedDll();
// DllCanUnloadNow of the loaded DLL; S_OK when it is not loaded.
HRESULT DllCanUnloadNow();

// Runs all tests on a main thread in the given apartment. After every test
// and at the end the module must be unloadable (lock count zero): a test
// that leaks a reference fails.
int RunAllTests(int argc, char** argv, DWORD coinit, HRESULT (*canUnloadNow)());

// Runs `body` on a new thread in the given apartment and waits for it. An
// STA thread pumps messages until `body` returns.
void RunInApartment(DWORD coinit, const std::function<void()>& body);

// A thread in a single-threaded apartment that serves calls until stopped.
class StaThread {
public:
    StaThread();
    ~StaThread();
    // Runs `body` on the STA thread and waits for it.
    void Run(const std::function<void()>& body);
    DWORD ThreadId() const { return m_threadId; }

private:
    static DWORD WINAPI Main(void* self);
    HANDLE m_thread = nullptr;
    DWORD m_threadId = 0;
    HANDLE m_ready = nullptr;
};

// A VARIANT holding a number (the narrower types read the low bytes of the
// same storage); nothing to free.
inline VARIANT Number(LONG value, VARTYPE type = VT_I4) {
    VARIANT v = {};
    V_VT(&v) = type;
    V_I4(&v) = value;
    return v;
}

// The system's temporary folder, with its trailing backslash.
std::wstring TempPath();

// "{...}", as the registry writes GUIDs.
std::wstring GuidText(const GUID& guid);

std::string Narrow(const std::wstring& text);
std::wstring Widen(const std::string& text);
// "0x80041021" for readable failure messages.
std::string Hex(HRESULT hr);

// Reads a registry string value; false when the key or value is missing.
bool ReadRegString(HKEY root, const std::wstring& key, const wchar_t* value, std::wstring* text);
bool RegKeyExists(HKEY root, const std::wstring& key);

}  // namespace ky::test

#define KY_TEST_MAIN(coinit)                                                              \
    int main(int argc, char** argv) {                                                     \
        return ky::test::RunAllTests(argc, argv, coinit, &ky::test::DllCanUnloadNow);     \
    }

// Compares HRESULTs and prints them in hex.
#define EXPECT_HR(expected, actual) EXPECT_EQ(ky::test::Hex(expected), ky::test::Hex(actual))
#define ASSERT_HR(expected, actual) ASSERT_EQ(ky::test::Hex(expected), ky::test::Hex(actual))
