// Whatever stands in a file that is named like an incident report: reading it ends, and its summary
// reads back from a report that tells the same.

#include "app/incident_history.hpp"
#include "app/utilities/file_io.hpp"
#include "tests/fuzz/require.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

using tessaron::IncidentRecord;

/// A file of the process's own, gone with it.
std::string const& scratch_path() {
    static std::string const s_path = [] {
        char path[] = "/tmp/incident-report-fuzz-XXXXXX";
        int const fd = ::mkstemp(path);
        require(fd >= 0);
        ::close(fd);
        return std::string(path);
    }();
    static bool const s_registered = std::atexit([] { ::unlink(s_path.c_str()); }) == 0;
    require(s_registered);
    return s_path;
}

IncidentRecord parsed(std::string_view text) {
    require(tessaron::write_file(scratch_path(), text, O_TRUNC));
    auto record = tessaron::parse_incident_report_file(scratch_path());
    require(record.has_value());
    return *record;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    IncidentRecord const record = parsed({reinterpret_cast<char const*>(data), size});
    require(record.level.find(']') == std::string::npos);
    require(record.level.find('\n') == std::string::npos);
    require(record.message.find('\n') == std::string::npos);
    IncidentRecord const same =
        parsed("pid: " + std::to_string(record.pid) + "\nts: " + std::to_string(record.ts) +
               "\ntriggered by: [" + record.level + "] " + record.message + "\n");
    require(same == record);
    return 0;
}
