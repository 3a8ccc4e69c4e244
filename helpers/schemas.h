// Names of the XML schemas embedded in the library (resources/schemas.rc),
// served by IKyResourceData::LoadResource with the type kSchemaType.
#pragma once

namespace ky::schemas {

inline constexpr wchar_t kSchemaType[] = L"XSD";
// Directory data, versions 1 and 2.
inline constexpr wchar_t kDirectoryDataV1[] = L"DSML1.XSD";
inline constexpr wchar_t kDirectoryDataV2[] = L"DSML2.XSD";
inline constexpr wchar_t kEntryTemplates[] = L"ENTRYTEMPLATES.XSD";
inline constexpr wchar_t kQueryOptions[] = L"QUERYOPTIONS.XSD";

}  // namespace ky::schemas
