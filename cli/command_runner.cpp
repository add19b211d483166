// Exit statuses of a command run: its errors reported, standard output checked.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/interrupts.h"

namespace hermite::cli {

namespace {

/// `status`, or `kExitUnusable` after a message when standard output could not be written
/// (a full disk, a closed pipe with SIGPIPE ignored).
int CheckStandardOutput(const std::string& prefix, int status) {
    errno = 0;
    std::cout.flush();
    const bool failed = !std::cout.good() || std::fflush(stdout) != 0 || std::ferror(stdout);
    if (!failed) {
        return status;
    }
    const int error = errno;
    std::cerr << prefix << "cannot write to standard output"
              << (error != 0 ? std::string(": ") + std::strerror(error) : std::string()) << "\n";
    return kExitUnusable;
}

}  // namespace

int RunReportingErrors(const std::string& prefix, const std::function<int()>& body) {
    try {
        return CheckStandardOutput(prefix, body());
    } catch (const UsageError& error) {
        std::cerr << prefix << error.what() << "\n";
        return kExitUsage;
    } catch (const FatalError& error) {
        std::cerr << prefix << error.what() << "\n";
        // A failure caused by a stop request (a wait for a reader cut short) is an interruption.
        return Interrupted() ? kExitInterrupted : kExitUnusable;
    } catch (const std::exception& error) {
        std::cerr << prefix << "error: " << error.what() << "\n";
        return kExitUnusable;
    }
}

}  // namespace hermite::cli
