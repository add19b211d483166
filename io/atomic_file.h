/// \file
/// Files that appear complete or not at all.
///
/// Every output of the tools (SD files, score tables, JSON, density maps) is written to a
/// temporary file next to its destination, `<path>.tmp-XXXXXX`, and renamed onto the destination
/// only when it is complete. A run that stops half-way therefore never leaves a truncated
/// output: the destination keeps its previous contents (or stays absent), and the temporary file
/// is removed when the writer is destroyed without being committed.
///
/// Thread safety: an `AtomicFile` must be used by one thread at a time; distinct objects are
/// independent. `WriteFileAtomically` may be called from any thread.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace hermite::io {

/// A file under construction: data are appended to a temporary file in the destination's
/// directory, which `Commit` renames onto the destination.
///
/// The committed file gets the mode of the file it replaces, or 0666 minus the process umask
/// when the destination is new.
class AtomicFile {
public:
    /// A closed object: `Ok()` is false until `Open` succeeds.
    AtomicFile() = default;
    /// Opens a temporary file for `path` (see `Open`).
    explicit AtomicFile(const std::string& path);
    /// Removes the temporary file unless `Commit` succeeded.
    ~AtomicFile();

    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    AtomicFile(AtomicFile&& other) noexcept;
    AtomicFile& operator=(AtomicFile&& other) noexcept;

    /// Creates the temporary file `path + ".tmp-XXXXXX"`, discarding any file this object had
    /// open. Returns false, with the reason in `Error()`, when it cannot be created (missing
    /// directory, no permission, ...).
    bool Open(const std::string& path);

    /// Appends `data`. Returns false once any write has failed; the error is kept in `Error()`
    /// and `Commit` will fail.
    bool Append(std::string_view data);

    /// Flushes the data to disk and renames the temporary file onto the destination. Returns
    /// false, and removes the temporary file, when anything failed; the destination is then
    /// untouched. The object is closed afterwards either way.
    bool Commit();

    /// Closes and removes the temporary file without touching the destination.
    void Discard();

    /// True while a temporary file is open and no write has failed.
    bool Ok() const { return stream_ != nullptr && error_.empty(); }
    /// Why the last operation failed (empty when none did).
    const std::string& Error() const { return error_; }
    /// The destination path.
    const std::string& Path() const { return path_; }
    /// The temporary file's path while one is open, else empty.
    const std::string& TemporaryPath() const { return temporaryPath_; }

private:
    void Fail(const std::string& what, int errorNumber);
    void CloseAndRemove();

    std::string path_;
    std::string temporaryPath_;
    std::FILE* stream_ = nullptr;
    std::string error_;
};

/// Writes `contents` to `path` through an `AtomicFile`. Returns false, with a message naming the
/// path in `*error` (when `error` is not null), if any step failed; the destination is then
/// unchanged.
bool WriteFileAtomically(const std::string& path, std::string_view contents, std::string* error);

}  // namespace hermite::io
