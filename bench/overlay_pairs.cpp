// All-against-all overlays of the molecules of one SD file on one thread: overlays per second
// and the mean exact shape Tanimoto of the poses, for the quality-versus-speed comparisons of
// bench/compare_overlay.py. With --score, scores given poses instead of overlaying.
//
// Usage:
//   overlay_pairs FILE.sdf [--order N] [--scan N] [--starts K] [--searches K] [--refine K]
//                 [--refine-iterations I] [--tolerance T] [--lambda L] [--field-atoms A]
//                 [--field-spacing H] [--queries Q] [--repeat R] [--vector-width narrow|wide]
//       overlays every molecule (first conformer) onto every molecule, query-major (with
//       --queries, only the first Q are queries: a screen of each against all; with
//       --vector-width narrow, the kernels run in SSE2 registers even where AVX2 is present,
//       with the same results);
//   overlay_pairs FILE.sdf --score POSES.sdf
//       POSES holds, query-major, the fit of every pair in the pose another tool found; prints
//       the mean exact shape Tanimoto of those poses against the queries of FILE.
// Prints one line of JSON.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "overlay/overlay.h"
#include "overlay/vector_width.h"

namespace {

using hermite::overlay::Query;
using hermite::overlay::Settings;

std::vector<QVChem::QVMol> FirstConformers(const std::string& path) {
    std::vector<QVChem::QVMol> mols;
    for (const hermite::io::Molecule& molecule : hermite::io::ReadAll(path)) {
        mols.push_back(molecule.conformers.front().Mol());
    }
    return mols;
}

/// Every conformer of a file in file order (a poses file has one record per pair).
std::vector<QVChem::QVMol> AllConformers(const std::string& path) {
    std::vector<QVChem::QVMol> mols;
    for (const hermite::io::Molecule& molecule : hermite::io::ReadAll(path)) {
        for (const hermite::io::Conformer& conformer : molecule.conformers) {
            mols.push_back(conformer.Mol());
        }
    }
    return mols;
}

int Usage() {
    std::fprintf(stderr,
                 "usage: overlay_pairs FILE.sdf [--order N] [--scan N] [--starts K] "
                 "[--searches K] [--refine K] [--refine-iterations I] [--tolerance T] "
                 "[--lambda L] [--field-atoms A] [--field-spacing H] [--queries Q] [--repeat R] "
                 "[--vector-width narrow|wide] | FILE.sdf --score POSES.sdf\n");
    return 2;
}

int ScorePoses(const std::vector<QVChem::QVMol>& queries, const std::string& posesPath) {
    const std::vector<QVChem::QVMol> poses = AllConformers(posesPath);
    if (poses.size() != queries.size() * queries.size()) {
        std::fprintf(stderr, "overlay_pairs: %s holds %zu poses, expected %zu\n", posesPath.c_str(),
                     poses.size(), queries.size() * queries.size());
        return 1;
    }
    double sum = 0.0;
    std::size_t next = 0;
    for (const QVChem::QVMol& queryMolecule : queries) {
        const Query query(queryMolecule, Settings());
        for (std::size_t j = 0; j < queries.size(); ++j) {
            sum += query.Score(poses[next++]).scores.shapeTanimoto;
        }
    }
    std::printf("{\"pairs\": %zu, \"mean_shape_tanimoto\": %.6f}\n", poses.size(),
                sum / static_cast<double>(poses.size()));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return Usage();
    }
    hermite::io::SetRDKitLogging(false);
    const std::vector<QVChem::QVMol> mols = FirstConformers(argv[1]);
    Settings settings;
    unsigned int repeat = 1;
    std::size_t queryCount = mols.size();
    for (int i = 2; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (!hasValue) {
            return Usage();
        }
        const std::string option = argv[i];
        const char* value = argv[++i];
        if (option == "--score") {
            return ScorePoses(mols, value);
        } else if (option == "--order") {
            settings.order = static_cast<unsigned int>(std::atoi(value));
        } else if (option == "--lambda") {
            settings.lambda = std::atof(value);
        } else if (option == "--starts") {
            settings.extraStarts = static_cast<unsigned int>(std::atoi(value));
        } else if (option == "--scan") {
            settings.scanRotations = settings.largeScanRotations =
                static_cast<unsigned int>(std::atoi(value));
        } else if (option == "--searches") {
            settings.searchStarts = settings.largeSearchStarts =
                static_cast<unsigned int>(std::atoi(value));
        } else if (option == "--refine") {
            settings.refineCandidates = settings.largeRefineCandidates =
                static_cast<unsigned int>(std::atoi(value));
        } else if (option == "--refine-iterations") {
            settings.refineIterationLimit = static_cast<unsigned int>(std::atoi(value));
        } else if (option == "--queries") {
            queryCount = static_cast<std::size_t>(std::atoll(value));
        } else if (option == "--field-atoms") {
            settings.refineFieldAtoms = static_cast<unsigned int>(std::atoi(value));
        } else if (option == "--field-spacing") {
            settings.refineFieldSpacing = std::atof(value);
        } else if (option == "--tolerance") {
            settings.relativeTolerance = std::atof(value);
        } else if (option == "--repeat") {
            repeat = static_cast<unsigned int>(std::atoi(value));
        } else if (option == "--vector-width" &&
                   (std::strcmp(value, "narrow") == 0 || std::strcmp(value, "wide") == 0)) {
            hermite::overlay::SetKernelVectorWidth(std::strcmp(value, "narrow") == 0
                                                       ? hermite::overlay::VectorWidth::Narrow
                                                       : hermite::overlay::VectorWidth::Wide);
        } else {
            return Usage();
        }
    }
    double best = 1e300;
    double sum = 0.0;
    std::size_t pairs = 0;
    std::size_t hermiteEvaluations = 0;
    std::size_t exactEvaluations = 0;
    for (unsigned int r = 0; r < repeat; ++r) {
        sum = 0.0;
        pairs = 0;
        hermiteEvaluations = exactEvaluations = 0;
        const auto start = std::chrono::steady_clock::now();
        for (std::size_t q = 0; q < std::min(queryCount, mols.size()); ++q) {
            const Query query(mols[q], settings);
            for (const QVChem::QVMol& fit : mols) {
                const hermite::overlay::Result result = query.Overlay(fit);
                sum += result.scores.shapeTanimoto;
                hermiteEvaluations += result.hermiteEvaluations;
                exactEvaluations += result.exactEvaluations;
                ++pairs;
            }
        }
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        best = std::min(best, elapsed.count());
    }
    std::printf(
        "{\"order\": %u, \"extra_starts\": %u, \"refine\": %u, \"pairs\": %zu, "
        "\"seconds\": %.4f, \"overlays_per_second\": %.1f, \"mean_shape_tanimoto\": %.6f, "
        "\"hermite_evaluations_per_overlay\": %.2f, \"exact_evaluations_per_overlay\": %.2f}\n",
        settings.order, settings.extraStarts, settings.refineCandidates, pairs, best,
        static_cast<double>(pairs) / best, sum / static_cast<double>(pairs),
        static_cast<double>(hermiteEvaluations) / static_cast<double>(pairs),
        static_cast<double>(exactEvaluations) / static_cast<double>(pairs));
    return 0;
}
