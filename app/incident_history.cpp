#include "app/incident_history.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "app/utilities/line_text.hpp"
#include "logger/LineReader.hpp"

#include <algorithm>
#include <fcntl.h>

namespace tessaron {
namespace {

constexpr std::string_view K_LEVEL_END = "] ";

void read_trigger(std::string_view rest, IncidentRecord& record) {
    record.level = rest.substr(0, rest.find(']'));
    std::size_t const end = rest.find(K_LEVEL_END);
    if (end != std::string_view::npos) {
        record.message = rest.substr(end + K_LEVEL_END.size());
    }
}

/// False once the last of them has been read.
bool read_line(std::string_view line, IncidentRecord& record) {
    auto const rest_behind = [line](std::string_view beginning) {
        return line.substr(beginning.size());
    };
    if (line.starts_with(K_INCIDENT_PID_LINE)) {
        record.pid = parse_number<long>(rest_behind(K_INCIDENT_PID_LINE)).value_or(0);
    } else if (line.starts_with(K_INCIDENT_TIME_LINE)) {
        record.ts = parse_number<std::int64_t>(rest_behind(K_INCIDENT_TIME_LINE)).value_or(0);
    } else if (line.starts_with(K_INCIDENT_TRIGGER_LINE)) {
        read_trigger(rest_behind(K_INCIDENT_TRIGGER_LINE), record);
        return false;
    }
    return true;
}

} // namespace

std::vector<std::string> list_incident_reports(std::string const& incident_dir) {
    std::vector<std::string> paths;
    for (std::string const& name :
         fs_tools::list_dir_fs(incident_dir, std::string(K_INCIDENT_FILE_PREFIX))) {
        if (name.ends_with(K_INCIDENT_FILE_SUFFIX)) {
            paths.push_back(fs_tools::join_path(incident_dir, name));
        }
    }
    // The numbers in the names are of one length, so that their order is that of the times.
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::optional<IncidentRecord> parse_incident_report_file(std::string const& path) {
    // A pipe of that name would be waited for.
    if (!fs_tools::is_reg(path)) {
        return std::nullopt;
    }
    UniqueFd const file = open_file(path, O_RDONLY);
    if (!file.is_open()) {
        return std::nullopt;
    }
    IncidentRecord record;
    LineReader lines(file.get());
    auto line = lines.next();
    while (line && read_line(*line, record)) {
        line = lines.next();
    }
    return record;
}

std::vector<IncidentRecord> read_incident_history(std::string const& incident_dir,
                                                  std::size_t max_records) {
    std::vector<IncidentRecord> records;
    for (std::string const& path : list_incident_reports(incident_dir)) {
        if (auto record = parse_incident_report_file(path)) {
            records.push_back(std::move(*record));
        }
    }
    if (max_records != 0 && records.size() > max_records) {
        records.erase(records.begin(), records.end() - static_cast<std::ptrdiff_t>(max_records));
    }
    return records;
}

} // namespace tessaron
