// Whatever a crash log holds: limits are kept, and the header of each record that was read reads
// back from what is written for it.

#include "app/crash_history.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

using tessaron::CrashRecord;
using tessaron::detail::parse_crash_history_stream;

constexpr std::size_t K_MAX_RECORDS = 3;
constexpr std::size_t K_MAX_BACKTRACE = 2;

void check_header(CrashRecord const& record) {
    std::string const written = format_crash_header_line(record);
    CrashRecord back;
    if (!tessaron::detail::parse_crash_header_line(written, back) ||
        format_crash_header_line(back) != written || back.pid != record.pid ||
        back.ts != record.ts || back.addr != record.addr) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const text(reinterpret_cast<char const*>(data), size);
    std::istringstream whole(text);
    auto const all = parse_crash_history_stream(whole, 0, 0);
    std::istringstream again(text);
    auto const newest = parse_crash_history_stream(again, K_MAX_RECORDS, K_MAX_BACKTRACE);
    if (newest.size() != std::min(all.size(), K_MAX_RECORDS)) {
        std::abort();
    }
    for (std::size_t i = 0; i < newest.size(); ++i) {
        CrashRecord const& same = all[all.size() - newest.size() + i];
        if (newest[i].backtrace.size() != std::min(same.backtrace.size(), K_MAX_BACKTRACE) ||
            newest[i].detail != same.detail) {
            std::abort();
        }
        check_header(newest[i]);
    }
    return 0;
}
