// Signal handlers that stop a run: the first signal winds it down, a second one ends it at once.

#include "cli/interrupts.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "cli/exit_status.h"
#include "io/atomic_file.h"

namespace hermite::cli {

namespace {

/// Set by the signal handler.
std::atomic<bool> interrupted{false};

/// The first SIGINT, SIGTERM or SIGHUP asks the run to stop: it winds down, discards its
/// outputs and exits with 130. A second one means the user will not wait for that: the
/// temporary files of the outputs are removed right here and the process ends at once. Only
/// async-signal-safe calls (atomic stores and exchanges, unlink, _exit).
extern "C" void OnInterrupt(int) {
    if (interrupted.exchange(true)) {
        io::RemoveTemporaryFilesNow();
        ::_exit(kExitInterrupted);
    }
    // An output FIFO without a reader must not keep the run from stopping.
    io::StopWaitingForReaders();
}

}  // namespace

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    // Interrupted system calls resume; the handler is not re-entered by the other signals.
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&action.sa_mask, number);
    }
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        ::sigaction(number, &action, nullptr);
    }
    // A reader that goes away (a closed pipe, `| head`) makes writes fail with EPIPE, which are
    // reported like any other write error, instead of killing the process with its temporary
    // files left behind.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ::sigaction(SIGPIPE, &ignore, nullptr);
}

bool Interrupted() {
    return interrupted.load();
}

}  // namespace hermite::cli
