#pragma once

#include "proto/Field.hpp"

/// What containers with `debug` on print on standard output. A developer's window: nothing here
/// runs on a node as shipped.
namespace proto::detail {

/// A row of the dump table, after the table's head if the field is of kind 0, and before a row for
/// the constant if it is one:
///
///     | FieldName       | Value (Hex)              | Size   | Offset | Is in len  | Is in crc  |
///     | LEN_FIELD       | 0C 00                    | 2      | 16     | FALSE      | TRUE       |
void print_field_row(Field const& field);

/// "Field LEN_FIELD received:  0x0C 0x00": the bytes that came.
void print_field_bytes(Field const& field);

void print_packet_received();
void print_broken_packet_start();
void print_broken_packet_stop();

void print_unknown_type(unsigned long id);
void print_data_size_mismatch(unsigned long id, unsigned long expected, unsigned long calculated);
void print_length_mismatch(unsigned long expected, unsigned long received);
void print_crc_mismatch(unsigned long expected, unsigned long received);
void print_alen_mismatch();

} // namespace proto::detail
