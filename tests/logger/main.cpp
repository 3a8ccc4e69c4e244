// The logger is registered without a threading model: its tests run on the
// main STA. The listeners they make count in this program's own module.
#include "com/module.h"
#include "kytest.h"

namespace {
class TestModule : public com::Module {};
TestModule g_module;
}  // namespace

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
