// DoVerbW: the maintenance entry point, run from a command line as
//
//   rundll32 kyutils.dll,DoVerbW <verb> [arguments]
//
// The verb is selected by a hash of its lower-cased name. Verbs print to the
// console (or whatever standard output) they were started from. Inside
// rundll32 the process ends with the verb's exit code, so that a failing
// verb is seen as failing by the shell that started it.
#include <windows.h>
#include <shellapi.h>

#include <cstdint>
#include <string>
#include <vector>

#include "com/fnv.h"
#include "doverb.h"
#include "module.h"

STDAPI DllRegisterServer();
STDAPI DllUnregisterServer();

namespace ky {

namespace {

// 64-bit FNV-1 over the UTF-16LE bytes of the lower-cased name.
constexpr uint64_t VerbHash(const wchar_t* name) {
    com::Fnv1 hash;
    for (; *name; ++name) {
        wchar_t c = *name;
        if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
        hash.Add(static_cast<uint8_t>(c));
        hash.Add(static_cast<uint8_t>(c >> 8));
    }
    return hash.Value();
}

struct Verb {
    const wchar_t* name;
    const wchar_t* arguments;
    const wchar_t* description;
};

constexpr Verb kVerbs[] = {
    {L"help", L"", L"lists the verbs"},
    {L"register", L"", L"registers the library's classes, type library and interfaces"},
    {L"unregister", L"", L"removes what register wrote"},
    {L"reset-settings", L"", L"removes the application's settings (HKEY_CURRENT_USER\\" KY_SETTINGS_KEY L")"},
    {L"list-config", L"<file>", L"lists the elements of a shared configuration file, under its lock"},
    {L"clean-temp", L"", L"removes temporary folders of this library that no live process uses"},
};

constexpr bool HashesDistinct() {
    for (size_t i = 0; i < sizeof(kVerbs) / sizeof(kVerbs[0]); ++i)
        for (size_t j = i + 1; j < sizeof(kVerbs) / sizeof(kVerbs[0]); ++j)
            if (VerbHash(kVerbs[i].name) == VerbHash(kVerbs[j].name)) return false;
    return true;
}
static_assert(HashesDistinct(), "two verbs share a hash");

int Help(Console& out) {
    out.Line(L"Usage: rundll32 kyutils.dll,DoVerbW <verb> [arguments]");
    out.Line(L"Verbs:");
    for (const auto& verb : kVerbs) {
        std::wstring head = std::wstring(L"  ") + verb.name;
        if (*verb.arguments) head += std::wstring(L" ") + verb.arguments;
        head.resize(head.size() < 28 ? 28 : head.size() + 1, L' ');
        out.Line(head + verb.description);
    }
    return 0;
}

int Register(Console& out, bool reg) {
    HRESULT hr = reg ? DllRegisterServer() : DllUnregisterServer();
    if (FAILED(hr)) {
        out.Line((reg ? L"Registration failed: " : L"Unregistration failed: ") + HResultText(hr));
        return 1;
    }
    out.Line(reg ? L"Registered " + CKyUtilsModule::Instance().Path()
                 : L"Unregistered " + CKyUtilsModule::Instance().Path());
    return 0;
}

// The verb and its arguments. rundll32 hands a Unicode entry point the rest
// of its command line, but when it is asked for "DoVerbW" by that name it
// passes an ANSI string; the process's own command line is right in both
// cases, so the arguments are taken from there when it names this entry.
std::vector<std::wstring> Arguments(LPWSTR commandLine) {
    std::vector<std::wstring> args;
    int count = 0;
    LPWSTR* argv = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    int first = -1;
    for (int i = 0; argv && i < count; ++i) {
        std::wstring arg = argv[i];
        for (auto& c : arg) c = static_cast<wchar_t>(::towlower(c));
        if (arg.find(L",doverb") != std::wstring::npos) {
            first = i + 1;
            break;
        }
    }
    if (first >= 0) {
        for (int i = first; i < count; ++i) args.emplace_back(argv[i]);
    } else if (commandLine && *commandLine) {
        LPWSTR* own = ::CommandLineToArgvW(commandLine, &count);
        for (int i = 0; own && i < count; ++i) args.emplace_back(own[i]);
        ::LocalFree(own);
    }
    ::LocalFree(argv);
    return args;
}

bool HostedByRundll32() {
    wchar_t path[MAX_PATH];
    DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring name(path, length);
    size_t slash = name.find_last_of(L"\\/");
    if (slash != std::wstring::npos) name.erase(0, slash + 1);
    return ::lstrcmpiW(name.c_str(), L"rundll32.exe") == 0;
}

}  // namespace

Console::Console() {
    m_handle = ::GetStdHandle(STD_OUTPUT_HANDLE);
    if (m_handle == nullptr || m_handle == INVALID_HANDLE_VALUE) {
        // A GUI host started from a console: write to that console.
        if (::AttachConsole(ATTACH_PARENT_PROCESS))
            m_handle = ::CreateFileW(L"CONOUT$", GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    }
    DWORD mode = 0;
    m_console = m_handle != INVALID_HANDLE_VALUE && ::GetConsoleMode(m_handle, &mode);
}

void Console::Line(const std::wstring& text) {
    if (m_handle == nullptr || m_handle == INVALID_HANDLE_VALUE) return;
    std::wstring line = text + L"\r\n";
    DWORD written = 0;
    if (m_console) {
        ::WriteConsoleW(m_handle, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
        return;
    }
    int size = ::WideCharToMultiByte(CP_UTF8, 0, line.data(), static_cast<int>(line.size()), nullptr, 0, nullptr,
                                     nullptr);
    std::string bytes(size, '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, line.data(), static_cast<int>(line.size()), &bytes[0], size, nullptr, nullptr);
    ::WriteFile(m_handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

std::wstring HResultText(HRESULT hr) {
    wchar_t code[16];
    wsprintfW(code, L"0x%08lX", static_cast<unsigned long>(hr));
    std::wstring text = code;
    wchar_t* message = nullptr;
    DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM |
                  FORMAT_MESSAGE_FROM_HMODULE;
    if (::FormatMessageW(flags, CKyUtilsModule::Instance().Handle(), hr, 0, reinterpret_cast<wchar_t*>(&message), 0,
                         nullptr)) {
        std::wstring m = message;
        while (!m.empty() && (m.back() == L'\n' || m.back() == L'\r')) m.pop_back();
        text += L" (" + m + L")";
        ::LocalFree(message);
    }
    return text;
}

int RunVerb(Console& out, const std::vector<std::wstring>& args) {
    if (args.empty()) {
        Help(out);
        return 1;
    }
    const std::wstring& verb = args[0];
    std::vector<std::wstring> rest(args.begin() + 1, args.end());
    switch (VerbHash(verb.c_str())) {
    case VerbHash(L"help"):
        return Help(out);
    case VerbHash(L"register"):
        return Register(out, true);
    case VerbHash(L"unregister"):
        return Register(out, false);
    case VerbHash(L"reset-settings"):
        return ResetSettings(out);
    case VerbHash(L"list-config"):
        return ListConfig(out, rest);
    case VerbHash(L"clean-temp"):
        return CleanTemp(out);
    default:
        out.Line(L"Unknown verb \"" + verb + L"\".");
        Help(out);
        return 1;
    }
}

}  // namespace ky

extern "C" void CALLBACK DoVerbW(HWND window, HINSTANCE instance, LPWSTR commandLine, int show) {
    ky::Console out;
    HRESULT init = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    int code = ky::RunVerb(out, ky::Arguments(commandLine));
    if (SUCCEEDED(init)) ::CoUninitialize();
    if (ky::HostedByRundll32()) ::ExitProcess(static_cast<UINT>(code));
}
