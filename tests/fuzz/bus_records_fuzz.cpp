// Any payload as any of the records that applications exchange: it is refused by an exception, or
// read; what was read is written and read again as the same bytes.

#include "app/app_control_envelopes.hpp"
#include "app/config_envelopes.hpp"
#include "logger/bus/logger_envelopes.hpp"
#include "tests/fuzz/require.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <tuple>

namespace {

using tessaron::Bytes;

/// Where an empty line at the end is one line less the next time.
template <typename Record>
void read_only(Bytes const& payload) {
    try {
        std::ignore = Record::parse(Record::parse(payload).build());
    } catch (std::invalid_argument const&) {
    }
}

template <typename Record>
void read_and_write(Bytes const& payload) {
    try {
        Bytes const written = Record::parse(payload).build();
        require(Record::parse(written).build() == written);
    } catch (std::invalid_argument const&) {
    }
}

using namespace tessaron;

constexpr std::array K_RECORDS{
    read_and_write<LoggerEntry>,
    read_and_write<LoggerLineEvent>,
    read_and_write<LogInfoReply>,
    read_and_write<LogReadRequest>,
    read_and_write<LogReadReply>,
    read_and_write<config::ConfigListReply>,
    read_and_write<config::ConfigSetRequest>,
    read_and_write<SessionHistoryReply>,
    read_only<CrashHistoryReply>,
    read_and_write<IncidentHistoryReply>,
    read_and_write<TerminationReasonsReply>,
    read_and_write<SessionLogReply>,
    read_and_write<SessionLogRequest>,
    read_and_write<LogLevelReply>,
    read_and_write<CrashIncidentRequest>,
    read_and_write<AppControlStatusReply>,
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size != 0) {
        K_RECORDS[data[0] % K_RECORDS.size()](Bytes(data + 1, data + size));
    }
    return 0;
}
