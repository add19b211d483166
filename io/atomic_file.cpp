// Atomic output files: a temporary file in the destination's directory, renamed when complete.

#include "io/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>
#include <vector>

namespace hermite::io {

namespace {

/// The process umask, read from /proc so that it is not changed even for a moment (calling
/// umask() to read it would race with other threads creating files). 022 if unavailable.
mode_t CurrentUmask() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "Umask:") == 0) {
            return static_cast<mode_t>(std::stoul(line.substr(6), nullptr, 8));
        }
    }
    return 022;
}

/// The mode the committed file gets: that of the file it replaces, else 0666 minus the umask.
mode_t ModeForDestination(const std::string& path) {
    struct stat existing;
    if (::stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
        return existing.st_mode & 07777;
    }
    return 0666 & ~CurrentUmask();
}

}  // namespace

AtomicFile::AtomicFile(const std::string& path) {
    Open(path);
}

AtomicFile::~AtomicFile() {
    CloseAndRemove();
}

AtomicFile::AtomicFile(AtomicFile&& other) noexcept
    : path_(std::move(other.path_)),
      temporaryPath_(std::move(other.temporaryPath_)),
      stream_(std::exchange(other.stream_, nullptr)),
      error_(std::move(other.error_)) {
    other.temporaryPath_.clear();
}

AtomicFile& AtomicFile::operator=(AtomicFile&& other) noexcept {
    if (this != &other) {
        CloseAndRemove();
        path_ = std::move(other.path_);
        temporaryPath_ = std::move(other.temporaryPath_);
        stream_ = std::exchange(other.stream_, nullptr);
        error_ = std::move(other.error_);
        other.temporaryPath_.clear();
    }
    return *this;
}

bool AtomicFile::Open(const std::string& path) {
    CloseAndRemove();
    path_ = path;
    error_.clear();
    std::vector<char> pattern(path.begin(), path.end());
    const char suffix[] = ".tmp-XXXXXX";
    pattern.insert(pattern.end(), suffix, suffix + sizeof(suffix));  // with the terminating 0
    const int descriptor = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (descriptor < 0) {
        Fail("cannot create a temporary file", errno);
        return false;
    }
    temporaryPath_ = pattern.data();
    stream_ = ::fdopen(descriptor, "wb");
    if (stream_ == nullptr) {
        const int errorNumber = errno;
        ::close(descriptor);
        ::unlink(temporaryPath_.c_str());
        temporaryPath_.clear();
        Fail("cannot open the temporary file", errorNumber);
        return false;
    }
    return true;
}

bool AtomicFile::Append(std::string_view data) {
    if (!Ok()) {
        if (error_.empty()) {
            error_ = path_ + ": file is not open";
        }
        return false;
    }
    if (!data.empty() && std::fwrite(data.data(), 1, data.size(), stream_) != data.size()) {
        Fail("cannot write", errno);
        return false;
    }
    return true;
}

bool AtomicFile::Commit() {
    if (!Ok()) {
        if (error_.empty()) {
            error_ = path_ + ": file is not open";
        }
        CloseAndRemove();
        return false;
    }
    const int descriptor = ::fileno(stream_);
    if (std::fflush(stream_) != 0 || ::fsync(descriptor) != 0) {
        Fail("cannot write", errno);
    } else if (::fchmod(descriptor, ModeForDestination(path_)) != 0) {
        Fail("cannot set the file mode", errno);
    }
    const int closed = std::fclose(stream_);
    stream_ = nullptr;
    if (closed != 0 && error_.empty()) {
        Fail("cannot write", errno);
    }
    if (error_.empty() && ::rename(temporaryPath_.c_str(), path_.c_str()) != 0) {
        Fail("cannot rename the temporary file onto the destination", errno);
    }
    if (!error_.empty()) {
        CloseAndRemove();
        return false;
    }
    temporaryPath_.clear();
    return true;
}

void AtomicFile::Discard() {
    CloseAndRemove();
}

void AtomicFile::Fail(const std::string& what, int errorNumber) {
    if (error_.empty()) {
        error_ = path_ + ": " + what + ": " + std::strerror(errorNumber);
    }
}

void AtomicFile::CloseAndRemove() {
    if (stream_ != nullptr) {
        std::fclose(stream_);
        stream_ = nullptr;
    }
    if (!temporaryPath_.empty()) {
        ::unlink(temporaryPath_.c_str());
        temporaryPath_.clear();
    }
}

bool WriteFileAtomically(const std::string& path, std::string_view contents, std::string* error) {
    AtomicFile file(path);
    const bool written = file.Append(contents) && file.Commit();
    if (!written && error != nullptr) {
        *error = file.Error();
    }
    return written;
}

}  // namespace hermite::io
