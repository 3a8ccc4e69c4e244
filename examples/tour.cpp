// A tour of kyutils.dll: every service used through its COM interfaces, as
// a client would, printing in readable sections what was done and what came
// back. Exits non-zero as soon as a step fails.
//
// The main thread is a single-threaded apartment (the process's main STA),
// where the classes registered with an empty or "Apartment" threading model
// live; the "Free" classes are used from a thread of the multithreaded
// apartment.
#include <windows.h>
#include <objbase.h>
#include <ole2.h>
#include <shlwapi.h>

#include <wrl/client.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "kyutils.h"

using Microsoft::WRL::ComPtr;

namespace {

int g_failures = 0;

void Section(const char* title) { std::printf("\n== %s ==\n", title); }

// Reports one step; a failure is counted and the step's result printed.
bool Step(HRESULT hr, const char* what) {
    if (FAILED(hr)) {
        std::printf("  FAILED: %s (0x%08lX)\n", what, static_cast<unsigned long>(hr));
        ++g_failures;
        return false;
    }
    return true;
}

std::string Utf8(const wchar_t* text, int length = -1) {
    if (!text) return "(null)";
    int size = ::WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string out(size, '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, length, &out[0], size, nullptr, nullptr);
    if (length < 0 && !out.empty()) out.pop_back();
    return out;
}

struct Bstr {
    BSTR s = nullptr;
    Bstr() = default;
    explicit Bstr(const wchar_t* text) : s(::SysAllocString(text)) {}
    ~Bstr() { ::SysFreeString(s); }
    BSTR* operator&() { return &s; }
    operator BSTR() const { return s; }
    std::string Text() const { return s ? Utf8(s, static_cast<int>(::SysStringLen(s))) : "(null)"; }
};

// Prints text line by line (LF or CR LF), TABs shown as blanks.
void PrintLines(const std::string& text, const char* prefix) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        for (auto& c : line)
            if (c == '\t') c = ' ';
        std::printf("%s%s\n", prefix, line.c_str());
        start = end + 1;
    }
}

VARIANT Int(long value) {
    VARIANT v;
    ::VariantInit(&v);
    V_VT(&v) = VT_I4;
    V_I4(&v) = value;
    return v;
}

void RunOnThread(DWORD coinit, const std::function<void()>& body) {
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

template <class I>
HRESULT Create(const wchar_t* progId, ComPtr<I>& object) {
    CLSID clsid;
    HRESULT hr = ::CLSIDFromProgID(progId, &clsid);
    if (FAILED(hr)) return hr;
    return ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, __uuidof(I),
                              reinterpret_cast<void**>(object.ReleaseAndGetAddressOf()));
}

// A small reference-counted base for the tour's own listeners.
template <class... Interfaces>
class Listener : public Interfaces... {
public:
    virtual ~Listener() = default;
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
    STDMETHODIMP_(ULONG) Release() override {
        ULONG refs = --m_refs;
        if (!refs) delete this;
        return refs;
    }

private:
    std::atomic<ULONG> m_refs{1};
};

// ---------------------------------------------------------------------------

void StringCollection() {
    Section("String collection");
    ComPtr<IStrings> strings;
    if (!Step(Create(L"KyUtils.KyStrings", strings), "create KyUtils.KyStrings")) return;
    strings->put_UniqueStrings(VARIANT_TRUE);
    strings->put_CompareFlags(NORM_IGNORECASE);
    for (const wchar_t* name : {L"sn", L"mail", L"cn", L"CN", L"givenName", L"uid"}) {
        Bstr text(name);
        HRESULT hr = strings->Add(text);
        std::printf("  Add(\"%s\") -> %s\n", text.Text().c_str(), hr == S_OK ? "added" : "refused as a duplicate");
    }
    if (!Step(strings->Sort(VARIANT_TRUE, 0, 0), "Sort")) return;
    long count = 0;
    strings->get_Count(&count);
    std::printf("  sorted (%ld):", count);
    for (long i = 0; i < count; ++i) {
        Bstr item;
        strings->get_Item(Int(i), &item);
        std::printf(" %s", item.Text().c_str());
    }
    std::printf("\n");
    ComPtr<IPersistStream> persist;
    ComPtr<IStream> stream;
    if (!Step(strings.As(&persist), "IPersistStream") ||
        !Step(::CreateStreamOnHGlobal(nullptr, TRUE, &stream), "memory stream") ||
        !Step(persist->Save(stream.Get(), TRUE), "Save"))
        return;
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    std::printf("  saved: %lu bytes\n", static_cast<unsigned long>(stat.cbSize.QuadPart));
    ComPtr<IStrings> copy;
    ComPtr<IPersistStream> copyPersist;
    LARGE_INTEGER zero{};
    stream->Seek(zero, STREAM_SEEK_SET, nullptr);
    if (!Step(Create(L"KyUtils.KyStrings", copy), "second collection") || !Step(copy.As(&copyPersist), "persist") ||
        !Step(copyPersist->Load(stream.Get()), "Load"))
        return;
    long copied = 0;
    copy->get_Count(&copied);
    Bstr third;
    copy->get_Item(Int(2), &third);
    std::printf("  loaded into a new collection: %ld strings, the third is %s\n", copied, third.Text().c_str());
}

void SearchGroups() {
    Section("Search attribute groups");
    ComPtr<ISearchAttributesGroupSet> set;
    if (!Step(Create(L"KyUtils.SearchAttributesGroupSet", set), "create KyUtils.SearchAttributesGroupSet") ||
        !Step(set->Reset(), "Reset"))
        return;
    long count = 0;
    set->get_Count(&count);
    for (long i = 0; i < count; ++i) {
        VARIANT index = Int(i);
        ComPtr<ISearchAttributesGroup> group;
        if (!Step(set->get_Item(&index, &group), "Item")) return;
        Bstr name;
        VARIANT_BOOL active = VARIANT_FALSE;
        ComPtr<IStrings> attributes;
        long attributeCount = 0;
        group->get_Name(&name);
        group->get_Active(&active);
        if (SUCCEEDED(group->get_Attributes(&attributes))) attributes->get_Count(&attributeCount);
        std::printf("  %-24s %-8s %2ld attributes\n", name.Text().c_str(), active ? "active" : "inactive",
                    attributeCount);
    }
}

// Prints the task list's events as they arrive.
class TaskEvents : public Listener<IDispatch> {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch) ||
            IsEqualIID(riid, DIID__IKyTasksEvents)) {
            *ppv = static_cast<IDispatch*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override {
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*, UINT*) override {
        const char* names[] = {"?", "OnAdd", "OnRemove", "OnUpdate"};
        const char* what[] = {"", "name", "description", "", "progress", "", "", "", "animation"};
        ComPtr<IKyTask> task;
        VARIANT& first = params->rgvarg[params->cArgs - 1];
        if (V_VT(&first) == VT_DISPATCH && V_DISPATCH(&first)) V_DISPATCH(&first)->QueryInterface(IID_PPV_ARGS(&task));
        Bstr name;
        if (task) task->get_Name(&name);
        std::printf("    event %s(\"%s\"", id >= 1 && id <= 3 ? names[id] : names[0], name.Text().c_str());
        if (id == 3 && params->cArgs == 2) {
            ULONG flag = V_UI4(&params->rgvarg[0]);
            std::printf(", %s", flag < 9 && *what[flag] ? what[flag] : "flags");
            int progress = 0;
            if (flag == KYTUT_PROGRESS && task && SUCCEEDED(task->get_Progress(&progress)))
                std::printf(" %d%%", progress);
        }
        std::printf(")\n");
        return S_OK;
    }
};

void TaskList() {
    Section("Task list");
    ComPtr<IKyTasks> tasks;
    if (!Step(Create(L"KyUtils.KyTasks", tasks), "create KyUtils.KyTasks")) return;
    ComPtr<IConnectionPointContainer> container;
    ComPtr<IConnectionPoint> point;
    DWORD cookie = 0;
    auto* events = new TaskEvents;
    if (!Step(tasks.As(&container), "IConnectionPointContainer") ||
        !Step(container->FindConnectionPoint(DIID__IKyTasksEvents, &point), "FindConnectionPoint") ||
        !Step(point->Advise(events, &cookie), "Advise")) {
        events->Release();
        return;
    }
    std::printf("  listening with cookie %lu\n", cookie);
    Bstr name(L"Copying 3 entries");
    ComPtr<IKyTask> task;
    if (Step(tasks->Add(name, VARIANT_TRUE, nullptr, &task), "Add")) {
        for (int progress : {0, 50, 100}) task->put_Progress(progress);
        Bstr description(L"cn=admin,dc=example,dc=org");
        task->put_Description(description);
        task->SetStandardAnimation(KYTA_COPY);
        long count = 0;
        tasks->get_Count(&count);
        Bstr module;
        UINT resource = 0;
        task->GetAnimation(&module, &resource);
        std::printf("  %ld task(s); animation %s #%u\n", count, module.Text().c_str(), resource);
        Step(task->Delete(), "Delete");
        tasks->get_Count(&count);
        std::printf("  after Delete: %ld task(s)\n", count);
    }
    point->Unadvise(cookie);
    events->Release();
}

// Prints what the logger delivers.
class LogListener : public Listener<_IKyLoggerEvents> {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID__IKyLoggerEvents)) {
            *ppv = static_cast<_IKyLoggerEvents*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP OnMessage(ULONG channel, KYEVENTTYPES type, BSTR message, VARIANT*, ULONG) override {
        std::printf("    channel %lu, type 0x%03lX: %s\n", channel, static_cast<unsigned long>(type),
                    Utf8(message).c_str());
        return S_OK;
    }
};

void Logger() {
    Section("Logger");
    ComPtr<IKyLogger> logger;
    if (!Step(Create(L"KyUtils.Logger", logger), "create KyUtils.Logger")) return;
    Bstr directory(L"Directory"), trace(L"Trace");
    Step(logger->RegisterChannel(7001, directory, LET_WARNING | LET_ERROR), "RegisterChannel Directory");
    Step(logger->RegisterChannel(7002, trace, LET_TRACE), "RegisterChannel Trace");
    auto* listener = new LogListener;
    ULONG cookie = 0;
    Step(logger->LoggerAdvise(listener, &cookie), "LoggerAdvise");
    VARIANT text;
    V_VT(&text) = VT_BSTR;
    V_BSTR(&text) = ::SysAllocString(L"bind to ldap://ldap.example.org failed");
    VARIANT number = Int(389);
    std::printf("  immediate delivery:\n");
    logger->Log(7001, LET_ERROR, &text, nullptr);
    logger->Log(7001, LET_WARNING, &number, nullptr);
    HRESULT masked = logger->Log(7001, LET_TRACE, &text, nullptr);
    std::printf("  a trace on the Directory channel is masked out (%s)\n", masked == S_FALSE ? "S_FALSE" : "?");
    std::printf("  held back while this thread's output is locked:\n");
    logger->LockThreadOutput();
    VARIANT step = Int(1);
    logger->Log(7002, LET_TRACE, &step, nullptr);
    V_I4(&step) = 2;
    logger->Log(7002, LET_TRACE, &step, nullptr);
    std::printf("    (nothing yet)\n  unlocked:\n");
    logger->UnlockThreadOutput();
    ::VariantClear(&text);
    logger->LoggerUnadvise(cookie);
    logger->RevokeChannel(7001);
    logger->RevokeChannel(7002);
    listener->Release();
}

void Helpers() {
    Section("Helpers");
    ComPtr<IKyStdStrings> helpers;
    if (!Step(Create(L"KyUtils.KyHelpers", helpers), "create KyUtils.KyHelpers")) return;
    Bstr suffix(L"TourMutex"), name;
    if (Step(helpers->CreateKernelObjectName(1, 0, suffix, &name), "CreateKernelObjectName"))
        std::printf("  kernel object name: %s\n", name.Text().c_str());
    ComPtr<IKyResourceData> resources;
    if (!Step(helpers.As(&resources), "IKyResourceData")) return;
    VARIANT type, resource;
    V_VT(&type) = VT_BSTR;
    V_BSTR(&type) = ::SysAllocString(L"XSD");
    V_VT(&resource) = VT_BSTR;
    V_BSTR(&resource) = ::SysAllocString(L"DSML1.XSD");
    ComPtr<IStream> schema;
    if (Step(resources->LoadResource(&type, &resource, &schema), "LoadResource XSD DSML1.XSD")) {
        STATSTG stat{};
        schema->Stat(&stat, STATFLAG_NONAME);
        std::printf("  schema DSML1.XSD: %lu bytes\n", static_cast<unsigned long>(stat.cbSize.QuadPart));
    }
    ::VariantClear(&type);
    ::VariantClear(&resource);
}

void PrintOutlines(IOPMLOutlines* outlines, int depth) {
    long count = 0;
    outlines->get_Count(&count);
    for (long i = 1; i <= count; ++i) {
        VARIANT index = Int(i);
        ComPtr<IOPMLOutline> outline;
        if (FAILED(outlines->get_Item(&index, &outline))) return;
        ComPtr<IOPMLAttributes> attributes;
        outline->get_Attributes(&attributes);
        long attributeCount = 0;
        attributes->get_Count(&attributeCount);
        std::printf("  %*s-", depth * 2, "");
        for (long a = 1; a <= attributeCount; ++a) {
            VARIANT at = Int(a);
            ComPtr<IOPMLAttribute> attribute;
            if (FAILED(attributes->get_Item(&at, &attribute))) continue;
            Bstr name, value;
            attribute->get_Name(&name);
            attribute->get_Value(&value);
            std::printf(" %s=\"%s\"", name.Text().c_str(), value.Text().c_str());
        }
        std::printf("\n");
        ComPtr<IOPMLOutlines> children;
        outline->get_SubItems(&children);
        PrintOutlines(children.Get(), depth + 1);
    }
}

void Opml(const std::wstring& folder) {
    Section("OPML document");
    ComPtr<IOPMLDocument> document;
    if (!Step(Create(L"Norvane.OPMLDocument", document), "create Norvane.OPMLDocument")) return;
    ComPtr<IOPMLHeader> header;
    ComPtr<IOPMLOutlines> body;
    document->get_Header(&header);
    document->get_Body(&body);
    Bstr title(L"Directory bookmarks");
    header->put_Title(title);
    ComPtr<IOPMLOutline> servers, example, people;
    body->AddNew(&servers);
    Bstr serversText(L"Servers");
    servers->put_Text(serversText);
    ComPtr<IOPMLOutlines> children;
    servers->get_SubItems(&children);
    children->AddNew(&example);
    Bstr exampleText(L"ldap.example.org"), type(L"link");
    example->put_Text(exampleText);
    example->put_type(type);
    ComPtr<IOPMLAttributes> attributes;
    ComPtr<IOPMLAttribute> url;
    example->get_Attributes(&attributes);
    attributes->AddNew(&url);
    Bstr urlName(L"url"), urlValue(L"ldap://ldap.example.org:389/dc=example,dc=org");
    url->put_Name(urlName);
    url->put_Value(urlValue);
    body->AddNew(&people);
    Bstr peopleText(L"People & \"groups\"");
    people->put_Text(peopleText);

    std::wstring path = folder + L"\\bookmarks.opml";
    ComPtr<IStream> file;
    if (!Step(::SHCreateStreamOnFileEx(path.c_str(), STGM_CREATE | STGM_WRITE, FILE_ATTRIBUTE_NORMAL, TRUE, nullptr,
                                       &file),
              "create bookmarks.opml"))
        return;
    VARIANT target;
    V_VT(&target) = VT_UNKNOWN;
    V_UNKNOWN(&target) = file.Get();
    if (!Step(document->Save(&target), "Save")) return;
    file.Reset();
    ::Sleep(0);
    HANDLE handle = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    std::string bytes(::GetFileSize(handle, nullptr), '\0');
    DWORD read = 0;
    ::ReadFile(handle, &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr);
    ::CloseHandle(handle);
    std::printf("  saved bookmarks.opml (%lu bytes):\n", static_cast<unsigned long>(bytes.size()));
    PrintLines(bytes, "    | ");
    ComPtr<IOPMLDocument> loaded;
    ComPtr<IStream> input;
    if (!Step(Create(L"Norvane.OPMLDocument", loaded), "second document") ||
        !Step(::SHCreateStreamOnFileEx(path.c_str(), STGM_READ, FILE_ATTRIBUTE_NORMAL, FALSE, nullptr, &input),
              "open bookmarks.opml"))
        return;
    VARIANT source;
    V_VT(&source) = VT_UNKNOWN;
    V_UNKNOWN(&source) = input.Get();
    if (!Step(loaded->Load(&source), "Load")) return;
    ComPtr<IOPMLHeader> loadedHeader;
    ComPtr<IOPMLOutlines> loadedBody;
    loaded->get_Header(&loadedHeader);
    loaded->get_Body(&loadedBody);
    Bstr loadedTitle;
    loadedHeader->get_Title(&loadedTitle);
    std::printf("  loaded back, title \"%s\":\n", loadedTitle.Text().c_str());
    PrintOutlines(loadedBody.Get(), 1);
}

// The second process of the shared-configuration section: acquires the
// stream, appends a line and releases it (which writes it back).
int ConfigWriter(const wchar_t* file, const wchar_t* element, const wchar_t* line) {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int result = 1;
    {
        ComPtr<IComStgOutriggedConfiguration> manager;
        ComPtr<IStream> stream;
        Bstr path(file), name(element);
        if (SUCCEEDED(Create(L"KyUtils.ComStgConfigurationManager", manager)) &&
            SUCCEEDED(manager->AcquireStream(path, name, &stream))) {
            LARGE_INTEGER zero{};
            stream->Seek(zero, STREAM_SEEK_END, nullptr);
            std::string text = Utf8(line) + "\n";
            ULONG written = 0;
            if (SUCCEEDED(stream->Write(text.data(), static_cast<ULONG>(text.size()), &written))) result = 0;
        }
    }
    ::CoUninitialize();
    return result;
}

void SharedConfiguration(const std::wstring& folder) {
    Section("Shared configuration");
    const std::wstring file = folder + L"\\settings.cfg";
    ::DeleteFileW(file.c_str());
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    for (const wchar_t* who : {L"written by the first process", L"written by the second process"}) {
        std::wstring command = L"\"" + std::wstring(self) + L"\" --config-writer \"" + file + L"\" Tour \"" + who + L"\"";
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION process{};
        if (!::CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                              &process)) {
            Step(HRESULT_FROM_WIN32(::GetLastError()), "start a writer process");
            return;
        }
        ::WaitForSingleObject(process.hProcess, 30000);
        DWORD code = 1;
        ::GetExitCodeProcess(process.hProcess, &code);
        ::CloseHandle(process.hProcess);
        ::CloseHandle(process.hThread);
        std::printf("  a process appended \"%s\": %s\n", Utf8(who).c_str(), code == 0 ? "ok" : "FAILED");
        if (code != 0) ++g_failures;
    }
    ComPtr<IComStgOutriggedConfiguration> manager;
    ComPtr<IStream> stream;
    Bstr path(file.c_str()), name(L"Tour");
    if (!Step(Create(L"KyUtils.ComStgConfigurationManager", manager), "create the configuration manager") ||
        !Step(manager->AcquireStream(path, name, &stream), "AcquireStream"))
        return;
    char buffer[512] = {};
    ULONG read = 0;
    stream->Read(buffer, sizeof buffer - 1, &read);
    std::printf("  the element \"Tour\" of settings.cfg now holds:\n");
    std::string text(buffer, read);
    PrintLines(text, "    ");
}

void ObjectMetadata() {
    Section("Object metadata");
    ComPtr<IKySetObjectMetaData> setter;
    if (!Step(Create(L"KyUtils.KyObjectMetaData", setter), "create KyUtils.KyObjectMetaData")) return;
    Bstr disabled(L"disabled"), locked(L"locked"), normal(L"normal");
    setter->AddDecodeStateRule(KYDSR_ONE, 0x2, disabled);
    setter->AddDecodeStateRule(KYDSR_MASK, 0x10, locked);
    setter->AddDecodeStateRule(KYDSR_OTHERWISE, 0, normal);
    setter->AddSupportedInterface(IID_IKyObjectMetaData);
    ComPtr<IKyObjectMetaData> metadata;
    if (!Step(setter.As(&metadata), "IKyObjectMetaData")) return;
    for (ULONG state : {0x0u, 0x2u, 0x12u, 0x10u}) {
        Bstr text;
        HRESULT hr = metadata->DecodeState(state, &text);
        std::printf("  state 0x%02lX -> %s%s\n", state, text.Text().c_str(), hr == S_FALSE ? " (no rule matched)" : "");
    }
    std::printf("  supports IKyObjectMetaData: %s; IStrings: %s\n",
                metadata->IsInterfaceSupported(IID_IKyObjectMetaData) == S_OK ? "yes" : "no",
                metadata->IsInterfaceSupported(IID_IStrings) == S_OK ? "yes" : "no");
}

class TimerSink : public Listener<ISystemTimerSink> {
public:
    TimerSink() : done(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~TimerSink() override { ::CloseHandle(done); }
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_ISystemTimerSink)) {
            *ppv = static_cast<ISystemTimerSink*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP OnTimer(UINT, ULONG user) override {
        if (++ticks == 3) ::SetEvent(done);
        lastUser = user;
        return S_OK;
    }
    std::atomic<int> ticks{0};
    std::atomic<ULONG> lastUser{0};
    HANDLE done;
};

void CountedTimer() {
    Section("System timer");
    ComPtr<ISystemTimer> timer;
    if (!Step(Create(L"kyutils.SystemTimer", timer), "create kyutils.SystemTimer")) return;
    auto* sink = new TimerSink;
    UINT id = 0;
    if (Step(timer->SetTimer(100, 3, 42, sink, &id), "SetTimer")) {
        bool done = ::WaitForSingleObject(sink->done, 10000) == WAIT_OBJECT_0;
        ::Sleep(300);  // a fourth call would come now if the count were not kept
        std::printf("  a timer of 100 ms counted to 3: %d calls with the value %lu%s\n", sink->ticks.load(),
                    sink->lastUser.load(), done ? "" : " (timed out)");
        if (!done || sink->ticks != 3) ++g_failures;
        std::printf("  KillTimer after the last call: %s\n", timer->KillTimer(id) == S_FALSE ? "S_FALSE (gone)" : "?");
    }
    sink->Release();
}

void DataObjectAndClipboard() {
    Section("Data object and clipboard");
    ComPtr<IDataObject> data;
    ComPtr<IKyOLE> ole;
    if (!Step(Create(L"KyUtils.StdDataObject", data), "create KyUtils.StdDataObject") ||
        !Step(Create(L"KyUtils.KyOLE", ole), "create KyUtils.KyOLE"))
        return;
    const wchar_t text[] = L"cn=Ann Example,ou=People,dc=example,dc=org";
    HGLOBAL memory = ::GlobalAlloc(GMEM_MOVEABLE, sizeof text);
    memcpy(::GlobalLock(memory), text, sizeof text);
    ::GlobalUnlock(memory);
    FORMATETC format{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    medium.tymed = TYMED_HGLOBAL;
    medium.hGlobal = memory;
    if (!Step(data->SetData(&format, &medium, FALSE), "SetData")) return;
    std::printf("  data object holds: %s\n", Utf8(text).c_str());
    if (!Step(ole->SetClipboard(data.Get()), "SetClipboard")) return;
    std::printf("  on the clipboard; IsCurrentClipboard: %s\n",
                ole->IsCurrentClipboard(data.Get()) == S_OK ? "S_OK" : "no");
    ComPtr<IDataObject> fromClipboard;
    if (Step(ole->GetClipboard(&fromClipboard), "GetClipboard")) {
        STGMEDIUM got{};
        if (Step(fromClipboard->GetData(&format, &got), "GetData")) {
            std::printf("  read back through GetClipboard: %s\n",
                        Utf8(static_cast<const wchar_t*>(::GlobalLock(got.hGlobal))).c_str());
            ::GlobalUnlock(got.hGlobal);
            ::ReleaseStgMedium(&got);
        }
    }
    fromClipboard.Reset();
    Step(ole->FlushClipboard(), "FlushClipboard");
    if (Step(ole->OpenClipboard(0), "OpenClipboard")) {
        ULONG_PTR handle = 0;
        if (Step(ole->GetClipboardData(CF_UNICODETEXT, &handle), "GetClipboardData")) {
            auto global = reinterpret_cast<HGLOBAL>(handle);
            std::printf("  after FlushClipboard, the raw clipboard holds: %s\n",
                        Utf8(static_cast<const wchar_t*>(::GlobalLock(global))).c_str());
            ::GlobalUnlock(global);
        }
        ole->CloseClipboard();
    }
    ole->SetClipboard(nullptr);
}

// A plain object standing for a directory entry in a selection.
class Entry : public Listener<IUnknown> {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown)) {
            *ppv = this;
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
};

void ObjectCollections() {
    Section("Object collections");
    ComPtr<IKyObjectCollectionFactory> factory;
    if (!Step(Create(L"KyUtils.KyObjectCollectionFactory", factory), "create KyUtils.KyObjectCollectionFactory"))
        return;
    IUnknown* entries[3] = {new Entry, new Entry, new Entry};
    ComPtr<IKyObjectCollection> selection;
    if (Step(factory->CreateObjectCollection(entries[0], 3, entries, &selection), "CreateObjectCollection")) {
        const char* types[] = {"no objects", "a single object", "multiple objects"};
        auto describe = [&](const char* what, IKyObjectCollection* collection) {
            KYOBJECTCOLLECTIONTYPE type = KYOCT_NO_OBJECTS;
            collection->get_type(&type);
            ComPtr<IEnumUnknown> objects;
            ULONG count = 0;
            if (SUCCEEDED(collection->EnumObjects(&objects))) {
                IUnknown* item = nullptr;
                while (objects->Next(1, &item, nullptr) == S_OK) {
                    ++count;
                    item->Release();
                }
                std::printf("  %-28s %-16s %lu object(s) enumerated\n", what, types[type], count);
            } else {
                std::printf("  %-28s %-16s nothing to enumerate\n", what, types[type]);
            }
        };
        describe("selection of three:", selection.Get());
        const char* names[] = {"clone all:", "clone as single object:", "clone ignoring objects:"};
        for (int policy = 0; policy < 3; ++policy) {
            ComPtr<IKyObjectCollection> clone;
            if (Step(selection->Clone(static_cast<KYOBJECTCOLLECTIONCLONEPOLICY>(policy), &clone), "Clone"))
                describe(names[policy], clone.Get());
        }
    }
    for (IUnknown* entry : entries) entry->Release();
}

void Godfathers() {
    Section("Apartment introduction");
    ComPtr<IObjectGodfather> godfather;
    if (!Step(Create(L"KyUtils.STAObjectGodfather", godfather), "create KyUtils.STAObjectGodfather")) return;
    auto* entry = new Entry;
    ComPtr<IUnknown> introduced;
    if (Step(godfather->IntroduceIntoApartment(reinterpret_cast<ULONG_PTR>(static_cast<IUnknown*>(entry)),
                                               IID_IUnknown, reinterpret_cast<void**>(introduced.GetAddressOf())),
             "IntroduceIntoApartment"))
        std::printf("  an object of this apartment introduced to it comes back as itself: %s\n",
                    introduced.Get() == static_cast<IUnknown*>(entry) ? "yes" : "no");
    introduced.Reset();
    entry->Release();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    if (argc == 5 && std::wstring(argv[1]) == L"--config-writer") return ConfigWriter(argv[2], argv[3], argv[4]);

    // The OLE clipboard needs OLE, not just COM, on this thread.
    ::OleInitialize(nullptr);
    std::printf("KyUtils tour: every service of kyutils.dll through its COM interfaces.\n");
    wchar_t temp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, temp);
    std::wstring folder = std::wstring(temp) + L"kyutils-tour";
    ::CreateDirectoryW(folder.c_str(), nullptr);

    // Classes with an empty or "Apartment" threading model, and "Both"
    // classes, here on the main STA.
    StringCollection();
    SearchGroups();
    TaskList();
    Logger();
    Helpers();
    DataObjectAndClipboard();
    Godfathers();
    // "Free" classes from the multithreaded apartment.
    RunOnThread(COINIT_MULTITHREADED, [&] {
        Opml(folder);
        SharedConfiguration(folder);
        ObjectMetadata();
        CountedTimer();
        ObjectCollections();
    });

    ::OleUninitialize();
    if (g_failures) {
        std::printf("\n%d step(s) FAILED.\n", g_failures);
        return 1;
    }
    std::printf("\nEvery step succeeded.\n");
    return 0;
}
