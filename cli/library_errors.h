/// \file
/// The library's error handler while a command runs: `LibraryErrors` prints or collects the
/// warnings the library raises through `QVSystem::QVThrow` and throws its fatal errors as
/// `LibraryError`.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace hermite::cli {

/// A fatal error reported by the library through `QVSystem::QVThrow` (see `LibraryErrors`).
class LibraryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Routes the library's `QVThrow` messages for the lifetime of the object: warnings are printed
/// as "hermite <command>: warning: <text>" (or collected, in threads that set a collector with
/// `CollectWarnings`); fatal errors throw `LibraryError`. The previous handler is restored by
/// the destructor.
class LibraryErrors {
public:
    explicit LibraryErrors(std::string command);
    ~LibraryErrors();
    LibraryErrors(const LibraryErrors&) = delete;
    LibraryErrors& operator=(const LibraryErrors&) = delete;

    /// Makes the warnings raised in the calling thread go to `*sink` (null: print them again).
    static void CollectWarnings(std::vector<std::string>* sink);
};

}  // namespace hermite::cli
