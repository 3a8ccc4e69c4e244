// The embedded type library: identity, the coclasses, dispatch identifiers
// of the dual and dispatch interfaces, enumerations and records.
#include <wrl/client.h>

#include <map>

#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

class TypeLibrary : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::LoadTypeLibEx(DllPath().c_str(), REGKIND_NONE, &m_lib));
        UINT count = m_lib->GetTypeInfoCount();
        for (UINT i = 0; i < count; ++i) {
            BSTR name = nullptr;
            m_lib->GetDocumentation(i, &name, nullptr, nullptr, nullptr);
            ComPtr<ITypeInfo> info;
            m_lib->GetTypeInfo(i, &info);
            m_byName[name] = info;
            ::SysFreeString(name);
        }
    }

    MEMBERID IdOf(const wchar_t* type, const wchar_t* member) {
        auto it = m_byName.find(type);
        if (it == m_byName.end()) return DISPID_UNKNOWN;
        LPOLESTR names[] = {const_cast<LPOLESTR>(member)};
        MEMBERID id = DISPID_UNKNOWN;
        it->second->GetIDsOfNames(names, 1, &id);
        return id;
    }

    std::wstring HelpString(const GUID& guid) {
        ComPtr<ITypeInfo> info;
        if (FAILED(m_lib->GetTypeInfoOfGuid(guid, &info))) return L"<missing>";
        BSTR doc = nullptr;
        info->GetDocumentation(MEMBERID_NIL, nullptr, &doc, nullptr, nullptr);
        std::wstring text = doc ? doc : L"";
        ::SysFreeString(doc);
        return text;
    }

    ComPtr<ITypeLib> m_lib;
    std::map<std::wstring, ComPtr<ITypeInfo>> m_byName;
};

TEST_F(TypeLibrary, IsKyUtils10ForUsEnglish) {
    TLIBATTR* attr = nullptr;
    ASSERT_HR(S_OK, m_lib->GetLibAttr(&attr));
    // widl has been seen writing a wrong LIBID; this guards against it.
    EXPECT_TRUE(IsEqualGUID(LIBID_KyUtils, attr->guid));
    EXPECT_EQ(1, attr->wMajorVerNum);
    EXPECT_EQ(0, attr->wMinorVerNum);
    EXPECT_EQ(0x0409u, attr->lcid);
    m_lib->ReleaseTLibAttr(attr);
    BSTR name = nullptr;
    m_lib->GetDocumentation(MEMBERID_NIL, &name, nullptr, nullptr, nullptr);
    EXPECT_STREQ(L"KyUtils", name);
    ::SysFreeString(name);
}

TEST_F(TypeLibrary, DescribesEveryCoclass) {
    for (const wchar_t* name :
         {L"KyLogger", L"KyStdDataObject", L"KyObjectMetaData", L"KyTasks", L"KyHelpers", L"KyObjectCollectionFactory",
          L"KyOLE", L"KyStrings", L"ComStgOutriggedConfiguration", L"MTAObjectGodfather", L"STAObjectGodfather",
          L"SystemTimer", L"SearchAttributesGroup", L"SearchAttributesGroupSet", L"OPMLDocument"}) {
        EXPECT_EQ(1u, m_byName.count(name)) << Narrow(name);
    }
    EXPECT_EQ(L"Tasks CoClass", HelpString(CLSID_KyTasks));
    EXPECT_EQ(L"String Collection Class", HelpString(CLSID_KyStrings));
    EXPECT_EQ(L"String Collection Interface", HelpString(IID_IStrings));
    EXPECT_EQ(L"call back interface for canceling async operations", HelpString(IID_ICancelAsyncOperation));
    EXPECT_EQ(L"IComStgOutriggedConfiguration - multiprocess shared configuration.",
              HelpString(IID_IComStgOutriggedConfiguration));
}

TEST_F(TypeLibrary, LeavesOutTheInternalInterfaces) {
    for (const GUID* iid : {&IID_IEnumKyTask, &IID_IEnumBSTR, &IID_IKyFileSystem}) {
        ComPtr<ITypeInfo> info;
        EXPECT_HR(TYPE_E_ELEMENTNOTFOUND, m_lib->GetTypeInfoOfGuid(*iid, &info));
    }
}

TEST_F(TypeLibrary, DualInterfacesCarryTheirDispatchIdentifiers) {
    EXPECT_EQ(0x60020000, IdOf(L"IKyTask", L"Name"));
    EXPECT_EQ(0x6002000a, IdOf(L"IKyTask", L"Tag"));
    EXPECT_EQ(0x60020010, IdOf(L"IKyTask", L"GetAnimation"));
    EXPECT_EQ(DISPID_VALUE, IdOf(L"IKyTasks", L"Item"));
    EXPECT_EQ(DISPID_NEWENUM, IdOf(L"IKyTasks", L"_NewEnum"));
    EXPECT_EQ(0x60020003, IdOf(L"IKyTasks", L"Add"));
    EXPECT_EQ(0x60020009, IdOf(L"IStrings", L"Sort"));
    EXPECT_EQ(1, IdOf(L"_IKyTasksEvents", L"OnAdd"));
    EXPECT_EQ(2, IdOf(L"_IKyTasksEvents", L"OnRemove"));
    EXPECT_EQ(3, IdOf(L"_IKyTasksEvents", L"OnUpdate"));
}

TEST_F(TypeLibrary, DescribesTheEnumerationsAndTheChannelRecord) {
    for (const wchar_t* name : {L"KYEVENTTYPES", L"KYTASKFLAGS", L"KYTASKANIMATION", L"KYTASKUPDATETYPE",
                                L"KYOBJECTCOLLECTIONTYPE", L"KYOBJECTCOLLECTIONCLONEPOLICY", L"KYDECODESTATERULE",
                                L"KYPROPPAGEDATA", L"KyLoggerChannel"}) {
        EXPECT_EQ(1u, m_byName.count(name)) << Narrow(name);
    }
    ComPtr<ITypeInfo> channel = m_byName[L"KyLoggerChannel"];
    ASSERT_TRUE(channel);
    const wchar_t* fields[] = {L"dwID", L"dwEventMask", L"bstrName"};
    for (UINT i = 0; i < 3; ++i) {
        VARDESC* var = nullptr;
        ASSERT_HR(S_OK, channel->GetVarDesc(i, &var));
        BSTR name = nullptr;
        channel->GetDocumentation(var->memid, &name, nullptr, nullptr, nullptr);
        EXPECT_STREQ(fields[i], name);
        ::SysFreeString(name);
        channel->ReleaseVarDesc(var);
    }
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
