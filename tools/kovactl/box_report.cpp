// What kovactl says of a black box file; see box_report.h.
#include "box_report.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "box_salvage.h"
#include "record_text.h"

namespace kova::kovactl {
namespace {

constexpr std::uint32_t kBox = KOVA_BOX_EXCEPTION;
constexpr const char* kBoxContents[kBoxCount] = {"exceptions", "asserts"};

using Row = std::vector<std::string>;

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
Row exception_columns(const KovaExceptInfo& record) {
    return {signal_text(record), process_text(record.processName, record.processId), std::to_string(record.threadId),
            has_sender(record) ? process_text(record.senderProcessName, record.senderProcessId) : "-"};
}

// Empty when there is nothing to say of the record itself.
std::string remark_on(const BoxSnapshot& snapshot, const StoredRecord& stored) {
    const SlotBytes slot = snapshot.slot(kBox, stored.slot);
    if (!holds_record(kBox, slot)) return "not an exception record";
    const bool is_oldest = stored.index + 1 == snapshot.node_head(kBox).recordMax;
    if ((is_oldest && oldest_may_be_torn(snapshot, kBox)) || !record_faults(kBox, slot).empty()) return "may be torn";
    return "";
}

Json findings_json(const std::vector<Finding>& findings) {
    Json json = Json::array();
    for (const Finding& finding : findings) {
        json.push_back({{"where", finding.where}, {"offset", finding.offset}, {"what", finding.what}});
    }
    return json;
}

std::vector<std::uint32_t> recoverable_slots(const BoxSnapshot& snapshot) {
    std::vector<std::uint32_t> slots = snapshot.uncounted(kBox);
    std::ranges::reverse(slots);
    return slots;
}

AssertItem assert_item(const BoxSnapshot& snapshot, std::uint32_t slot) {
    AssertItem item;
    static_assert(sizeof item == kBoxSpecs[KOVA_BOX_ASSERT].recordLen);
    std::memcpy(&item, snapshot.slot(KOVA_BOX_ASSERT, slot).data(), sizeof item);
    return item;
}

std::vector<Row> salvaged_rows(const BoxSnapshot& snapshot, std::uint32_t box,
                               const std::vector<SalvagedRecord>& records) {
    std::vector<Row> rows;
    rows.push_back(box == kBox ? Row{"Slot", "Time (UTC)", "State", "Signal", "Process", "Thread", "Sender"}
                               : Row{"Slot", "Time (UTC)", "State", "Process"});
    for (const SalvagedRecord& salvaged : records) {
        Row row{std::to_string(salvaged.slot), time_text(time_of(snapshot.slot(box, salvaged.slot))),
                state_text(salvaged)};
        if (box == kBox) {
            std::ranges::move(exception_columns(snapshot.exception(salvaged.slot)), std::back_inserter(row));
        } else {
            const AssertItem item = assert_item(snapshot, salvaged.slot);
            row.push_back(process_text(item.processName, item.processId));
        }
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
    if (box == kBox) {
        json.update(record_json(snapshot.exception(salvaged.slot)));
        return json;
    }
    const AssertItem item = assert_item(snapshot, salvaged.slot);
    json["time"] = time_json(item.time);
    json["process"] = {{"id", item.processId}, {"name", escape_text(item.processName)}};
    return json;
}

// What the salvage has of one slot; none when it holds no record.
std::optional<SalvagedRecord> salvaged_slot(const BoxSnapshot& snapshot, std::uint32_t slot) {
    const auto records = salvage(snapshot, kBox);
    const auto found = std::ranges::find(records, slot, &SalvagedRecord::slot);
    return found == records.end() ? std::nullopt : std::optional(*found);
}

}  // namespace

std::string finding_text(const Finding& finding) {
    return fmt::format("{}, byte {}: {}", finding.where, finding.offset, finding.what);
}

std::string list_text(const BoxSnapshot& snapshot) {
    std::vector<Row> rows{{"No", "Time (UTC)", "Signal", "Process", "Thread", "Sender", ""}};
    for (const StoredRecord& stored : snapshot.newest_first(kBox)) {
        const KovaExceptInfo record = snapshot.exception(stored.slot);
        Row row{std::to_string(stored.index), time_text(record.time)};
        std::ranges::move(exception_columns(record), std::back_inserter(row));
        const std::string remark = remark_on(snapshot, stored);
        row.push_back(remark.empty() ? "" : "! " + remark);
        rows.push_back(std::move(row));
    }
    std::string text = rows.size() > 1 ? table_text(rows) : "No records.\n";
    if (const auto slots = recoverable_slots(snapshot); !slots.empty()) {
        const bool is_one = slots.size() == 1;
        text += fmt::format("note: {} {} not counted, in slot{} {}; see kovactl box salvage\n", slots.size(),
                            is_one ? "record is" : "records are", is_one ? "" : "s", slots_text(slots));
    }
    return text;
}

Json list_json(const BoxSnapshot& snapshot) {
    Json list = Json::array();
    for (const StoredRecord& stored : snapshot.newest_first(kBox)) {
        Json entry{{"index", stored.index}, {"slot", stored.slot}};
        entry.update(summary_json(snapshot.exception(stored.slot)));
        entry["remark"] = remark_on(snapshot, stored);
        list.push_back(std::move(entry));
    }
    return {{"file", escape_text(snapshot.path())},
            {"box", kBox},
            {"records", std::move(list)},
            {"recoverable_slots", recoverable_slots(snapshot)}};
}

std::string record_report_text(const BoxSnapshot& snapshot, const StoredRecord& stored) {
    const std::string remark = remark_on(snapshot, stored);
    return fmt::format("Record {}, slot {}{}\n{}", stored.index, stored.slot, remark.empty() ? "" : "  ! " + remark,
                       record_text(snapshot.exception(stored.slot)));
}

Json record_report_json(const BoxSnapshot& snapshot, const StoredRecord& stored) {
    Json json{{"index", stored.index}, {"slot", stored.slot}};
    json.update(record_json(snapshot.exception(stored.slot)));
    json["remark"] = remark_on(snapshot, stored);
    return json;
}

std::string slot_report_text(const BoxSnapshot& snapshot, std::uint32_t slot) {
    const auto salvaged = salvaged_slot(snapshot, slot);
    if (!salvaged.has_value()) return fmt::format("Slot {} holds no record\n", slot);
    std::string text = fmt::format("Slot {}, {}\n", slot, state_text(*salvaged));
    for (const RecordFault& fault : salvaged->faults) {
        text += fmt::format("  ! byte {}: {}\n", salvaged->offset + fault.at, fault.what);
    }
    return text + record_text(snapshot.exception(slot));
}

Json slot_report_json(const BoxSnapshot& snapshot, std::uint32_t slot) {
    const auto salvaged = salvaged_slot(snapshot, slot);
    return salvaged.has_value() ? salvaged_json(snapshot, kBox, *salvaged) : Json(nullptr);
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
