#include "kytest.h"
#include "testobjects.h"

namespace ky::test {

std::atomic<int> Widget::s_live{0}, Widget::s_constructed{0}, Widget::s_failures{0};

// The toolkit's tests have their own module: the test program.
class TestModule : public com::Module {
} g_module;

HRESULT CanUnloadNow() { return com::Module::Get().LockCount() == 0 ? S_OK : S_FALSE; }
}  // namespace ky::test

int main(int argc, char** argv) {
    return ky::test::RunAllTests(argc, argv, COINIT_MULTITHREADED, &ky::test::CanUnloadNow);
}
