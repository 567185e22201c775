#pragma once

#include "tools/mirelpack/PackError.hpp"
#include "tools/mirelpack/archive_handles.hpp"

#include <cstddef>
#include <exception>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace mirelpack {

/// The bytes are not a sound tar.
class TarError : public PackError {
public:
    using PackError::PackError;
};

struct TarMember {
    std::string path;  ///< The bytes in the tar, whatever their encoding.
    unsigned type = 0; ///< `AE_IFREG` and so on.
    unsigned mode = 0;
    bool is_hard_link = false;
    std::string link_target;
};

/// Reads an uncompressed tar from a stream of bytes, member by member.
///
/// Ownership: the source is called from `next` and `read_data` only, and its own exceptions come
/// out of them unchanged.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `TarError`.
class TarReader {
public:
    /// Puts bytes into the buffer; the number put, 0 at the end.
    using Source = std::function<std::size_t(std::span<char>)>;

    explicit TarReader(Source source);
    TarReader(TarReader const&) = delete;
    TarReader& operator=(TarReader const&) = delete;

    /// The next member, with what is left of the present one's data skipped; nothing at the end.
    std::optional<TarMember> next();
    /// The next bytes of the present member's data; 0 at its end.
    std::size_t read_data(std::span<char> out);

private:
    static la_ssize_t read_callback(archive*, void* self, void const** bytes);
    [[noreturn]] void fail();
    void open();

    Source source_;
    std::vector<char> buffer_;
    std::exception_ptr source_error_;
    bool opened_ = false;
    ReadArchive tar_;
};

} // namespace mirelpack
