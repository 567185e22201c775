#pragma once

#include "proto/FieldFlags.hpp"
#include "proto/FieldName.hpp"
#include "proto/MatchStatus.hpp"

#include <cstddef>
#include <type_traits>

namespace proto {

/// The checks that a sending container has for the kinds of its fields: each computes what its
/// field holds, when the fields before it are in the buffer and all sizes are known.
template <typename Container>
struct TxChecks {
    /// The check for a kind of field, or null.
    template <FieldName NAME>
    static constexpr Matcher of() {
        if constexpr (NAME == LEN_FIELD) {
            return &calc_len;
        } else if constexpr (NAME == ALEN_FIELD) {
            return &set_alen;
        } else if constexpr (NAME == CRC_FIELD) {
            return &set_crc;
        } else if constexpr (NAME == SOURCE_FIELD) {
            return &set_source;
        } else if constexpr (NAME == CHANNEL_FIELD) {
            return &set_channel;
        } else {
            return nullptr;
        }
    }

    /// The sizes of all fields that the length counts.
    static MatchStatus calc_len(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        unsigned long total = 0;
        container.for_each_type([&](auto const& field) {
            if (field.has(FieldFlags::InLen)) {
                total += field.get_size();
            }
        });
        return put<LEN_FIELD>(container, total);
    }

    /// Whoever sends gives this field's value.
    static MatchStatus set_alen(void*) { return MatchStatus::Match; }

    static MatchStatus set_crc(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        return put<CRC_FIELD>(container, container.compute_crc());
    }

    static MatchStatus set_source(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        return put<SOURCE_FIELD>(container, container.source_match_value());
    }

    static MatchStatus set_channel(void* opaque) {
        auto& container = *static_cast<Container*>(opaque);
        return put<CHANNEL_FIELD>(container, container.channel_stamp_value());
    }

private:
    /// Writes as many low bits of the value as the field has.
    template <FieldName NAME>
    static MatchStatus put(Container& container, unsigned long value) {
        auto& field = container.template get<NAME>();
        auto const number =
            static_cast<typename std::remove_reference_t<decltype(field)>::Type>(value);
        field.set(&number);
        return MatchStatus::Match;
    }
};

} // namespace proto
