// The library's own result codes (E_KY_INDEXOUTOFRANGE, E_KY_ELEMENTNOTFOUND,
// ...), generated from the message table together with their texts.
#pragma once

#include <windows.h>

#include "messages.h"
