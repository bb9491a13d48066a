// Creates the shared region, or takes over the one that is there, and keeps other daemons away from it.
//
// Processes that are attached must go on: an object that exists is used as it is, whatever its size and contents. It is
// never replaced, emptied or made shorter, only made longer when it is too short.
#pragma once

#include <sys/types.h>
#include <optional>

#include "base/unique_fd.h"
#include "kova/resource_region.h"

namespace kova::kovad {

class RegionOwner {
  public:
    // Reading and writing for owner and group. Without a group it is the daemon's own. Throws std::system_error and
    // std::runtime_error with what a user needs to know.
    explicit RegionOwner(std::optional<gid_t> group);
    RegionOwner(const RegionOwner&) = delete;
    RegionOwner& operator=(const RegionOwner&) = delete;
    ~RegionOwner();

    [[nodiscard]] KovaResourceRegion& region() { return *region_; }
    [[nodiscard]] bool was_there() const { return was_there_; }

    // Makes the object as long as it must be. Somebody may have made it shorter meanwhile, and the next access to the
    // missing part would end the daemon with SIGBUS.
    void ensure_length();

  private:
    void open();
    void lock();
    void set_owner(std::optional<gid_t> group);

    // Closing any descriptor of the object would drop the lock: it is opened once.
    UniqueFd object_;
    bool was_there_ = false;
    KovaResourceRegion* region_ = nullptr;
};

}  // namespace kova::kovad
