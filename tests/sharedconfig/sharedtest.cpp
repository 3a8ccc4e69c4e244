#include "sharedtest.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include <shellapi.h>
#include <wrl/client.h>

#include "helpers/tempfolder.h"
#include "sharedconfig/sharedfile.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {

namespace records {

namespace {

constexpr char kMagic[4] = {'K', 'Y', 'R', '1'};
constexpr size_t kHeader = 16;

void PutU32(std::string& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

std::uint32_t GetU32(const std::string& in, size_t at) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = (value << 8) | static_cast<unsigned char>(in[at + i]);
    return value;
}

}  // namespace

std::string Make(std::uint32_t writer, std::uint32_t sequence) {
    const std::uint32_t length = 40 + (writer * 977u + sequence * 131u) % 6000u;
    std::string record(kMagic, 4);
    PutU32(record, writer);
    PutU32(record, sequence);
    PutU32(record, length);
    for (std::uint32_t i = 0; i < length; ++i)
        record.push_back(static_cast<char>((writer * 31u + sequence * 7u + i) & 0xFF));
    return record;
}

Kind Check(const std::string& bytes) {
    if (bytes.empty()) return Kind::Empty;
    if (bytes.size() < kHeader || std::memcmp(bytes.data(), kMagic, 4) != 0) return Kind::Torn;
    const std::uint32_t writer = GetU32(bytes, 4), sequence = GetU32(bytes, 8), length = GetU32(bytes, 12);
    if (bytes.size() != kHeader + length) return Kind::Torn;
    return bytes == Make(writer, sequence) ? Kind::Valid : Kind::Torn;
}

Kind CheckStorage(IStorage* storage) {
    std::string texts[2];
    bool present[2];
    const wchar_t* names[2] = {L"record", L"copy"};
    for (int i = 0; i < 2; ++i) {
        ComPtr<IStream> stream;
        present[i] = SUCCEEDED(storage->OpenStream(names[i], nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream));
        if (present[i]) texts[i] = ReadStream(stream.Get());
    }
    if (!present[0] && !present[1]) return Kind::Empty;
    if (!present[0] || !present[1] || texts[0] != texts[1]) return Kind::Torn;
    return Check(texts[0]) == Kind::Valid ? Kind::Valid : Kind::Torn;
}

HRESULT WriteStorage(IStorage* storage, const std::string& record) {
    for (const wchar_t* name : {L"record", L"copy"}) {
        ComPtr<IStream> stream;
        HRESULT hr = storage->CreateStream(name, STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_CREATE, 0, 0, &stream);
        if (SUCCEEDED(hr)) hr = ReplaceStream(stream.Get(), record);
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}

}  // namespace records

Manager::Manager() {
    ::CoCreateInstance(CLSID_ComStgOutriggedConfiguration, nullptr, CLSCTX_INPROC_SERVER,
                       IID_IComStgOutriggedConfiguration, &m_manager);
}

namespace {

template <class I>
HRESULT Acquire(IComStgOutriggedConfiguration* manager,
                HRESULT (STDMETHODCALLTYPE IComStgOutriggedConfiguration::*acquire)(BSTR, BSTR, I**),
                const std::wstring& file, const std::wstring& name, ComPtr<I>* result) {
    BSTR path = ::SysAllocString(file.c_str()), element = ::SysAllocString(name.c_str());
    HRESULT hr = (manager->*acquire)(path, element, result->ReleaseAndGetAddressOf());
    ::SysFreeString(path);
    ::SysFreeString(element);
    return hr;
}

}  // namespace

HRESULT Manager::Stream(const std::wstring& file, const std::wstring& name, ComPtr<IStream>* stream) const {
    return Acquire(m_manager.Get(), &IComStgOutriggedConfiguration::AcquireStream, file, name, stream);
}

HRESULT Manager::Storage(const std::wstring& file, const std::wstring& name, ComPtr<IStorage>* storage) const {
    return Acquire(m_manager.Get(), &IComStgOutriggedConfiguration::AcquireStorage, file, name, storage);
}

std::string ReadStream(IStream* stream) {
    LARGE_INTEGER start = {};
    if (FAILED(stream->Seek(start, STREAM_SEEK_SET, nullptr))) return "<unreadable>";
    std::string bytes;
    char buffer[8192];
    for (;;) {
        ULONG read = 0;
        HRESULT hr = stream->Read(buffer, sizeof buffer, &read);
        if (FAILED(hr)) return "<unreadable>";
        if (read == 0) break;
        bytes.append(buffer, read);
    }
    return bytes;
}

HRESULT ReplaceStream(IStream* stream, const std::string& bytes) {
    ULARGE_INTEGER zero = {};
    HRESULT hr = stream->SetSize(zero);
    LARGE_INTEGER start = {};
    if (SUCCEEDED(hr)) hr = stream->Seek(start, STREAM_SEEK_SET, nullptr);
    ULONG written = 0;
    if (SUCCEEDED(hr)) hr = stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written);
    if (SUCCEEDED(hr) && written != bytes.size()) hr = STG_E_MEDIUMFULL;
    return hr;
}

namespace {

std::string Contents(IStorage* storage) {
    std::map<std::wstring, std::string> parts;
    ComPtr<IEnumSTATSTG> elements;
    if (FAILED(storage->EnumElements(0, nullptr, 0, &elements))) return "<unreadable>";
    STATSTG stat;
    while (elements->Next(1, &stat, nullptr) == S_OK) {
        ComPtr<IStorage> child;
        ComPtr<IStream> stream;
        std::string& part = parts[stat.pwcsName];
        if (stat.type == STGTY_STORAGE)
            part = SUCCEEDED(storage->OpenStorage(stat.pwcsName, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                                  &child))
                       ? "{" + Contents(child.Get()) + "}"
                       : "<unreadable>";
        else
            part = SUCCEEDED(storage->OpenStream(stat.pwcsName, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream))
                       ? ReadStream(stream.Get())
                       : "<unreadable>";
        ::CoTaskMemFree(stat.pwcsName);
    }
    std::string text;
    for (const auto& part : parts) text += std::string(part.first.begin(), part.first.end()) + "=" + part.second + ";";
    return text;
}

}  // namespace

std::string FileContents(const std::wstring& file) {
    ComPtr<IStorage> root;
    if (FAILED(::StgOpenStorage(file.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &root)))
        return "<no file>";
    return Contents(root.Get());
}

std::wstring LockName(const std::wstring& path) {
    wchar_t user[257];
    DWORD size = 257;
    ::GetUserNameW(user, &size);
    return std::wstring(L"Global\\") + user + sharedfile::PathHashDigits(path.data(), path.size());
}

namespace {
std::atomic<int> g_counter{0};

std::wstring UniqueSuffix() {
    return std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++g_counter) + L"-" +
           std::to_wstring(::GetTickCount());
}
}  // namespace

std::set<std::wstring> PrivateTempFolders() {
    wchar_t temp[MAX_PATH + 1];
    ::GetTempPathW(MAX_PATH + 1, temp);
    std::set<std::wstring> folders;
    WIN32_FIND_DATAW found;
    HANDLE find = ::FindFirstFileW((std::wstring(temp) + tempfolder::kTempFolderPrefix + L"*").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) return folders;
    do folders.insert(std::wstring(temp) + found.cFileName + L"\\");
    while (::FindNextFileW(find, &found));
    ::FindClose(find);
    return folders;
}

std::wstring ScratchFile(const wchar_t* tag) {
    wchar_t temp[MAX_PATH + 1];
    ::GetTempPathW(MAX_PATH + 1, temp);
    return std::wstring(temp) + L"kytest-" + tag + L"-" + UniqueSuffix() + L".stg";
}

NamedEvent::NamedEvent() : m_name(L"Local\\kytest-event-" + UniqueSuffix()) {
    m_event = ::CreateEventW(nullptr, FALSE, FALSE, m_name.c_str());
}

NamedEvent::~NamedEvent() { ::CloseHandle(m_event); }

bool SetNamedEvent(const std::wstring& name) {
    HANDLE event = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str());
    if (!event) return false;
    bool done = ::SetEvent(event) != FALSE;
    ::CloseHandle(event);
    return done;
}

bool WaitNamedEvent(const std::wstring& name, DWORD ms) {
    HANDLE event = ::OpenEventW(SYNCHRONIZE, FALSE, name.c_str());
    if (!event) return false;
    bool done = ::WaitForSingleObject(event, ms) == WAIT_OBJECT_0;
    ::CloseHandle(event);
    return done;
}

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
    wchar_t self[MAX_PATH];
    DWORD length = ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, length);
    path = path.substr(0, path.find_last_of(L"\\/") + 1) + program;
    std::wstring commandLine = L"\"" + path + L"\" " + arguments;
    std::vector<wchar_t> buffer(commandLine.begin(), commandLine.end());
    buffer.push_back(L'\0');
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info = {};
    if (::CreateProcessW(path.c_str(), buffer.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) {
        ::CloseHandle(info.hThread);
        m_process = info.hProcess;
        m_id = info.dwProcessId;
    }
}

ChildProcess::~ChildProcess() {
    if (!m_process) return;
    if (Wait(0) == STILL_ACTIVE) Kill();
    ::CloseHandle(m_process);
}

DWORD ChildProcess::Wait(DWORD ms) {
    if (!m_process) return static_cast<DWORD>(-1);
    if (::WaitForSingleObject(m_process, ms) != WAIT_OBJECT_0) return STILL_ACTIVE;
    DWORD code = 0;
    ::GetExitCodeProcess(m_process, &code);
    return code;
}

void ChildProcess::Kill() {
    if (!m_process) return;
    ::TerminateProcess(m_process, 9);
    ::WaitForSingleObject(m_process, INFINITE);
}

}  // namespace ky::test
