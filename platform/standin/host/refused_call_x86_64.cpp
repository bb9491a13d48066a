// The result register of a system call on x86-64; see refused_call.h.
//
// Signal context: all of it.
#include "refused_call.h"

#include <cerrno>

#include "base/signal_path.h"

namespace kova::host {

void refuse_call(ucontext_t* context) {
    context->uc_mcontext.gregs[REG_RAX] = -ENOSYS;
}

}  // namespace kova::host
