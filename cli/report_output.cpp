// The report of an overlay run: its files gathered in one directory, then the Python report.

#include "cli/report_output.h"

#include <filesystem>
#include <iostream>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>

#include "cli/density.h"
#include "cli/exit_status.h"
#include "cli/map_writers.h"
#include "cli/text_format.h"
#include "io/atomic_file.h"
#include "io/molecule_io.h"

extern char** environ;

namespace hermite::cli {

namespace {

namespace fs = std::filesystem;

/// The score column the report ranks by.
const char* MetricColumn(screen::RankMetric metric) {
    switch (metric) {
        case screen::RankMetric::Shape:
            return "shape_tanimoto";
        case screen::RankMetric::Combo:
            return "combo";
        case screen::RankMetric::ElectrostaticCombo:
            return "es_combo";
        case screen::RankMetric::TverskyQuery:
            return "tversky_query";
        case screen::RankMetric::TverskyFit:
            return "tversky_fit";
    }
    return "shape_tanimoto";
}

/// Copies `from` to `directory/name` unless it is that file already.
bool CopyInto(const std::string& from, const std::string& directory, const char* name) {
    const fs::path to = fs::path(directory) / name;
    std::error_code error;
    if (fs::exists(to, error) && fs::equivalent(from, to, error)) {
        return true;
    }
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
    if (error) {
        std::cerr << "hermite overlay: cannot copy " << from
                  << " into the report: " << error.message() << "\n";
        return false;
    }
    return true;
}

bool WriteQueryRecords(const screen::QuerySet& queries, const std::string& directory) {
    const std::string path = (fs::path(directory) / "query.sdf").string();
    io::SdfWriter writer(path);
    bool written = writer.Ok();
    for (const screen::QueryConformer& query : queries.conformers) {
        written = written && writer.Write(query.source);
    }
    if (!written || !writer.Commit()) {
        std::cerr << "hermite overlay: cannot write the report's query.sdf: " << writer.Error()
                  << "\n";
        return false;
    }
    return true;
}

/// The map spacing, angstrom: fine enough for a contoured surface, coarse enough that a
/// drug-sized molecule takes well under a megabyte.
constexpr double kMapSpacing = 0.5;

/// Writes the shape density map of `mol` to `path`; false after printing why when it cannot.
bool WriteShapeMap(const QVChem::QVMol& mol, unsigned int order, const std::string& path,
                   const std::string& title) {
    try {
        DensityRequest request;
        request.order = order;
        request.centre = true;
        const Density density = ExpandDensity(mol, request);
        QVSystem::QVScalarGrid grid;
        const MapGeometry geometry = Render(density, kMapSpacing, grid);
        std::string error;
        if (!io::WriteFileAtomically(path, FormatCcp4Map(grid, geometry, title), &error)) {
            std::cerr << "hermite overlay: cannot write the map " << path << ": " << error << "\n";
            return false;
        }
        return true;
    } catch (const std::exception& error) {
        std::cerr << "hermite overlay: no map for " << title << ": " << error.what() << "\n";
        return false;
    }
}

/// The value of data item `name`, or `fallback`.
std::string ItemOr(const io::SdProperties& items, const std::string& name,
                   const std::string& fallback) {
    for (const io::SdProperty& item : items) {
        if (item.first == name) {
            return item.second;
        }
    }
    return fallback;
}

/// "001" for 1: the rank as the report names hit maps.
std::string ThreeDigits(const std::string& rank) {
    return rank.size() >= 3 ? rank : std::string(3 - rank.size(), '0') + rank;
}

/// The maps of the first conformer of every query molecule and of every posed hit, read back
/// from the hits file (so that maps and records agree, however the screen ran).
bool WriteMaps(const ReportRequest& request, const screen::QuerySet& queries) {
    const fs::path directory = fs::path(request.directory) / "maps";
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) {
        std::cerr << "hermite overlay: cannot create " << directory.string() << ": "
                  << error.message() << "\n";
        return false;
    }
    bool written = true;
    for (const screen::QueryConformer& query : queries.conformers) {
        if (query.conformer == 1) {
            const std::string name = "query-" + std::to_string(query.molecule + 1) + ".ccp4";
            written = WriteShapeMap(query.source.Mol(), request.order, (directory / name).string(),
                                    query.source.Title()) &&
                      written;
        }
    }
    io::ReadOptions read = request.read;
    read.computeCharges = false;
    io::MoleculeReader hits((fs::path(request.directory) / "hits.sdf").string(), read);
    io::Molecule molecule;
    unsigned long position = 0;
    while (hits.Next(molecule)) {
        for (const io::Conformer& hit : molecule.conformers) {
            ++position;
            const std::string rank =
                ItemOr(hit.Properties(), "hermite_rank", std::to_string(position));
            written = WriteShapeMap(hit.Mol(), request.order,
                                    (directory / ("hit-" + ThreeDigits(rank) + ".ccp4")).string(),
                                    hit.Title()) &&
                      written;
        }
    }
    return written;
}

/// Runs `arguments` (the program searched on PATH) and waits; its exit status, or -1 when it
/// could not be started or ended by a signal.
int RunAndWait(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

void PrepareReportDirectory(const std::string& directory) {
    std::error_code error;
    fs::create_directories(directory, error);
    if (error || !fs::is_directory(directory)) {
        throw FatalError("cannot create the report directory " + directory + ": " +
                         (error ? error.message() : "not a directory"));
    }
}

bool WriteReport(const ReportRequest& request, const screen::QuerySet& queries,
                 const std::string& hitsPath, const std::string& scoresPath) {
    if (!CopyInto(hitsPath, request.directory, "hits.sdf") ||
        !CopyInto(scoresPath, request.directory, "scores.tsv") ||
        !WriteQueryRecords(queries, request.directory) ||
        (request.maps && !WriteMaps(request, queries))) {
        return false;
    }
    const char* python = std::getenv("HERMITE_PYTHON");
    std::vector<std::string> command = {python != nullptr && *python != '\0' ? python : "python3",
                                        "-m",
                                        "hermite.report",
                                        request.directory,
                                        "--metric",
                                        MetricColumn(request.metric),
                                        "--best",
                                        std::to_string(request.best)};
    if (request.cutoff) {
        command.insert(command.end(), {"--cutoff", FormatExact(*request.cutoff)});
    }
    if (!request.activesPath.empty()) {
        command.insert(command.end(), {"--actives", request.activesPath});
    }
    const int status = RunAndWait(command);
    if (status != 0) {
        std::cerr << "hermite overlay: the report was not made"
                  << (status < 0 ? " (cannot run " + command.front() + ")" : std::string())
                  << "; it needs Python 3 with the hermite module, matplotlib and RDKit "
                     "(set HERMITE_PYTHON to choose the interpreter)\n";
        return false;
    }
    return true;
}

}  // namespace hermite::cli
