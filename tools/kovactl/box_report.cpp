// What kovactl says of a black box file; see box_report.h.
#include "box_report.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "box_salvage.h"
#include "record_text.h"

namespace kova::kovactl {
namespace {

constexpr const char* kBoxContents[kBoxCount] = {"exceptions", "asserts"};

using Row = std::vector<std::string>;

// What `use` makes of the record in a slot. It takes either kind.
template <typename Use>
auto with_record(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot, Use use) {
    return box == KOVA_BOX_EXCEPTION ? use(snapshot.exception(slot)) : use(snapshot.assert_item(slot));
}

std::string text_of(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot) {
    return with_record(snapshot, box, slot, [](const auto& record) { return record_text(record); });
}

Json json_of(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot) {
    return with_record(snapshot, box, slot, [](const auto& record) { return record_json(record); });
}

std::string table_text(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) text += fmt::format("{:<{}}  ", row[i], widths[i]);
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    }
    return text;
}

std::string time_text(const struct tm& time) {
    return format_time(time, ' ').value_or("(not a time)");
}

// The columns that a list and a salvage share.
Row column_names(std::uint32_t box) {
    return box == KOVA_BOX_EXCEPTION ? Row{"Signal", "Process", "Thread", "Sender"}
                                     : Row{"Count", "Assert", "Process", "Thread", "Text"};
}

Row columns_of(const KovaExceptInfo& record) {
    return {signal_text(record), process_text(record.processName, record.processId), std::to_string(record.threadId),
            has_sender(record) ? process_text(record.senderProcessName, record.senderProcessId) : "-"};
}

Row columns_of(const KovaAssertItem& record) {
    return {std::to_string(record.occurrenceCount), place_text(record),
            process_text(record.processName, record.processId), std::to_string(record.threadId),
            escape_text(record.withLog)};
}

void append_columns(Row& row, const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot) {
    std::ranges::move(with_record(snapshot, box, slot, [](const auto& record) { return columns_of(record); }),
                      std::back_inserter(row));
}

// Empty when there is nothing to say of the record itself.
std::string remark_on(const BoxSnapshot& snapshot, std::uint32_t box, const StoredRecord& stored) {
    const SlotBytes slot = snapshot.slot(box, stored.slot);
    if (!holds_record(box, slot)) {
        return box == KOVA_BOX_EXCEPTION ? "not an exception record" : "not an assert record";
    }
    const bool is_oldest = stored.index + 1 == snapshot.node_head(box).recordMax;
    if ((is_oldest && oldest_may_be_torn(snapshot, box)) || !record_faults(box, slot).empty()) return "may be torn";
    return "";
}

Json findings_json(const std::vector<Finding>& findings) {
    Json json = Json::array();
    for (const Finding& finding : findings) {
        json.push_back({{"where", finding.where}, {"offset", finding.offset}, {"what", finding.what}});
    }
    return json;
}

std::vector<std::uint32_t> recoverable_slots(const BoxSnapshot& snapshot, std::uint32_t box) {
    std::vector<std::uint32_t> slots = snapshot.uncounted(box);
    std::ranges::reverse(slots);
    return slots;
}

std::vector<Row> salvaged_rows(const BoxSnapshot& snapshot, std::uint32_t box,
                               const std::vector<SalvagedRecord>& records) {
    std::vector<Row> rows{{"Slot", "Time (UTC)", "State"}};
    std::ranges::move(column_names(box), std::back_inserter(rows.front()));
    for (const SalvagedRecord& salvaged : records) {
        Row row{std::to_string(salvaged.slot), time_text(time_of(snapshot.slot(box, salvaged.slot))),
                state_text(salvaged)};
        append_columns(row, snapshot, box, salvaged.slot);
        rows.push_back(std::move(row));
    }
    return rows;
}

Json faults_json(const SalvagedRecord& salvaged) {
    Json json = Json::array();
    for (const RecordFault& fault : salvaged.faults) {
        json.push_back({{"offset", salvaged.offset + fault.at}, {"what", fault.what}});
    }
    return json;
}

Json salvaged_json(const BoxSnapshot& snapshot, std::uint32_t box, const SalvagedRecord& salvaged) {
    Json json{{"slot", salvaged.slot},
              {"offset", salvaged.offset},
              {"state", salvaged.is_counted ? "counted" : "recovered"},
              {"torn", salvaged.may_be_torn},
              {"faults", faults_json(salvaged)}};
    json.update(json_of(snapshot, box, salvaged.slot));
    return json;
}

// What the salvage has of one slot; none when it holds no record.
std::optional<SalvagedRecord> salvaged_slot(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot) {
    const auto records = salvage(snapshot, box);
    const auto found = std::ranges::find(records, slot, &SalvagedRecord::slot);
    return found == records.end() ? std::nullopt : std::optional(*found);
}

}  // namespace

std::string finding_text(const Finding& finding) {
    return fmt::format("{}, byte {}: {}", finding.where, finding.offset, finding.what);
}

std::string list_text(const BoxSnapshot& snapshot, std::uint32_t box) {
    std::vector<Row> rows{{"No", "Time (UTC)"}};
    std::ranges::move(column_names(box), std::back_inserter(rows.front()));
    rows.front().push_back("");
    for (const StoredRecord& stored : snapshot.newest_first(box)) {
        Row row{std::to_string(stored.index), time_text(time_of(snapshot.slot(box, stored.slot)))};
        append_columns(row, snapshot, box, stored.slot);
        const std::string remark = remark_on(snapshot, box, stored);
        row.push_back(remark.empty() ? "" : "! " + remark);
        rows.push_back(std::move(row));
    }
    std::string text = rows.size() > 1 ? table_text(rows) : "No records.\n";
    if (const auto slots = recoverable_slots(snapshot, box); !slots.empty()) {
        const bool is_one = slots.size() == 1;
        text += fmt::format("note: {} {} not counted, in slot{} {}; see kovactl box salvage\n", slots.size(),
                            is_one ? "record is" : "records are", is_one ? "" : "s", slots_text(slots));
    }
    return text;
}

Json list_json(const BoxSnapshot& snapshot, std::uint32_t box) {
    Json list = Json::array();
    for (const StoredRecord& stored : snapshot.newest_first(box)) {
        Json entry{{"index", stored.index}, {"slot", stored.slot}};
        entry.update(with_record(snapshot, box, stored.slot, [](const auto& record) { return summary_json(record); }));
        entry["remark"] = remark_on(snapshot, box, stored);
        list.push_back(std::move(entry));
    }
    return {{"file", escape_text(snapshot.path())},
            {"box", box},
            {"records", std::move(list)},
            {"recoverable_slots", recoverable_slots(snapshot, box)}};
}

std::string record_report_text(const BoxSnapshot& snapshot, std::uint32_t box, const StoredRecord& stored) {
    const std::string remark = remark_on(snapshot, box, stored);
    return fmt::format("Record {}, slot {}{}\n{}", stored.index, stored.slot, remark.empty() ? "" : "  ! " + remark,
                       text_of(snapshot, box, stored.slot));
}

Json record_report_json(const BoxSnapshot& snapshot, std::uint32_t box, const StoredRecord& stored) {
    Json json{{"index", stored.index}, {"slot", stored.slot}};
    json.update(json_of(snapshot, box, stored.slot));
    json["remark"] = remark_on(snapshot, box, stored);
    return json;
}

std::string slot_report_text(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot) {
    const auto salvaged = salvaged_slot(snapshot, box, slot);
    if (!salvaged.has_value()) return fmt::format("Slot {} holds no record\n", slot);
    std::string text = fmt::format("Slot {}, {}\n", slot, state_text(*salvaged));
    for (const RecordFault& fault : salvaged->faults) {
        text += fmt::format("  ! byte {}: {}\n", salvaged->offset + fault.at, fault.what);
    }
    return text + text_of(snapshot, box, slot);
}

Json slot_report_json(const BoxSnapshot& snapshot, std::uint32_t box, std::uint32_t slot) {
    const auto salvaged = salvaged_slot(snapshot, box, slot);
    return salvaged.has_value() ? salvaged_json(snapshot, box, *salvaged) : Json(nullptr);
}

std::string verify_text(const BoxSnapshot& snapshot, const Verdict& verdict) {
    std::string text =
        fmt::format("{}: {}\n", escape_text(snapshot.path()), verdict.faults.empty() ? "sound" : "damaged");
    for (std::uint32_t box = 0; box < kBoxCount; ++box) {
        const NodeHead node = snapshot.node_head(box);
        text += fmt::format("box {} ({}): ", box, kBoxContents[box]);
        text += snapshot.is_unused(box) ? "never written, empty\n"
                                        : fmt::format("{} of {} records, next slot {}\n", node.recordCount,
                                                      node.recordMax, node.writeIndex);
    }
    for (const Finding& fault : verdict.faults) text += fmt::format("fault: {}\n", finding_text(fault));
    for (const Finding& note : verdict.notes) text += fmt::format("note: {}\n", finding_text(note));
    return text;
}

Json verify_json(const BoxSnapshot& snapshot, const Verdict& verdict) {
    Json boxes = Json::array();
    for (std::uint32_t box = 0; box < kBoxCount; ++box) {
        const NodeHead node = snapshot.node_head(box);
        boxes.push_back({{"box", box},
                         {"holds", kBoxContents[box]},
                         {"capacity", node.recordMax},
                         {"stored", node.recordCount},
                         {"next_slot", node.writeIndex}});
    }
    return {{"file", escape_text(snapshot.path())},    {"length", snapshot.length()},
            {"sound", verdict.faults.empty()},         {"boxes", std::move(boxes)},
            {"faults", findings_json(verdict.faults)}, {"notes", findings_json(verdict.notes)}};
}

std::string salvage_text(const BoxSnapshot& snapshot) {
    std::string text;
    for (std::uint32_t box = 0; box < kBoxCount; ++box) {
        const auto records = salvage(snapshot, box);
        const auto recovered = std::ranges::count(records, false, &SalvagedRecord::is_counted);
        text += fmt::format("box {} ({}): {} counted, {} recovered\n", box, kBoxContents[box],
                            records.size() - static_cast<std::size_t>(recovered), recovered);
        if (!records.empty()) text += table_text(salvaged_rows(snapshot, box, records));
    }
    return text;
}

Json salvage_json(const BoxSnapshot& snapshot) {
    Json boxes = Json::array();
    for (std::uint32_t box = 0; box < kBoxCount; ++box) {
        Json records = Json::array();
        for (const SalvagedRecord& salvaged : salvage(snapshot, box)) {
            records.push_back(salvaged_json(snapshot, box, salvaged));
        }
        boxes.push_back({{"box", box}, {"holds", kBoxContents[box]}, {"records", std::move(records)}});
    }
    return {{"file", escape_text(snapshot.path())}, {"boxes", std::move(boxes)}};
}

}  // namespace kova::kovactl
