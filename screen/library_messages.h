/// \file
/// The library's messages (`QVSystem::QVThrow`) during a run of the engine: a worker collects
/// the warnings raised while it works on one molecule, and fatal errors unwind as exceptions
/// instead of aborting the process.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace hermite::screen {

/// A fatal error reported by the library while the engine worked on a molecule.
class LibraryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// While alive, the library's messages raised in the constructing thread are routed: warnings
/// are appended to `warnings`, fatal errors are thrown as `LibraryError`. The first capture
/// alive in the process installs the routing handler; the last one to end restores the handler
/// that was there before. Threads without a capture are passed on to that previous handler, so
/// a front end's own handling of the library's messages is untouched. Captures nest.
class MessageCapture {
public:
    explicit MessageCapture(std::vector<std::string>& warnings);
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

private:
    std::vector<std::string>* previous_;
};

}  // namespace hermite::screen
