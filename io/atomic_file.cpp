// Atomic output files: a temporary file beside the file to replace, renamed when complete;
// devices, FIFOs and sockets written through; gzip compression by name; a signal-safe table of
// the temporary files.

#include "io/atomic_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <utility>
#include <vector>

namespace hermite::io {

namespace {

// ---------------------------------------------------------------------------------------------
// The table of temporary files
//
// A signal handler may run in any thread at any moment, while other threads create, commit and
// remove files: it must neither allocate nor take a lock, nor read a path that is being freed
// or rewritten. The table is therefore a fixed array whose slots hold their path in place, and
// each slot's state is an atomic that hands the slot from one owner to the next.

constexpr int kRegistrySlots = 128;
constexpr std::size_t kRegistryPathBytes = 4096;

enum SlotState : int {
    kSlotFree,        ///< unused
    kSlotFilling,     ///< claimed by a registration that is copying its path in
    kSlotRegistered,  ///< holds the path of a live temporary file
    kSlotRemoving     ///< the path is being unlinked by `RemoveTemporaryFilesNow`
};

struct RegistrySlot {
    std::atomic<int> state{kSlotFree};
    char path[kRegistryPathBytes];
};

static_assert(std::atomic<int>::is_always_lock_free,
              "the table of temporary files is read from signal handlers");

RegistrySlot registry[kRegistrySlots];

/// Lists `path`; returns its slot, or -1 when the table is full or the path too long (the file
/// is then still removed by its object, only not by `RemoveTemporaryFilesNow`).
int Register(const std::string& path) {
    if (path.size() >= kRegistryPathBytes) {
        return -1;
    }
    for (int slot = 0; slot < kRegistrySlots; ++slot) {
        int expected = kSlotFree;
        if (registry[slot].state.compare_exchange_strong(expected, kSlotFilling)) {
            std::memcpy(registry[slot].path, path.c_str(), path.size() + 1);
            registry[slot].state.store(kSlotRegistered);
            return slot;
        }
    }
    return -1;
}

/// Frees the slot of a temporary file that was renamed or removed. Waits while a signal
/// handler in another thread is unlinking that path, so that the slot is not reused under it.
void Unregister(int slot) {
    if (slot < 0) {
        return;
    }
    for (;;) {
        int expected = kSlotRegistered;
        if (registry[slot].state.compare_exchange_strong(expected, kSlotFree) ||
            expected != kSlotRemoving) {
            return;
        }
        ::sched_yield();
    }
}

/// Set by `StopWaitingForReaders`.
std::atomic<bool> stopWaiting{false};

static_assert(std::atomic<bool>::is_always_lock_free, "set from signal handlers");

// ---------------------------------------------------------------------------------------------
// Writing

/// Keeps a broken pipe from killing the process while a stream is written: SIGPIPE is blocked
/// in the calling thread for the object's lifetime, and one raised by a write that failed with
/// EPIPE is taken off the thread again, so that the failure comes back as an error to report.
/// Processes that ignore SIGPIPE (the tool does) are not affected.
class BrokenPipeGuard {
public:
    BrokenPipeGuard() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigemptyset(&pending);
        // A SIGPIPE already pending belongs to someone else: leave it, and ours, alone.
        active_ = ::sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 0 &&
                  ::pthread_sigmask(SIG_BLOCK, &pipe_, &previous_) == 0;
    }
    ~BrokenPipeGuard() {
        if (!active_) {
            return;
        }
        const int savedErrno = errno;
        if (brokenPipe_) {
            const timespec noWait = {0, 0};
            while (::sigtimedwait(&pipe_, nullptr, &noWait) < 0 && errno == EINTR) {
            }
        }
        ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
        errno = savedErrno;
    }
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

    /// Records that a write failed with EPIPE.
    void NoteBrokenPipe() { brokenPipe_ = true; }

private:
    sigset_t pipe_;
    sigset_t previous_;
    bool active_ = false;
    bool brokenPipe_ = false;
};

/// Writes all of `size` bytes, resuming after interruptions and short writes. Returns 0, or
/// the errno of the write that failed.
int WriteAll(int descriptor, const char* data, std::size_t size) {
    BrokenPipeGuard guard;
    while (size > 0) {
        const ssize_t written = ::write(descriptor, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int errorNumber = errno;
            if (errorNumber == EPIPE) {
                guard.NoteBrokenPipe();
            }
            return errorNumber;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

/// Bytes collected before they are written.
constexpr std::size_t kOutputBufferBytes = 256 * 1024;

/// True when `path` ends in ".gz", in any case.
bool HasGzipSuffix(const std::string& path) {
    if (path.size() < 3) {
        return false;
    }
    const std::string_view suffix(path.data() + path.size() - 3, 3);
    return suffix[0] == '.' && std::tolower(static_cast<unsigned char>(suffix[1])) == 'g' &&
           std::tolower(static_cast<unsigned char>(suffix[2])) == 'z';
}

/// Devices, FIFOs and sockets: files that are not replaced but written to.
bool IsSpecialFile(mode_t mode) {
    return S_ISCHR(mode) || S_ISBLK(mode) || S_ISFIFO(mode) || S_ISSOCK(mode);
}

/// The file `path` finally names: its symbolic links followed, one after the other, to the
/// first name that is not a link (which need not exist). Returns 0, or ELOOP for a chain that
/// does not end.
int FollowLinks(const std::string& path, std::string* target) {
    // The kernel's own limit on links followed in one lookup.
    constexpr int kMaxLinks = 40;
    std::string current = path;
    for (int followed = 0; followed <= kMaxLinks; ++followed) {
        struct stat status;
        if (::lstat(current.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) {
            // Absent (a dangling link's target is created), or a file to replace; any other
            // failure is reported by the steps that follow, with this name.
            *target = current;
            return 0;
        }
        std::vector<char> contents(static_cast<std::size_t>(status.st_size) + 2);
        ssize_t length = 0;
        for (;;) {
            length = ::readlink(current.c_str(), contents.data(), contents.size());
            if (length < 0 || static_cast<std::size_t>(length) < contents.size()) {
                break;
            }
            contents.resize(contents.size() * 2);  // the link changed under us: read it again
        }
        if (length < 0) {
            *target = current;
            return 0;
        }
        std::string link(contents.data(), static_cast<std::size_t>(length));
        if (!link.empty() && link[0] != '/') {
            const std::size_t slash = current.rfind('/');
            if (slash != std::string::npos) {
                link = current.substr(0, slash + 1) + link;
            }
        }
        current = std::move(link);
    }
    return ELOOP;
}

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

/// Makes a rename in the directory of `path` durable. Best effort: the data themselves were
/// synced before the rename, and the previous file stays intact until this one replaces it.
void SyncDirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string directory =
        slash == std::string::npos ? std::string(".") : path.substr(0, slash == 0 ? 1 : slash);
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

/// Creates a new temporary file `base + ".tmp-XXXXXX"` and lists it in the table. Returns its
/// descriptor, or -1 with errno set.
int CreateTemporary(const std::string& base, std::string* temporaryPath, int* registration) {
    std::vector<char> pattern(base.begin(), base.end());
    const char suffix[] = ".tmp-XXXXXX";
    pattern.insert(pattern.end(), suffix, suffix + sizeof(suffix));  // with the terminating 0
    const int descriptor = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (descriptor < 0) {
        return -1;
    }
    *temporaryPath = pattern.data();
    *registration = Register(*temporaryPath);
    return descriptor;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// AtomicFile

/// The gzip compressor of a compressed file.
struct AtomicFile::Deflater {
    z_stream stream{};
    bool initialised = false;

    Deflater() {
        // 15 + 16: the largest window, with a gzip header and trailer (no name, time 0, so that
        // the same data give the same bytes).
        initialised = ::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8,
                                     Z_DEFAULT_STRATEGY) == Z_OK;
    }
    ~Deflater() {
        if (initialised) {
            ::deflateEnd(&stream);
        }
    }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;
};

AtomicFile::AtomicFile() = default;

AtomicFile::AtomicFile(const std::string& path, Compression compression) {
    Open(path, compression);
}

AtomicFile::~AtomicFile() {
    CloseAndRemove();
}

AtomicFile::AtomicFile(AtomicFile&& other) noexcept
    : path_(std::move(other.path_)),
      target_(std::move(other.target_)),
      temporaryPath_(std::move(other.temporaryPath_)),
      descriptor_(std::exchange(other.descriptor_, -1)),
      registration_(std::exchange(other.registration_, -1)),
      writeThrough_(std::exchange(other.writeThrough_, false)),
      appended_(std::exchange(other.appended_, false)),
      pending_(std::move(other.pending_)),
      deflater_(std::move(other.deflater_)),
      error_(std::move(other.error_)) {
    other.temporaryPath_.clear();
    other.target_.clear();
    other.pending_.clear();
}

AtomicFile& AtomicFile::operator=(AtomicFile&& other) noexcept {
    if (this != &other) {
        CloseAndRemove();
        path_ = std::move(other.path_);
        target_ = std::move(other.target_);
        temporaryPath_ = std::move(other.temporaryPath_);
        descriptor_ = std::exchange(other.descriptor_, -1);
        registration_ = std::exchange(other.registration_, -1);
        writeThrough_ = std::exchange(other.writeThrough_, false);
        appended_ = std::exchange(other.appended_, false);
        pending_ = std::move(other.pending_);
        deflater_ = std::move(other.deflater_);
        error_ = std::move(other.error_);
        other.temporaryPath_.clear();
        other.target_.clear();
        other.pending_.clear();
    }
    return *this;
}

bool AtomicFile::Open(const std::string& path, Compression compression) {
    CloseAndRemove();
    path_ = path;
    error_.clear();
    if (compression == Compression::Gzip ||
        (compression == Compression::ByName && HasGzipSuffix(path))) {
        deflater_ = std::make_unique<Deflater>();
        if (!deflater_->initialised) {
            deflater_.reset();
            Fail("cannot start the gzip compression", ENOMEM);
            return false;
        }
    }
    struct stat status;
    if (::stat(path.c_str(), &status) == 0) {
        if (IsSpecialFile(status.st_mode)) {
            return OpenWriteThrough(status.st_mode);
        }
        if (S_ISDIR(status.st_mode)) {
            Fail("cannot write", EISDIR);
            return false;
        }
    }
    const int followed = FollowLinks(path, &target_);
    if (followed != 0) {
        target_.clear();
        Fail("cannot follow the symbolic link", followed);
        return false;
    }
    return OpenTemporary();
}

bool AtomicFile::OpenWriteThrough(unsigned int fileType) {
    writeThrough_ = true;
    int descriptor = -1;
    if (S_ISSOCK(fileType)) {
        // A socket file is connected to, not opened.
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path_.size() >= sizeof(address.sun_path)) {
            Fail("cannot connect to the socket", ENAMETOOLONG);
            return false;
        }
        std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
        descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (descriptor >= 0 && ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address),
                                         sizeof(address)) != 0) {
            const int errorNumber = errno;
            ::close(descriptor);
            Fail("cannot connect to the socket", errorNumber);
            return false;
        }
    } else if (S_ISFIFO(fileType)) {
        // Opening a FIFO for writing waits for a reader, and a blocking open() would be resumed
        // after every signal, so that an interrupted run could not stop while it waits. The
        // open is therefore tried without blocking until a reader comes, or until
        // `StopWaitingForReaders` gives up.
        for (;;) {
            descriptor = ::open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (descriptor >= 0 || (errno != EINTR && errno != ENXIO)) {
                break;
            }
            if (errno == ENXIO) {
                if (stopWaiting.load()) {
                    Fail("stopped while waiting for a reader", EINTR);
                    return false;
                }
                const timespec pause = {0, 20 * 1000 * 1000};
                ::nanosleep(&pause, nullptr);
            }
        }
        if (descriptor >= 0) {
            const int flags = ::fcntl(descriptor, F_GETFL);
            if (flags < 0 || ::fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) != 0) {
                const int errorNumber = errno;
                ::close(descriptor);
                Fail("cannot open for writing", errorNumber);
                return false;
            }
        }
    } else {
        // No O_TRUNC: there is nothing to truncate in a device.
        do {
            descriptor = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
        } while (descriptor < 0 && errno == EINTR);
    }
    if (descriptor < 0) {
        Fail("cannot open for writing", errno);
        return false;
    }
    descriptor_ = descriptor;
    return true;
}

bool AtomicFile::OpenTemporary() {
    descriptor_ = CreateTemporary(target_, &temporaryPath_, &registration_);
    if (descriptor_ < 0) {
        Fail("cannot create a temporary file", errno);
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
    if (data.empty()) {
        return true;
    }
    if (deflater_ != nullptr) {
        appended_ = true;
        return Deflate(data.data(), data.size(), false);
    }
    return Output(data.data(), data.size());
}

bool AtomicFile::Deflate(const char* data, std::size_t size, bool finish) {
    z_stream& stream = deflater_->stream;
    unsigned char buffer[64 * 1024];
    do {
        // zlib counts in unsigned int: feed large blocks in parts.
        const std::size_t part = std::min<std::size_t>(size, UINT_MAX);
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
        stream.avail_in = static_cast<uInt>(part);
        data += part;
        size -= part;
        const int flush = finish && size == 0 ? Z_FINISH : Z_NO_FLUSH;
        int status = Z_OK;
        do {
            stream.next_out = buffer;
            stream.avail_out = sizeof(buffer);
            status = ::deflate(&stream, flush);
            if (status == Z_STREAM_ERROR) {
                Fail("cannot compress", EIO);
                return false;
            }
            const std::size_t produced = sizeof(buffer) - stream.avail_out;
            if (produced > 0 && !Output(reinterpret_cast<const char*>(buffer), produced)) {
                return false;
            }
        } while (stream.avail_out == 0 || (flush == Z_FINISH && status != Z_STREAM_END));
    } while (size > 0);
    return true;
}

bool AtomicFile::Output(const char* data, std::size_t size) {
    pending_.append(data, size);
    return pending_.size() < kOutputBufferBytes || FlushOutput();
}

bool AtomicFile::FlushOutput() {
    const int errorNumber = WriteAll(descriptor_, pending_.data(), pending_.size());
    pending_.clear();
    if (errorNumber != 0) {
        Fail("cannot write", errorNumber);
        return false;
    }
    return true;
}

bool AtomicFile::CompressWrittenContents() {
    // The data went to the temporary file by name, uncompressed: compress them into a second
    // temporary file, which then takes the first one's place.
    const int source = descriptor_;
    const std::string sourcePath = temporaryPath_;
    const int sourceRegistration = registration_;
    std::string compressedPath;
    int compressedRegistration = -1;
    const int compressed = CreateTemporary(target_, &compressedPath, &compressedRegistration);
    if (compressed < 0) {
        Fail("cannot create a temporary file", errno);
        return false;
    }
    descriptor_ = compressed;
    temporaryPath_ = compressedPath;
    registration_ = compressedRegistration;
    std::vector<char> buffer(kOutputBufferBytes);
    off_t offset = 0;
    bool ok = true;
    for (;;) {
        const ssize_t got = ::pread(source, buffer.data(), buffer.size(), offset);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            Fail("cannot read the temporary file back", errno);
            ok = false;
            break;
        }
        if (got == 0) {
            break;
        }
        offset += got;
        if (!Deflate(buffer.data(), static_cast<std::size_t>(got), false)) {
            ok = false;
            break;
        }
    }
    ::close(source);
    ::unlink(sourcePath.c_str());
    Unregister(sourceRegistration);
    return ok;
}

bool AtomicFile::Commit() {
    if (!Ok()) {
        if (error_.empty()) {
            error_ = path_ + ": file is not open";
        }
        CloseAndRemove();
        return false;
    }
    {
        // Written by name when nothing came through Append but the file is not empty.
        struct stat status;
        if (deflater_ != nullptr && !appended_ && !writeThrough_ &&
            ::fstat(descriptor_, &status) == 0 && status.st_size > 0) {
            CompressWrittenContents();
        }
    }
    if (error_.empty() && deflater_ != nullptr) {
        Deflate(nullptr, 0, true);
    }
    if (error_.empty()) {
        FlushOutput();
    }
    if (!writeThrough_) {
        if (error_.empty() && ::fsync(descriptor_) != 0) {
            Fail("cannot write", errno);
        } else if (error_.empty() && ::fchmod(descriptor_, ModeForDestination(target_)) != 0) {
            Fail("cannot set the file mode", errno);
        }
    }
    const int closed = ::close(descriptor_);
    descriptor_ = -1;
    if (closed != 0 && errno != EINTR) {
        Fail("cannot write", errno);
    }
    if (writeThrough_) {
        deflater_.reset();
        writeThrough_ = false;
        return error_.empty();
    }
    if (error_.empty() && ::rename(temporaryPath_.c_str(), target_.c_str()) != 0) {
        Fail("cannot rename the temporary file onto the destination", errno);
    }
    if (!error_.empty()) {
        CloseAndRemove();
        return false;
    }
    SyncDirectoryOf(target_);
    temporaryPath_.clear();
    Unregister(std::exchange(registration_, -1));
    deflater_.reset();
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
    if (descriptor_ >= 0) {
        // Nothing more is written: a stream written through stays as far as it got.
        ::close(descriptor_);
        descriptor_ = -1;
    }
    if (!temporaryPath_.empty()) {
        // Removed before it leaves the table, so that a signal in between cannot orphan it.
        ::unlink(temporaryPath_.c_str());
        temporaryPath_.clear();
    }
    Unregister(std::exchange(registration_, -1));
    pending_.clear();
    deflater_.reset();
    writeThrough_ = false;
    appended_ = false;
    target_.clear();
}

bool WriteFileAtomically(const std::string& path, std::string_view contents, std::string* error) {
    AtomicFile file(path);
    const bool written = file.Append(contents) && file.Commit();
    if (!written && error != nullptr) {
        *error = file.Error();
    }
    return written;
}

void StopWaitingForReaders() noexcept {
    stopWaiting.store(true);
}

void RemoveTemporaryFilesNow() noexcept {
    const int savedErrno = errno;
    for (RegistrySlot& slot : registry) {
        int expected = kSlotRegistered;
        if (slot.state.compare_exchange_strong(expected, kSlotRemoving)) {
            ::unlink(slot.path);
            slot.state.store(kSlotRegistered);
        }
    }
    errno = savedErrno;
}

}  // namespace hermite::io
