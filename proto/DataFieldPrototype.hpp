#pragma once

#include "proto/FieldPrototype.hpp"

#include <tuple>
#include <type_traits>
#include <variant>
#include <vector>

namespace proto {

/// A row of a data field's table: packets with this value in the type field have this payload,
/// `unsigned char*` (bytes, as many as the frame says; there may be 0) or `EmptyDataType` (none).
template <int ID, typename T>
struct PacketInfo {
    static_assert(std::is_same_v<T, unsigned char*> || std::is_same_v<T, EmptyDataType>);
    static constexpr int K_ID = ID;
    using Type = T;
};

/// A received payload: nothing without a packet id, bytes, or the empty payload.
using DataCopy = std::variant<std::monostate, std::vector<unsigned char>, EmptyDataType>;

template <typename Packets, unsigned BUFFER, FieldFlags FLAGS, unsigned long MAX = 4096>
class DataFieldPrototype;

/// The payload of a frame, whose kind the type field decides.
///
/// Thread safety: one thread at a time, the caller's duty.
template <typename... Packets, unsigned BUFFER, FieldFlags FLAGS, unsigned long MAX>
class DataFieldPrototype<std::tuple<Packets...>, BUFFER, FLAGS, MAX> final
    : public FieldPrototype<DATA_FIELD, unsigned char*, BUFFER, FLAGS, MAX> {
    using Base = FieldPrototype<DATA_FIELD, unsigned char*, BUFFER, FLAGS, MAX>;

public:
    static constexpr int K_NO_ID = -1;

    DataFieldPrototype() { DataFieldPrototype::reset(); }

    /// The size that the active packet has; `K_UNKNOWN_SIZE` without one.
    unsigned long get_size() const override { return packet_size(id_); }

    void reset() override {
        Base::reset();
        id_ = K_NO_ID;
        this->assign_size(0);
    }

    /// Selects a packet. False, and nothing changed, for an id that has no row.
    [[nodiscard]] bool set_id(int id) { return (select<Packets>(id) || ...); }
    int id() const noexcept { return id_; }

    unsigned long packet_size(int id) const {
        if (holds<unsigned char*>(id)) {
            return this->size();
        }
        return holds<EmptyDataType>(id) ? 0 : K_UNKNOWN_SIZE;
    }

    /// Whether the active packet has no payload, whatever a length says.
    bool is_empty_packet() const { return holds<EmptyDataType>(id_); }

    DataCopy get_copy() const {
        if (holds<unsigned char*>(id_)) {
            return std::vector<unsigned char>(this->begin(), this->begin() + this->read());
        }
        return holds<EmptyDataType>(id_) ? DataCopy(EmptyDataType{}) : DataCopy();
    }

private:
    template <typename Packet>
    bool select(int id) {
        if (id != Packet::K_ID) {
            return false;
        }
        id_ = id;
        return this->template set_size<typename Packet::Type>(K_UNKNOWN_SIZE);
    }

    template <typename T>
    static bool holds(int id) {
        return ((id == Packets::K_ID && std::is_same_v<T, typename Packets::Type>) || ...);
    }

    int id_ = K_NO_ID;
};

} // namespace proto
