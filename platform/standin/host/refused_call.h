// System calls that a sandbox refuses with a SIGSYS.
//
// Signal context: all of it.
#pragma once

#include <ucontext.h>

namespace kova::host {

// Makes the system call that the signal interrupted return ENOSYS. Without it the call's result is what stood in the
// register before: an "opened" descriptor with the number of the call.
void refuse_call(ucontext_t* context);

}  // namespace kova::host
