// Stacks for signal handlers, one for every thread.
//
// A thread that overflowed its stack has none left for a handler. So the main thread and every thread made with
// pthread_create get 64 KiB and what the kernel's signal frame needs, with a guard page below: a handler that overflows
// faults there instead of writing into somebody else's memory.
//
// Signal context: nothing here.
#pragma once

namespace kova::host {

// Gives the calling thread its stack, and from now on every new thread. Called once, from the constructor. A thread
// that has an alternate stack already keeps it.
void set_up_alternate_stacks();

}  // namespace kova::host
