// Runs a call into code the caller does not trust (an object behind a raw
// pointer that may dangle) and survives a hardware fault in it: an access
// violation, an illegal instruction, a division by zero. The fault is caught
// with a vectored exception handler, which works alike on x86_64 and i686
// (MinGW's compiler has no __try/__except), and the call is abandoned.
//
// Only hardware faults raised on the calling thread while the call runs are
// taken; software exceptions (C++ throws, RPC errors) pass on untouched, so a
// callee that handles its own keeps doing so. A stack overflow is left
// alone: there is no stack left to recover on. Whatever the abandoned call
// held (locks, memory) stays held: this is a last resort against a caller's
// mistake, not a way to run faulty code.
#pragma once

namespace com {

// Runs body(context); false when a hardware fault ended it. `body` must not
// let a C++ exception escape.
bool RunCatchingFaults(void (*body)(void* context), void* context);

// The same for a callable that yields a value: `onFault` when it faulted.
template <class Call, class Result>
Result CallCatchingFaults(Call&& call, Result onFault) {
    struct Context {
        Call* call;
        Result result;
    } context{&call, onFault};
    void (*body)(void*) = [](void* p) {
        auto* c = static_cast<Context*>(p);
        c->result = (*c->call)();
    };
    bool completed = RunCatchingFaults(body, &context);
    return completed ? context.result : onFault;
}

}  // namespace com
