#include "kytest.h"

#include <cstdio>
#include <vector>

namespace ky::test {

std::wstring DllPath() { return KY_DLL_PATH; }

HMODULE LoadedDll() { return ::GetModuleHandleW(L"kyutils.dll"); }

HRESULT DllCanUnloadNow() {
    HMODULE dll = LoadedDll();
    void* canUnload = dll ? reinterpret_cast<void*>(::GetProcAddress(dll, "DllCanUnloadNow")) : nullptr;
    return !dll ? S_OK : canUnload ? reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(canUnload)() : E_UNEXPECTED;
}

namespace {

// Counts the tests after which the module still holds locks.
struct LeakCheck : ::testing::EmptyTestEventListener {
    explicit LeakCheck(HRESULT (*canUnloadNow)()) : canUnloadNow(canUnloadNow) {}
    void OnTestEnd(const ::testing::TestInfo& info) override {
        const HRESULT hr = canUnloadNow();
        if (hr == S_OK) return;
        std::printf("[  LEAK    ] %s.%s left the module locked (%s)\n", info.test_suite_name(), info.name(),
                    Hex(hr).c_str());
        ++leaks;
    }
    HRESULT (*canUnloadNow)();
    int leaks = 0;
};

}  // namespace

int RunAllTests(int argc, char** argv, DWORD coinit, HRESULT (*canUnloadNow)()) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    ::testing::InitGoogleTest(&argc, argv);
    HRESULT hr = ::CoInitializeEx(nullptr, coinit);
    if (FAILED(hr)) {
        std::printf("CoInitializeEx failed: %s\n", Hex(hr).c_str());
        return 2;
    }
    auto* leakCheck = new LeakCheck(canUnloadNow);
    ::testing::UnitTest::GetInstance()->listeners().Append(leakCheck);
    int result = RUN_ALL_TESTS();
    int leaks = leakCheck->leaks;
    HRESULT final = canUnloadNow();
    ::CoUninitialize();
    if (final == S_OK && !leaks) return result;
    std::printf("FAILED: %d test(s) left the module locked; at the end: %s\n", leaks, Hex(final).c_str());
    return 3;
}

void RunInApartment(DWORD coinit, const std::function<void()>& body) {
    std::thread([&] {
        ::CoInitializeEx(nullptr, coinit);
        body();
        ::CoUninitialize();
    }).join();
}

constexpr UINT kRunMessage = WM_APP + 1, kQuitMessage = WM_APP + 2;

StaThread::StaThread() : m_ready(::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
    m_thread = std::thread([this] {
        ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        MSG msg;
        ::PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // create the queue before saying ready
        m_threadId = ::GetCurrentThreadId();
        ::SetEvent(m_ready);
        while (::GetMessageW(&msg, nullptr, 0, 0) > 0 && (msg.hwnd || msg.message != kQuitMessage)) {
            if (msg.hwnd == nullptr && msg.message == kRunMessage) {
                (*reinterpret_cast<const std::function<void()>*>(msg.lParam))();
                ::SetEvent(m_ready);
            } else {
                ::TranslateMessage(&msg);
                ::DispatchMessageW(&msg);
            }
        }
        ::CoUninitialize();
    });
    ::WaitForSingleObject(m_ready, INFINITE);
}

StaThread::~StaThread() {
    ::PostThreadMessageW(m_threadId, kQuitMessage, 0, 0);
    m_thread.join();
    ::CloseHandle(m_ready);
}

void StaThread::Run(const std::function<void()>& body) {
    ::PostThreadMessageW(m_threadId, kRunMessage, 0, reinterpret_cast<LPARAM>(&body));
    // Pump while waiting, in case the caller is itself an STA that the body calls.
    while (::MsgWaitForMultipleObjects(1, &m_ready, FALSE, INFINITE, QS_ALLINPUT) != WAIT_OBJECT_0) {
        MSG msg;
        while (::PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) ::DispatchMessageW(&msg);
    }
}

std::wstring TempPath() {
    wchar_t path[MAX_PATH + 1];
    return std::wstring(path, ::GetTempPathW(MAX_PATH + 1, path));
}

std::wstring GuidText(const GUID& guid) {
    wchar_t text[40];
    ::StringFromGUID2(guid, text, 40);
    return text;
}

// Empty text makes both calls fail, which leaves the result empty.
std::string Narrow(const std::wstring& text) {
    const int length = static_cast<int>(text.size());
    std::string out(::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    return out;
}

std::wstring Widen(const std::string& text) {
    const int length = static_cast<int>(text.size());
    std::wstring out(::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, out.data(), static_cast<int>(out.size()));
    return out;
}

std::string Hex(HRESULT hr) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08lX", static_cast<unsigned long>(hr));
    return buffer;
}

bool ReadRegString(HKEY root, const std::wstring& key, const wchar_t* value, std::wstring* text) {
    DWORD size = 0;
    if (::RegGetValueW(root, key.c_str(), value, RRF_RT_REG_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS) return false;
    std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1, L'\0');
    if (::RegGetValueW(root, key.c_str(), value, RRF_RT_REG_SZ, nullptr, buffer.data(), &size) != ERROR_SUCCESS)
        return false;
    *text = buffer.data();
    return true;
}

bool RegKeyExists(HKEY root, const std::wstring& key) {
    HKEY handle = nullptr;
    if (::RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) return false;
    ::RegCloseKey(handle);
    return true;
}

}  // namespace ky::test

#include "classtable.h"

namespace ky::test {

bool Served(const CLSID& clsid) {
    HMODULE dll = ::LoadLibraryW(DllPath().c_str());
    if (!dll) return false;
    using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    auto get = reinterpret_cast<GetClassObject>(reinterpret_cast<void*>(::GetProcAddress(dll, "DllGetClassObject")));
    IClassFactory* factory = nullptr;
    HRESULT hr = get ? get(clsid, IID_IClassFactory, reinterpret_cast<void**>(&factory)) : E_UNEXPECTED;
    if (factory) factory->Release();
    ::FreeLibrary(dll);
    return SUCCEEDED(hr);
}

}  // namespace ky::test
