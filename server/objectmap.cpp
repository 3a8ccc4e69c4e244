#include "objectmap.h"

#include "godfather.h"
#include "kyutils.h"
#include "resources/resource.h"

// Each service's header sits on a line of its own, so that services can be
// added independently.

#include "logger/logger.h"

#include "dataexchange/stddataobject.h"

#include "metadata/objectmetadata.h"

#include "tasks/tasks.h"

#include "helpers/helpers.h"

#include "dataexchange/objectcollection.h"

#include "dataexchange/kyole.h"

#include "strings/strings.h"

#include "sharedconfig/configuration.h"

#include "timer/systemtimer.h"

#include "strings/searchgroups.h"

#include "opml/document.h"

namespace ky {

namespace {

using com::ClassFactory;
using com::SingletonFactory;

// One row per creatable class, in the fixed order of registration and
// class-object lookup. Rows are kept apart by blank lines.
ObjectMapEntry g_objectMap[] = {
    MakeObjectMapEntry<CKyLogger, SingletonFactory>(CLSID_KyLogger, IDR_KYLOGGER),

    MakeObjectMapEntry<CKyStdDataObject, ClassFactory>(CLSID_KyStdDataObject, IDR_KYSTDDATAOBJECT),

    MakeObjectMapEntry<CCoKyObjectMetaData, ClassFactory>(CLSID_KyObjectMetaData, IDR_KYOBJECTMETADATA),

    MakeObjectMapEntry<CKyTasks, SingletonFactory>(CLSID_KyTasks, IDR_KYTASKS),

    MakeObjectMapEntry<CCoKyHelpers, ClassFactory>(CLSID_KyHelpers, IDR_KYHELPERS),

    MakeObjectMapEntry<CCoKyObjectCollectionFactory, SingletonFactory>(CLSID_KyObjectCollectionFactory,
                                                                       IDR_KYOBJECTCOLLECTIONFACTORY),

    MakeObjectMapEntry<CCoKyOLE, SingletonFactory>(CLSID_KyOLE, IDR_KYOLE),

    MakeObjectMapEntry<CCoKyStrings, ClassFactory>(CLSID_KyStrings, IDR_KYSTRINGS),

    MakeObjectMapEntry<CComStgOutriggedConfiguration, ClassFactory>(CLSID_ComStgOutriggedConfiguration,
                                                                     IDR_COMSTGCONFIGURATIONMANAGER),

    MakeObjectMapEntry<CMTAObjectGodfather, SingletonFactory>(CLSID_MTAObjectGodfather, IDR_MTAOBJECTGODFATHER),

    MakeObjectMapEntry<CSTAObjectGodfather, SingletonFactory>(CLSID_STAObjectGodfather, IDR_STAOBJECTGODFATHER),

    MakeObjectMapEntry<CSystemTimer, SingletonFactory>(CLSID_SystemTimer, IDR_SYSTEMTIMER),

    MakeObjectMapEntry<CCoSearchAttributesGroup, ClassFactory>(CLSID_SearchAttributesGroup,
                                                               IDR_SEARCHATTRIBUTESGROUP),

    MakeObjectMapEntry<CCoSearchAttributesGroupSet, ClassFactory>(CLSID_SearchAttributesGroupSet,
                                                                  IDR_SEARCHATTRIBUTESGROUPSET),

    MakeObjectMapEntry<OPML::CCoDocument, ClassFactory>(CLSID_OPMLDocument, IDR_OPMLDOCUMENT),
};

}  // namespace

ObjectMapEntry* ObjectMap() { return g_objectMap; }
size_t ObjectMapSize() { return sizeof(g_objectMap) / sizeof(g_objectMap[0]); }

}  // namespace ky
