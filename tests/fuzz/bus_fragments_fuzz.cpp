// Any sequence of fragments. Each is five bytes: source and message, index, flags, size, and how
// much later it comes. What the assembler gives out is checked against a plain account of all that
// came: of each index the chunk that came last.

#include "bus/FragmentAssembler.hpp"
#include "tests/fuzz/require.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace {

using tessaron::bus::FragmentAssembler;
using tessaron::bus::WireFrame;
using Bytes = std::vector<std::uint8_t>;

struct Account {
    std::map<std::uint16_t, Bytes> chunks;
    std::optional<std::uint16_t> last_index;
};

WireFrame fragment_of(std::uint8_t const* step, std::uint8_t mark) {
    WireFrame fragment;
    fragment.source = step[0] & 0x0f;
    fragment.msg_id = step[0] >> 4;
    fragment.frag_index = step[1];
    fragment.frag_flags = step[2];
    fragment.data = Bytes(step[3] * std::size_t{16}, mark);
    return fragment;
}

void check(WireFrame const& message, Account const& account) {
    require(account.last_index.has_value());
    Bytes expected;
    for (std::uint32_t index = 0; index <= *account.last_index; ++index) {
        auto const chunk = account.chunks.find(static_cast<std::uint16_t>(index));
        require(chunk != account.chunks.end());
        expected.insert(expected.end(), chunk->second.begin(), chunk->second.end());
    }
    require(message.data == expected);
    require(message.frag_index == 0);
    require((message.frag_flags & 3) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    constexpr std::size_t step_size = 5;
    FragmentAssembler assembler;
    std::map<std::uint64_t, Account> accounts;
    FragmentAssembler::TimePoint now{};
    for (std::size_t at = 0; at + step_size <= size; at += step_size) {
        WireFrame const fragment = fragment_of(data + at, static_cast<std::uint8_t>(at));
        now += std::chrono::milliseconds(data[at + 4] * 16);
        Account& account = accounts[tessaron::bus::fragment_key(fragment.source, fragment.msg_id)];
        account.chunks[fragment.frag_index] = fragment.data;
        if ((fragment.frag_flags & tessaron::bus::K_FRAG_FLAG_LAST) != 0) {
            account.last_index = fragment.frag_index;
        }
        if (auto const message = assembler.add(fragment, now)) {
            check(*message, account);
        }
        require(assembler.assemblies() <= FragmentAssembler::K_MAX_ASSEMBLIES);
        require(assembler.held_size() <= FragmentAssembler::K_MAX_HELD_SIZE);
    }
    return 0;
}
