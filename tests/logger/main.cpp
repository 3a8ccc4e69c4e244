// The logger's test programs run on the process's main single-threaded
// apartment, where the logger (registered without a threading model) lives.
#include "com/module.h"
#include "kytest.h"

namespace {

// The test program's own objects (listeners) count in this module, not in
// the library's.
class TestModule : public com::Module {};
TestModule g_module;

}  // namespace

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
