#pragma once

#include "proto/DataFieldPrototype.hpp"
#include "proto/FieldPrototype.hpp"
#include "proto/OptFieldPrototype.hpp"
#include "proto/bus/MessageType.hpp"
#include "proto/bus/Origin.hpp"

#include <cstddef>
#include <cstdint>
#include <tuple>

/// The frame of the bus. All that receives or sends one follows from `BusFrame`, the list below.
///
///     offset  size  field                  counted in
///     0       4     prefix B0 55 B0 55
///     4       1     protocol version       length, CRC
///     5       1     message type           length, CRC
///     6       2     channel                length, CRC
///     8       2     source                 length, CRC
///     10      n     options                length, CRC
///     10+n    4     destination            length, CRC
///     14+n    2     length = 10 + n + d            CRC
///     16+n    d     payload                length, CRC
///     16+n+d  2     CRC, low 16 bits of a CRC-32
///
/// Numbers are little-endian, the CRC is big-endian. A DISCOVERY_REQUEST from 0x0102 to all:
///
///     B0 55 B0 55  02  20  00 00  02 01  00 00  FF FF FF FF  0C 00  23 B1
namespace proto::bus {

inline constexpr unsigned char BUS_PREFIX[] = {0xB0, 0x55, 0xB0, 0x55};

/// Where a frame's source stands; see above.
inline constexpr unsigned long K_SOURCE_OFFSET = 8;

/// The largest frame, and so the size of a buffer that holds one.
inline constexpr unsigned long MAX_PAYLOAD_SIZE = 4096;

/// The option slots, in their order on the wire; an absent one has the value in parentheses.
enum OptionSlot : std::size_t {
    OPTION_TOPIC_ID = 0,          ///< (0)
    OPTION_MSG_ID = 1,            ///< (0)
    OPTION_FRAG_INDEX = 2,        ///< (0) Together with `OPTION_FRAG_FLAGS`.
    OPTION_FRAG_FLAGS = 3,        ///< (0) `FragFlags`.
    OPTION_ORIGIN = 4,            ///< (none)
    OPTION_TTL = 5,               ///< (8)
    OPTION_UNCOMPRESSED_SIZE = 6, ///< (0) Where the payload is compressed.
};

/// The bits of `OPTION_FRAG_FLAGS`.
enum FragFlags : std::uint8_t {
    FRAG_IS_FRAGMENT = 1,
    FRAG_IS_LAST = 2,
    FRAG_IS_COMPRESSED = 4,
};

namespace detail {

inline constexpr FieldFlags K_IN_BOTH = FieldFlags::InLen | FieldFlags::InCrc;

template <MessageType TYPE, typename Payload = unsigned char*>
using Packet = PacketInfo<static_cast<int>(TYPE), Payload>;

} // namespace detail

using OptionsField =
    OptFieldPrototype<OPT_FIELD, 0, detail::K_IN_BOTH, 64, std::uint16_t, std::uint32_t,
                      std::uint16_t, std::uint8_t, Origin, std::uint8_t, std::uint32_t>;
/// What is given to send: an optional for each slot.
using Options = OptionsField::Options;

using Packets =
    std::tuple<detail::Packet<MessageType::SUBSCRIBE_REQUEST>,
               detail::Packet<MessageType::SUBSCRIBE_RESPONSE>,
               detail::Packet<MessageType::UNSUBSCRIBE_REQUEST>,
               detail::Packet<MessageType::DISCOVERY_REQUEST, EmptyDataType>,
               detail::Packet<MessageType::DISCOVERY_RESPONSE>, detail::Packet<MessageType::EVENT>,
               detail::Packet<MessageType::REQUEST>, detail::Packet<MessageType::RESPONSE>>;

using BusFrame = std::tuple<
    FieldPrototype<ID_FIELD, unsigned char const*, 0, FieldFlags::None, 4, 4, BUS_PREFIX>,
    FieldPrototype<VERSION_FIELD, std::uint8_t, 0, detail::K_IN_BOTH>,
    FieldPrototype<TYPE_FIELD, std::uint8_t, 0, detail::K_IN_BOTH>,
    FieldPrototype<CHANNEL_FIELD, std::uint16_t, 0, detail::K_IN_BOTH>,
    FieldPrototype<SOURCE_FIELD, std::uint16_t, 0, detail::K_IN_BOTH>, OptionsField,
    FieldPrototype<DEST_FIELD, std::uint32_t, 0, detail::K_IN_BOTH>,
    FieldPrototype<LEN_FIELD, std::uint16_t, 0, FieldFlags::InCrc>,
    DataFieldPrototype<Packets, 0, detail::K_IN_BOTH>,
    FieldPrototype<CRC_FIELD, std::uint16_t, 0, FieldFlags::ByteSwapped>>;

} // namespace proto::bus
