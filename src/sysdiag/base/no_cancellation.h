// Keeps a thread from being cancelled while it holds a lock or is inside a signal handler.
//
// Nearly every system call here is a cancellation point. A thread that is cancelled in one unwinds without our
// destructors: the lock stays taken for the life of the process, or a fault is swallowed and the process lives on.
//
// Signal context: safe; the C library only changes words of the thread itself.
#pragma once

#include <pthread.h>

namespace kova {

class NoCancellation {
  public:
    // Neither call can fail: the states are valid ones.
    NoCancellation() { static_cast<void>(::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state_)); }
    ~NoCancellation() { static_cast<void>(::pthread_setcancelstate(old_state_, nullptr)); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

  private:
    int old_state_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace kova
