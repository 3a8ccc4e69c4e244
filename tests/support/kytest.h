// Shared pieces of the test programs: the main function with its leak check,
// access to the library's exports, apartments and small conversions.
#pragma once

#include <windows.h>
#include <objbase.h>

#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "kyutils.h"

namespace ky::test {

std::wstring DllPath();     // kyutils.dll as the test run registered it
HMODULE LoadedDll();        // null until COM (or the test) loads it
HRESULT DllCanUnloadNow();  // of the loaded DLL; S_OK when it is not loaded

// Runs all tests on a main thread in the given apartment. After every test
// and at the end the module must be unloadable (lock count zero).
int RunAllTests(int argc, char** argv, DWORD coinit, HRESULT (*canUnloadNow)());

// Runs `body` on a new thread in the given apartment and waits for it.
void RunInApartment(DWORD coinit, const std::function<void()>& body);

// A thread in a single-threaded apartment that serves calls until stopped.
class StaThread {
public:
    StaThread();
    ~StaThread();
    void Run(const std::function<void()>& body);  // on the STA thread, waited for
    DWORD ThreadId() const { return m_threadId; }

private:
    HANDLE m_ready;
    DWORD m_threadId = 0;
    std::thread m_thread;
};

// A VARIANT holding a number (the narrower types read the low bytes of the
// same storage); nothing to free.
inline VARIANT Number(LONG value, VARTYPE type = VT_I4) {
    VARIANT v = {};
    V_VT(&v) = type;
    V_I4(&v) = value;
    return v;
}

std::wstring TempPath();                  // with its trailing backslash
std::wstring GuidText(const GUID& guid);  // "{...}", as the registry writes GUIDs
std::string Narrow(const std::wstring& text);
std::wstring Widen(const std::string& text);
std::string Hex(HRESULT hr);  // "0x80041021"

// A registry string value; false when the key or value is missing.
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
