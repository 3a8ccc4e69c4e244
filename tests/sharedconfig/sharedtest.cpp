#include "sharedtest.h"

#include <shellapi.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <map>

using Microsoft::WRL::ComPtr;

namespace ky::test {

namespace {

constexpr DWORD kRead = STGM_READ | STGM_SHARE_EXCLUSIVE;

std::wstring UniqueSuffix() {
    static std::atomic<int> counter{0};
    return std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++counter) + L"-" +
           std::to_wstring(::GetTickCount());
}

// The elements by name, a storage's as "{...}"; "<unreadable>" first when one cannot be opened.
std::string Text(IStorage* storage) {
    std::map<std::wstring, std::string> parts;
    ComPtr<IEnumSTATSTG> elements;
    bool readable = SUCCEEDED(storage->EnumElements(0, nullptr, 0, &elements));
    STATSTG stat;
    while (readable && elements->Next(1, &stat, nullptr) == S_OK) {
        com::TaskMem<wchar_t> name(stat.pwcsName);
        ComPtr<IStream> stream;
        ComPtr<IStorage> child;
        readable = SUCCEEDED(stat.type == STGTY_STORAGE
                                 ? storage->OpenStorage(stat.pwcsName, nullptr, kRead, nullptr, 0, &child)
                                 : storage->OpenStream(stat.pwcsName, nullptr, kRead, 0, &stream));
        if (readable) parts[stat.pwcsName] = stream ? ReadStream(stream.Get()) : "{" + Text(child.Get()) + "}";
    }
    std::string text = readable ? "" : "<unreadable>";
    for (const auto& part : parts) text += std::string(part.first.begin(), part.first.end()) + "=" + part.second + ";";
    return text;
}

}  // namespace

namespace records {

// Both targets are little-endian.
std::string Make(std::uint32_t writer, std::uint32_t sequence, std::uint32_t length) {
    const std::uint32_t header[] = {writer, sequence, length ? length : 40 + (writer * 977u + sequence * 131u) % 6000u};
    std::string record = "KYR1" + std::string(reinterpret_cast<const char*>(header), sizeof header);
    for (std::uint32_t i = 0; i < header[2]; ++i) record.push_back(static_cast<char>(writer * 31u + sequence * 7u + i));
    return record;
}

Kind Check(const std::string& bytes) {
    std::uint32_t header[3] = {};
    if (bytes.empty()) return Kind::Empty;
    if (bytes.size() >= 16) std::memcpy(header, bytes.data() + 4, sizeof header);
    return header[2] && bytes == Make(header[0], header[1], header[2]) ? Kind::Valid : Kind::Torn;
}

}  // namespace records

std::string FileContents(const std::wstring& file) {
    ComPtr<IStorage> root;
    return FAILED(::StgOpenStorage(file.c_str(), nullptr, kRead, nullptr, 0, &root)) ? "<no file>" : Text(root.Get());
}

Manager::Manager() {
    ::CoCreateInstance(CLSID_ComStgOutriggedConfiguration, nullptr, CLSCTX_INPROC_SERVER,
                       IID_IComStgOutriggedConfiguration, &m_manager);
}

HRESULT Manager::Stream(const std::wstring& file, const std::wstring& name, ComPtr<IStream>* stream) const {
    return m_manager->AcquireStream(com::Bstr(file.c_str()), com::Bstr(name.c_str()), stream->ReleaseAndGetAddressOf());
}

HRESULT Manager::Storage(const std::wstring& file, const std::wstring& name, ComPtr<IStorage>* storage) const {
    return m_manager->AcquireStorage(com::Bstr(file.c_str()), com::Bstr(name.c_str()),
                                     storage->ReleaseAndGetAddressOf());
}

HRESULT Manager::Put(const std::wstring& file, const std::wstring& name, const std::string& bytes) const {
    ComPtr<IStream> stream;
    HRESULT hr = Stream(file, name, &stream);
    return FAILED(hr) ? hr : ReplaceStream(stream.Get(), bytes);
}

std::string ReadStream(IStream* stream) {
    LARGE_INTEGER start = {};
    std::string bytes;
    char buffer[8192];
    ULONG read = 0;
    HRESULT hr = stream->Seek(start, STREAM_SEEK_SET, nullptr);
    while (SUCCEEDED(hr) && SUCCEEDED(hr = stream->Read(buffer, sizeof buffer, &read)) && read > 0)
        bytes.append(buffer, read);
    return FAILED(hr) ? "<unreadable>" : bytes;
}

HRESULT ReplaceStream(IStream* stream, const std::string& bytes) {
    ULARGE_INTEGER zero = {};
    LARGE_INTEGER start = {};
    ULONG written = 0;
    HRESULT hr = stream->SetSize(zero);
    if (SUCCEEDED(hr)) hr = stream->Seek(start, STREAM_SEEK_SET, nullptr);
    if (SUCCEEDED(hr)) hr = stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written);
    return SUCCEEDED(hr) && written != bytes.size() ? STG_E_MEDIUMFULL : hr;
}

std::wstring ScratchFile(const wchar_t* tag) {
    wchar_t temp[MAX_PATH + 1];
    return std::wstring(temp, ::GetTempPathW(MAX_PATH + 1, temp)) + L"kytest-" + tag + L"-" + UniqueSuffix() + L".stg";
}

std::wstring BesideThisProgram(const std::wstring& name) {
    wchar_t self[MAX_PATH];
    std::wstring path(self, ::GetModuleFileNameW(nullptr, self, MAX_PATH));
    return path.substr(0, path.find_last_of(L"\\/") + 1) + name;
}

std::wstring UniqueName(const wchar_t* tag) { return L"Local\\kytest-" + std::wstring(tag) + L"-" + UniqueSuffix(); }

com::Handle Event(const std::wstring& name) { return com::Handle(::CreateEventW(nullptr, FALSE, FALSE, name.c_str())); }

int RunProgram(int (*body)(int argc, wchar_t** argv)) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    int argc = 0;
    wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int result = body(argc, argv);
    ::CoUninitialize();
    ::LocalFree(argv);
    return result;
}

ChildProcess::ChildProcess(const wchar_t* program, const std::wstring& arguments) {
    const std::wstring path = std::wcspbrk(program, L"\\:") ? program : BesideThisProgram(program);
    std::wstring commandLine = L"\"" + path + L"\" " + arguments;
    STARTUPINFOW startup = {sizeof startup};
    PROCESS_INFORMATION info = {};
    if (::CreateProcessW(path.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                         &info)) {
        ::CloseHandle(info.hThread);
        m_process.Attach(info.hProcess);
    }
}

DWORD ChildProcess::Wait(DWORD ms) {
    DWORD code = static_cast<DWORD>(-1);
    if (::WaitForSingleObject(m_process.Get(), ms) == WAIT_TIMEOUT) return STILL_ACTIVE;
    ::GetExitCodeProcess(m_process.Get(), &code);
    return code;
}

void ChildProcess::Kill() {
    ::TerminateProcess(m_process.Get(), 9);
    ::WaitForSingleObject(m_process.Get(), INFINITE);
}

}  // namespace ky::test
