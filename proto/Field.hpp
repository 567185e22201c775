#pragma once

#include "libraries/vocabulary/CustomSpan.hpp"
#include "proto/FieldFlags.hpp"
#include "proto/FieldName.hpp"
#include "proto/MatchStatus.hpp"

#include <array>

namespace proto {

/// A size that is not known (yet), or not given.
inline constexpr unsigned long K_UNKNOWN_SIZE = ~0UL;

/// What a field's declaration says, as values.
struct FieldDeclaration {
    FieldName name;
    FieldFlags flags;
    unsigned long max;             ///< Largest size in bytes.
    unsigned long fixed_size;      ///< `K_UNKNOWN_SIZE` for a size that each frame settles.
    unsigned char const* constant; ///< `fixed_size` bytes that never differ, or null.
};

/// One field of a frame at run time: where its bytes stand, and how much of it is there.
///
/// The same for all types of fields: `FieldPrototype` adds the type. A field lies in a buffer at an
/// offset that the container gives it when its turn comes, so the fields of a frame stand in the
/// buffer as they stand on the wire. Only a byte-swapped field differs: received, it stands in the
/// order of memory; set for sending, in the order of the wire.
///
/// Ownership: the buffer is the container's user's, and outlives the field.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: bytes that the buffer has no room for are a `Mismatch`, never written.
class Field {
public:
    /// How far `take` got.
    struct Taken {
        MatchStatus status;  ///< `Match`: all bytes are there, and a check may look at them.
        unsigned long count; ///< Bytes of the chunk that are used up.
    };

    explicit Field(FieldDeclaration const& declaration);
    virtual ~Field() = default;
    Field(Field const&) = delete;
    Field& operator=(Field const&) = delete;

    /// The size, at most `max`; `max` while it is unknown.
    virtual unsigned long get_size() const;
    /// Copies `get_size()` bytes into the buffer, in the order of the wire, if the field `fits`.
    virtual void set(void const* source);
    /// As before the first byte of a frame.
    virtual void reset();

    FieldDeclaration const& declaration() const noexcept { return declaration_; }
    bool has(FieldFlags flag) const noexcept { return has_flag(declaration_.flags, flag); }

    /// The buffer that holds the field from now on.
    void attach(tessaron::CustomSpan<unsigned char> bytes) noexcept { buffer_ = bytes; }
    tessaron::CustomSpan<unsigned char> buffer() const noexcept { return buffer_; }
    unsigned long get_offset() const noexcept { return offset_; }
    void set_offset(unsigned long new_offset) noexcept { offset_ = new_offset; }
    unsigned char* get_ptr() const noexcept { return buffer_.data() + offset_; }
    unsigned char* begin() const noexcept { return get_ptr(); }
    tessaron::CustomSpan<unsigned char> bytes() const { return {get_ptr(), get_size()}; }
    /// Whether the size is known and allowed, and the whole field lies within the buffer.
    bool fits() const;

    /// Receives from the front of `chunk`, which is not empty, what the field still lacks. A
    /// constant that differs uses up one byte.
    Taken take(tessaron::CustomSpan<unsigned char> chunk);
    /// How many bytes at the front of `chunk` cannot be where the constant begins, in one go: the
    /// rest of a frame that is not to be received may be long. 0 for a field without a constant.
    unsigned long count_before_constant(tessaron::CustomSpan<unsigned char> chunk) const;
    /// The bytes of the field that were received. A check may give surplus ones back.
    unsigned long read() const noexcept { return read_; }
    void set_read(unsigned long count) noexcept { read_ = count; }

    unsigned long size() const noexcept { return size_; }
    bool is_size_known() const noexcept { return size_ != K_UNKNOWN_SIZE; }
    void assign_size(unsigned long new_size) noexcept { size_ = new_size; }

    Matcher matcher() const noexcept { return matcher_; }
    void set_matcher(Matcher check) noexcept { matcher_ = check; }
    /// 64 bytes for a check's own use between two calls; all zero at the start of a frame.
    unsigned char* scratch() noexcept { return scratch_.data(); }

    /// Writes the constant, or zeroes for a field that has none.
    void apply_const() const;
    /// Prints the field's row of the dump table, the first kind's after the table's head.
    void print() const;

private:
    unsigned long room() const noexcept {
        return offset_ < buffer_.size() ? buffer_.size() - offset_ : 0;
    }
    void store(tessaron::CustomSpan<unsigned char> part);

    FieldDeclaration const declaration_;
    alignas(8) std::array<unsigned char, 64> scratch_{};
    unsigned long read_ = 0;
    Matcher matcher_ = nullptr;
    unsigned long size_;
    unsigned long offset_ = 0;
    tessaron::CustomSpan<unsigned char> buffer_;
};

} // namespace proto
