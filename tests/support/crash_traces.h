// Children that die, and what a crash leaves on a node: the exception log and the black box.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kova/black_box.h"
#include "kova/exception_record.h"
#include "kova/memory.h"
#include "kova_platform/process_globals.h"
#include "support/covered_file.h"

namespace kova::test {

inline constexpr char kLogPath[] = "/opt/norvel/var/log/kova_exception.log";
inline constexpr char kBoxPath[] = "/opt/norvel/var/log/kova_exception_assert";
inline constexpr unsigned kChildLimitSeconds = 60;

inline void remove_log_and_box() {
    ::unlink(kLogPath);
    ::unlink(kBoxPath);
}

inline std::string log_text() {
    return read_file(kLogPath);
}

inline std::size_t count_of(std::string_view text, std::string_view part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

// The exception records, newest first; none where the box cannot be read.
inline std::vector<KovaExceptInfo> readable_records(std::uint32_t* code) {
    std::uint32_t count = 20;
    void* buffer = nullptr;
    *code = KOVA_BoxRead(0, 0, &count, &buffer);
    std::vector<KovaExceptInfo> records(*code != 0 || buffer == nullptr ? 0 : count);
    if (!records.empty()) std::memcpy(records.data(), buffer, records.size() * sizeof(KovaExceptInfo));
    KovaBaseFree(g_kovaAgentMemHandle, buffer, "test", __LINE__);
    return records;
}

inline std::vector<KovaExceptInfo> stored_records() {
    std::uint32_t code = 0;
    auto records = readable_records(&code);
    EXPECT_EQ(0U, code);
    return records;
}

// A child that hangs dies of SIGALRM; one in which an expectation failed ends with 1.
inline pid_t start_child(const std::function<void()>& body) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    ::alarm(kChildLimitSeconds);
    body();
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

// Its wait status.
inline int end_of_child(pid_t pid) {
    int status = -1;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    return status;
}

inline int in_child(const std::function<void()>& body) {
    return end_of_child(start_child(body));
}

// The child reaches the end of `body` and all that it expects holds.
inline void expect_in_child(const std::function<void()>& body) {
    EXPECT_EQ(0, in_child(body));
}

}  // namespace kova::test
