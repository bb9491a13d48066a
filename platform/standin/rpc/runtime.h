// What the stand-in keeps per process: its two threads, its connections and its running timers.
//
// Made by the first use and never destroyed. All of it is guarded by one mutex that is never held while a handler runs
// or a message is logged, so whoever waits for it waits for a few instructions only; no call waits for a thread.
//
// A process is told by its pid. A forked child has its parent's memory without the parent's threads, with locks that
// may be taken for ever: it leaves all of that alone and makes its own. Clients and timers are therefore plain records;
// what belongs to a process is found through its Runtime, by address or by an id that is never used twice.
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <atomic>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "kova_platform/log.h"

namespace kova::rpc {

class Connection;

class Runtime {
  public:
    Runtime();

    // Of this process, with its threads running. Null when memory or threads are short.
    static Runtime* current() noexcept;

    // Of this process, or null when it has none yet.
    static Runtime* existing() noexcept;

    std::mutex mutex;

    asio::io_context events;    // responses, link events, timers, everything on a socket
    asio::io_context services;  // what the daemon calls; may block as long as it likes

    // Guarded by the mutex.
    std::map<std::string, std::shared_ptr<Connection>, std::less<>> connections;  // by address, open ones only
    std::map<std::uint64_t, std::unique_ptr<asio::steady_timer>> running_timers;  // by id

  private:
    bool start_threads();
    bool start_thread(asio::io_context* context, const char* name, bool* is_running);

    pid_t pid_;
    Runtime* inherited_;  // keeps the parent's reachable for leak checkers
    bool events_run_ = false;
    bool services_run_ = false;
    asio::executor_work_guard<asio::io_context::executor_type> events_work_;
    asio::executor_work_guard<asio::io_context::executor_type> services_work_;
};

// What cannot be had for want of memory or descriptors is a code, never an exception: callers are C.
template <typename Result, typename Action>
Result or_else(Result failure, Action&& action) noexcept {
    try {
        return action();
    } catch (const std::exception&) {
        return failure;
    }
}

// First two arguments of a log line.
inline constexpr std::uint32_t kLogError = 1;
inline constexpr std::uint32_t kLogId = 0x03018000;

}  // namespace kova::rpc
