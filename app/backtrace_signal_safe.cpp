// What may be called here: backtrace() once it was prepared, _dl_find_object, write, and reads of
// the memory that the dynamic linker has mapped.

#include "app/backtrace_signal_safe.hpp"

#include "app/crash_history.hpp"
#include "app/signal_safe_text.hpp"
#include "app/utilities/process_identity.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <link.h>

namespace tessaron::detail {

namespace {

using Frames = std::array<void*, K_CRASH_BACKTRACE_MAX>;

#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 35)

/// The exported symbols of a loaded file.
struct SymbolTable {
    ElfW(Sym) const* symbols = nullptr;
    char const* names = nullptr;
    std::size_t count = 0;
};

/// The linker has made most of these pointers absolute; those of the kernel's own object are
/// relative still.
template <typename T>
T const* table_at(link_map const& file, ElfW(Addr) address) noexcept {
    return reinterpret_cast<T const*>(address < file.l_addr ? address + file.l_addr : address);
}

/// The hash table alone tells how many symbols there are: the highest one that it leads to.
std::size_t count_symbols(std::uint32_t const* hash) noexcept {
    std::uint32_t const bucket_count = hash[0];
    std::uint32_t const first_symbol = hash[1];
    std::uint32_t const filter_words = hash[2];
    std::uint32_t const* const buckets =
        hash + 4 + filter_words * (sizeof(ElfW(Addr)) / sizeof(std::uint32_t));
    std::uint32_t const* const chains = buckets + bucket_count;
    std::uint32_t const last = *std::max_element(buckets, buckets + bucket_count);
    if (last < first_symbol) {
        return first_symbol;
    }
    std::uint32_t symbol = last;
    while ((chains[symbol - first_symbol] & 1) == 0) {
        ++symbol;
    }
    return symbol + 1;
}

SymbolTable symbols_of(link_map const& file) noexcept {
    SymbolTable table;
    for (ElfW(Dyn) const* entry = file.l_ld; entry->d_tag != DT_NULL; ++entry) {
        switch (entry->d_tag) {
        case DT_SYMTAB:
            table.symbols = table_at<ElfW(Sym)>(file, entry->d_un.d_ptr);
            break;
        case DT_STRTAB:
            table.names = table_at<char>(file, entry->d_un.d_ptr);
            break;
        case DT_GNU_HASH:
            table.count = count_symbols(table_at<std::uint32_t>(file, entry->d_un.d_ptr));
            break;
        default:
            break;
        }
    }
    return table;
}

ElfW(Sym) const* find_function(SymbolTable const& table, ElfW(Addr) offset) noexcept {
    if (table.symbols == nullptr || table.names == nullptr) {
        return nullptr;
    }
    ElfW(Sym) const* ends_here = nullptr;
    for (ElfW(Sym) const* symbol = table.symbols; symbol != table.symbols + table.count; ++symbol) {
        if (ELF64_ST_TYPE(symbol->st_info) != STT_FUNC || symbol->st_shndx == SHN_UNDEF) {
            continue;
        }
        ElfW(Addr) const end = symbol->st_value + symbol->st_size;
        if (offset >= symbol->st_value && offset < end) {
            return symbol;
        }
        if (offset == end) {
            ends_here = symbol;
        }
    }
    // A call that does not return, as of abort, may be a function's last instruction; what it would
    // return to lies behind the function.
    return ends_here;
}

void write_frame(SignalSafeWriter& out, void* frame) noexcept {
    auto const address = reinterpret_cast<std::uintptr_t>(frame);
    dl_find_object found{};
    if (_dl_find_object(frame, &found) == 0) {
        link_map const& file = *found.dlfo_link_map;
        bool const is_program = file.l_name == nullptr || *file.l_name == '\0';
        ElfW(Addr) const offset = address - file.l_addr;
        SymbolTable const table = symbols_of(file);
        ElfW(Sym) const* const function = find_function(table, offset);
        out.text(is_program ? std::string_view(get_executable_path()) : file.l_name).text("(");
        if (function != nullptr) {
            out.text(table.names + function->st_name);
        }
        out.text("+0x").hex(function != nullptr ? offset - function->st_value : offset).text(") ");
    }
    out.text("[0x").hex(address).text("]\n");
}

void write_frames(int fd, Frames const& frames, int count) noexcept {
    SignalSafeWriter out(fd);
    for (int index = 0; index < count; ++index) {
        write_frame(out, frames[static_cast<std::size_t>(index)]);
    }
}

#else

void write_frames(int fd, Frames const& frames, int count) noexcept {
    backtrace_symbols_fd(frames.data(), count, fd);
}

#endif

} // namespace

void prepare_backtraces() {
    Frames frames;
    backtrace(frames.data(), 1);
    get_executable_path(); // read now, so that it is only looked at later
}

void write_backtrace_signal_safe(int fd) noexcept {
    Frames frames;
    int const count = backtrace(frames.data(), static_cast<int>(frames.size()));
    write_frames(fd, frames, count);
}

} // namespace tessaron::detail
