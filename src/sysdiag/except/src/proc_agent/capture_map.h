// The memory map during a capture.
//
// The capture copies the map file into the exception log anyway. From then on its searches read that copy, a plain
// file, instead of having the kernel format the map again for each step; and they all see the same map. The copy counts
// as the map file of this capture and its length as the map's size.
//
// The copy's descriptor stays open between the copying and the end of the capture. Only the capturing thread uses it;
// functions that another thread calls meanwhile read the map file.
//
// Signal context: all of it.
#pragma once

#include <cstddef>
#include <cstdint>

#include <string_view>

#include "base/unique_fd.h"
#include "except/src/proc_agent/map_file.h"
#include "except/src/proc_agent/map_search.h"

namespace kova {

// The calling thread's capture begins: the copy that KOVA_DumpMapsFile makes next is kept. For the thread that holds
// the capture flag. What an earlier capture left behind is dropped.
void begin_capture_map();

// Closes the copy, with the log's lock between threads held: closing any descriptor of a file drops the process's
// record lock on it, which another thread may just hold.
void end_capture_map();

// Length of the copy; where there is none that can be used, the map file is measured.
[[nodiscard]] std::uint32_t capture_map_size();

// The map search of the dumps gathers its lines at the head of the text buffer.
inline constexpr std::size_t kMapLineSize = 256;

// The text that searches of the calling thread read: its capture's copy, else the map file, opened for this search.
// While it lives, a search in the copy keeps what it has read in the text buffer behind the line.
class MapSource {
  public:
    MapSource();

    // False when the map file could not be opened, with errno.
    [[nodiscard]] bool is_open() const { return is_open_; }
    [[nodiscard]] MapText& text() { return text_; }
    // Of the map file, also of one that was copied.
    [[nodiscard]] std::string_view path() const { return path_; }
    // No mapping lies below; 0 where that is not known. Most registers hold small numbers: no search is needed for
    // them.
    [[nodiscard]] std::uint64_t lowest_address() const { return lowest_; }

  private:
    char path_[kMapPathSize] = "";
    UniqueFd file_;
    bool is_open_ = false;
    std::uint64_t lowest_ = 0;
    MapText text_;
};

}  // namespace kova
