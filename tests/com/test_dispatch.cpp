// IDispatch through the type library for a dual interface (the library's
// string collection): names, dispatch identifiers, argument conversion and
// property access all come from the type information.
#include <wrl/client.h>

#include "com/raii.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

struct Dispatch : ::testing::Test {
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyStrings, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&dispatch)));
    }
    HRESULT Call(DISPID id, WORD flags, std::vector<VARIANT> args, VARIANT* result, EXCEPINFO* error = nullptr) {
        DISPPARAMS params{args.data(), nullptr, static_cast<UINT>(args.size()), 0};
        return dispatch->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, error, nullptr);
    }
    ComPtr<IDispatch> dispatch;
};

TEST_F(Dispatch, NamesMapToTheDeclaredIdentifiersAndTheTypeInformationToTheInterface) {
    const std::pair<const wchar_t*, DISPID> names[] = {
        {L"Add", 0x60020007}, {L"count", 0x60020000}, {L"Item", DISPID_VALUE}, {L"NoSuchMember", DISPID_UNKNOWN}};
    for (auto [name, expected] : names) {
        LPOLESTR list[] = {const_cast<LPOLESTR>(name)};
        DISPID id = DISPID_UNKNOWN;
        EXPECT_HR(expected == DISPID_UNKNOWN ? DISP_E_UNKNOWNNAME : S_OK,
                  dispatch->GetIDsOfNames(IID_NULL, list, 1, LOCALE_USER_DEFAULT, &id));
        EXPECT_EQ(expected, id) << Narrow(name);
    }
    ComPtr<ITypeInfo> info;
    ASSERT_HR(S_OK, dispatch->GetTypeInfo(0, LOCALE_USER_DEFAULT, &info));
    com::Bstr name;
    info->GetDocumentation(MEMBERID_NIL, name.Out(), nullptr, nullptr, nullptr);
    EXPECT_STREQ(L"IStrings", name.Get());
    EXPECT_HR(DISP_E_BADINDEX, dispatch->GetTypeInfo(1, LOCALE_USER_DEFAULT, &info));
}

TEST_F(Dispatch, InvokeCallsTheVtableWithConvertedArgumentsAndReportsFailures) {
    com::Variant text, count, item;
    V_VT(&text) = VT_BSTR;
    V_BSTR(&text) = ::SysAllocString(L"alpha");
    EXPECT_HR(S_OK, Call(0x60020007, DISPATCH_METHOD, {text}, nullptr));
    // Script hosts ask for property gets with both flags, or as methods.
    for (WORD flags : {DISPATCH_METHOD | DISPATCH_PROPERTYGET, DISPATCH_METHOD}) {
        EXPECT_HR(S_OK, Call(0x60020000, flags, {}, &count));
        EXPECT_EQ(VT_I4, V_VT(&count));
        EXPECT_EQ(1, V_I4(&count));
    }
    EXPECT_HR(S_OK, Call(DISPID_VALUE, DISPATCH_PROPERTYGET, {Number(0, VT_I2)}, &item));
    ASSERT_EQ(VT_BSTR, V_VT(&item));
    EXPECT_STREQ(L"alpha", V_BSTR(&item));
    ::VariantClear(&item);
    // A failing method reaches the caller as an exception carrying its result,
    // which is what a script sees as the error number.
    EXCEPINFO error{};
    EXPECT_HR(DISP_E_EXCEPTION, Call(DISPID_VALUE, DISPATCH_PROPERTYGET, {Number(5)}, &item, &error));
    EXPECT_NE(S_OK, error.scode);
    ::SysFreeString(error.bstrSource), ::SysFreeString(error.bstrDescription), ::SysFreeString(error.bstrHelpFile);
    EXPECT_HR(DISP_E_BADPARAMCOUNT, Call(0x60020007, DISPATCH_METHOD, {}, nullptr));
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    EXPECT_HR(DISP_E_UNKNOWNINTERFACE, dispatch->Invoke(0x60020000, IID_IStrings, LOCALE_USER_DEFAULT,
                                                        DISPATCH_PROPERTYGET, &none, &item, nullptr, nullptr));
}

}  // namespace
}  // namespace ky::test
