// Which module and symbol an address belongs to; see loaded_symbol.h.
//
// dladdr() waits for the loader's lock. A thread that sits in dlopen() - a constructor that blocks, a file system that
// does not answer - would keep another thread's capture waiting until the host gives it up. _dl_find_object() takes no
// lock; the symbols are then read from the module's own tables, by the loader's rules. A module that another thread
// unloads at this moment is a fault, like every damaged table.
//
// Signal context: all of it.
#include "base/loaded_symbol.h"

#include <elf.h>
#include <link.h>
#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "base/signal_path.h"

// C libraries before 2.35 do not have it.
#pragma weak _dl_find_object

namespace kova {
namespace {

using Symbol = ElfW(Sym);

struct SymbolTable {
    const Symbol* symbols = nullptr;
    const char* names = nullptr;
    std::uint64_t name_bytes = 0;
    const std::uint32_t* gnu_hash = nullptr;
    const std::uint32_t* hash = nullptr;
};

class Module {
  public:
    explicit Module(const link_map& map) : map_(map) {}

    [[nodiscard]] SymbolTable table() const {
        SymbolTable table;
        for (const ElfW(Dyn)* entry = map_.l_ld; entry->d_tag != DT_NULL; ++entry) {
            switch (entry->d_tag) {
                case DT_SYMTAB:
                    table.symbols = static_cast<const Symbol*>(at(entry->d_un.d_ptr));
                    break;
                case DT_STRTAB:
                    table.names = static_cast<const char*>(at(entry->d_un.d_ptr));
                    break;
                case DT_STRSZ:
                    table.name_bytes = entry->d_un.d_val;
                    break;
                case DT_GNU_HASH:
                    table.gnu_hash = static_cast<const std::uint32_t*>(at(entry->d_un.d_ptr));
                    break;
                case DT_HASH:
                    table.hash = static_cast<const std::uint32_t*>(at(entry->d_un.d_ptr));
                    break;
                default:
                    break;
            }
        }
        return table;
    }

    [[nodiscard]] std::uint64_t load_offset() const { return map_.l_addr; }

  private:
    // The loader turns the table's offsets into addresses where it can write them; the kernel's own module is
    // read-only.
    [[nodiscard]] const void* at(std::uint64_t value) const {
        return reinterpret_cast<const void*>(value < map_.l_addr ? value + map_.l_addr : value);
    }

    const link_map& map_;
};

// The symbol that starts closest below the address and reaches it.
class NearestSymbol {
  public:
    NearestSymbol(const SymbolTable& table, std::uint64_t offset) : table_(table), offset_(offset) {}

    void consider(std::uint32_t index) {
        const Symbol& symbol = table_.symbols[index];
        // Thousands are elsewhere, and this tells it of nearly all of them. (Below the address, the difference is
        // huge.)
        if (const std::uint64_t behind = offset_ - symbol.st_value; behind != 0 && behind >= symbol.st_size) return;
        if (symbol.st_shndx == SHN_UNDEF && symbol.st_value == 0) return;
        if (symbol.st_shndx == SHN_ABS || ELF64_ST_TYPE(symbol.st_info) == STT_TLS) return;
        if (!reaches(symbol) || symbol.st_name >= table_.name_bytes) return;
        if (nearest_ == nullptr || nearest_->st_value < symbol.st_value) nearest_ = &symbol;
    }

    [[nodiscard]] const Symbol* nearest() const { return nearest_; }

  private:
    [[nodiscard]] bool reaches(const Symbol& symbol) const {
        if (offset_ < symbol.st_value) return false;
        const bool is_label = symbol.st_shndx == SHN_UNDEF || symbol.st_size == 0;
        return (is_label && offset_ == symbol.st_value) || offset_ < symbol.st_value + symbol.st_size;
    }

    const SymbolTable& table_;
    std::uint64_t offset_;  // of the address, from where the module's own addresses count
    const Symbol* nearest_ = nullptr;
};

// {buckets, first symbol, bloom words, bloom shift}, the bloom filter, the buckets, and one chain word for each symbol
// from the first on, whose lowest bit marks the end of a chain. Chains lie one behind the other in the order of their
// buckets: together they are all symbols from the first to the end of the last chain.
void consider_gnu_hashed(const std::uint32_t* hash, NearestSymbol* nearest) {
    const std::uint32_t bucket_count = hash[0];
    const std::uint32_t first_symbol = hash[1];
    constexpr std::size_t kWordsPerBloom = sizeof(ElfW(Addr)) / sizeof(std::uint32_t);
    const std::uint32_t* const buckets = hash + 4 + hash[2] * kWordsPerBloom;
    const std::uint32_t* const chains = buckets + bucket_count;
    std::uint32_t last = 0;  // as an empty bucket has it
    for (std::uint32_t bucket = 0; bucket < bucket_count; ++bucket) last = std::max(last, buckets[bucket]);
    if (last < first_symbol) return;
    while ((chains[last - first_symbol] & 1U) == 0) ++last;
    for (std::uint32_t index = first_symbol; index <= last; ++index) nearest->consider(index);
}

// {buckets, symbols, ...}. Without a hash table of either kind the number of symbols is not known.
void consider_hashed(const std::uint32_t* hash, const Symbol* symbols, NearestSymbol* nearest) {
    for (std::uint32_t index = 0; index < hash[1]; ++index) {
        const unsigned bind = ELF64_ST_BIND(symbols[index].st_info);
        if (bind == STB_GLOBAL || bind == STB_WEAK) nearest->consider(index);
    }
}

const char* name_of(const link_map& map) {
    // The program itself has no name in the loader's list; its first argument is what dladdr() answers.
    return map.l_name[0] != '\0' ? map.l_name : ::program_invocation_name;
}

// Where there are holes between a module's segments, as with the large pages of arm64, what was found is the segment.
// Only a program that is not relocated at all does not begin at its load offset.
void* base_of(const dl_find_object& found) {
    const ElfW(Addr) offset = found.dlfo_link_map->l_addr;
    return offset != 0 ? reinterpret_cast<void*>(offset) : found.dlfo_map_start;
}

}  // namespace

bool find_loaded_symbol(const void* address, Dl_info* info) {
    if (_dl_find_object == nullptr) return ::dladdr(address, info) != 0;
    dl_find_object found{};
    if (_dl_find_object(const_cast<void*>(address), &found) != 0) return false;
    *info = Dl_info{.dli_fname = name_of(*found.dlfo_link_map),
                    .dli_fbase = base_of(found),
                    .dli_sname = nullptr,
                    .dli_saddr = nullptr};
    const Module module(*found.dlfo_link_map);
    const SymbolTable table = module.table();
    if (table.symbols == nullptr || table.names == nullptr) return true;

    NearestSymbol nearest(table, reinterpret_cast<std::uint64_t>(address) - module.load_offset());
    if (table.gnu_hash != nullptr) {
        consider_gnu_hashed(table.gnu_hash, &nearest);
    } else if (table.hash != nullptr) {
        consider_hashed(table.hash, table.symbols, &nearest);
    }
    if (const Symbol* const symbol = nearest.nearest(); symbol != nullptr) {
        info->dli_sname = table.names + symbol->st_name;
        info->dli_saddr = reinterpret_cast<void*>(module.load_offset() + symbol->st_value);
    }
    return true;
}

}  // namespace kova
