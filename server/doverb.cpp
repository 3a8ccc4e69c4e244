// DoVerbW: the maintenance entry point, run as
//   rundll32 kyutils.dll,DoVerbW <verb> [arguments]
#include <windows.h>

#include <cwchar>

extern "C" void CALLBACK DoVerbW(HWND window, HINSTANCE instance, LPWSTR commandLine, int show) {
    std::fwprintf(stderr, L"kyutils: unknown verb \"%ls\"\n", commandLine ? commandLine : L"");
}
