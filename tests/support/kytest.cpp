#include "kytest.h"

#include <cstdio>
#include <vector>

namespace ky::test {

std::wstring DllPath() { return KY_DLL_PATH; }

HMODULE LoadedDll() { return ::GetModuleHandleW(L"kyutils.dll"); }

HRESULT DllCanUnloadNow() {
    HMODULE dll = LoadedDll();
    if (!dll) return S_OK;
    auto canUnload = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        reinterpret_cast<void*>(::GetProcAddress(dll, "DllCanUnloadNow")));
    return canUnload ? canUnload() : E_UNEXPECTED;
}

namespace {

// Fails the test after which the module still holds locks.
class LeakCheck : public ::testing::EmptyTestEventListener {
public:
    explicit LeakCheck(HRESULT (*canUnloadNow)()) : m_canUnloadNow(canUnloadNow) {}
    void OnTestEnd(const ::testing::TestInfo& info) override {
        HRESULT hr = m_canUnloadNow();
        if (hr != S_OK) {
            std::printf("[  LEAK    ] %s.%s left the module locked (%s)\n", info.test_suite_name(), info.name(),
                        Hex(hr).c_str());
            ++m_leaks;
        }
    }
    int Leaks() const { return m_leaks; }

private:
    HRESULT (*m_canUnloadNow)();
    int m_leaks = 0;
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
    int leaks = leakCheck->Leaks();
    HRESULT final = canUnloadNow();
    ::CoUninitialize();
    if (final != S_OK) {
        std::printf("FAILED: the module is still locked at the end (%s)\n", Hex(final).c_str());
        return 3;
    }
    if (leaks) {
        std::printf("FAILED: %d test(s) left the module locked\n", leaks);
        return 3;
    }
    return result;
}

void RunInApartment(DWORD coinit, const std::function<void()>& body) {
    struct Context {
        DWORD coinit;
        const std::function<void()>* body;
    } context{coinit, &body};
    HANDLE thread = ::CreateThread(
        nullptr, 0,
        [](void* p) WINAPI -> DWORD {
            auto* c = static_cast<Context*>(p);
            ::CoInitializeEx(nullptr, c->coinit);
            (*c->body)();
            ::CoUninitialize();
            return 0;
        },
        &context, 0, nullptr);
    ::WaitForSingleObject(thread, INFINITE);
    ::CloseHandle(thread);
}

namespace {
constexpr UINT kRunMessage = WM_APP + 1;
constexpr UINT kQuitMessage = WM_APP + 2;
}  // namespace

StaThread::StaThread() {
    m_ready = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    m_thread = ::CreateThread(nullptr, 0, &StaThread::Main, this, 0, &m_threadId);
    ::WaitForSingleObject(m_ready, INFINITE);
}

StaThread::~StaThread() {
    ::PostThreadMessageW(m_threadId, kQuitMessage, 0, 0);
    ::WaitForSingleObject(m_thread, INFINITE);
    ::CloseHandle(m_thread);
    ::CloseHandle(m_ready);
}

void StaThread::Run(const std::function<void()>& body) {
    ::PostThreadMessageW(m_threadId, kRunMessage, 0, reinterpret_cast<LPARAM>(&body));
    // Pump while waiting, in case the caller is itself an STA that the body calls.
    for (;;) {
        DWORD wait = ::MsgWaitForMultipleObjects(1, &m_ready, FALSE, INFINITE, QS_ALLINPUT);
        if (wait == WAIT_OBJECT_0) break;
        MSG msg;
        while (::PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) ::DispatchMessageW(&msg);
    }
}

DWORD WINAPI StaThread::Main(void* p) {
    auto* self = static_cast<StaThread*>(p);
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    MSG msg;
    ::PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // create the queue before saying ready
    ::SetEvent(self->m_ready);
    while (::GetMessageW(&msg, nullptr, 0, 0) > 0) {
        if (msg.hwnd == nullptr && msg.message == kRunMessage) {
            (*reinterpret_cast<const std::function<void()>*>(msg.lParam))();
            ::SetEvent(self->m_ready);
            continue;
        }
        if (msg.hwnd == nullptr && msg.message == kQuitMessage) break;
        ::TranslateMessage(&msg);
        ::DispatchMessageW(&msg);
    }
    ::CoUninitialize();
    return 0;
}

std::wstring TempPath() {
    wchar_t path[MAX_PATH + 1];
    ::GetTempPathW(MAX_PATH + 1, path);
    return path;
}

std::wstring GuidText(const GUID& guid) {
    wchar_t text[40];
    ::StringFromGUID2(guid, text, 40);
    return text;
}

std::string Narrow(const std::wstring& text) {
    if (text.empty()) return std::string();
    int size = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(size, '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], size, nullptr, nullptr);
    return out;
}

std::wstring Widen(const std::string& text) {
    if (text.empty()) return std::wstring();
    int size = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(size, L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], size);
    return out;
}

std::string Hex(HRESULT hr) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08lX", static_cast<unsigned long>(hr));
    return buffer;
}

bool ReadRegString(HKEY root, const std::wstring& key, const wchar_t* value, std::wstring* text) {
    HKEY handle = nullptr;
    if (::RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) return false;
    DWORD type = 0;
    DWORD size = 0;
    LSTATUS status = ::RegQueryValueExW(handle, value, nullptr, &type, nullptr, &size);
    if (status != ERROR_SUCCESS || type != REG_SZ) {
        ::RegCloseKey(handle);
        return false;
    }
    std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1, L'\0');
    status = ::RegQueryValueExW(handle, value, nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &size);
    ::RegCloseKey(handle);
    if (status != ERROR_SUCCESS) return false;
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
