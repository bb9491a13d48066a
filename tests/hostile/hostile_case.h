// One case of the table: how the node and the program are brought into trouble, and what must hold afterwards.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/program_under_host.h"

namespace kova::test {

inline constexpr char kLogFolder[] = "/opt/norvel/var/log";

// The node while a case runs, and verbs to make it worse.
class HostileNode {
  public:
    // An empty log folder that belongs to this case alone. `bytes` is the size of its file system, 0 for plenty.
    explicit HostileNode(std::size_t bytes = 0);
    ~HostileNode();
    HostileNode(const HostileNode&) = delete;
    HostileNode& operator=(const HostileNode&) = delete;

    void hold(const char* path) { locks_.push_back(std::make_unique<HeldLock>(path)); }
    void release_locks() { locks_.clear(); }

    static void bind(const char* path, const std::string& over);

  private:
    std::vector<std::unique_ptr<HeldLock>> locks_;
};

enum class Report {
    kWhole,      // every part of it
    kCut,        // begun; how far it came depends
    kTraceLine,  // nothing but that
    kNone,
    kAny,
};

enum class Record {
    kKept,
    kNone,
    kAny,
};

struct Case {
    std::string name;
    // The program and its arguments.
    std::vector<std::string> victim;
    Report report = Report::kWhole;
    Record record = Record::kKept;
    // Texts that must, and must not, stand in the report.
    std::vector<std::string> in_report{};
    std::vector<std::string> not_in_report{};

    // Before the program starts.
    std::function<void(HostileNode&)> prepare = [](HostileNode&) {};
    // In the program's process, before it becomes the program.
    std::function<void()> before_exec = [] {};
    // While it runs; it has said that it is up.
    std::function<void(const Program&)> disturb = nullptr;
    // After it, to look at more than report and record.
    std::function<void()> afterwards = [] {};

    // Nothing: it must end as it ends without the host.
    std::optional<int> wait_status = std::nullopt;
    const char* timeout_seconds = "5";
    std::size_t node_bytes = 0;
    // What earlier crashes left is there, and must be there afterwards.
    bool after_earlier_crashes = true;
    // So many of the program at the same time, each of which leaves so many reports and records.
    int at_once = 1;
    int captures = 1;
    // Worth repeating many times at night: what happens depends on who comes first.
    bool is_a_race = false;
};

std::vector<Case> memory_cases();
std::vector<Case> thread_cases();
std::vector<Case> signal_cases();
std::vector<Case> ending_cases();
std::vector<Case> fault_cases();
std::vector<Case> resource_cases();
std::vector<Case> path_cases();

}  // namespace kova::test
