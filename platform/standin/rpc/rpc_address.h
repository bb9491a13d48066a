// Where a daemon's address leads: the same answer for the daemon that listens there and for those who call it.
#pragma once

#include <sys/un.h>
#include <string_view>

namespace kova::wire {

inline constexpr char kDaemonAddress[] = "domain://peer:kovad_server:1";

// Name in "domain://peer:NAME:NUMBER": letters, digits, '_', '-' and '.', beginning with a letter or a digit, so that
// it stays within its folder. Empty for anything else.
[[nodiscard]] std::string_view service_of_address(std::string_view address);

// Socket NAME in the runtime folder: $KOVA_RUNTIME_DIR where that is set (and the program's privileges are not raised),
// else /run/kova. False when the address is none, or the path too long for a socket.
[[nodiscard]] bool socket_of_address(std::string_view address, sockaddr_un* socket);

}  // namespace kova::wire
