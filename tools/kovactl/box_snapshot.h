// A black box file as it was at one moment, read into memory under a read lock.
//
// Looking never changes, creates or repairs the file. What it holds is hostile input: every access goes through the
// format module, and texts are never trusted to be terminated.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "except/src/proc_agent/box_format.h"
#include "kova/assert_record.h"
#include "kova/exception_record.h"

namespace kova::kovactl {

inline constexpr char kLiveBoxFile[] = "/opt/norvel/var/log/kova_exception_assert";

// The message names the file, what went wrong and what to do.
class CannotRead : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A counted record. Index 0 is the newest.
struct StoredRecord {
    std::uint32_t index;
    std::uint32_t slot;
    std::uint32_t offset;  // in the file, bytes
};

// Where the layout has a slot in the file, bytes.
[[nodiscard]] std::uint32_t slot_place(std::uint32_t box, std::uint32_t slot);

class BoxSnapshot {
  public:
    // Waits up to 5 s for a writer. The live file is not followed through a link, just as its writers do not. Throws
    // CannotRead.
    static BoxSnapshot read(const std::string& path);

    // A file's bytes as they stand.
    BoxSnapshot(std::string path, std::vector<std::uint8_t> bytes);

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::uint64_t length() const { return length_; }  // of the file, bytes

    [[nodiscard]] FileHead file_head() const;
    [[nodiscard]] NodeHead node_head(std::uint32_t box) const;
    [[nodiscard]] bool file_head_is_zero() const;

    // Nothing was ever stored in the box: neither its head nor its slots hold anything.
    [[nodiscard]] bool is_unused(std::uint32_t box) const;

    // Counted records, newest first; none when the node head is invalid. Ends early at a slot that a lying head places
    // outside the box.
    [[nodiscard]] std::vector<StoredRecord> newest_first(std::uint32_t box) const;

    // Slots that begin with the marker of a record and are not among those counted, the last one first. With an invalid
    // node head, all that begin with it.
    [[nodiscard]] std::vector<std::uint32_t> uncounted(std::uint32_t box) const;

    // The bytes of one slot as the layout has them, slot below the layout's capacity. What lies beyond the end of the
    // file is zero, as for the agent.
    [[nodiscard]] std::span<const std::uint8_t> slot(std::uint32_t box, std::uint32_t slot) const;

    // The record in a slot of box 0, and of box 1.
    [[nodiscard]] KovaExceptInfo exception(std::uint32_t slot) const;
    [[nodiscard]] KovaAssertItem assert_item(std::uint32_t slot) const;

  private:
    std::string path_;
    std::uint64_t length_;
    std::vector<std::uint8_t> bytes_;  // always kBoxFileBytes
};

}  // namespace kova::kovactl
