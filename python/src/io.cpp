// hermite.read_molecules: molecules from SD, MOL2 and SMILES files through the project's reader.

#include <chrono>
#include <memory>

#include "common.h"
#include "io/molecule_io.h"

namespace hermite::python {

namespace {

/// How long the reader runs without the GIL before the calling thread looks for signals, so
/// that Ctrl-C stops a long read promptly (one molecule is never interrupted).
constexpr std::chrono::milliseconds kSignalInterval(100);

}  // namespace

void BindIo(py::module_& m) {
    m.def(
        "read_molecules",
        [](py::object pathArgument, bool hydrogens, const std::string& charges,
           py::object smilesConformers, py::object seed) {
            const std::string path = PathArgument(pathArgument, "path");
            io::ReadOptions options;
            options.hydrogens = hydrogens;
            const std::optional<io::ChargeModel> model = io::ParseChargeModel(charges);
            if (!model) {
                throw py::value_error("charges must be 'gasteiger', 'mmff' or 'input', got " +
                                      std::string(py::repr(py::str(charges))));
            }
            options.charges = *model;
            options.smilesConformers =
                static_cast<unsigned int>(Integer(smilesConformers, "smiles_conformers", 1, 10000));
            options.seed = static_cast<unsigned int>(Integer(seed, "seed", 0, 4294967295LL));

            // The file is read in slices of about kSignalInterval with the GIL released; between
            // slices the calling thread, holding the GIL and outside the library's
            // floating-point mode, runs Python's signal handlers. KeyboardInterrupt (or whatever
            // a handler raises) ends the read.
            std::unique_ptr<io::MoleculeReader> reader;
            const bool opened = RunLibrary([&] {
                reader = std::make_unique<io::MoleculeReader>(path, options);
                return reader->Ok();
            });
            if (!opened) {
                const std::vector<io::Problem>& problems = reader->Problems();
                const std::string reason =
                    problems.empty() ? path + ": cannot read file" : problems.front().Message();
                PyErr_SetString(PyExc_OSError, Utf8(reason).c_str());
                throw py::error_already_set();
            }
            std::vector<io::Molecule> molecules;
            bool more = true;
            while (more) {
                more = RunLibrary([&] {
                    const auto until = std::chrono::steady_clock::now() + kSignalInterval;
                    io::Molecule molecule;
                    while (reader->Next(molecule)) {
                        molecules.push_back(std::move(molecule));
                        if (std::chrono::steady_clock::now() >= until) {
                            return true;
                        }
                    }
                    return false;
                });
                if (PyErr_CheckSignals() != 0) {
                    throw py::error_already_set();
                }
            }
            for (const io::Problem& problem : reader->Problems()) {
                Diagnostics diagnostics;
                diagnostics.AddWarning(problem.Message());
                EmitWarnings(diagnostics);
            }
            py::list result;
            for (const io::Molecule& molecule : molecules) {
                for (const io::Conformer& conformer : molecule.conformers) {
                    result.append(MoleculeObject{conformer.Mol()});
                }
            }
            return result;
        },
        py::arg("path"), py::kw_only(), py::arg("hydrogens") = false,
        py::arg("charges") = "gasteiger", py::arg("smiles_conformers") = 10, py::arg("seed") = 42,
        R"doc(
Reads the conformers of every molecule of an SD, MOL2 or SMILES file (optionally gzipped), in
file order, each as a hermite.Molecule titled like its record. Consecutive SD records with the
same title and constitution are conformers of one molecule; SMILES are embedded in 3-D
(``smiles_conformers`` conformers each, seeded by ``seed``).

Records that cannot be used are skipped with a hermite.HermiteWarning each; a file that cannot
be opened raises OSError. Ctrl-C interrupts the reading (between molecules) with
KeyboardInterrupt.

Titles are decoded as UTF-8; a title that is not valid UTF-8 is decoded as Latin-1 instead (the
whole title), so files written in Latin-1 read without errors and their titles show as intended.
The same holds for the titles in warning and error messages.

Args:
    path: the file: str, bytes or os.PathLike (e.g. pathlib.Path).
    hydrogens: keep hydrogens as atoms (default: heavy atoms, hydrogen charges folded into them).
    charges: partial charges: 'gasteiger', 'mmff' or 'input' (the file's own).
    smiles_conformers: conformers embedded per SMILES, 1..10000.
    seed: seed of the SMILES embedding, 0..4294967295.
)doc");
}

}  // namespace hermite::python
