// What a signal would have done to the process had nobody caught it.
//
// A parent, a service manager and a core file must see the program end as it would have ended without the host: by the
// same signal, with the same siginfo, and for a fault at the faulting instruction.
//
// Signal context: all of it.
#pragma once

#include <csignal>

namespace kova::host {

// Puts the default disposition back and honours the core-dump switch; the handler may then return into the fault.
void set_default_effect(int signal);

// Sends the signal to this thread again as it came, and lets it have its default effect.
[[noreturn]] void die_of(int signal, const siginfo_t& info);

void unblock(const sigset_t& signals);

}  // namespace kova::host
