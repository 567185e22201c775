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
    open(0);
}

bool ResilientFileBuffer::open(int extra_flags) {
    file_.reset();
    size_.reset();
    file_ = open_file(path_, O_WRONLY | O_CREAT | O_APPEND | extra_flags);
    struct stat now {};
    if (is_open() && fstat(file_.get(), &now) == 0) {
        size_ = static_cast<std::uint64_t>(now.st_size);
    }
    return is_open();
}

bool ResilientFileBuffer::reopen() {
    reopened_ = true;
    return open(0);
}

bool ResilientFileBuffer::rotate(std::string const& backup_path) {
    confirm();
    file_.reset();
    bool const renamed = std::rename(path_.c_str(), backup_path.c_str()) == 0;
    return open(0) && renamed;
}

bool ResilientFileBuffer::truncate() {
    unconfirmed_.clear();
    return open(O_TRUNC);
}

void ResilientFileBuffer::confirm() {
    if (unconfirmed_.empty()) {
        return;
    }
    std::string lost;
    lost.swap(unconfirmed_);
    struct stat now {};
    if (is_open() && fstat(file_.get(), &now) == 0 && now.st_nlink > 0) {
        size_ = static_cast<std::uint64_t>(now.st_size);
        lost.clear();
        unconfirmed_.swap(lost); // its memory serves the next lines
        return;
    }
    file_.reset();
    std::ignore = put(lost); // the console's refusal is the last word
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
    while (!bytes.empty()) {
        ssize_t const count = ::write(file_.get(), bytes.data(), bytes.size());
        if (count >= 0) {
            auto const written = static_cast<std::size_t>(count);
            unconfirmed_.append(bytes, 0, written);
            bytes.remove_prefix(written);
            size_ = size_.value_or(0) + written;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::streamsize ResilientFileBuffer::put(std::string_view bytes) {
    auto const count = static_cast<std::streamsize>(bytes.size());
    bool const open = is_open() || reopen();
    if (open && (write_to_file(bytes) || (reopen() && write_to_file(bytes)))) {
        degraded_ = false;
        return count;
    }
    degraded_ = true;
    size_.reset();
    auto const unwritten = static_cast<std::streamsize>(bytes.size());
    return count - unwritten + std::cout.rdbuf()->sputn(bytes.data(), unwritten);
}

std::streamsize ResilientFileBuffer::xsputn(char const* bytes, std::streamsize count) {
    if (count < 1) {
        return 0;
    }
    std::streamsize const taken = put({bytes, static_cast<std::size_t>(count)});
    if (unconfirmed_.size() >= K_UNCONFIRMED_LIMIT) {
        confirm();
    }
    return taken;
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
