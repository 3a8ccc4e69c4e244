// Shared by the logger's test programs: a listener that records what it
// hears, and a fixture that leaves the process-wide logger as it found it.
#pragma once

#include <wrl/client.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "com/object.h"
#include "com/raii.h"
#include "kytest.h"

namespace ky::test {

using Microsoft::WRL::ComPtr;

struct Heard {
    ULONG channel, type;
    std::wstring text;
    std::wstring hint;  // "none" for a null pointer, "empty", or the VT_I4 value
    DWORD thread;       // the thread the logger named
    DWORD calledOn;     // the thread the call arrived on
};

class Listener : public com::Object<Listener, _IKyLoggerEvents> {
public:
    STDMETHODIMP OnMessage(ULONG channel, KYEVENTTYPES type, BSTR text, VARIANT* hint, ULONG thread) override {
        Heard heard{channel, ULONG(type), std::wstring(text, ::SysStringLen(text)),
                    !hint ? L"none" : V_VT(hint) == VT_EMPTY ? L"empty" : std::to_wstring(V_I4(hint)), thread,
                    ::GetCurrentThreadId()};
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_heard.push_back(heard);
        }
        if (onMessage) onMessage(heard);
        return E_FAIL;  // what a listener answers must not matter
    }
    std::vector<Heard> All() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_heard;
    }
    std::vector<std::wstring> Texts() {
        std::vector<std::wstring> texts;
        for (const Heard& heard : All()) texts.push_back(heard.text);
        return texts;
    }
    std::function<void(const Heard&)> onMessage;

private:
    std::mutex m_mutex;
    std::vector<Heard> m_heard;
};

// The logger is one object for the whole process: the fixture takes away the
// channels, listeners and thread lock a test leaves behind.
class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyLogger, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&logger)));
    }
    void TearDown() override {
        for (ULONG cookie : m_cookies) logger->LoggerUnadvise(cookie);
        for (ULONG channel : m_channels) logger->RevokeChannel(channel);
        logger->UnlockThreadOutput();
    }
    void Channel(ULONG id, ULONG mask) {
        EXPECT_HR(S_OK, logger->RegisterChannel(id, com::Bstr(L"Test"), mask));
        m_channels.push_back(id);
    }
    ULONG Advise(_IKyLoggerEvents* listener) {
        ULONG cookie = 0;
        EXPECT_HR(S_OK, logger->LoggerAdvise(listener, &cookie));
        m_cookies.push_back(cookie);
        return cookie;
    }
    ComPtr<Listener> NewListener(bool advised = true) {
        ComPtr<Listener> listener;
        EXPECT_HR(S_OK, Listener::Make(listener));
        if (advised) Advise(listener.Get());
        return listener;
    }
    // Callable from any thread: the logger is free-threaded in use.
    HRESULT Log(ULONG channel, ULONG type, const std::wstring& text, VARIANT* hint = nullptr) {
        com::Variant message;
        V_VT(&message) = VT_BSTR;
        V_BSTR(&message) = ::SysAllocString(text.c_str());
        return logger->Log(channel, KYEVENTTYPES(type), &message, hint);
    }

    ComPtr<IKyLogger> logger;

private:
    std::vector<ULONG> m_cookies, m_channels;
};

}  // namespace ky::test
