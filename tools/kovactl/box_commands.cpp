// kovactl box; see box_commands.h.
//
// Results go to standard output, trouble to standard error. A file whose heads are damaged is still listed as far as it
// can be, with a warning and exit status 1.
#include "box_commands.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "box_snapshot.h"
#include "box_verify.h"
#include "record_json.h"
#include "record_text.h"

namespace kova::kovactl {
namespace {

constexpr std::uint32_t kBox = KOVA_BOX_EXCEPTION;
constexpr const char* kBoxContents[kBoxCount] = {"exceptions", "asserts"};

struct BoxOptions {
    std::string file = kLiveBoxFile;
    std::uint32_t index = 0;
};

void print_json(const Json& json) {
    fmt::print("{}\n", json.dump(2));
}

std::string finding_text(const Finding& finding) {
    return fmt::format("{}, byte {}: {}", finding.where, finding.offset, finding.what);
}

Json findings_json(const std::vector<Finding>& findings) {
    Json json = Json::array();
    for (const Finding& finding : findings) {
        json.push_back({{"where", finding.where}, {"offset", finding.offset}, {"what", finding.what}});
    }
    return json;
}

// Exit status 1 when the heads that the records are found by are damaged.
int warn_of_damage(const BoxSnapshot& snapshot) {
    const Verdict verdict = verify_heads(snapshot, kBox);
    for (const Finding& fault : verdict.faults) {
        complain(fmt::format("warning: '{}': {}", snapshot.path(), finding_text(fault)));
    }
    return verdict.faults.empty() ? kExitOk : kExitDamaged;
}

// Empty when there is nothing to say of the record itself.
std::string remark_on(const BoxSnapshot& snapshot, const StoredRecord& stored, const KovaExceptInfo& record) {
    if (record.magic != KOVA_EXCEPT_MARKER) return "not an exception record";
    const NodeHead node = snapshot.node_head(kBox);
    if (stored.index + 1 == node.recordMax && oldest_may_be_torn(snapshot, kBox)) return "may be torn";
    return "";
}

void print_table(const std::vector<std::array<std::string, 7>>& rows) {
    std::array<std::size_t, 7> widths{};
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) line += fmt::format("{:<{}}  ", row[i], widths[i]);
        line.erase(line.find_last_not_of(' ') + 1);
        fmt::print("{}\n", line);
    }
}

int list_records(const BoxOptions& options, bool json) {
    const BoxSnapshot snapshot = BoxSnapshot::read(options.file);
    const int status = warn_of_damage(snapshot);
    const auto records = snapshot.newest_first(kBox);
    Json list = Json::array();
    std::vector<std::array<std::string, 7>> rows;
    rows.push_back({"No", "Time (UTC)", "Signal", "Process", "Thread", "Sender", ""});
    for (const StoredRecord& stored : records) {
        const KovaExceptInfo record = snapshot.exception(stored.slot);
        const std::string remark = remark_on(snapshot, stored, record);
        if (json) {
            Json entry{{"index", stored.index}, {"slot", stored.slot}};
            entry.update(summary_json(record));
            entry["remark"] = remark;
            list.push_back(std::move(entry));
            continue;
        }
        rows.push_back({std::to_string(stored.index), format_time(record.time, ' ').value_or("(not a time)"),
                        signal_text(record), process_text(record.processName, record.processId),
                        std::to_string(record.threadId),
                        has_sender(record) ? process_text(record.senderProcessName, record.senderProcessId) : "-",
                        remark.empty() ? "" : "! " + remark});
    }
    if (json) {
        print_json({{"file", snapshot.path()}, {"box", kBox}, {"records", std::move(list)}});
    } else if (records.empty()) {
        fmt::print("No records.\n");
    } else {
        print_table(rows);
    }
    return status;
}

int show_record(const BoxOptions& options, bool json) {
    const BoxSnapshot snapshot = BoxSnapshot::read(options.file);
    const int status = warn_of_damage(snapshot);
    const auto records = snapshot.newest_first(kBox);
    if (options.index >= records.size()) {
        complain(fmt::format("there is no record {} in '{}', which holds {}; see kovactl box list", options.index,
                             snapshot.path(), records.size()));
        return kExitDamaged;
    }
    const StoredRecord& stored = records[options.index];
    const KovaExceptInfo record = snapshot.exception(stored.slot);
    const std::string remark = remark_on(snapshot, stored, record);
    if (json) {
        Json entry{{"index", stored.index}, {"slot", stored.slot}};
        entry.update(record_json(record));
        entry["remark"] = remark;
        print_json(entry);
    } else {
        fmt::print("Record {}, slot {}{}\n{}", stored.index, stored.slot, remark.empty() ? "" : "  ! " + remark,
                   record_text(record));
    }
    return status;
}

int verify_file(const BoxOptions& options, bool json) {
    const BoxSnapshot snapshot = BoxSnapshot::read(options.file);
    const Verdict verdict = verify(snapshot);
    const bool sound = verdict.faults.empty();
    if (json) {
        Json boxes = Json::array();
        for (std::uint32_t box = 0; box < kBoxCount; ++box) {
            const NodeHead node = snapshot.node_head(box);
            boxes.push_back({{"box", box},
                             {"holds", kBoxContents[box]},
                             {"capacity", node.recordMax},
                             {"stored", node.recordCount},
                             {"next_slot", node.writeIndex}});
        }
        print_json({{"file", snapshot.path()},
                    {"length", snapshot.length()},
                    {"sound", sound},
                    {"boxes", std::move(boxes)},
                    {"faults", findings_json(verdict.faults)},
                    {"notes", findings_json(verdict.notes)}});
        return sound ? kExitOk : kExitDamaged;
    }
    fmt::print("{}: {}\n", snapshot.path(), sound ? "sound" : "damaged");
    for (std::uint32_t box = 0; box < kBoxCount; ++box) {
        const NodeHead node = snapshot.node_head(box);
        fmt::print("box {} ({}): ", box, kBoxContents[box]);
        if (snapshot.is_unused(box)) {
            fmt::print("never written, empty\n");
        } else {
            fmt::print("{} of {} records, next slot {}\n", node.recordCount, node.recordMax, node.writeIndex);
        }
    }
    for (const Finding& fault : verdict.faults) fmt::print("fault: {}\n", finding_text(fault));
    for (const Finding& note : verdict.notes) fmt::print("note: {}\n", finding_text(note));
    return sound ? kExitOk : kExitDamaged;
}

constexpr struct {
    const char* name;
    const char* summary;
    int (*run)(const BoxOptions& options, bool json);
} kCommands[] = {
    {"list", "List the exception records, newest first (also without a subcommand)", list_records},
    {"show", "Show one record: header, registers, call stack, memory", show_record},
    {"verify", "Check both boxes: heads, checksums, records", verify_file},
};

}  // namespace

void add_box_commands(CLI::App& app, const CommonOptions& common, Action& action) {
    const auto options = std::make_shared<BoxOptions>();
    CLI::App* const box = app.add_subcommand("box", "Look at the black box; never changes it");
    box->require_subcommand(0, 1);
    box->add_option("--file", options->file, "Another file than the live one, a copy for instance")
        ->type_name("PATH")
        ->capture_default_str();
    for (const auto& command : kCommands) {
        CLI::App* const sub = box->add_subcommand(command.name, command.summary);
        if (command.run == show_record) {
            sub->add_option("N", options->index, "Number of the record, 0 for the newest")->capture_default_str();
        }
        sub->callback([&action, &common, options, run = command.run] {
            action = [&common, options, run] { return run(*options, common.json); };
        });
    }
    box->callback([&action, &common, options] {
        if (!action) action = [&common, options] { return list_records(*options, common.json); };
    });
}

}  // namespace kova::kovactl
