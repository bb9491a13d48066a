// The host's handler in the place of the default disposition.
//
// Programs ask what a signal's disposition is, and many act on the answer: an interpreter handles SIGINT only where it
// finds the default one, a run-time puts every signal back to the default at its start. So a program sees the default
// where the host's handler stands, and a signal that it puts back to the default comes back to the host.
//
// Signal context: safe.
#pragma once

#include <csignal>
#include <cstdint>

namespace kova::host {

// From now on the program sees `handler` as the default disposition of these signals (bit N-1 for signal N). Once.
void stand_in_for_default(std::uint64_t signals, const struct sigaction& handler);

// Past what the program sees; otherwise as sigaction().
int real_sigaction(int signal, const struct sigaction* action, struct sigaction* old);

}  // namespace kova::host
