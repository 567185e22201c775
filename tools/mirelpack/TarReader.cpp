#include "tools/mirelpack/TarReader.hpp"

#include <cerrno>
#include <utility>

namespace mirelpack {

namespace {

constexpr std::size_t K_BUFFER_SIZE = 256 * 1024;

/// Names of old formats are plain bytes; those of pax headers are UTF-8, which the "C" locale
/// cannot convert.
std::string first_of(char const* bytes, char const* utf8) {
    return bytes != nullptr ? bytes : utf8 != nullptr ? utf8 : "";
}

} // namespace

TarReader::TarReader(Source source)
    : source_(std::move(source)), buffer_(K_BUFFER_SIZE), tar_(archive_read_new()) {
    archive_read_support_format_tar(tar_.get());
}

la_ssize_t TarReader::read_callback(archive* handle, void* self, void const** bytes) {
    auto* const reader = static_cast<TarReader*>(self);
    try {
        *bytes = reader->buffer_.data();
        return static_cast<la_ssize_t>(reader->source_(reader->buffer_));
    } catch (...) {
        reader->source_error_ = std::current_exception();
        archive_set_error(handle, EIO, "the source failed");
        return -1;
    }
}

void TarReader::fail() {
    if (source_error_) {
        std::rethrow_exception(source_error_);
    }
    char const* const text = archive_error_string(tar_.get());
    throw TarError(text != nullptr ? text : "not a tar");
}

void TarReader::open() {
    opened_ = true;
    if (archive_read_open(tar_.get(), this, nullptr, read_callback, nullptr) != ARCHIVE_OK) {
        fail();
    }
}

std::optional<TarMember> TarReader::next() {
    if (!opened_) {
        open();
    }
    archive_entry* entry = nullptr;
    int const result = archive_read_next_header(tar_.get(), &entry);
    if (result == ARCHIVE_EOF) {
        return std::nullopt;
    }
    if (result != ARCHIVE_OK && result != ARCHIVE_WARN) {
        fail();
    }
    TarMember member;
    member.path = first_of(archive_entry_pathname(entry), archive_entry_pathname_utf8(entry));
    member.type = archive_entry_filetype(entry);
    member.mode = archive_entry_perm(entry);
    std::string const hard_link =
        first_of(archive_entry_hardlink(entry), archive_entry_hardlink_utf8(entry));
    member.is_hard_link = !hard_link.empty();
    member.link_target = member.is_hard_link ? hard_link
                                             : first_of(archive_entry_symlink(entry),
                                                        archive_entry_symlink_utf8(entry));
    return member;
}

std::size_t TarReader::read_data(std::span<char> out) {
    la_ssize_t const size = archive_read_data(tar_.get(), out.data(), out.size());
    if (size < 0) {
        fail();
    }
    return static_cast<std::size_t>(size);
}

} // namespace mirelpack
