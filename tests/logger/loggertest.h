// What the logger's test programs share: a listener that records what it
// hears, and a fixture that leaves the process-wide logger as it found it.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <wrl/client.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "com/object.h"
#include "kytest.h"

namespace ky::test {

using Microsoft::WRL::ComPtr;

// One OnMessage call as the listener saw it.
struct Heard {
    ULONG channel;
    KYEVENTTYPES type;
    std::wstring text;
    bool hasHint;
    VARTYPE hintType;
    LONG hintValue;  // when the hint is VT_I4
    DWORD thread;    // the thread the logger named
    DWORD calledOn;  // the thread the call arrived on
};

class Listener : public com::Object<Listener, _IKyLoggerEvents> {
public:
    STDMETHODIMP OnMessage(ULONG channel, KYEVENTTYPES type, BSTR text, VARIANT* hint, ULONG thread) override {
        Heard heard{channel,
                    type,
                    std::wstring(text ? text : L"", ::SysStringLen(text)),
                    hint != nullptr,
                    hint ? V_VT(hint) : static_cast<VARTYPE>(VT_EMPTY),
                    hint && V_VT(hint) == VT_I4 ? V_I4(hint) : 0,
                    thread,
                    ::GetCurrentThreadId()};
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_heard.push_back(heard);
        }
        if (onMessage) onMessage(heard);
        return result;
    }

    std::vector<Heard> HeardSoFar() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_heard;
    }
    std::vector<std::wstring> Texts() {
        std::vector<std::wstring> texts;
        for (const Heard& heard : HeardSoFar()) texts.push_back(heard.text);
        return texts;
    }
    void Forget() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_heard.clear();
    }

    HRESULT result = S_OK;
    std::function<void(const Heard&)> onMessage;

private:
    std::mutex m_mutex;
    std::vector<Heard> m_heard;
};

inline ComPtr<Listener> NewListener() {
    ComPtr<Listener> listener;
    EXPECT_HR(S_OK, Listener::Make(listener));
    return listener;
}

// The logger is one object for the whole process: every test registers its
// own channels and listeners through the fixture, which takes them away.
class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyLogger, nullptr, CLSCTX_INPROC_SERVER, IID_IKyLogger, &logger));
    }
    void TearDown() override {
        for (ULONG cookie : m_cookies) logger->LoggerUnadvise(cookie);
        for (ULONG channel : m_channels) logger->RevokeChannel(channel);
        logger->UnlockThreadOutput();
        logger.Reset();
    }

    void Channel(ULONG id, const wchar_t* name, ULONG mask) {
        BSTR text = ::SysAllocString(name);
        EXPECT_HR(S_OK, logger->RegisterChannel(id, text, mask));
        ::SysFreeString(text);
        m_channels.push_back(id);
    }
    ULONG Advise(_IKyLoggerEvents* listener) {
        ULONG cookie = 0;
        EXPECT_HR(S_OK, logger->LoggerAdvise(listener, &cookie));
        m_cookies.push_back(cookie);
        return cookie;
    }
    ComPtr<Listener> AdvisedListener() {
        ComPtr<Listener> listener = NewListener();
        Advise(listener.Get());
        return listener;
    }
    HRESULT Log(ULONG channel, ULONG type, const wchar_t* text, VARIANT* hint = nullptr) {
        VARIANT message;
        V_VT(&message) = VT_BSTR;
        V_BSTR(&message) = ::SysAllocString(text);
        HRESULT hr = logger->Log(channel, static_cast<KYEVENTTYPES>(type), &message, hint);
        ::VariantClear(&message);
        return hr;
    }

    ComPtr<IKyLogger> logger;

private:
    std::vector<ULONG> m_cookies;
    std::vector<ULONG> m_channels;
};

}  // namespace ky::test
