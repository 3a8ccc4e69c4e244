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
#include "com/raii.h"
#include "kytest.h"

namespace ky::test {

using Microsoft::WRL::ComPtr;

// One OnMessage call as the listener saw it.
struct Heard {
    ULONG channel;
    ULONG type;
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
        Heard heard{channel, ULONG(type), text ? std::wstring(text, ::SysStringLen(text)) : std::wstring(),
                    hint != nullptr, hint ? V_VT(hint) : VARTYPE(VT_EMPTY), hint && V_VT(hint) == VT_I4 ? V_I4(hint) : 0,
                    thread, ::GetCurrentThreadId()};
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_heard.push_back(heard);
        }
        if (onMessage) onMessage(heard);
        return result;
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

    HRESULT result = S_OK;
    std::function<void(const Heard&)> onMessage;

private:
    std::mutex m_mutex;
    std::vector<Heard> m_heard;
};

inline VARIANT Number(LONG value) {
    VARIANT v;
    V_VT(&v) = VT_I4;
    V_I4(&v) = value;
    return v;
}

// Sends a text message through any logger pointer.
inline HRESULT LogText(IKyLogger* logger, ULONG channel, ULONG type, const std::wstring& text,
                       VARIANT* hint = nullptr) {
    com::Variant message;
    V_VT(&message) = VT_BSTR;
    V_BSTR(&message) = ::SysAllocString(text.c_str());
    return logger->Log(channel, KYEVENTTYPES(type), &message, hint);
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
        EXPECT_HR(S_OK, logger->RegisterChannel(id, com::Bstr(name), mask));
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
    HRESULT Log(ULONG channel, ULONG type, const std::wstring& text, VARIANT* hint = nullptr) {
        return LogText(logger.Get(), channel, type, text, hint);
    }

    ComPtr<IKyLogger> logger;

private:
    std::vector<ULONG> m_cookies;
    std::vector<ULONG> m_channels;
};

}  // namespace ky::test
