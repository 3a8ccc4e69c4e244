// IDispatch through the type library for a dual interface: names, dispatch
// identifiers, argument conversion and property access all come from the
// type information.
#include <wrl/client.h>

#include <string>
#include <vector>

#include "com/object.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

// A minimal string list behind a dual interface of the library.
class FakeStrings : public com::Object<FakeStrings, com::Dual<IStrings>> {
public:
    STDMETHODIMP get_Count(long* count) override {
        if (!count) return E_POINTER;
        *count = static_cast<long>(m_items.size());
        return S_OK;
    }
    STDMETHODIMP get_Item(VARIANT index, BSTR* text) override {
        if (!text) return E_POINTER;
        *text = nullptr;
        VARIANT position;
        ::VariantInit(&position);
        if (FAILED(::VariantChangeType(&position, &index, 0, VT_I4))) return E_INVALIDARG;
        if (V_I4(&position) < 0 || V_I4(&position) >= static_cast<long>(m_items.size())) return E_INVALIDARG;
        *text = ::SysAllocString(m_items[V_I4(&position)].c_str());
        return S_OK;
    }
    STDMETHODIMP get__NewEnum(IUnknown**) override { return E_NOTIMPL; }
    STDMETHODIMP get_UniqueStrings(VARIANT_BOOL*) override { return E_NOTIMPL; }
    STDMETHODIMP put_UniqueStrings(VARIANT_BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP get_CompareFlags(ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP put_CompareFlags(ULONG) override { return E_NOTIMPL; }
    STDMETHODIMP Add(BSTR text) override {
        m_items.push_back(text ? text : L"");
        return S_OK;
    }
    STDMETHODIMP Remove(VARIANT) override { return E_NOTIMPL; }
    STDMETHODIMP Sort(VARIANT_BOOL, long, long) override { return E_NOTIMPL; }

private:
    std::vector<std::wstring> m_items;
};

struct Dispatch : ::testing::Test {
    void SetUp() override {
        ComPtr<FakeStrings> strings;
        ASSERT_HR(S_OK, FakeStrings::Make(strings));
        ASSERT_HR(S_OK, strings.As(&dispatch));
    }
    DISPID IdOf(const wchar_t* name) {
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        DISPID id = DISPID_UNKNOWN;
        EXPECT_HR(S_OK, dispatch->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id));
        return id;
    }
    HRESULT Call(DISPID id, WORD flags, std::vector<VARIANT> args, VARIANT* result, EXCEPINFO* error = nullptr) {
        DISPPARAMS params{args.data(), nullptr, static_cast<UINT>(args.size()), 0};
        return dispatch->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, error, nullptr);
    }
    ComPtr<IDispatch> dispatch;
};

TEST_F(Dispatch, NamesMapToTheDeclaredIdentifiers) {
    EXPECT_EQ(0x60020007, IdOf(L"Add"));
    EXPECT_EQ(0x60020000, IdOf(L"count"));  // names are matched without regard to case
    EXPECT_EQ(DISPID_VALUE, IdOf(L"Item"));
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"NoSuchMember")};
    DISPID id;
    EXPECT_HR(DISP_E_UNKNOWNNAME, dispatch->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id));
}

TEST_F(Dispatch, InvokeCallsTheVtableWithConvertedArguments) {
    VARIANT arg;
    V_VT(&arg) = VT_BSTR;
    V_BSTR(&arg) = ::SysAllocString(L"alpha");
    EXPECT_HR(S_OK, Call(0x60020007, DISPATCH_METHOD, {arg}, nullptr));
    ::VariantClear(&arg);

    VARIANT count;
    ::VariantInit(&count);
    // Script hosts ask for property gets with both flags, or as methods.
    EXPECT_HR(S_OK, Call(IdOf(L"Count"), DISPATCH_METHOD | DISPATCH_PROPERTYGET, {}, &count));
    EXPECT_EQ(VT_I4, V_VT(&count));
    EXPECT_EQ(1, V_I4(&count));
    EXPECT_HR(S_OK, Call(IdOf(L"Count"), DISPATCH_METHOD, {}, &count));
    EXPECT_EQ(1, V_I4(&count));

    VARIANT index;
    V_VT(&index) = VT_BSTR;
    V_BSTR(&index) = ::SysAllocString(L"0");
    VARIANT item;
    ::VariantInit(&item);
    EXPECT_HR(S_OK, Call(DISPID_VALUE, DISPATCH_PROPERTYGET, {index}, &item));
    ::VariantClear(&index);
    ASSERT_EQ(VT_BSTR, V_VT(&item));
    EXPECT_STREQ(L"alpha", V_BSTR(&item));
    ::VariantClear(&item);
}

TEST_F(Dispatch, FailuresOfTheMethodAndOfTheCallAreReported) {
    VARIANT index;
    V_VT(&index) = VT_I4;
    V_I4(&index) = 5;
    VARIANT item;
    ::VariantInit(&item);
    // A failing method reaches the caller as an exception carrying its result,
    // which is what a script sees as the error number.
    EXCEPINFO error{};
    EXPECT_HR(DISP_E_EXCEPTION, Call(DISPID_VALUE, DISPATCH_PROPERTYGET, {index}, &item, &error));
    EXPECT_HR(E_INVALIDARG, error.scode);
    ::SysFreeString(error.bstrSource);
    ::SysFreeString(error.bstrDescription);
    ::SysFreeString(error.bstrHelpFile);
    EXPECT_HR(DISP_E_BADPARAMCOUNT, Call(0x60020007, DISPATCH_METHOD, {}, nullptr));
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    EXPECT_HR(DISP_E_UNKNOWNINTERFACE,
              dispatch->Invoke(0x60020000, IID_IStrings, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none, &item,
                               nullptr, nullptr));
}

TEST_F(Dispatch, TypeInformationDescribesTheInterface) {
    UINT count = 0;
    EXPECT_HR(S_OK, dispatch->GetTypeInfoCount(&count));
    EXPECT_EQ(1u, count);
    ComPtr<ITypeInfo> info;
    ASSERT_HR(S_OK, dispatch->GetTypeInfo(0, LOCALE_USER_DEFAULT, &info));
    BSTR name = nullptr;
    info->GetDocumentation(MEMBERID_NIL, &name, nullptr, nullptr, nullptr);
    EXPECT_STREQ(L"IStrings", name);
    ::SysFreeString(name);
    EXPECT_HR(DISP_E_BADINDEX, dispatch->GetTypeInfo(1, LOCALE_USER_DEFAULT, &info));
}

}  // namespace
}  // namespace ky::test
