#include "com/module.h"
#include "kytest.h"
#include "testobjects.h"

namespace ky::test {

std::atomic<int> Widget::s_live{0};
std::atomic<int> Fragile::s_constructed{0};
std::atomic<int> Fragile::s_failures{0};

namespace {

// The toolkit's tests have their own module: the test program.
class TestModule : public com::Module {};
TestModule g_module;

HRESULT CanUnloadNow() { return com::Module::Get().LockCount() == 0 ? S_OK : S_FALSE; }

}  // namespace
}  // namespace ky::test

int main(int argc, char** argv) {
    return ky::test::RunAllTests(argc, argv, COINIT_MULTITHREADED, &ky::test::CanUnloadNow);
}
