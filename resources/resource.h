// Resource identifiers of the library.
#pragma once

// Registry scripts, one per class, in object-map order.
#define IDR_KYLOGGER 101
#define IDR_KYSTDDATAOBJECT 102
#define IDR_KYOBJECTMETADATA 103
#define IDR_KYTASKS 104
#define IDR_KYHELPERS 105
#define IDR_KYOBJECTCOLLECTIONFACTORY 106
#define IDR_KYOLE 107
#define IDR_KYSTRINGS 108
#define IDR_COMSTGCONFIGURATIONMANAGER 109
#define IDR_MTAOBJECTGODFATHER 110
#define IDR_STAOBJECTGODFATHER 111
#define IDR_SYSTEMTIMER 112
#define IDR_SEARCHATTRIBUTESGROUP 113
#define IDR_SEARCHATTRIBUTESGROUPSET 114
#define IDR_OPMLDOCUMENT 115

// String table: names of the built-in search attribute groups.
#define IDS_SEARCHGROUP_FIRST 134
#define IDS_SEARCHGROUP_LAST 138
