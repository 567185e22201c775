#include "tools/mirelpack/GzipReader.hpp"

#include "tools/mirelpack/PackError.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

namespace mirelpack {

namespace {

constexpr std::size_t K_INPUT_SIZE = 256 * 1024;
constexpr int K_GZIP_WINDOW = 15 + 16; // the largest window, gzip framing only
constexpr Bytef K_GZIP_MAGIC = 0x1f;

} // namespace

GzipReader::GzipReader(std::string const& path)
    : file_(tessaron::open_file(path, O_RDONLY)), input_(K_INPUT_SIZE),
      stream_(std::make_unique<z_stream>()) {
    if (!file_.is_open()) {
        throw system_error("cannot open");
    }
    if (inflateInit2(stream_.get(), K_GZIP_WINDOW) != Z_OK) {
        throw PackError("out of memory");
    }
}

GzipReader::~GzipReader() {
    inflateEnd(stream_.get());
}

bool GzipReader::refill() {
    ssize_t got = 0;
    do {
        got = ::read(file_.get(), input_.data(), input_.size());
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        throw system_error("cannot read");
    }
    stream_->next_in = reinterpret_cast<Bytef*>(input_.data());
    stream_->avail_in = static_cast<uInt>(got);
    return got > 0;
}

void GzipReader::begin_next_member_or_end() {
    while (stream_->avail_in > 0 || refill()) {
        if (member_seen_ && *stream_->next_in == 0) { // padding
            ++stream_->next_in;
            --stream_->avail_in;
            continue;
        }
        if (*stream_->next_in != K_GZIP_MAGIC) {
            throw PackError(member_seen_ ? "garbage follows the gzip data" : "not a gzip file");
        }
        inflateReset(stream_.get());
        inside_member_ = true;
        return;
    }
    if (!member_seen_) {
        throw PackError("not a gzip file (it is empty)");
    }
    ended_ = true;
}

std::size_t GzipReader::read(std::span<char> out) {
    stream_->next_out = reinterpret_cast<Bytef*>(out.data());
    stream_->avail_out = static_cast<uInt>(out.size());
    while (stream_->avail_out == out.size() && !ended_) {
        if (!inside_member_) {
            begin_next_member_or_end();
            continue;
        }
        if (stream_->avail_in == 0 && !refill()) {
            throw PackError("the gzip data ends too early (a truncated file)");
        }
        int const result = inflate(stream_.get(), Z_NO_FLUSH);
        if (result == Z_STREAM_END) {
            member_seen_ = true;
            inside_member_ = false;
        } else if (result != Z_OK) {
            std::string const detail = stream_->msg != nullptr ? stream_->msg : "unexpected data";
            throw PackError((member_seen_ || stream_->total_out > 0 ? "damaged gzip data: "
                                                                    : "not a gzip file: ") +
                            detail);
        }
    }
    return out.size() - stream_->avail_out;
}

} // namespace mirelpack
