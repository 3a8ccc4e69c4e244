#include "faultguard.h"

#include <windows.h>

namespace com {

namespace {

struct Frame {
    void* resume[5];  // __builtin_setjmp's buffer
    Frame* outer;
};

thread_local Frame* t_frame = nullptr;

bool IsHardwareFault(DWORD code) {
    switch (code) {
    case EXCEPTION_ACCESS_VIOLATION:
    case EXCEPTION_IN_PAGE_ERROR:
    case EXCEPTION_GUARD_PAGE:
    case EXCEPTION_ILLEGAL_INSTRUCTION:
    case EXCEPTION_PRIV_INSTRUCTION:
    case EXCEPTION_DATATYPE_MISALIGNMENT:
    case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
    case EXCEPTION_INT_OVERFLOW:
    case EXCEPTION_FLT_DIVIDE_BY_ZERO:
    case EXCEPTION_FLT_INVALID_OPERATION:
    case EXCEPTION_FLT_OVERFLOW:
    case EXCEPTION_FLT_UNDERFLOW:
    case EXCEPTION_FLT_INEXACT_RESULT:
    case EXCEPTION_FLT_DENORMAL_OPERAND:
    case EXCEPTION_FLT_STACK_CHECK:
        return true;
    default:
        return false;
    }
}

// Where a caught fault resumes: back to the guarded call's start, which then
// reports the fault. Runs on the faulting thread's stack, below the frame it
// jumps to.
[[noreturn]] void ResumeAfterFault() { __builtin_longjmp(t_frame->resume, 1); }

LONG CALLBACK OnException(EXCEPTION_POINTERS* info) {
    if (!t_frame || !IsHardwareFault(info->ExceptionRecord->ExceptionCode)) return EXCEPTION_CONTINUE_SEARCH;
    // Continue in ResumeAfterFault, on the faulting stack pointer aligned as
    // at a function's entry: the system's own resumption restores the rest.
    CONTEXT* context = info->ContextRecord;
#ifdef _WIN64
    context->Rsp = (context->Rsp & ~DWORD64(15)) - 8;
    context->Rip = reinterpret_cast<DWORD64>(&ResumeAfterFault);
#else
    context->Esp = (context->Esp & ~DWORD(15)) - 4;
    context->Eip = reinterpret_cast<DWORD>(&ResumeAfterFault);
#endif
    return EXCEPTION_CONTINUE_EXECUTION;
}

}  // namespace

bool RunCatchingFaults(void (*body)(void* context), void* context) {
    Frame frame;
    frame.outer = t_frame;
    // First in line: a fault must not reach handlers that end the process.
    void* handler = ::AddVectoredExceptionHandler(1, &OnException);
    volatile bool completed = false;
    if (__builtin_setjmp(frame.resume) == 0) {
        t_frame = &frame;
        body(context);
        completed = true;
    }
    t_frame = frame.outer;
    if (handler) ::RemoveVectoredExceptionHandler(handler);
    return completed;
}

}  // namespace com
