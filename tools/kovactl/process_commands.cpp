// kovactl ps and kovactl subscriptions; see process_commands.h.
#include "process_commands.h"

#include <ctime>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "daemon_query.h"
#include "daemon_services.h"
#include "record_json.h"
#include "record_text.h"

namespace kova::kovactl {
namespace {

using kovad::ListRequest;
using kovad::ProcessItem;
using kovad::ProcessState;
using kovad::SubscriptionItem;

std::string state_text(ProcessState state) {
    switch (state) {
        case ProcessState::kConnected:
            return "connected";
        case ProcessState::kRegistered:
            return "registered";
        case ProcessState::kSilent:
            return "silent";
    }
    return "unknown";
}

struct tm utc(std::int64_t seconds) {
    struct tm time {};
    const std::time_t stamp = seconds;
    ::gmtime_r(&stamp, &time);
    return time;
}

ListRequest after(const ProcessItem& item) {
    return {.pid = item.pid + 1, .index = 0};
}

ListRequest after(const SubscriptionItem& item) {
    return {.pid = item.pid, .index = item.index + 1};
}

template <typename Item>
std::vector<Item> whole_list(const char* service) {
    DaemonQuery daemon;
    std::vector<Item> list = daemon.page<Item>(service, {});
    while (!list.empty()) {
        const std::vector<Item> page = daemon.page<Item>(service, after(list.back()));
        if (page.empty()) break;
        list.insert(list.end(), page.begin(), page.end());
    }
    return list;
}

void print_processes(const std::vector<ProcessItem>& processes, bool json) {
    Json list = Json::array();
    if (!json)
        fmt::print("{:<10}  {:<16}  {:<10}  Publisher  {:<10}  Since (UTC)\n", "Process", "Name", "Type", "State");
    for (const ProcessItem& item : processes) {
        const struct tm since = utc(item.since_utc_s);
        const std::string name = escape_text(item.name);
        if (json) {
            list.push_back({{"process", item.pid},
                            {"name", name},
                            {"type", item.type},
                            {"publisher", item.publisher != 0},
                            {"state", state_text(item.state)},
                            {"since", time_json(since)}});
            continue;
        }
        fmt::print("{:<10}  {:<16}  {:<10}  {:<9}  {:<10}  {}\n", item.pid, name.empty() ? "-" : name, item.type,
                   item.publisher != 0 ? "yes" : "no", state_text(item.state), format_time(since, ' ').value_or("-"));
    }
    if (json) fmt::print("{}\n", list.dump(2));
}

void print_subscriptions(const std::vector<SubscriptionItem>& subscriptions, bool json) {
    Json list = Json::array();
    if (!json) {
        fmt::print("{:<10}  {:<16}  {:<16}  {:<16}  Overload  Recover\n", "Process", "Name", "Module", "Resource");
    }
    for (const SubscriptionItem& item : subscriptions) {
        const std::string name = escape_text(item.process_name);
        const std::string module = escape_text(item.module_name);
        const std::string resource = escape_text(item.resource);
        if (json) {
            list.push_back({{"process", item.pid},
                            {"name", name},
                            {"module", module},
                            {"resource", resource},
                            {"overload_percent", item.overload},
                            {"recover_percent", item.recover},
                            {"fresh", item.is_fresh != 0}});
            continue;
        }
        fmt::print("{:<10}  {:<16}  {:<16}  {:<16}  {:<8}  {:<7}{}\n", item.pid, name.empty() ? "-" : name, module,
                   resource, item.overload, item.recover, item.is_fresh != 0 ? "" : "  ! not answering, may be old");
    }
    if (json) fmt::print("{}\n", list.dump(2));
}

template <typename Item>
int show(const char* service, void (*print)(const std::vector<Item>&, bool), bool json) {
    try {
        print(whole_list<Item>(service), json);
        return kExitOk;
    } catch (const NoAnswer& error) {
        complain(error.what());
        return kExitTrouble;
    }
}

}  // namespace

void add_process_commands(CLI::App& app, const CommonOptions& common, Action& action) {
    app.add_subcommand("ps", "List the processes that are registered with kovad")->callback([&action, &common] {
        action = [&common] { return show(kovad::kListProcesses, print_processes, common.json); };
    });
    app.add_subcommand("subscriptions", "List what modules of all processes subscribed to")
        ->callback([&action, &common] {
            action = [&common] { return show(kovad::kListSubscriptions, print_subscriptions, common.json); };
        });
}

}  // namespace kova::kovactl
