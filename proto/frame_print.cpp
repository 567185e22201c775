#include "proto/frame_print.hpp"

#include "libraries/vocabulary/Mutex.hpp"

#include <array>
#include <cstddef>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

namespace proto::detail {

namespace {

constexpr std::array K_WIDTHS{15, 24, 6, 6, 10, 10};
using Row = std::array<std::string, K_WIDTHS.size()>;

/// Writes a text whole, however many threads print.
void print(std::string const& text) {
    static tessaron::Mutex s_mutex;
    tessaron::MutexLock const lock(s_mutex);
    std::cout << text << std::flush;
}

void append_hex(std::ostream& out, unsigned long value, int width) {
    out << std::hex << std::setfill('0') << std::setw(width) << value << std::dec
        << std::setfill(' ');
}

/// "  Received: 12 (0x000000000000000c)", the width being that of the hexadecimal digits.
void append_number(std::ostream& out, char const* what, unsigned long value, int width) {
    out << what << value << " (0x";
    append_hex(out, value, width);
    out << ")\n";
}

std::string hex_bytes(unsigned char const* bytes, unsigned long size, char const* before_each,
                      char const* between) {
    std::ostringstream out;
    out << std::uppercase;
    for (unsigned long i = 0; i < size; ++i) {
        out << (i == 0 ? "" : between) << before_each;
        append_hex(out, bytes[i], 2);
    }
    return std::move(out).str();
}

void append_row(std::ostream& out, Row const& row) {
    char const* before = "| ";
    for (std::size_t i = 0; i < row.size(); ++i) {
        out << before << std::left << std::setw(K_WIDTHS[i]) << row[i];
        before = " | ";
    }
    out << " |\n";
}

} // namespace

void print_field_row(Field const& field) {
    auto const& declared = field.declaration();
    std::ostringstream out;
    if (declared.name == ID_FIELD) {
        append_row(out, {"FieldName", "Value (Hex)", "Size", "Offset", "Is in len", "Is in crc"});
    }
    unsigned long const size = field.fits() ? field.get_size() : 0;
    auto const yes_or_no = [&](FieldFlags flag) { return field.has(flag) ? "TRUE" : "FALSE"; };
    append_row(out, {to_string(declared.name), hex_bytes(field.begin(), size, "", " "),
                     std::to_string(size), std::to_string(field.get_offset()),
                     yes_or_no(FieldFlags::InLen), yes_or_no(FieldFlags::InCrc)});
    if (declared.constant != nullptr) {
        append_row(out, {"ConstValue", hex_bytes(declared.constant, declared.fixed_size, "", " "),
                         "", "", "", ""});
    }
    print(std::move(out).str());
}

void print_field_bytes(Field const& field) {
    print(std::string("Field ") + to_string(field.declaration().name) +
          " received: " + hex_bytes(field.begin(), field.read(), " 0x", "") + "\n");
}

void print_packet_received() {
    print(" \n\n Packet is received!!\n");
}

void print_broken_packet_start() {
    print("-------------BROKEN PACKET START-------------\n");
}

void print_broken_packet_stop() {
    print("-------------BROKEN PACKET STOP-------------\n");
}

void print_unknown_type(unsigned long id) {
    print("\n---------------------------\nIncorrect type received (method CheckType):\n"
          "  Received type id: " +
          std::to_string(id) + "\n");
}

void print_data_size_mismatch(unsigned long id, unsigned long expected, unsigned long calculated) {
    std::ostringstream out;
    out << "Mismatch in data field size (method CheckType):\n";
    append_number(out, "  Received type id: ", id, 16);
    append_number(out, "  Expected size:    ", expected, 16);
    append_number(out, "  Calculated size:  ", calculated, 16);
    out << "---------------------------\n";
    print(std::move(out).str());
}

void print_length_mismatch(unsigned long expected, unsigned long received) {
    std::ostringstream out;
    out << "\nMismatch in length field (method SetDataLen):\n";
    append_number(out, "  Expected: ", expected, 0);
    append_number(out, "  Received: ", received, 0);
    print(std::move(out).str());
}

void print_crc_mismatch(unsigned long expected, unsigned long received) {
    std::ostringstream out;
    out << "\nMismatch in CRC field:\n  Expected: ";
    append_hex(out, expected, 8);
    out << "\n  Received: ";
    append_hex(out, received, 8);
    out << "\n";
    print(std::move(out).str());
}

void print_alen_mismatch() {
    print("\nMismatch in ALEN field:\n");
}

} // namespace proto::detail
