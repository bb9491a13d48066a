// The result register of a system call on 64-bit ARM; see refused_call.h.
//
// Signal context: all of it.
#include "refused_call.h"

#include <cerrno>

#include "base/signal_path.h"

namespace kova::host {

void refuse_call(ucontext_t* context) {
    context->uc_mcontext.regs[0] = static_cast<unsigned long long>(-ENOSYS);
}

}  // namespace kova::host
