// Lets C++ exceptions be caught in Objective-C++ code on GNUstep.
//
// For gcc's Objective-C runtime clang names that runtime's unwinding routine in every function of
// an Objective-C++ file, and the routine knows no C++ types: no catch clause but catch (...) would
// ever match. The linker's --wrap leads the functions linked here to the C++ routine instead, which
// suits them, because they catch C++ exceptions only.
#include <cstdint>
#include <unwind.h>

extern "C" {

_Unwind_Reason_Code __gxx_personality_v0(int version, _Unwind_Action actions,
                                         _Unwind_Exception_Class exceptionClass,
                                         _Unwind_Exception* exception, _Unwind_Context* context);

_Unwind_Reason_Code __wrap___gnu_objc_personality_v0(int version, _Unwind_Action actions,
                                                     _Unwind_Exception_Class exceptionClass,
                                                     _Unwind_Exception* exception,
                                                     _Unwind_Context* context) {
    return __gxx_personality_v0(version, actions, exceptionClass, exception, context);
}
}
