// The lists that the daemon shows of its books, one page at a time. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "daemon_services.h"
#include "link_record.h"

namespace kova::kovad {

// Head and items, from `from` on, at most kListPageItems.
[[nodiscard]] std::vector<std::byte> process_page(const LinkRecords& links, const ListRequest& from,
                                                  std::uint64_t silent_since_ms);
[[nodiscard]] std::vector<std::byte> subscription_page(const LinkRecords& links, const ListRequest& from);

}  // namespace kova::kovad
