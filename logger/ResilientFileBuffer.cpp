#include "logger/ResilientFileBuffer.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tessaron {
namespace {

constexpr std::size_t K_COPY_BLOCK = 64 * 1024;
constexpr int K_APPEND = O_WRONLY | O_CREAT | O_APPEND;

bool copy_all(int from, int to) {
    std::vector<char> block(K_COPY_BLOCK);
    for (;;) {
        ssize_t const count = ::read(from, block.data(), block.size());
        if (count == 0) {
            return true;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (!write_all(to, {block.data(), static_cast<std::size_t>(count)})) {
            return false;
        }
    }
}

} // namespace

ResilientFileBuffer::ResilientFileBuffer(std::string path) : path_(std::move(path)) {
    reopen();
}

bool ResilientFileBuffer::reopen() {
    file_.reset();
    file_ = open_file(path_, K_APPEND);
    return is_open();
}

bool ResilientFileBuffer::rotate(std::string const& backup_path) {
    file_.reset();
    size_after_write_.reset();
    bool const renamed = std::rename(path_.c_str(), backup_path.c_str()) == 0;
    return reopen() && renamed;
}

bool ResilientFileBuffer::truncate() {
    file_.reset();
    size_after_write_.reset();
    file_ = open_file(path_, K_APPEND | O_TRUNC);
    return is_open();
}

bool ResilientFileBuffer::append_contents_of(std::string const& source_path) {
    UniqueFd const source = open_file(source_path, O_RDONLY);
    struct stat before {};
    if (!source.is_open() || !is_open() || fstat(file_.get(), &before) != 0) {
        return false;
    }
    if (copy_all(source.get(), file_.get())) {
        return true;
    }
    std::ignore = ftruncate(file_.get(), before.st_size); // the best that can still be done
    return false;
}

bool ResilientFileBuffer::write_to_file(std::string_view& bytes) {
    if (!is_open()) {
        return false;
    }
    std::string_view left = bytes;
    while (!left.empty()) {
        ssize_t const count = ::write(file_.get(), left.data(), left.size());
        if (count >= 0) {
            left.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            bytes = left;
            return false;
        }
    }
    // Writing to a deleted file succeeds, and the bytes are gone: nothing is left of this write.
    struct stat now {};
    if (fstat(file_.get(), &now) != 0 || now.st_nlink == 0) {
        return false;
    }
    size_after_write_ = static_cast<std::uint64_t>(now.st_size);
    return true;
}

std::streamsize ResilientFileBuffer::xsputn(char const* bytes, std::streamsize count) {
    if (count < 1) {
        return 0;
    }
    if (!is_open()) {
        reopen();
    }
    std::string_view left(bytes, static_cast<std::size_t>(count));
    if (write_to_file(left) || (reopen() && write_to_file(left))) {
        degraded_ = false;
        return count;
    }
    degraded_ = true;
    size_after_write_.reset();
    auto const unwritten = static_cast<std::streamsize>(left.size());
    return count - unwritten + std::cout.rdbuf()->sputn(left.data(), unwritten);
}

ResilientFileBuffer::int_type ResilientFileBuffer::overflow(int_type character) {
    if (traits_type::eq_int_type(character, traits_type::eof())) {
        return traits_type::not_eof(character);
    }
    char const byte = traits_type::to_char_type(character);
    return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
}

int ResilientFileBuffer::sync() {
    if (is_open()) {
        // Nothing is buffered. Whether the bytes are in the file is what the last write found out.
        if (degraded_) {
            std::cout.flush();
        }
        return 0;
    }
    degraded_ = !reopen();
    if (!degraded_) {
        return 0;
    }
    std::cout.flush();
    return std::cout.good() ? 0 : -1;
}

} // namespace tessaron
