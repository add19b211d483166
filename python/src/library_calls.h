/// \file
/// Calling the library from the bindings: its error handler routed into Python warnings and
/// exceptions (`Diagnostics`, `ThreadRoute`, `EmitWarnings`), the floating-point mode it
/// computes in (`FloatingPointScope`), and `RunLibrary`, which wraps every call with both.
#pragma once

#include <pybind11/pybind11.h>

#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "screen/library_messages.h"

namespace hermite::python {

namespace py = pybind11;

/// A fatal condition reported by the library through `QVSystem::QVThrow` (routed by the
/// screening engine's `MessageCapture`); Python sees it as `hermite.HermiteError`.
using LibraryError = screen::LibraryError;

/// The warnings reported by the library during one call of the module, from any of the threads
/// working for it. Thread-safe.
class Diagnostics {
public:
    void AddWarning(std::string text);
    /// The warnings in the order they arrived, each distinct text once.
    std::vector<std::string> TakeWarnings();

private:
    std::mutex mutex_;
    std::vector<std::string> warnings_;
};

/// While alive, the library's messages raised in the constructing thread go to `diagnostics`
/// (warnings, when the route ends) or are thrown as `LibraryError` (fatal errors); see
/// `screen::MessageCapture`, which routes them. Threads without a route (code outside the
/// module using the library at the same time) keep the handler they had.
class ThreadRoute {
public:
    explicit ThreadRoute(Diagnostics& diagnostics) : diagnostics_(diagnostics), capture_(raised_) {}
    ~ThreadRoute();
    ThreadRoute(const ThreadRoute&) = delete;
    ThreadRoute& operator=(const ThreadRoute&) = delete;

private:
    Diagnostics& diagnostics_;
    std::vector<std::string> raised_;
    screen::MessageCapture capture_;
};

/// While alive, the calling thread computes with flush-to-zero and denormals-are-zero, the
/// floating-point mode the library is written for (it switches it on in the thread that loads
/// it); the thread's own mode is restored afterwards. Every computation of the module runs
/// inside such a scope, in the calling thread and in worker threads alike, so that results do
/// not depend on the thread that computed them and the interpreter's own mode stays as Python
/// expects it.
class FloatingPointScope {
public:
    FloatingPointScope();
    ~FloatingPointScope();
    FloatingPointScope(const FloatingPointScope&) = delete;
    FloatingPointScope& operator=(const FloatingPointScope&) = delete;

private:
    unsigned int saved_;
};

/// Switches flush-to-zero and denormals-are-zero off in the calling thread (the module does this
/// once on import, undoing what loading the library did to the importing thread).
void RestoreDefaultFloatingPointMode();

/// Issues every collected warning as a `hermite.HermiteWarning` in the calling thread, which
/// must hold the GIL. Throws `py::error_already_set` when a warning filter turns one into an
/// exception.
void EmitWarnings(Diagnostics& diagnostics);

/// The Python class of `hermite.HermiteWarning` (set up by the module).
void SetWarningType(py::handle type);

/// Runs `work` (which must not touch Python objects) with the library's messages routed and in
/// the library's floating-point mode, the GIL released when `releaseGil` is true, then issues
/// the warnings it raised. A fatal error propagates as `LibraryError` after the warnings.
template <class Work>
auto RunLibrary(Work&& work, bool releaseGil = true) -> decltype(work()) {
    using Result = decltype(work());
    Diagnostics diagnostics;
    const auto body = [&]() -> Result {
        ThreadRoute route(diagnostics);
        FloatingPointScope mode;
        return work();
    };
    const auto run = [&]() -> Result {
        if (releaseGil) {
            py::gil_scoped_release release;
            return body();
        }
        return body();
    };
    try {
        if constexpr (std::is_void_v<Result>) {
            run();
            EmitWarnings(diagnostics);
        } else {
            Result result = run();
            EmitWarnings(diagnostics);
            return result;
        }
    } catch (const LibraryError&) {
        EmitWarnings(diagnostics);
        throw;
    }
}

}  // namespace hermite::python
