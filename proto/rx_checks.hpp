#pragma once

#include "proto/FieldName.hpp"
#include "proto/MatchStatus.hpp"
#include "proto/frame_print.hpp"
#include "proto/json_scan.hpp"

#include <cstddef>

namespace proto {

/// The checks that a receiving container has for the kinds of its fields. Each runs when all bytes
/// of its field are there; those of the fields before it are in the container too.
template <typename Container>
struct RxChecks {
    /// The check for a kind of field, or null.
    template <FieldName NAME>
    static constexpr Matcher of() {
        if constexpr (NAME == LEN_FIELD) {
            return &set_data_len;
        } else if constexpr (NAME == ALEN_FIELD) {
            return &check_alen;
        } else if constexpr (NAME == CRC_FIELD) {
            return &check_crc;
        } else if constexpr (NAME == TYPE_FIELD) {
            return &check_type;
        } else if constexpr (NAME == JSON_FIELD) {
            return &check_json;
        } else if constexpr (NAME == SOURCE_FIELD) {
            return &check_not_self;
        } else if constexpr (NAME == CHANNEL_FIELD) {
            return &check_channel_in_range;
        } else if constexpr (NAME == OPT_FIELD) {
            return &set_opt_size;
        } else {
            return nullptr;
        }
    }

    /// Selects the payload that packets of this type have.
    static MatchStatus check_type(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        auto& data = container.template get<DATA_FIELD>();
        auto const id = container.template get<TYPE_FIELD>().value();
        if (!data.set_id(static_cast<int>(id))) {
            if (container.is_debug(DebugPrintFlags::Broken)) {
                detail::print_unknown_type(id);
            }
            return MatchStatus::Mismatch;
        }
        unsigned long const packet = data.get_size();
        if (packet == K_UNKNOWN_SIZE) {
            return MatchStatus::Mismatch;
        }
        if (data.is_size_known() && data.size() != 0 && data.size() != packet) {
            if (container.is_debug(DebugPrintFlags::Broken)) {
                detail::print_data_size_mismatch(id, packet, data.size());
            }
            return MatchStatus::Mismatch;
        }
        data.assign_size(packet);
        return MatchStatus::Match;
    }

    static MatchStatus check_channel_in_range(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        bool const accepted =
            container.accepts_channel(container.template get<CHANNEL_FIELD>().value());
        return accepted ? MatchStatus::Match : MatchStatus::Mismatch;
    }

    /// A node's own frames come back to it through multicast loopback; this drops them.
    static MatchStatus check_not_self(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        auto const source = container.template get<SOURCE_FIELD>().value();
        auto const own = static_cast<decltype(source)>(container.source_match_value());
        return source == own ? MatchStatus::Mismatch : MatchStatus::Match;
    }

    /// Lets the option field grow as its bytes tell how large it is.
    static MatchStatus set_opt_size(void* opaque) {
        auto& options = static_cast<Container*>(opaque)->template get<OPT_FIELD>();
        unsigned long const size = options.probe_size();
        if (size == options.read()) {
            return MatchStatus::Match;
        }
        options.assign_size(size);
        return MatchStatus::Incomplete;
    }

    /// Tells the data field its size: what the length leaves after all other fields that it counts.
    /// A sender may claim anything: a length that is less than these, or more than there is room
    /// for, breaks the frame here, before a byte of it is stored.
    static MatchStatus set_data_len(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        auto& data = container.template get<DATA_FIELD>();
        unsigned long const length = container.template get<LEN_FIELD>().value();
        unsigned long const others = size_of_others(
            container, [](Field const& field) { return field.has(FieldFlags::InLen); });
        if (data.is_size_known() && data.size() != 0 && length != others + data.size()) {
            if (container.is_debug(DebugPrintFlags::Broken)) {
                detail::print_length_mismatch(others + data.size(), length);
            }
            return MatchStatus::Mismatch;
        }
        if (length < others || !has_room(container, length - others)) {
            return MatchStatus::Mismatch;
        }
        if (!data.is_empty_packet()) {
            data.assign_size(length - others);
        }
        return MatchStatus::Match;
    }

    static MatchStatus check_crc(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        auto const received = container.template get<CRC_FIELD>().value();
        auto const computed = static_cast<decltype(received)>(container.compute_crc());
        if (computed == received) {
            return MatchStatus::Match;
        }
        if (container.is_debug(DebugPrintFlags::Broken)) {
            detail::print_crc_mismatch(computed, received);
        }
        return MatchStatus::Mismatch;
    }

    /// The byte is the complement of the length's low one.
    static MatchStatus check_alen(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        auto const length = static_cast<unsigned char>(container.template get<LEN_FIELD>().value());
        auto const complement =
            static_cast<unsigned char>(~container.template get<ALEN_FIELD>().value());
        if (length == complement) {
            return MatchStatus::Match;
        }
        if (container.is_debug(DebugPrintFlags::Broken)) {
            detail::print_alen_mismatch();
        }
        return MatchStatus::Mismatch;
    }

    static MatchStatus check_json(void* opaque) {
        return detail::scan_json(static_cast<Container*>(opaque)->template get<JSON_FIELD>());
    }

private:
    /// The known sizes of all fields but the data that `counted` picks.
    template <typename Predicate>
    static unsigned long size_of_others(Container& container, Predicate counted) {
        unsigned long total = 0;
        container.for_each_type([&](auto const& field) {
            if (field.declaration().name != DATA_FIELD && field.is_size_known() && counted(field)) {
                total += field.get_size();
            }
        });
        return total;
    }

    /// Whether so much data, with all the other fields, has its place in the buffer.
    static bool has_room(Container& container, unsigned long data_size) {
        auto const& data = container.template get<DATA_FIELD>();
        auto const* const buffer = data.buffer().data();
        unsigned long const others = size_of_others(
            container, [&](Field const& field) { return field.buffer().data() == buffer; });
        return data_size <= data.declaration().max && others <= data.buffer().size() &&
               data_size <= data.buffer().size() - others;
    }
};

} // namespace proto
