// The message table: every code of the library's numbering has its text,
// each ending in CR LF, reachable through FormatMessage with the DLL as source.
#include <string>

#include "kytest.h"

namespace ky::test {
namespace {

struct Message {
    unsigned long code;
    const wchar_t* text;
};

const Message kMessages[] = {
    {0x00041001ul, L"Asynchronous operation was successfully started."},
    {0x00041200ul, L"The LDAP call completed successfully."},
    {0x00041205ul, L"LDAP values do not match."},
    {0x00041206ul, L"LDAP values match."},
    {0x00041209ul, L"Partial results and referrals received."},
    {0x0004120Aul, L"A referral was returned from the server."},
    {0x0004120Eul, L"SASL bind procedure require next step to be done."},
    {0x80041001ul, L"Object is not initialized."},
    {0x80041002ul, L"Object is already initialized."},
    {0x80041010ul, L"Object is in a wrong state."},
    {0x80041020ul, L"Index is out of range."},
    {0x80041021ul, L"Element was not found."},
    {0x80041030ul, L"Parse error occurred."},
    {0x80041101ul, L"Object is not attached to KY tree."},
    {0x80041102ul, L"Object is already attached to KY tree."},
    {0x80041110ul, L"Ky Tree object has no capability to perform operation."},
    {0x80041201ul, L"LDAP operations error occurred."},
    {0x80041202ul, L"LDAP protocol error occurred."},
    {0x80041203ul, L"Time limit, set by the server side time limit parameter, was exceeded."},
    {0x80041204ul, L"Size limit was exceeded."},
    {0x80041207ul, L"The authentication method is not supported."},
    {0x80041208ul, L"Strong authentication is required."},
    {0x8004120Bul, L"Administration limit on the server was exceeded."},
    {0x8004120Cul, L"The control is critical and the server does not support the control."},
    {0x8004120Dul, L"Confidentiality is required."},
    {0x80041210ul, L"Requested attribute does not exist."},
    {0x80041211ul, L"Attribute type is not defined."},
    {0x80041212ul, L"There was an inappropriate matching."},
    {0x80041213ul, L"There was a constraint violation."},
    {0x80041214ul, L"The attribute exists or the value has been assigned."},
    {0x80041215ul, L"The attribute syntax is invalid."},
    {0x80041220ul, L"Object does not exist."},
    {0x80041221ul, L"The alias is invalid."},
    {0x80041222ul, L"The distinguished name has an invalid syntax."},
    {0x80041223ul, L"The object is a leaf."},
    {0x80041224ul, L"Cannot dereference the alias."},
    {0x80041230ul, L"Authentication is inappropriate."},
    {0x80041231ul, L"The supplied credential is invalid."},
    {0x80041232ul, L"The user has insufficient access rights."},
    {0x80041233ul, L"The server is busy."},
    {0x80041234ul, L"The server is unavailable."},
    {0x80041235ul, L"The server is not willing to handle directory requests."},
    {0x80041236ul, L"The chain of referrals has looped back to a referring server."},
    {0x8004123Cul, L"Server did not receive a required server-side sorting control."},
    {0x8004123Dul, L"The search results exceeded the range specified by the requested offsets."},
    {0x80041240ul, L"There was a naming violation."},
    {0x80041241ul, L"There was an object class violation."},
    {0x80041242ul, L"Operation is not allowed on a non leaf object."},
    {0x80041243ul, L"Operation is not allowed on RDN."},
    {0x80041244ul, L"The object already exists."},
    {0x80041245ul, L"Cannot modify object class."},
    {0x80041246ul, L"Results returned are too large."},
    {0x80041247ul, L"Multiple directory service agents are affected."},
    {0x8004124Cul, L"Search operation failed due to the inclusion of the VirtualListViewRequest control."},
    {0x80041250ul, L"Unknown LDAP error occurred."},
    {0x80041251ul, L"Cannot contact the LDAP server."},
    {0x80041252ul, L"Local error occurred."},
    {0x80041253ul, L"Encoding error occurred."},
    {0x80041254ul, L"Decoding error occurred."},
    {0x80041255ul, L"The search was aborted due to exceeding the limit of the client side timeout parameter."},
    {0x80041256ul, L"Unknown authentication error occurred."},
    {0x80041257ul, L"The search filter is bad."},
    {0x80041258ul, L"The user has cancelled the operation."},
    {0x80041259ul, L"A bad parameter was passed to a routine."},
    {0x8004125Aul, L"The system is out of memory."},
    {0x8004125Bul, L"Cannot establish the connection."},
    {0x8004125Cul, L"The feature is not supported."},
    {0x8004125Dul, L"The LDAP function did not find the specified control."},
    {0x8004125Eul, L"Results are not returned."},
    {0x8004125Ful, L"More results are to be returned."},
    {0x80041260ul, L"Client loop was detected."},
    {0x80041261ul, L"The referral limit has been exceeded."},
    {0x80041300ul, L"There is no connection was established with a LDAP server."},
    {0x80041301ul, L"There is no authentication to a LDAP server had been done."},
    {0x80041310ul, L"LDAP request object is not in the READY state."},
    {0x80041311ul, L"LDAP request object is not in the PENDING state."},
    {0x80041312ul, L"LDAP request object has no result object."},
};

class Messages : public ::testing::Test {
protected:
    void SetUp() override {
        m_dll = ::LoadLibraryExW(DllPath().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
        ASSERT_NE(nullptr, m_dll);
    }
    void TearDown() override { ::FreeLibrary(m_dll); }

    bool Format(unsigned long code, std::wstring* text) {
        wchar_t* buffer = nullptr;
        DWORD length = ::FormatMessageW(
            FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS, m_dll, code,
            MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
        if (length == 0) return false;
        text->assign(buffer, length);
        ::LocalFree(buffer);
        return true;
    }

    HMODULE m_dll = nullptr;
};

TEST_F(Messages, ACodeWithoutAnEntryHasNoText) {
    std::wstring text;
    EXPECT_FALSE(Format(0x80041003ul, &text));
    EXPECT_EQ(static_cast<DWORD>(ERROR_MR_MID_NOT_FOUND), ::GetLastError());
}

TEST_F(Messages, EveryCodeHasItsExactText) {
    for (const auto& message : kMessages) {
        std::wstring text;
        ASSERT_TRUE(Format(message.code, &text)) << Hex(static_cast<HRESULT>(message.code));
        EXPECT_EQ(std::wstring(message.text) + L"\r\n", text) << Hex(static_cast<HRESULT>(message.code));
    }
}

TEST_F(Messages, EntriesAreGroupedInBlocksOfConsecutiveIds) {
    HRSRC resource = ::FindResourceW(m_dll, MAKEINTRESOURCEW(1), RT_MESSAGETABLE);
    ASSERT_NE(nullptr, resource);
    auto* data = static_cast<const MESSAGE_RESOURCE_DATA*>(::LockResource(::LoadResource(m_dll, resource)));
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(23u, data->NumberOfBlocks);
    DWORD entries = 0;
    for (DWORD i = 0; i < data->NumberOfBlocks; ++i)
        entries += data->Blocks[i].HighId - data->Blocks[i].LowId + 1;
    EXPECT_EQ(sizeof(kMessages) / sizeof(kMessages[0]), entries);
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
