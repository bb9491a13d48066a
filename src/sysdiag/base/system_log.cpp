// Messages to the system log; see system_log.h.
//
// Signal context: all of it; syslog() is called outside the record handler only.
#include "base/system_log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <cerrno>
#include <cstring>

#include "base/signal_scope.h"
#include "base/unique_fd.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr int kPriority = LOG_ERR;

// One datagram, never waiting. Whoever listens adds the time.
void send_datagram(const char* text) {
    const UniqueFd log(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!log.is_open()) return;
    char datagram[kSystemLogTextSize + 64];
    const int length = snprintf_truncated_s(datagram, sizeof datagram, "<%d>%s: %s", kPriority | LOG_USER,
                                            program_invocation_short_name, text);
    if (length < 0) return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    constexpr char kPath[] = "/dev/log";
    static_assert(sizeof kPath <= sizeof address.sun_path);
    std::memcpy(address.sun_path, kPath, sizeof kPath);
    // Nobody there, or no room: the message is lost, the capture goes on.
    static_cast<void>(::sendto(log.get(), datagram, static_cast<std::size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

}  // namespace

void send_to_system_log(const char* text) {
    const int saved_errno = errno;
    if (in_signal_scope()) {
        send_datagram(text);
    } else {
        ::syslog(kPriority, "%s", text);
    }
    errno = saved_errno;
}

}  // namespace kova
