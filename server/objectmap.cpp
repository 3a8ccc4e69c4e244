#include "objectmap.h"

#include "godfather.h"
#include "kyutils.h"
#include "resource.h"

namespace ky {

namespace {

using com::ClassFactory;
using com::SingletonFactory;

// One row per creatable class, in the fixed order of registration and lookup:
// logger, standard data object, object metadata, task list, helpers, object
// collection factory, clipboard gateway, string collection, shared
// configuration, MTA and STA godfathers, system timer, search attribute group
// and group set, OPML document.
ObjectMapEntry g_objectMap[] = {
    MakeObjectMapEntry<CMTAObjectGodfather, SingletonFactory>(CLSID_MTAObjectGodfather, IDR_MTAOBJECTGODFATHER),
    MakeObjectMapEntry<CSTAObjectGodfather, SingletonFactory>(CLSID_STAObjectGodfather, IDR_STAOBJECTGODFATHER),
};

}  // namespace

ObjectMapEntry* ObjectMap() { return g_objectMap; }
size_t ObjectMapSize() { return sizeof(g_objectMap) / sizeof(g_objectMap[0]); }

}  // namespace ky
