// Whatever a line of the session history holds: what was read from it must be written as one line
// that reads back the same.

#include "app/session_history.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using tessaron::SessionRecord;

std::string format(SessionRecord const& record) {
    return record.is_start ? format_session_start(record) : format_session_stop(record);
}

void check(std::string_view line) {
    auto const record = tessaron::parse_session_line(line);
    if (!record) {
        return;
    }
    std::string const written = format(*record);
    auto const back = tessaron::parse_session_line(written);
    if (written.find_first_of("\r\n") != written.npos || !back || format(*back) != written) {
        std::abort();
    }
    // Nothing but line breaks is lost on the way.
    if (line.find_first_of("\r\n") == line.npos &&
        (back->ts != record->ts || back->pid != record->pid || back->args != record->args ||
         back->reason != record->reason || back->runtime != record->runtime)) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    check({reinterpret_cast<char const*>(data), size});
    return 0;
}
