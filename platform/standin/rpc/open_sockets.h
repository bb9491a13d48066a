// The sockets that are connected, so that a forked child can close its copies: with them open, the daemon would not see
// the parent end.
#pragma once

namespace kova::rpc {

// Registers with the C library, once. Children are then free of the sockets before fork() returns there.
void close_in_forked_children();

// False when as many as can be are open.
[[nodiscard]] bool add_open_socket(int fd);
void remove_open_socket(int fd);

}  // namespace kova::rpc
