// Searching a memory map by halving steps over byte positions; see map_search.h.
//
// Whatever the text holds, a search ends: the step is halved down to nothing, and a probe reads no further than two
// line ends, or the end of the text.
//
// Signal context: all of it.
#include "except/src/proc_agent/map_search.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/checked.h"
#include "base/unique_fd.h"
#include "except/src/proc_agent/map_line.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr std::int32_t kLineTooLong = -ENOMEM;
constexpr std::int32_t kProbeFailed = -1;
constexpr std::size_t kPieceSize = 255;
constexpr std::size_t kFewLines = 512;  // bytes, enough for the end of a line and the next one

// Gathers up to the next line feed or the end. `piece` is scratch.
std::int32_t gather_line(MapText& text, LineBuffer line, std::span<char> piece) {
    if (line.empty()) return kLineTooLong;
    const std::size_t limit = line.size() - 1;  // a line of this length is too long already
    std::size_t length = 0;
    line[0] = '\0';
    for (;;) {
        const ssize_t count = text.read(piece);
        if (count < 0) return kProbeFailed;
        if (count == 0) return narrow<std::int32_t>(length);
        const std::string_view got(piece.data(), static_cast<std::size_t>(count));
        const std::size_t line_feed = got.find('\n');
        const std::size_t part = std::min(line_feed, got.size());
        if (part >= limit - length) return kLineTooLong;
        std::memcpy(&line[length], got.data(), part);
        length += part;
        line[length] = '\0';
        if (line_feed != got.npos) return narrow<std::int32_t>(length);
    }
}

// Moves to the first line that begins at `position` or later: behind the first line feed from position - 1 on.
std::int32_t seek_to_line(MapText& text, std::uint32_t position, std::span<char> piece) {
    if (position == 0) return text.seek(0);
    std::uint64_t at = position - 1;
    if (const int rc = text.seek(at); rc != 0) return rc;
    for (;;) {
        const ssize_t count = text.read(piece);
        if (count <= 0) return kProbeFailed;
        const std::string_view got(piece.data(), static_cast<std::size_t>(count));
        if (const std::size_t line_feed = got.find('\n'); line_feed != got.npos) return text.seek(at + line_feed + 1);
        at += got.size();
    }
}

}  // namespace

int MapText::seek(std::uint64_t position) {
    position_ = position;
    if (is_clipped_) return 0;
    return ::lseek(fd_, static_cast<off_t>(position), SEEK_SET) < 0 ? -errno : 0;
}

ssize_t MapText::read(std::span<char> out) {
    return is_clipped_ ? read_clipped(out) : read_once(fd_, out.data(), out.size());
}

ssize_t MapText::read_clipped(std::span<char> out) {
    const std::size_t wanted = std::min<std::uint64_t>(out.size(), length_ - std::min(position_, length_));
    if (wanted == 0) return 0;
    ssize_t count = 0;
    if (window_.empty()) {
        count = read_at(fd_, out.data(), wanted, first_ + static_cast<off_t>(position_));
    } else {
        const bool is_inside = window_start_ <= position_ && position_ < window_end_;
        if (!is_inside && (count = fill_window()) <= 0) return count;
        count = static_cast<ssize_t>(std::min<std::uint64_t>(wanted, window_end_ - position_));
        std::memcpy(out.data(), &window_[position_ - window_start_], static_cast<std::size_t>(count));
    }
    if (count > 0) position_ += static_cast<std::size_t>(count);
    return count;
}

// A halving search moves by ever shorter steps in either direction. As long as its steps leave the window behind, a few
// lines are read; when all that is left of the search lies around the position, the whole window is. Answers what there
// is from the position on, or as a read does.
ssize_t MapText::fill_window() {
    const std::size_t half = window_.size() / 2;
    const std::uint64_t step = std::max(position_, last_filled_at_) - std::min(position_, last_filled_at_);
    const bool is_near = length_ <= window_.size() || (position_ > 0 && step <= half);
    last_filled_at_ = position_;
    window_start_ = is_near ? position_ - std::min<std::uint64_t>(position_, half) : position_;
    window_end_ = window_start_;
    const std::size_t size = is_near ? window_.size() : std::min(window_.size(), kFewLines);
    const std::size_t wanted = std::min<std::uint64_t>(size, length_ - window_start_);
    const ssize_t count = read_at(fd_, window_.data(), wanted, first_ + static_cast<off_t>(window_start_));
    if (count <= 0) return count;
    window_end_ += static_cast<std::size_t>(count);
    return static_cast<ssize_t>(window_end_ - std::min(position_, window_end_));
}

std::int32_t read_line(MapText& text, LineBuffer line) {
    char piece[kPieceSize];
    return gather_line(text, line, piece);
}

std::int32_t read_map_record(MapText& text, std::uint32_t position, KovaMapRecord& record, LineBuffer line) {
    char piece[kPieceSize];
    if (const std::int32_t rc = seek_to_line(text, position, piece); rc != 0) return rc;
    const std::int32_t length = gather_line(text, line, piece);
    if (length < 0) return length;
    AddressRange range;
    const std::string_view gathered(line.data(), static_cast<std::size_t>(length));
    if (!parse_map_line(gathered, &range, record.permissions)) return kProbeFailed;
    record.start = range.start;
    record.end = range.end;
    return 0;
}

std::int32_t find_mapping(MapText& text, std::uint64_t address, KovaMapRecord& record, LineBuffer line) {
    std::int64_t position = 0;
    for (std::int32_t step = record.mapSize; step >= 1;) {
        if (const std::int32_t rc = read_map_record(text, narrow<std::uint32_t>(position), record, line); rc != 0) {
            return rc;
        }
        // The address just past the mapping ends the search too; it is for the caller to refuse it.
        if (record.start <= address && address <= record.end) return 1;
        step /= 2;
        position += record.start > address ? -step : step;
        if (position < 0) return 0;
    }
    return 0;
}

}  // namespace kova

int32_t KOVA_ReadLineFromFd(int32_t fd, char* buffer, uint32_t size) {
    if (buffer == nullptr) return kova::kProbeFailed;
    kova::MapText text(fd);
    return kova::read_line(text, {buffer, size});
}

int32_t KOVA_GetOneMapRecord(int32_t fd, uint32_t position, KovaMapRecord* record, char* line, uint32_t lineSize) {
    if (record == nullptr || line == nullptr) return kova::kProbeFailed;
    kova::MapText text(fd);
    return kova::read_map_record(text, position, *record, {line, lineSize});
}

int32_t KOVA_CheckAddrIsValid(int32_t fd, uint64_t address, KovaMapRecord* record, char* line, uint32_t lineSize) {
    if (record == nullptr || line == nullptr) return kova::kProbeFailed;
    kova::MapText text(fd);
    return kova::find_mapping(text, address, *record, {line, lineSize});
}
