// What a client expects of each class that the library registers.
#pragma once

#include <windows.h>

#include "kyutils.h"

namespace ky::test {

struct ExpectedClass {
    const CLSID* clsid;
    const wchar_t* progId;               // version-independent
    const wchar_t* versionedDescription; // default value of the versioned ProgID key
    const wchar_t* description;          // other keys
    const wchar_t* threadingModel;       // "" is an empty value that exists
    bool singleton;
    bool aggregatable;
    bool programmable;
    bool appId;
    bool progIdsForceRemoved;
};

inline const ExpectedClass kExpectedClasses[] = {
    {&CLSID_KyLogger, L"KyUtils.Logger", L"Norvane Tessaly Logger v.1", L"Norvane Tessaly Logger", L"", true, false,
     true, true, true},
    {&CLSID_KyStdDataObject, L"KyUtils.StdDataObject", L"IDataObject standard implementation",
     L"IDataObject standard implementation", L"Apartment", false, true, false, false, true},
    {&CLSID_KyObjectMetaData, L"KyUtils.KyObjectMetaData", L"KyObjectMetaData Class", L"KyObjectMetaData Class",
     L"Free", false, false, false, false, true},
    {&CLSID_KyTasks, L"KyUtils.KyTasks", L"Norvane Tessaly KyTasks v.1", L"Norvane Tessaly KyTasks", L"", true, false,
     true, true, true},
    {&CLSID_KyHelpers, L"KyUtils.KyHelpers", L"KyHelpers Class", L"KyHelpers Class", L"Both", false, false, false,
     false, true},
    {&CLSID_KyObjectCollectionFactory, L"KyUtils.KyObjectCollectionFactory", L"KyObjectCollectionFactory Class",
     L"KyObjectCollectionFactory Class", L"Free", true, false, false, false, true},
    {&CLSID_KyOLE, L"KyUtils.KyOLE", L"OLE standard implementation", L"OLE standard implementation", L"", true, false,
     false, false, true},
    {&CLSID_KyStrings, L"KyUtils.KyStrings", L"KyStrings Class", L"KyStrings Class", L"Both", false, true, false,
     false, true},
    {&CLSID_ComStgOutriggedConfiguration, L"KyUtils.ComStgConfigurationManager", L"ComStgConfigurationManager Class",
     L"ComStgConfigurationManager Class", L"Both", false, false, false, true, true},
    {&CLSID_MTAObjectGodfather, L"KyUtils.MTAObjectGodfather", L"IObjectGodfather for MTA implementation",
     L"IObjectGodfather for MTA implementation", L"Free", true, false, false, false, true},
    {&CLSID_STAObjectGodfather, L"KyUtils.STAObjectGodfather", L"IObjectGodfather for STA implementation",
     L"IObjectGodfather for STA implementation", L"Apartment", true, false, false, false, true},
    {&CLSID_SystemTimer, L"kyutils.SystemTimer", L"SystemTimer Class", L"SystemTimer Class", L"Free", true, false,
     false, false, false},
    {&CLSID_SearchAttributesGroup, L"KyUtils.SearchAttributesGroup", L"SearchAttributesGroup Class",
     L"SearchAttributesGroup Class", L"", false, true, false, false, true},
    {&CLSID_SearchAttributesGroupSet, L"KyUtils.SearchAttributesGroupSet", L"SearchAttributesGroupSet Class",
     L"SearchAttributesGroupSet Class", L"", false, true, false, false, true},
    {&CLSID_OPMLDocument, L"Norvane.OPMLDocument", L"Norvane.OPMLDocument", L"Norvane.OPMLDocument", L"Free", false,
     true, false, true, true},
};

// True when kyutils.dll serves a class object for the class (loads the DLL if needed).
bool Served(const CLSID& clsid);

}  // namespace ky::test
