// Records what the agent logs, in place of the platform's log writer and of syslog.
//
// Including this header defines KovaDLogWrite and syslog in the test program; the agent, in objects or as a library,
// then calls these. Messages are kept with their arguments expanded. A vfork child records into its parent's memory.
#pragma once

#include <syslog.h>
#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "kova_platform/log.h"

namespace kova::test {

struct LoggedMessage {
    std::uint32_t level = 0;  // of the system log: the priority
    std::uint32_t id = 0;     // of the system log: 0
    std::string tag;          // of the system log: "syslog"
    std::string text;

    bool operator==(const LoggedMessage&) const = default;

    friend std::ostream& operator<<(std::ostream& out, const LoggedMessage& message) {
        return out << "{" << message.level << ", 0x" << std::hex << message.id << std::dec << ", \"" << message.tag
                   << "\", \"" << message.text << "\"}";
    }
};

// What the messages look like that are expected most.
inline LoggedMessage error_message(std::uint32_t id, std::string tag, std::string text) {
    return {1, id, std::move(tag), std::move(text)};
}
inline LoggedMessage info_message(std::string text) {
    return {3, 0x0E40105B, "Info", std::move(text)};
}
inline LoggedMessage syslog_message(std::string text) {
    return {LOG_ERR, 0, "syslog", std::move(text)};
}

class LogRecorder {
  public:
    static LogRecorder& instance() {
        static LogRecorder recorder;
        return recorder;
    }

    void clear() {
        const std::lock_guard guard(mutex_);
        messages_.clear();
    }

    // All messages since the last clear() or take(), both channels, in the order of their calls.
    std::vector<LoggedMessage> messages() {
        const std::lock_guard guard(mutex_);
        return messages_;
    }
    std::vector<LoggedMessage> take() {
        const std::lock_guard guard(mutex_);
        return std::exchange(messages_, {});
    }

    std::ptrdiff_t count_of(const LoggedMessage& message) {
        const std::lock_guard guard(mutex_);
        return std::ranges::count(messages_, message);
    }

    void add(std::uint32_t level, std::uint32_t id, const char* tag, const char* format, std::va_list arguments) {
        char text[2048];
        std::vsnprintf(text, sizeof text, format, arguments);
        const std::lock_guard guard(mutex_);
        messages_.push_back({level, id, tag, text});
    }

  private:
    std::mutex mutex_;
    std::vector<LoggedMessage> messages_;
};

inline LogRecorder& log_recorder() {
    return LogRecorder::instance();
}

}  // namespace kova::test

// Inline, so that several files of one program may include this; `used`, so that they exist without a call here.
extern "C" {

__attribute__((used)) inline uint32_t KovaDLogWrite(uint32_t level, uint32_t messageId, const char* moduleTag,
                                                    const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    kova::test::log_recorder().add(level, messageId, moduleTag, format, arguments);
    va_end(arguments);
    return 0;
}

__attribute__((used)) inline void syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    kova::test::log_recorder().add(static_cast<std::uint32_t>(priority), 0, "syslog", format, arguments);
    va_end(arguments);
}

}  // extern "C"
