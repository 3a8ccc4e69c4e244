// A task's properties: defaults, ranges, and the OnUpdate each change sends.
#include "messages.h"
#include "taskstest.h"

namespace ky::test {
namespace {

using Task = TasksTest;

TEST_F(Task, ANewTaskHasItsNameAndTheDefaults) {
    auto task = Add(L"Copying", VARIANT_TRUE);
    BSTR text = nullptr;
    EXPECT_HR(S_OK, task->get_Name(&text));
    EXPECT_EQ(L"Copying", Text(text));
    ::SysFreeString(text);
    EXPECT_HR(S_OK, task->get_Description(&text));
    EXPECT_EQ(nullptr, text);
    int value = 0;
    EXPECT_HR(S_OK, task->get_Progress(&value));
    EXPECT_EQ(-1, value);
    EXPECT_HR(S_OK, task->get_Tag(&value));
    EXPECT_EQ(0, value);
    ULONG flags = 0;
    EXPECT_HR(S_OK, task->get_Flags(&flags));
    EXPECT_EQ(ULONG(KYTF_ANIMATION_PLAYING), flags);
    UINT resource = 0;
    text = reinterpret_cast<BSTR>(1);
    EXPECT_HR(S_OK, task->GetAnimation(&text, &resource));
    EXPECT_EQ(nullptr, text);
    EXPECT_EQ(0xFFFFFFFFu, resource);
    VARIANT_BOOL yes = VARIANT_FALSE;
    EXPECT_HR(S_OK, task->get_ShowProgressDialog(&yes));
    EXPECT_EQ(VARIANT_TRUE, yes);
    EXPECT_HR(S_OK, task->get_CanCancel(&yes));
    EXPECT_EQ(VARIANT_FALSE, yes);

    // The progress dialog wish is kept as it was passed.
    EXPECT_HR(S_OK, Add(L"Odd", VARIANT_BOOL(5))->get_ShowProgressDialog(&yes));
    EXPECT_EQ(VARIANT_BOOL(5), yes);
}

TEST_F(Task, EveryOutPointerIsChecked) {
    auto task = Add(L"Checked");
    BSTR text = nullptr;
    UINT resource = 0;
    EXPECT_HR(E_POINTER, task->get_Name(nullptr));
    EXPECT_HR(E_POINTER, task->get_Description(nullptr));
    EXPECT_HR(E_POINTER, task->get_Progress(nullptr));
    EXPECT_HR(E_POINTER, task->get_Flags(nullptr));
    EXPECT_HR(E_POINTER, task->get_ShowProgressDialog(nullptr));
    EXPECT_HR(E_POINTER, task->get_CanCancel(nullptr));
    EXPECT_HR(E_POINTER, task->get_Tag(nullptr));
    EXPECT_HR(E_POINTER, task->GetAnimation(nullptr, &resource));
    EXPECT_HR(E_POINTER, task->GetAnimation(&text, nullptr));
}

TEST_F(Task, EachSetterChecksItsRangeAndAnnouncesItsChange) {
    auto task = Add(L"Setters");
    auto sink = AdvisedSink();
    struct Case {
        const char* what;
        std::function<HRESULT()> set;
        HRESULT expected;
        ULONG update;  // 0: no event
    };
    BSTR name = ::SysAllocString(L"Moving");
    BSTR empty = ::SysAllocString(L"");
    BSTR description = ::SysAllocString(L"3 of 7 files");
    BSTR module = ::SysAllocString(L"my.dll");
    const Case cases[] = {
        {"name", [&] { return task->put_Name(name); }, S_OK, KYTUT_NAME},
        {"same name", [&] { return task->put_Name(name); }, S_OK, KYTUT_NAME},
        {"empty name", [&] { return task->put_Name(empty); }, E_INVALIDARG, 0},
        {"null name", [&] { return task->put_Name(nullptr); }, E_INVALIDARG, 0},
        {"description", [&] { return task->put_Description(description); }, S_OK, KYTUT_DESCRIPTION},
        {"progress -1", [&] { return task->put_Progress(-1); }, S_OK, KYTUT_PROGRESS},
        {"progress 0", [&] { return task->put_Progress(0); }, S_OK, KYTUT_PROGRESS},
        {"progress 100", [&] { return task->put_Progress(100); }, S_OK, KYTUT_PROGRESS},
        {"same progress", [&] { return task->put_Progress(100); }, S_OK, KYTUT_PROGRESS},
        {"progress -2", [&] { return task->put_Progress(-2); }, E_INVALIDARG, 0},
        {"progress 101", [&] { return task->put_Progress(101); }, E_INVALIDARG, 0},
        {"progress min", [&] { return task->put_Progress(INT_MIN); }, E_INVALIDARG, 0},
        {"stopped", [&] { return task->put_Flags(KYTF_ANIMATION_STOPPED); }, S_OK, KYTUT_FLAGS},
        {"flags 0", [&] { return task->put_Flags(0); }, E_INVALIDARG, 0},
        {"both flags", [&] { return task->put_Flags(0x300); }, E_INVALIDARG, 0},
        {"other flag", [&] { return task->put_Flags(0x1); }, E_INVALIDARG, 0},
        {"animation", [&] { return task->SetAnimation(module, 7); }, S_OK, KYTUT_ANIMATION},
        {"standard", [&] { return task->SetStandardAnimation(KYTA_COPY); }, S_OK, KYTUT_ANIMATION},
        {"no standard 4", [&] { return task->SetStandardAnimation(KYTASKANIMATION(4)); }, E_KY_ELEMENTNOTFOUND, 0},
        {"tag", [&] { return task->put_Tag(-42); }, S_OK, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        sink->Forget();
        EXPECT_HR(c.expected, c.set());
        auto events = sink->Events();
        if (!c.update) {
            EXPECT_TRUE(events.empty());
            continue;
        }
        ASSERT_EQ(1u, events.size());
        EXPECT_EQ(3, events[0].id);
        EXPECT_EQ(c.update, events[0].update);
        EXPECT_EQ(IdentityOf(task.Get()), events[0].task);
    }

    // What was accepted is stored; what was refused left no trace.
    BSTR text = nullptr;
    task->get_Name(&text);
    EXPECT_EQ(L"Moving", Text(text));
    ::SysFreeString(text);
    task->get_Description(&text);
    EXPECT_EQ(L"3 of 7 files", Text(text));
    ::SysFreeString(text);
    int value = 0;
    task->get_Progress(&value);
    EXPECT_EQ(100, value);
    task->get_Tag(&value);
    EXPECT_EQ(-42, value);
    ULONG flags = 0;
    task->get_Flags(&flags);
    EXPECT_EQ(ULONG(KYTF_ANIMATION_STOPPED), flags);

    // An empty description clears it, and is announced.
    sink->Forget();
    EXPECT_HR(S_OK, task->put_Description(empty));
    EXPECT_HR(S_OK, task->get_Description(&text));
    EXPECT_EQ(nullptr, text);
    EXPECT_HR(S_OK, task->put_Description(nullptr));
    EXPECT_EQ(2u, sink->Count());
    for (BSTR b : {name, empty, description, module}) ::SysFreeString(b);
}

TEST_F(Task, StandardAnimationsComeFromTheShellLibrary) {
    auto task = Add(L"Animated");
    const struct {
        KYTASKANIMATION animation;
        const wchar_t* module;
        UINT resource;
    } expected[] = {
        {KYTA_COPY, L"shell32.dll", 161},     {KYTA_MOVE, L"shell32.dll", 160},
        {KYTA_DELETE, L"shell32.dll", 164},   {KYTA_DOWNLOAD, L"shell32.dll", 170},
        {KYTA_FLASHLIGHT, L"shell32.dll", 150}, {KYTA_PROPERTIES, L"shell32.dll", 165},
        {KYTA_NONE, nullptr, 0xFFFFFFFF},
    };
    for (const auto& row : expected) {
        EXPECT_HR(S_OK, task->SetStandardAnimation(row.animation));
        BSTR module = nullptr;
        UINT resource = 0;
        EXPECT_HR(S_OK, task->GetAnimation(&module, &resource));
        EXPECT_EQ(row.resource, resource);
        if (row.module)
            EXPECT_EQ(row.module, Text(module));
        else
            EXPECT_EQ(nullptr, module);
        ::SysFreeString(module);
    }
    // A failed lookup changes nothing.
    EXPECT_HR(S_OK, task->SetStandardAnimation(KYTA_MOVE));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, task->SetStandardAnimation(KYTASKANIMATION(4)));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, task->SetStandardAnimation(KYTASKANIMATION(-1)));
    BSTR module = nullptr;
    UINT resource = 0;
    task->GetAnimation(&module, &resource);
    EXPECT_EQ(160u, resource);
    ::SysFreeString(module);
    // Any module and identifier may be set by hand, none included.
    EXPECT_HR(S_OK, task->SetAnimation(nullptr, 12));
    task->GetAnimation(&module, &resource);
    EXPECT_EQ(nullptr, module);
    EXPECT_EQ(12u, resource);
}

TEST_F(Task, AFailingListenerIsReportedThoughTheValueStands) {
    auto task = Add(L"Watched");
    auto first = AdvisedSink(), last = AdvisedSink();
    last->result = E_ACCESSDENIED;
    EXPECT_HR(E_ACCESSDENIED, task->put_Progress(40));
    int progress = 0;
    task->get_Progress(&progress);
    EXPECT_EQ(40, progress);
    EXPECT_EQ(1u, first->Count());

    // Only the last listener called decides; the others are all called.
    last->result = S_OK;
    first->result = E_FAIL;
    EXPECT_HR(S_OK, task->put_Progress(50));
    EXPECT_EQ(2u, last->Count());
}

TEST_F(Task, CancelAsksTheOperationAndNothingElse) {
    auto canceller = New<Canceller>();
    auto cancellable = Add(L"Cancellable", VARIANT_FALSE, canceller.Get());
    auto plain = Add(L"Plain");
    auto sink = AdvisedSink();
    VARIANT_BOOL can = VARIANT_FALSE;
    EXPECT_HR(S_OK, cancellable->get_CanCancel(&can));
    EXPECT_EQ(VARIANT_TRUE, can);

    EXPECT_HR(S_OK, cancellable->Cancel());
    EXPECT_EQ(1, canceller->cancels.load());
    // What the operation answers is its own business.
    canceller->result = E_FAIL;
    EXPECT_HR(S_OK, cancellable->Cancel());
    EXPECT_EQ(2, canceller->cancels.load());
    EXPECT_HR(E_UNEXPECTED, plain->Cancel());
    // Cancelling neither changes nor removes the task.
    EXPECT_EQ(0u, sink->Count());
    EXPECT_EQ(2, Count());
}

TEST_F(Task, DeleteTakesTheTaskOffItsListOnce) {
    auto task = Add(L"Short-lived");
    auto sink = AdvisedSink();
    EXPECT_HR(S_OK, task->Delete());
    EXPECT_EQ(0, Count());
    EXPECT_HR(E_UNEXPECTED, task->Delete());
    auto events = sink->Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(2, events[0].id);
    EXPECT_EQ(IdentityOf(task.Get()), events[0].task);

    // Off the list, the task still works and still tells the listeners.
    EXPECT_HR(S_OK, task->put_Progress(10));
    events = sink->Events();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(3, events[1].id);
}

}  // namespace
}  // namespace ky::test
