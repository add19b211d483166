/// \file
/// Process-wide error reporting for the platform layer and every library built on it.
///
/// Routines report recoverable conditions with `QVThrow.Warning(...)` and violated
/// preconditions with `QVThrow.Fatal(...)`. Both take printf-style formats. The messages go to
/// one handler for the whole process: by default it prints to standard error; tests and
/// applications install their own with `SetHandler` to collect messages or to turn fatal
/// errors into exceptions.
#pragma once

#include <functional>
#include <mutex>
#include <string>

namespace QVSystem {

/// How serious a reported condition is.
enum class QVSeverity {
    Warning,  ///< recoverable: the routine goes on after reporting
    Fatal,    ///< unrecoverable: the routine does not return
};

/// Receives every message: its severity and the formatted text.
using QVErrorCallback = std::function<void(QVSeverity, const std::string&)>;

/// The process-wide error handler (there is one instance, `QVThrow`).
///
/// Thread safety: all members may be called from any thread. A handler is invoked without any
/// lock held, so it may itself report or replace the handler.
class QVErrorHandler {
public:
    /// Formats a message printf-style and hands it to the handler as a warning.
    void Warning(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// Formats a message printf-style and hands it to the handler as a fatal error. Never
    /// returns: when the handler returns normally, the process is aborted. A handler may throw
    /// to unwind instead.
    [[noreturn]] void Fatal(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// Installs `handler` and returns the previous one. An empty function restores the default,
    /// which writes "Warning: <text>" or "Fatal: <text>" to standard error.
    QVErrorCallback SetHandler(QVErrorCallback handler);

private:
    void Dispatch(QVSeverity severity, const std::string& text);

    std::mutex mutex_;
    QVErrorCallback handler_;
};

/// The one error handler of the process.
extern QVErrorHandler QVThrow;

}  // namespace QVSystem
