// OPML load and save of a generated 10 MB document, each next to a baseline
// measured in the same run: Load against a bare parse of the same bytes by
// the same SAX reader with an empty handler, Save against writing the same
// bytes into a memory stream in one call. Save writes each piece straight
// into the stream, so a second line saves into a stream that only counts,
// which separates the writer's own cost from the memory stream's per-write
// cost.
#include <windows.h>
#include <objbase.h>

#include <wrl/client.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "bench.h"
#include "kyutils.h"
#include "opml/sax.h"
#include "writeonlystream.h"

using Microsoft::WRL::ComPtr;

namespace {

// A stream that only counts what is written to it.
class CountingStream : public ky::test::WriteOnlyStream {
public:
    STDMETHODIMP Write(const void*, ULONG count, ULONG* written) override {
        bytes += count;
        ++writes;
        if (written) *written = count;
        return S_OK;
    }
    size_t bytes = 0;
    size_t writes = 0;
};

// A content handler that accepts everything and keeps nothing.
class EmptyHandler : public ISAXContentHandler {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, OPML::sax::kIContentHandler)) {
            *ppv = this;
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP putDocumentLocator(ISAXLocator*) override { return S_OK; }
    STDMETHODIMP startDocument() override { return S_OK; }
    STDMETHODIMP endDocument() override { return S_OK; }
    STDMETHODIMP startPrefixMapping(const wchar_t*, int, const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP endPrefixMapping(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP startElement(const wchar_t*, int, const wchar_t*, int, const wchar_t*, int,
                              ISAXAttributes*) override {
        return S_OK;
    }
    STDMETHODIMP endElement(const wchar_t*, int, const wchar_t*, int, const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP characters(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP ignorableWhitespace(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP processingInstruction(const wchar_t*, int, const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP skippedEntity(const wchar_t*, int) override { return S_OK; }
};

void Check(HRESULT hr, const char* what) {
    if (FAILED(hr)) {
        std::printf("%s failed: 0x%08lX\n", what, static_cast<unsigned long>(hr));
        std::exit(1);
    }
}

ComPtr<IOPMLDocument> NewDocument() {
    ComPtr<IOPMLDocument> document;
    Check(::CoCreateInstance(CLSID_OPMLDocument, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&document)),
          "CoCreateInstance");
    return document;
}

void Put(IOPMLAttributes* attributes, const wchar_t* name, const std::wstring& value) {
    ComPtr<IOPMLAttribute> attribute;
    Check(attributes->AddNew(&attribute), "AddNew");
    BSTR text = ::SysAllocString(name);
    attribute->put_Name(text);
    ::SysFreeString(text);
    text = ::SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
    attribute->put_Value(text);
    ::SysFreeString(text);
}

// A document of about `bytes` bytes: folders of ten items, three levels
// deep, each outline with a few attributes, some text to escape and some
// text outside ASCII.
ComPtr<IOPMLDocument> Generate(size_t bytes) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutlines> body;
    document->get_Body(&body);
    size_t written = 0;
    for (int folder = 0; written < bytes; ++folder) {
        ComPtr<IOPMLOutline> top;
        body->AddNew(&top);
        ComPtr<IOPMLAttributes> attributes;
        top->get_Attributes(&attributes);
        Put(attributes.Get(), L"text", L"Folder " + std::to_wstring(folder) + L" \u00C9t\u00E9 & <co>");
        Put(attributes.Get(), L"type", L"folder");
        ComPtr<IOPMLOutlines> items;
        top->get_SubItems(&items);
        for (int i = 0; i < 10; ++i) {
            ComPtr<IOPMLOutline> item;
            items->AddNew(&item);
            item->get_Attributes(attributes.ReleaseAndGetAddressOf());
            Put(attributes.Get(), L"text",
                L"Item " + std::to_wstring(i) + L" of \"folder\" " + std::to_wstring(folder));
            Put(attributes.Get(), L"type", L"link");
            Put(attributes.Get(), L"url", L"https://example.org/items?folder=" + std::to_wstring(folder) +
                                              L"&item=" + std::to_wstring(i));
            Put(attributes.Get(), L"created", L"Mon, 01 Jul 2024 16:34:56 GMT");
            ComPtr<IOPMLOutlines> notes;
            item->get_SubItems(&notes);
            ComPtr<IOPMLOutline> note;
            notes->AddNew(&note);
            note->get_Attributes(attributes.ReleaseAndGetAddressOf());
            Put(attributes.Get(), L"text", L"\u4E2D\u6587 note \U0001F600");
            written += 224;  // about what one item with its note writes
        }
    }
    return document;
}

ComPtr<IStream> StreamOf(const std::string& bytes) {
    ComPtr<IStream> stream;
    Check(::CreateStreamOnHGlobal(nullptr, TRUE, &stream), "CreateStreamOnHGlobal");
    ULONG written = 0;
    Check(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written), "Write");
    LARGE_INTEGER start{};
    stream->Seek(start, STREAM_SEEK_SET, nullptr);
    return stream;
}

std::string Contents(IStream* stream) {
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    std::string bytes(static_cast<size_t>(stat.cbSize.QuadPart), '\0');
    LARGE_INTEGER start{};
    stream->Seek(start, STREAM_SEEK_SET, nullptr);
    ULONG read = 0;
    stream->Read(&bytes[0], static_cast<ULONG>(bytes.size()), &read);
    return bytes;
}

VARIANT AsUnknown(IUnknown* object) {
    VARIANT value;
    V_VT(&value) = VT_UNKNOWN;
    V_UNKNOWN(&value) = object;
    return value;
}

// One parse of the stream by the SAX reader into `handler`, which must
// succeed when `mustSucceed`.
void Parse(ISAXContentHandler& handler, IStream* input, bool mustSucceed) {
    ComPtr<ISAXXMLReader> reader;
    Check(::CoCreateInstance(OPML::sax::kReader40, nullptr, CLSCTX_INPROC_SERVER, OPML::sax::kIReader, &reader),
          "SAX reader");
    reader->putContentHandler(&handler);
    VARIANT source = AsUnknown(input);
    HRESULT hr = reader->parse(source);
    if (mustSucceed) Check(hr, "parse");
    reader->putContentHandler(nullptr);
}

// Seconds of `run` alone, best of `rounds`; `prepare` and `finish` run
// around each round untimed.
double Timed(const std::function<void()>& prepare, const std::function<void()>& run,
             const std::function<void()>& finish, int rounds = 5) {
    double best = 1e300;
    for (int i = 0; i < rounds; ++i) {
        prepare();
        best = std::min(best, ky::bench::Seconds(run, 1));
        finish();
    }
    return best;
}

}  // namespace

int main() {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    std::string text;
    {
        ComPtr<IOPMLDocument> source = Generate(10u << 20);
        ComPtr<IStream> stream;
        ::CreateStreamOnHGlobal(nullptr, TRUE, &stream);
        VARIANT target = AsUnknown(stream.Get());
        Check(source->Save(&target), "Save");
        text = Contents(stream.Get());
    }
    std::printf("document: %.1f MB of OPML\n", text.size() / 1048576.0);

    // Load against the bare parse, each timed alone on a fresh stream; every
    // load of a document the reader takes must have read outlines.
    EmptyHandler handler;
    auto compare = [&](const char* what, const std::string& bytes, int rounds, bool readable = true) {
        ComPtr<IStream> input;
        ComPtr<IOPMLDocument> document;
        double load = Timed(
            [&] {
                input = StreamOf(bytes);
                document = NewDocument();
            },
            [&] {
                VARIANT source = AsUnknown(input.Get());
                Check(document->Load(&source), "Load");
            },
            [&] {
                ComPtr<IOPMLOutlines> body;
                LONG count = 0;
                document->get_Body(&body);
                body->get_Count(&count);
                if (readable && count == 0) Check(E_FAIL, "Load read nothing;");
                body.Reset();
                document.Reset();
            },
            rounds);
        double parse =
            Timed([&] { input = StreamOf(bytes); }, [&] { Parse(handler, input.Get(), readable); }, [] {}, rounds);
        ky::bench::Report(what, load, "SAX parse, empty handler", parse);
    };
    compare("Load (10 MB from a memory stream)", text, 5);
    // Behind a leading comment, which the reader skips on its own: Load
    // should add what it adds above. The reader gives up on a comment over
    // 10 MB, and Load must give up as soon as the reader does.
    const size_t declaration = text.find("?>") + 2;
    auto behindComment = [&](size_t megabytes) {
        return text.substr(0, declaration) + "\r\n<!--" + std::string(megabytes << 20, 'c') + "-->" +
               text.substr(declaration);
    };
    compare("Load behind a 9 MB comment", behindComment(9), 3);
    compare("Load behind a 48 MB comment (refused)", behindComment(48), 3, false);

    ComPtr<IStream> input;
    ComPtr<IOPMLDocument> document;
    document = NewDocument();
    input = StreamOf(text);
    VARIANT source = AsUnknown(input.Get());
    Check(document->Load(&source), "Load");
    ComPtr<IStream> output;
    double save = Timed([&] { ::CreateStreamOnHGlobal(nullptr, TRUE, &output); },
                        [&] {
                            VARIANT target = AsUnknown(output.Get());
                            Check(document->Save(&target), "Save");
                        },
                        [&] {
                            if (Contents(output.Get()) != text) Check(E_FAIL, "Save wrote other bytes;");
                            output.Reset();
                        });
    double write = Timed([&] { ::CreateStreamOnHGlobal(nullptr, TRUE, &output); },
                         [&] {
                             ULONG written = 0;
                             Check(output->Write(text.data(), static_cast<ULONG>(text.size()), &written), "Write");
                         },
                         [&] { output.Reset(); });
    ky::bench::Report("Save (10 MB into a memory stream)", save, "one Write of the same bytes", write);
    CountingStream counter;
    double counted = Timed([&] { counter.bytes = counter.writes = 0; },
                           [&] {
                               VARIANT target = AsUnknown(&counter);
                               Check(document->Save(&target), "Save");
                           },
                           [] {});
    // The same save into a stream that keeps nothing: the writer's own share.
    ky::bench::Report("Save (10 MB into a counting stream)", counted, "one Write of the same bytes", write);
    std::printf("writes per save: %zu\n", counter.writes);

    document.Reset();
    input.Reset();
    ::CoUninitialize();
    return 0;
}
