// Atomics without a lock: fork() may find any thread anywhere, and the child goes through them before anything else.
#include "open_sockets.h"

#include <pthread.h>
#include <unistd.h>
#include <atomic>

namespace kova::rpc {
namespace {

// One is in use; the others are being closed.
constexpr int kMostSockets = 16;
constexpr int kFree = 0;  // descriptors below 3 are never ours

constinit std::atomic<int> g_sockets[kMostSockets] = {};
constinit std::atomic<bool> g_is_registered{false};

void in_child() {
    for (std::atomic<int>& socket : g_sockets) {
        const int fd = socket.exchange(kFree, std::memory_order_relaxed);
        if (fd != kFree) ::close(fd);
    }
}

}  // namespace

void close_in_forked_children() {
    if (!g_is_registered.exchange(true)) ::pthread_atfork(nullptr, nullptr, in_child);
}

bool add_open_socket(int fd) {
    for (std::atomic<int>& socket : g_sockets) {
        int expected = kFree;
        if (socket.compare_exchange_strong(expected, fd, std::memory_order_relaxed)) return true;
    }
    return false;
}

void remove_open_socket(int fd) {
    for (std::atomic<int>& socket : g_sockets) {
        int expected = fd;
        if (socket.compare_exchange_strong(expected, kFree, std::memory_order_relaxed)) return;
    }
}

}  // namespace kova::rpc
