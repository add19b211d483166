// The native side of hermite.distributed: one part of an overlay screen, run on a cluster's
// worker, and `hermite overlay` itself with its database screened in parts by a Python callable
// (which hands them to the cluster) and merged here.

#include <chrono>
#include <climits>
#include <iostream>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include <unistd.h>

#include <pybind11/stl.h>

#include "cli/commands.h"
#include "cli/common.h"
#include "cli/overlay_run.h"
#include "common.h"
#include "screen/screen_parts.h"

namespace hermite::python {

namespace {

/// The plan of the last command line a part was run for, kept so that a worker reads and
/// prepares the queries once for all the parts of a run, not once per part. The caller holds
/// the working-directory lock (see `InDirectory`), under which relative paths are resolved.
std::shared_ptr<const cli::OverlayPlan> PlanFor(const std::vector<std::string>& arguments,
                                                const std::string& directory) {
    static std::vector<std::string> lastArguments;
    static std::string lastDirectory;
    static std::shared_ptr<const cli::OverlayPlan> lastPlan;
    if (lastPlan == nullptr || lastArguments != arguments || lastDirectory != directory) {
        lastPlan = std::make_shared<const cli::OverlayPlan>(cli::PlanOverlay(arguments));
        lastArguments = arguments;
        lastDirectory = directory;
    }
    return lastPlan;
}

/// Runs `work` with the process in `directory`, so that the relative paths of a command line
/// mean on a worker what they mean on the client (the files are read under the same paths,
/// and rows name them as given). Parts of one process run one at a time: the working directory
/// belongs to the whole process, and a part uses all the threads it asks for anyway. A
/// directory that does not exist here leaves the process where it is: relative paths then
/// fail with messages naming them.
template <class Work>
auto InDirectory(const std::string& directory, Work&& work) -> decltype(work()) {
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    struct Restore {
        std::string saved;
        bool moved = false;
        ~Restore() {
            if (moved && ::chdir(saved.c_str()) != 0) {
                std::cerr << "hermite: cannot return to " << saved << "\n";
            }
        }
    } restore;
    char buffer[PATH_MAX];
    if (!directory.empty() && ::getcwd(buffer, sizeof buffer) != nullptr) {
        restore.saved = buffer;
        restore.moved = ::chdir(directory.c_str()) == 0;
    }
    return work();
}

/// The slices of a part from their Python form: (path, first, count or None) tuples.
screen::PartSlices SlicesFrom(const py::list& slices) {
    screen::PartSlices parsed;
    for (py::handle item : slices) {
        const py::tuple slice = py::reinterpret_borrow<py::tuple>(item);
        if (slice.size() != 3) {
            throw py::value_error("a slice is (path, first, count)");
        }
        screen::FileSlice parsedSlice;
        parsedSlice.path = slice[0].cast<std::string>();
        parsedSlice.first = slice[1].cast<std::size_t>();
        parsedSlice.count = slice[2].is_none() ? screen::kNoIndex : slice[2].cast<std::size_t>();
        parsed.push_back(std::move(parsedSlice));
    }
    return parsed;
}

py::list SlicesToPython(const screen::PartSlices& slices) {
    py::list list;
    for (const screen::FileSlice& slice : slices) {
        list.append(py::make_tuple(
            slice.path, slice.first,
            slice.count == screen::kNoIndex ? py::object(py::none()) : py::cast(slice.count)));
    }
    return list;
}

py::bytes ScreenPart(const std::vector<std::string>& arguments, const py::list& slices,
                     const std::string& directory) {
    screen::PartSlices parsed = SlicesFrom(slices);
    const std::string encoded = RunLibrary([&] {
        return InDirectory(directory, [&] {
            try {
                const std::shared_ptr<const cli::OverlayPlan> plan = PlanFor(arguments, directory);
                screen::RunControl control;
                const screen::ScreenPart part =
                    screen::ScreenSlices(plan->queries, std::move(parsed), plan->settings,
                                         plan->rowsWanted, {}, control);
                return screen::EncodeScreenPart(part);
            } catch (const cli::UsageError& error) {
                throw std::invalid_argument(error.what());
            }
        });
    });
    return py::bytes(encoded);
}

/// Screens the plan's database in parts: `distribute(parts)` is called with every part's
/// slices and yields (index, encoded part) pairs in any order as the parts are done.
screen::ScreenReport MergeParts(const cli::OverlayPlan& plan,
                                const screen::ScreenCallbacks& callbacks,
                                screen::RunControl& control, py::handle distribute,
                                std::size_t partSize) {
    const auto start = std::chrono::steady_clock::now();
    const std::vector<screen::PartSlices> parts = screen::SplitIntoParts(
        plan.databasePaths, screen::RequirementsOf(plan.queries, plan.settings), partSize);
    py::list described;
    for (const screen::PartSlices& part : parts) {
        described.append(SlicesToPython(part));
    }
    const std::size_t rankings = plan.settings.perQuery ? plan.queries.titles.size() : 1;
    screen::PartMerger merger(rankings, plan.settings.best, callbacks);
    try {
        for (py::handle item : distribute(described)) {
            const auto [index, bytes] = item.cast<std::pair<std::size_t, py::bytes>>();
            if (index >= parts.size()) {
                throw cli::FatalError("the cluster returned a part that does not exist");
            }
            merger.Add(index, screen::DecodeScreenPart(std::string_view(bytes)));
            if (callbacks.stop && callbacks.stop()) {
                control.Cancel();
                break;
            }
        }
    } catch (py::error_already_set& error) {
        if (!error.matches(PyExc_KeyboardInterrupt)) {
            throw cli::FatalError(std::string("the cluster failed: ") + error.what());
        }
        control.Cancel();
    }
    if (!control.Cancelled() && merger.Merged() < parts.size()) {
        throw cli::FatalError("the cluster returned " + std::to_string(merger.Merged()) + " of " +
                              std::to_string(parts.size()) + " parts");
    }
    screen::ScreenReport report = merger.Finish();
    report.interrupted = report.interrupted || control.Cancelled();
    report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return report;
}

int RunOverlay(const std::vector<std::string>& arguments, py::object distribute,
               std::size_t partSize, const std::string& program) {
    FloatingPointScope mode;
    return cli::RunReportingErrors(program + " overlay: ", [&] {
        const cli::CommandLine line = cli::OverlayParser().Parse(arguments);
        const cli::OverlayScreen screen = [&](const cli::OverlayPlan& plan,
                                              const screen::ScreenCallbacks& callbacks,
                                              screen::RunControl& control) {
            return MergeParts(plan, callbacks, control, distribute, partSize);
        };
        return cli::RunOverlayWith(line, screen, false);
    });
}

}  // namespace

void BindDistributed(py::module_& m) {
    m.def("_screen_part", &ScreenPart, py::arg("arguments"), py::arg("slices"),
          py::arg("directory"),
          R"doc(
Screens one part of the database of ``hermite overlay <arguments>`` (the slices, a list of
(path, first molecule, molecule count or None) tuples) on this machine's threads (--threads),
with relative paths taken from ``directory`` (the client's working directory) when it exists
here, and returns the part encoded as bytes for ``_run_overlay``. Parts of one process run one
at a time; the queries are read once per process for all the parts of one command line. The
GIL is released meanwhile.
)doc");
    m.def("_run_overlay", &RunOverlay, py::arg("arguments"), py::arg("distribute"),
          py::arg("part_size"), py::arg("program"),
          R"doc(
Runs ``hermite overlay <arguments>`` (help, outputs, messages and exit status as the tool's)
with the database split into parts of about ``part_size`` molecules:
``distribute(parts)`` gets each part's slices and yields (index, bytes of _screen_part)
pairs in any order. Returns the exit status. KeyboardInterrupt raised by ``distribute`` stops
the run (status 130, no output written).
)doc");
    m.def(
        "_overlay_help", [] { return cli::OverlayParser().Help(); },
        "The help text of hermite overlay.");
}

}  // namespace hermite::python
