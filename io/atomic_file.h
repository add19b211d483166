/// \file
/// Files that appear complete or not at all.
///
/// Every output of the tools (SD files, score tables, JSON, density maps) is written to a
/// temporary file next to its destination, `<path>.tmp-XXXXXX`, and renamed onto the destination
/// only when it is complete. A run that stops half-way therefore never leaves a truncated
/// output: the destination keeps its previous contents (or stays absent), and the temporary file
/// is removed when the writer is destroyed without being committed.
///
/// What is at the destination decides how it is replaced:
/// - a regular file, or nothing: the temporary file is renamed onto it;
/// - a symbolic link (or a chain of them): the file the link finally points to is replaced (the
///   temporary file is made beside it) and the link stays a link; a link that points to nothing
///   gets its target created;
/// - a character or block device, a FIFO or a socket: there is nothing to replace, the data are
///   written through to it as a stream (`/dev/stdout`, a named pipe, a terminal). Such an
///   output cannot be withdrawn: what was written before a failure or a `Discard` stays written.
///   A special file is never turned into a regular file.
///
/// A destination whose name ends in ".gz" (any case) is written gzip-compressed.
///
/// Interruption: every temporary file is listed in a process-wide table from its creation until
/// it is committed or removed, so that a signal handler that has to stop the process at once can
/// remove them all with `RemoveTemporaryFilesNow`.
///
/// Thread safety: an `AtomicFile` must be used by one thread at a time; distinct objects are
/// independent. `WriteFileAtomically` may be called from any thread.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace hermite::io {

/// A file under construction: data are appended to a temporary file beside the destination
/// (beside the file a symbolic link points to), which `Commit` renames onto it; or, when the
/// destination is a device, a FIFO or a socket, written straight to it.
///
/// The committed file gets the mode of the file it replaces, or 0666 minus the process umask
/// when the destination is new.
class AtomicFile {
public:
    /// Whether the data are gzip-compressed on their way to the file.
    enum class Compression {
        ByName,  ///< when the destination's name ends in ".gz" (any case)
        None,    ///< never
        Gzip     ///< always
    };

    /// A closed object: `Ok()` is false until `Open` succeeds.
    AtomicFile();
    /// Opens `path` for writing (see `Open`).
    explicit AtomicFile(const std::string& path, Compression compression = Compression::ByName);
    /// Removes the temporary file unless `Commit` succeeded.
    ~AtomicFile();

    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    AtomicFile(AtomicFile&& other) noexcept;
    AtomicFile& operator=(AtomicFile&& other) noexcept;

    /// Prepares writing to `path`, discarding any file this object had open: creates the
    /// temporary file beside the file to replace, or, for a device, FIFO or socket, opens it
    /// for writing (which waits for a FIFO to have a reader, unless `StopWaitingForReaders` was
    /// called). Returns false, with the reason in `Error()`, when that fails (missing
    /// directory, no permission, a directory at the destination, a loop of symbolic links,
    /// ...).
    bool Open(const std::string& path, Compression compression = Compression::ByName);

    /// Appends `data` (compressing it when the file is compressed). Returns false once any
    /// write has failed; the error is kept in `Error()` and `Commit` will fail.
    bool Append(std::string_view data);

    /// Completes the file. For a temporary file: flushes the data to disk and renames the file
    /// onto the destination; when anything failed, returns false and removes the temporary
    /// file, and the destination is untouched. For a file written through: writes what is left
    /// and closes it, returning false when any write failed (a reader that went away, a full
    /// device). Either way the object is closed afterwards and `Error()` says what failed.
    ///
    /// A compressed temporary file that received nothing through `Append` but was written by
    /// name (through `TemporaryPath()`) has the contents found in it compressed now.
    bool Commit();

    /// Closes and removes the temporary file without touching the destination. A file written
    /// through is closed as it is (a compressed stream is left unfinished, so that readers see
    /// it as truncated).
    void Discard();

    /// True while the file is open and no write has failed.
    bool Ok() const { return descriptor_ >= 0 && error_.empty(); }
    /// Why the last operation failed (empty when none did).
    const std::string& Error() const { return error_; }
    /// The destination path, as given to `Open`.
    const std::string& Path() const { return path_; }
    /// The file a commit replaces (the destination with its symbolic links followed); empty
    /// when the destination is written through.
    const std::string& TargetPath() const { return target_; }
    /// The temporary file's path while one is open, else empty (also when the destination is
    /// written through: there is then nothing to write by name).
    const std::string& TemporaryPath() const { return temporaryPath_; }
    /// True when the destination is a device, FIFO or socket written through as a stream.
    bool WritesThrough() const { return writeThrough_; }
    /// True when the data are gzip-compressed.
    bool Compressed() const { return deflater_ != nullptr; }

private:
    struct Deflater;

    bool OpenWriteThrough(unsigned int fileType);
    bool OpenTemporary();
    bool Deflate(const char* data, std::size_t size, bool finish);
    bool Output(const char* data, std::size_t size);
    bool FlushOutput();
    bool CompressWrittenContents();
    void Fail(const std::string& what, int errorNumber);
    void CloseAndRemove();

    std::string path_;
    std::string target_;
    std::string temporaryPath_;
    int descriptor_ = -1;
    /// This object's entry in the table of temporary files (-1: none).
    int registration_ = -1;
    bool writeThrough_ = false;
    /// True once `Append` fed data to the compressor.
    bool appended_ = false;
    /// Bytes waiting to be written to `descriptor_`.
    std::string pending_;
    std::unique_ptr<Deflater> deflater_;
    std::string error_;
};

/// Writes `contents` to `path` through an `AtomicFile`. Returns false, with a message naming the
/// path in `*error` (when `error` is not null), if any step failed; the destination is then
/// unchanged (unless it is written through, see `AtomicFile`).
bool WriteFileAtomically(const std::string& path, std::string_view contents, std::string* error);

/// Makes every `Open` of a FIFO that is waiting for a reader, now or later in the process, give
/// up and fail. Async-signal-safe: for the handler of a signal that asks the process to stop.
void StopWaitingForReaders() noexcept;

/// Removes every temporary file of every `AtomicFile` of the process that is neither committed
/// nor removed yet. Async-signal-safe (it only reads a fixed table and calls `unlink`), so that a
/// signal handler can call it right before `_exit`; it is meant for that and nothing else: the
/// objects stay open, and committing them afterwards fails.
void RemoveTemporaryFilesNow() noexcept;

}  // namespace hermite::io
