// Who makes the one exception record of the process.
//
// g_kovaExceptionMutex is claimed by one compare-and-swap from 0. A companion word holds {pid, thread id} of the
// holder: a holder of another pid is a vfork or forked child that died in its handler, and is no holder.
//
// Signal context: safe.
#pragma once

namespace kova {

[[nodiscard]] bool claim_capture();
void release_capture();

}  // namespace kova
