// Any payload as any of the records that the package service and the fetch are asked with and
// answer: it is refused by an exception, or read; what was read is written, and can be read again.

#include "MirelClientApp/FetchInstallRequest.hpp"
#include "package/package_envelopes.hpp"
#include "package/package_records.hpp"
#include "tests/fuzz/require.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace {

using proto::bus::Bytes;

template <typename Record>
Bytes written_anew(Bytes const& payload) {
    return Record::parse(payload).build();
}

template <typename Record>
void check(Bytes const& payload) {
    Bytes written;
    try {
        written = written_anew<Record>(payload);
    } catch (std::invalid_argument const&) {
        return;
    } catch (std::out_of_range const&) {
        return; // a number in the data
    }
    // A document may lose control characters and digits on its first way, and none on the next.
    Bytes const settled = written_anew<Record>(written);
    require(written_anew<Record>(settled) == settled);
}

constexpr std::array K_RECORDS{
    check<tessaron::PackageNameRequest>,    check<tessaron::PackageArgsRequest>,
    check<tessaron::PackageInstallRequest>, check<FetchInstallRequest>,
    check<tessaron::PackageManagerReply>,
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size != 0) {
        K_RECORDS[data[0] % K_RECORDS.size()](Bytes(data + 1, data + size));
    }
    return 0;
}
