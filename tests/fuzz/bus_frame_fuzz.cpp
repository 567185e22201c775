// The bus frame's parser, fed a stream in chunks: it must find exactly the frames that the offsets
// tell, and what it found must build into the same bytes again.

#include "tests/fuzz/require.hpp"
#include "tests/unit/proto/BusReceiver.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <tuple>
#include <vector>

namespace {

using namespace proto;
using proto::test::BusReceiver;
using proto::test::Bytes;
using proto::test::ChunkEnds;
using proto::test::FrameModel;

/// Gives frames the CRC that they need, or a fuzzer would never find one. One that would end in FF
/// stays as it is, so that there are broken ones too.
void mend_checksums(Bytes& stream) {
    constexpr unsigned char K_PREFIX[] = {0xB0, 0x55, 0xB0, 0x55};
    auto at = stream.begin();
    while ((at = std::search(at, stream.end(), std::begin(K_PREFIX), std::end(K_PREFIX))) !=
           stream.end()) {
        std::size_t const available = static_cast<std::size_t>(stream.end() - at);
        std::size_t const options =
            available < 12 ? 0 : test::ModelParser::options_size(test::read_number(&at[10], 2));
        if (options == 0 || available < 16 + options) {
            return;
        }
        std::size_t const length = test::read_number(&*at + 14 + options, 2);
        std::size_t const crc_at = at[5] == 0x20 ? 16 + options : 6 + length;
        if (crc_at < 16 + options || crc_at + 2 > available || at[crc_at + 1] == 0xFF) {
            ++at;
            continue;
        }
        auto const crc = at + static_cast<std::ptrdiff_t>(crc_at);
        std::ranges::copy(test::crc_of(Bytes(at, crc)), crc);
        at = crc + 2;
    }
}

std::vector<FrameModel> receive(Bytes const& stream, ChunkEnds const& ends) {
    BusReceiver receiver;
    receiver.feed_in_chunks(stream, ends);
    std::vector<FrameModel> const frames = receiver.frames();
    require(frames == test::ModelParser(stream, ends, BusReceiver::K_OWN_ADDRESS).parse());
    return frames;
}

ChunkEnds pieces_of(std::size_t size, std::size_t stream_size) {
    ChunkEnds ends;
    for (std::size_t end = 0; end < stream_size;) {
        end = std::min(end + size, stream_size);
        ends.push_back(end);
    }
    return ends;
}

template <std::size_t SLOT>
void read_slot(bus::Options& options, unsigned char const* field) {
    std::get<SLOT>(options) = bus::OptionsField::get_field_from<SLOT>(field);
}

bus::Options read_options(unsigned char const* field) {
    bus::Options options;
    read_slot<bus::OPTION_TOPIC_ID>(options, field);
    read_slot<bus::OPTION_MSG_ID>(options, field);
    read_slot<bus::OPTION_FRAG_INDEX>(options, field);
    read_slot<bus::OPTION_FRAG_FLAGS>(options, field);
    read_slot<bus::OPTION_ORIGIN>(options, field);
    read_slot<bus::OPTION_TTL>(options, field);
    read_slot<bus::OPTION_UNCOMPRESSED_SIZE>(options, field);
    return options;
}

/// Builds the frame that was received; of its mask, only the bits that have a slot are written.
void require_the_same_when_built(FrameModel frame) {
    frame.options[0] &= 0x7F;
    frame.options[1] = 0;
    Bytes memory(bus::MAX_PAYLOAD_SIZE);
    test::BusTx tx({test::span_of(memory)});
    tx.set_source_match_value(frame.source);
    auto const type = static_cast<unsigned char>(frame.type);
    auto const version = static_cast<unsigned char>(frame.version);
    bus::Options const options = read_options(frame.options.data());
    auto const infos = std::tuple(
        make_field_info<TYPE_FIELD, unsigned char>(&type),
        make_field_info<VERSION_FIELD, unsigned char>(&version),
        make_field_info<DEST_FIELD, unsigned>(&frame.dest),
        make_field_info<OPT_FIELD, bus::Options>(&options),
        make_field_info<DATA_FIELD, unsigned char*>(frame.data.data(), frame.data.size()));
    memory.resize(tx.construct_packet_from_tuple(infos));
    require(memory == frame.bytes());
}

} // namespace

/// The first byte is how the stream is cut.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0 || size > 20'000) {
        return 0;
    }
    Bytes stream(data + 1, data + size);
    mend_checksums(stream);
    std::vector<FrameModel> const whole = receive(stream, pieces_of(stream.size(), stream.size()));
    BusReceiver in_place;
    in_place.feed_whole(stream);
    require(in_place.is_intact() && in_place.frames() == whole);
    receive(stream, pieces_of(1, stream.size()));
    receive(stream, pieces_of(1UL + data[0], stream.size()));
    for (FrameModel const& frame : whole) {
        require_the_same_when_built(frame);
    }
    return 0;
}
