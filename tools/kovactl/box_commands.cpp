// kovactl box and kovactl asserts; see box_commands.h.
//
// Results go to standard output, trouble to standard error. A file whose heads are damaged is still listed as far as it
// can be, with a warning and exit status 1.
#include "box_commands.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "box_report.h"
#include "box_snapshot.h"
#include "box_verify.h"
#include "record_check.h"

namespace kova::kovactl {
namespace {

// How the two boxes are asked for.
constexpr const char* kFamilyNames[kBoxCount] = {"box", "asserts"};

struct BoxOptions {
    std::uint32_t box = KOVA_BOX_EXCEPTION;
    std::string file = kLiveBoxFile;
    std::uint32_t index = 0;
    std::optional<std::uint32_t> slot;
};

void print_json(const Json& json) {
    fmt::print("{}\n", json.dump(2));
}

// Exit status 1 when the heads that the records are found by are damaged.
int warn_of_damage(const BoxSnapshot& snapshot, std::uint32_t box) {
    const Verdict verdict = verify_heads(snapshot, box);
    for (const Finding& fault : verdict.faults) {
        complain(fmt::format("warning: '{}': {}", snapshot.path(), finding_text(fault)));
    }
    return verdict.faults.empty() ? kExitOk : kExitDamaged;
}

int list_records(const BoxOptions& options, bool json) {
    const BoxSnapshot snapshot = BoxSnapshot::read(options.file);
    const int status = warn_of_damage(snapshot, options.box);
    if (json) {
        print_json(list_json(snapshot, options.box));
    } else {
        fmt::print("{}", list_text(snapshot, options.box));
    }
    return status;
}

int show_slot(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot, bool json) {
    if (slot >= kBoxSpecs[box].recordMax || !holds_record(box, snapshot.slot(box, slot))) {
        complain(fmt::format("there is no record in slot {} of '{}'; see kovactl box salvage", slot, snapshot.path()));
        return kExitDamaged;
    }
    if (json) {
        print_json(slot_report_json(snapshot, box, slot));
    } else {
        fmt::print("{}", slot_report_text(snapshot, box, slot));
    }
    return kExitOk;
}

int show_record(const BoxOptions& options, bool json) {
    const BoxSnapshot snapshot = BoxSnapshot::read(options.file);
    const int status = warn_of_damage(snapshot, options.box);
    if (options.slot.has_value()) return std::max(status, show_slot(snapshot, options.box, *options.slot, json));
    const auto records = snapshot.newest_first(options.box);
    if (options.index >= records.size()) {
        complain(fmt::format("there is no record {} in '{}', which holds {}; see kovactl {} list", options.index,
                             snapshot.path(), records.size(), kFamilyNames[options.box]));
        return kExitDamaged;
    }
    const StoredRecord& stored = records[options.index];
    if (json) {
        print_json(record_report_json(snapshot, options.box, stored));
    } else {
        fmt::print("{}", record_report_text(snapshot, options.box, stored));
    }
    return status;
}

int verify_file(const BoxOptions& options, bool json) {
    const BoxSnapshot snapshot = BoxSnapshot::read(options.file);
    const Verdict verdict = verify(snapshot);
    if (json) {
        print_json(verify_json(snapshot, verdict));
    } else {
        fmt::print("{}", verify_text(snapshot, verdict));
    }
    return verdict.faults.empty() ? kExitOk : kExitDamaged;
}

int salvage_records(const BoxOptions& options, bool json) {
    const BoxSnapshot snapshot = BoxSnapshot::read(options.file);
    const bool is_sound = verify(snapshot).faults.empty();
    if (!is_sound) complain(fmt::format("warning: '{}' is damaged; see kovactl box verify", snapshot.path()));
    if (json) {
        print_json(salvage_json(snapshot));
    } else {
        fmt::print("{}", salvage_text(snapshot));
    }
    return is_sound ? kExitOk : kExitDamaged;
}

struct Command {
    const char* name;
    const char* summary;
    int (*run)(const BoxOptions& options, bool json);
};
constexpr Command kBoxCommands[] = {
    {"list", "List the exception records, newest first (also without a subcommand)", list_records},
    {"show", "Show one record: header, registers, call stack, memory", show_record},
    {"verify", "Check both boxes: heads, checksums, records", verify_file},
    {"salvage", "List every record that is still in the file, counted or not", salvage_records},
};
constexpr Command kAssertCommands[] = {
    {"list", "List the asserts, those that were stored last first (also without a subcommand)", list_records},
    {"show", "Show one assert: where, how often, call stack", show_record},
};

void add_family(CLI::App& app, std::uint32_t box, const char* summary, std::span<const Command> commands,
                const CommonOptions& common, Action& action) {
    const auto options = std::make_shared<BoxOptions>();
    options->box = box;
    CLI::App* const family = app.add_subcommand(kFamilyNames[box], summary);
    family->require_subcommand(0, 1);
    family->add_option("--file", options->file, "Another file than the live one, a copy for instance")
        ->type_name("PATH")
        ->capture_default_str();
    for (const Command& command : commands) {
        CLI::App* const sub = family->add_subcommand(command.name, command.summary);
        if (command.run == show_record) {
            auto* const number = sub->add_option("N", options->index, "Number of the record, 0 for the newest");
            number->capture_default_str();
            sub->add_option("--slot", options->slot, "Instead of N: what a slot holds, counted or not")
                ->type_name("SLOT")
                ->excludes(number);
        }
        sub->callback([&action, &common, options, run = command.run] {
            action = [&common, options, run] { return run(*options, common.json); };
        });
    }
    family->callback([&action, &common, options] {
        if (!action) action = [&common, options] { return list_records(*options, common.json); };
    });
}

}  // namespace

void add_box_commands(CLI::App& app, const CommonOptions& common, Action& action) {
    add_family(app, KOVA_BOX_EXCEPTION, "Look at the black box; never changes it", kBoxCommands, common, action);
    add_family(app, KOVA_BOX_ASSERT, "Look at the asserts in the black box; never changes it", kAssertCommands, common,
               action);
}

}  // namespace kova::kovactl
