#include "tools/mirelpack/StagedFile.hpp"

#include "tools/mirelpack/PackError.hpp"
#include "tools/mirelpack/durable_files.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace mirelpack {

namespace {

constexpr unsigned K_MODE = 0644;

unsigned current_umask() {
    mode_t const mask = umask(0);
    umask(mask);
    return mask;
}

} // namespace

StagedFile::StagedFile(std::string folder)
    : folder_(std::move(folder)), file_(tessaron::open_file(folder_, O_TMPFILE | O_RDWR, K_MODE)) {
    if (file_.is_open()) {
        return;
    }
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT) {
        throw system_error("cannot write into " + folder_);
    }
    name_ = folder_ + "/" + std::string(K_PREFIX) + "XXXXXX";
    file_.reset(mkostemp(name_.data(), O_CLOEXEC));
    if (!file_.is_open()) {
        name_.clear();
        throw system_error("cannot write into " + folder_);
    }
    fchmod(file_.get(), K_MODE & ~current_umask());
}

StagedFile::~StagedFile() {
    if (!name_.empty()) {
        unlink(name_.c_str());
    }
}

void StagedFile::commit(std::string const& path) {
    if (fsync(file_.get()) != 0) {
        throw system_error("cannot write " + path);
    }
    if (name_.empty()) {
        // A link cannot replace a file, so the file first gets a name of its own.
        std::string const self = "/proc/self/fd/" + std::to_string(file_.get());
        std::string const name = folder_ + "/" + std::string(K_PREFIX) + std::to_string(getpid());
        unlink(name.c_str());
        if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
            throw system_error("cannot write " + path);
        }
        name_ = name;
    }
    if (rename(name_.c_str(), path.c_str()) != 0) {
        throw system_error("cannot write " + path);
    }
    name_.clear();
    sync_directory(folder_);
}

} // namespace mirelpack
