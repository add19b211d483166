// The hidden commands of hermite.distributed: the coordinator, which runs `hermite overlay`
// with its database screened in parts by the client, and the worker, which screens parts.

#include "cli/cluster_commands.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

#include <unistd.h>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/overlay_run.h"
#include "screen/screen_parts.h"

namespace hermite::cli {

namespace {

/// Frames larger than this are refused: no part of a sane run comes near it, and a corrupt
/// count must not allocate the memory it names.
constexpr std::uint64_t kLargestFrame = std::uint64_t(1) << 36;

/// Writes all of `size` bytes; false when the reader went away.
bool WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

/// Reads exactly `size` bytes; false at the end of the input (or a read error) before them.
bool ReadAll(int fd, char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::read(fd, data, size);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        data += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool WriteFrame(int fd, std::string_view bytes) {
    char header[8];
    std::uint64_t size = bytes.size();
    for (char& byte : header) {
        byte = static_cast<char>(size & 0xFF);
        size >>= 8;
    }
    return WriteAll(fd, header, sizeof header) && WriteAll(fd, bytes.data(), bytes.size());
}

/// The next frame; nothing at the end of the input. Throws `FatalError` for a frame cut short
/// or too large.
std::optional<std::string> ReadFrame(int fd) {
    unsigned char header[8];
    if (!ReadAll(fd, reinterpret_cast<char*>(header), sizeof header)) {
        return std::nullopt;
    }
    std::uint64_t size = 0;
    for (int i = 7; i >= 0; --i) {
        size = (size << 8) | header[i];
    }
    if (size > kLargestFrame) {
        throw FatalError("a frame of " + std::to_string(size) + " bytes from the client");
    }
    std::string bytes(static_cast<std::size_t>(size), '\0');
    if (!ReadAll(fd, bytes.data(), bytes.size())) {
        throw FatalError("the client's input ended inside a frame");
    }
    return bytes;
}

/// A non-negative decimal number of a command line or a frame.
std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t used = 0;
    unsigned long long value = 0;
    try {
        value = std::stoull(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || text[0] == '-') {
        throw UsageError(what + " must be a non-negative integer, got '" + text + "'");
    }
    return static_cast<std::size_t>(value);
}

int FileDescriptor(const std::string& text, const std::string& what) {
    const std::size_t fd = Count(text, what);
    if (fd > INT_MAX) {
        throw UsageError(what + " is not a file descriptor: " + text);
    }
    return static_cast<int>(fd);
}

/// Screens the plan's database in parts: sends their slices on `out`, merges the parts that
/// come back on `in`.
screen::ScreenReport ScreenThroughClient(const OverlayPlan& plan,
                                         const screen::ScreenCallbacks& callbacks,
                                         screen::RunControl& control, int in, int out,
                                         std::size_t partSize) {
    const auto start = std::chrono::steady_clock::now();
    const std::vector<screen::PartSlices> parts = screen::SplitIntoParts(
        plan.databasePaths, screen::RequirementsOf(plan.queries, plan.settings), partSize);
    bool sent = WriteFrame(out, std::to_string(parts.size()));
    for (const screen::PartSlices& part : parts) {
        sent = sent && WriteFrame(out, screen::EncodePartSlices(part));
    }
    if (!sent) {
        throw FatalError("the client stopped reading the parts");
    }
    const std::size_t rankings = plan.settings.perQuery ? plan.queries.titles.size() : 1;
    screen::PartMerger merger(rankings, plan.settings.best, callbacks);
    while (merger.Merged() < parts.size()) {
        const std::optional<std::string> index = ReadFrame(in);
        const std::optional<std::string> part = index ? ReadFrame(in) : std::nullopt;
        if (callbacks.stop && callbacks.stop()) {
            control.Cancel();
            break;
        }
        if (!part) {
            throw FatalError("the cluster returned " + std::to_string(merger.Merged()) + " of " +
                             std::to_string(parts.size()) + " parts");
        }
        const std::size_t at = Count(*index, "a part index");
        if (at >= parts.size()) {
            throw FatalError("the cluster returned a part that does not exist");
        }
        merger.Add(at, screen::DecodeScreenPart(*part));
    }
    screen::ScreenReport report = merger.Finish();
    report.interrupted = report.interrupted || control.Cancelled();
    report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return report;
}

/// The plan of the last command line and directory a part was screened for: the queries are
/// read and prepared once for all the parts of a run.
class PlanCache {
public:
    const OverlayPlan& For(const std::vector<std::string>& arguments,
                           const std::string& directory) {
        if (plan_ == nullptr || arguments_ != arguments || directory_ != directory) {
            plan_.reset();
            plan_ = std::make_unique<const OverlayPlan>(PlanOverlay(arguments));
            arguments_ = arguments;
            directory_ = directory;
        }
        return *plan_;
    }

private:
    std::vector<std::string> arguments_;
    std::string directory_;
    std::unique_ptr<const OverlayPlan> plan_;
};

std::vector<std::string> SplitAtNul(const std::string& joined) {
    std::vector<std::string> parts;
    if (joined.empty()) {
        return parts;
    }
    std::size_t from = 0;
    while (true) {
        const std::size_t nul = joined.find('\0', from);
        parts.push_back(joined.substr(from, nul - from));
        if (nul == std::string::npos) {
            return parts;
        }
        from = nul + 1;
    }
}

/// Moves the worker into `directory` when it exists here, else back where it started.
void EnterDirectory(const std::string& directory, const std::string& home) {
    if (directory.empty() || ::chdir(directory.c_str()) != 0) {
        if (::chdir(home.c_str()) != 0) {
            throw FatalError("cannot return to the directory " + home);
        }
    }
}

/// Screens one requested part; the status and payload of the reply.
std::pair<std::string, std::string> ScreenRequested(PlanCache& plans, const std::string& home,
                                                    const std::string& directory,
                                                    const std::string& slices,
                                                    const std::string& arguments) {
    try {
        EnterDirectory(directory, home);
        const OverlayPlan& plan = plans.For(SplitAtNul(arguments), directory);
        screen::RunControl control;
        const screen::ScreenPart part =
            screen::ScreenSlices(plan.queries, screen::DecodePartSlices(slices), plan.settings,
                                 plan.rowsWanted, {}, control);
        return {"ok", screen::EncodeScreenPart(part)};
    } catch (const UsageError& error) {
        return {"usage", error.what()};
    } catch (const std::exception& error) {
        return {"error", error.what()};
    }
}

}  // namespace

int RunOverlayCoordinator(const std::vector<std::string>& arguments) {
    if (arguments.size() < 4) {
        throw UsageError("usage: hermite " + std::string(kCoordinatorCommand) +
                         " IN_FD OUT_FD PART_SIZE PROGRAM [overlay arguments]");
    }
    const int in = FileDescriptor(arguments[0], "IN_FD");
    const int out = FileDescriptor(arguments[1], "OUT_FD");
    const std::size_t partSize = Count(arguments[2], "PART_SIZE");
    if (partSize == 0) {
        throw UsageError("PART_SIZE must be at least 1");
    }
    const std::string program = arguments[3];
    const std::vector<std::string> overlay(arguments.begin() + 4, arguments.end());
    return RunReportingErrors(program + " overlay: ", [&] {
        const ArgumentParser parser = OverlayParser();
        const CommandLine line = parser.Parse(overlay);
        if (line.HelpRequested()) {
            std::cout << parser.Help();
            return static_cast<int>(kExitOk);
        }
        const OverlayScreen screen = [&](const OverlayPlan& plan,
                                         const screen::ScreenCallbacks& callbacks,
                                         screen::RunControl& control) {
            return ScreenThroughClient(plan, callbacks, control, in, out, partSize);
        };
        return RunOverlayWith(line, screen);
    });
}

int RunOverlayWorker(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        std::cerr << "hermite " << kWorkerCommand << ": takes no arguments\n";
        return kExitUsage;
    }
    // Replies go to the standard output the client reads; anything else written to standard
    // output (by the library or the toolkit) goes to standard error instead.
    const int replies = ::dup(STDOUT_FILENO);
    if (replies < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        std::cerr << "hermite " << kWorkerCommand << ": cannot set up its output\n";
        return kExitUnusable;
    }
    char buffer[PATH_MAX];
    const std::string home = ::getcwd(buffer, sizeof buffer) != nullptr ? buffer : "/";
    PlanCache plans;
    try {
        while (true) {
            const std::optional<std::string> directory = ReadFrame(STDIN_FILENO);
            if (!directory) {
                return kExitOk;
            }
            const std::optional<std::string> slices = ReadFrame(STDIN_FILENO);
            const std::optional<std::string> overlay =
                slices ? ReadFrame(STDIN_FILENO) : std::nullopt;
            if (!overlay) {
                throw FatalError("the request ended early");
            }
            const auto [status, payload] =
                ScreenRequested(plans, home, *directory, *slices, *overlay);
            if (!WriteFrame(replies, status) || !WriteFrame(replies, payload)) {
                return kExitUnusable;
            }
        }
    } catch (const FatalError& error) {
        std::cerr << "hermite " << kWorkerCommand << ": " << error.what() << "\n";
        return kExitUnusable;
    }
}

}  // namespace hermite::cli
