// hermite.read_molecules: molecules from SD, MOL2 and SMILES files through the project's reader.

#include "common.h"
#include "io/molecule_io.h"

namespace hermite::python {

void BindIo(py::module_& m) {
    m.def(
        "read_molecules",
        [](const std::string& path, bool hydrogens, const std::string& charges,
           long long smilesConformers, long long seed) {
            io::ReadOptions options;
            options.hydrogens = hydrogens;
            const std::optional<io::ChargeModel> model = io::ParseChargeModel(charges);
            if (!model) {
                throw py::value_error("charges must be 'gasteiger', 'mmff' or 'input', got " +
                                      std::string(py::repr(py::str(charges))));
            }
            options.charges = *model;
            if (smilesConformers < 1 || smilesConformers > 10000) {
                throw py::value_error("smiles_conformers must lie in 1..10000, got " +
                                      std::to_string(smilesConformers));
            }
            options.smilesConformers = static_cast<unsigned int>(smilesConformers);
            if (seed < 0 || seed > 4294967295LL) {
                throw py::value_error("seed must lie in 0..4294967295, got " +
                                      std::to_string(seed));
            }
            options.seed = static_cast<unsigned int>(seed);

            std::vector<io::Problem> problems;
            bool opened = true;
            const std::vector<io::Molecule> molecules = RunLibrary([&] {
                io::MoleculeReader reader(path, options);
                opened = reader.Ok();
                std::vector<io::Molecule> read;
                io::Molecule molecule;
                while (reader.Next(molecule)) {
                    read.push_back(std::move(molecule));
                }
                problems = reader.Problems();
                return read;
            });
            if (!opened) {
                const std::string reason =
                    problems.empty() ? path + ": cannot read file" : problems.front().Message();
                PyErr_SetString(PyExc_OSError, reason.c_str());
                throw py::error_already_set();
            }
            for (const io::Problem& problem : problems) {
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
same title are conformers of one molecule; SMILES are embedded in 3-D (``smiles_conformers``
conformers each, seeded by ``seed``).

Records that cannot be used are skipped with a hermite.HermiteWarning each; a file that cannot
be opened raises OSError.

Args:
    path: the file.
    hydrogens: keep hydrogens as atoms (default: heavy atoms, hydrogen charges folded into them).
    charges: partial charges: 'gasteiger', 'mmff' or 'input' (the file's own).
    smiles_conformers: conformers embedded per SMILES.
    seed: seed of the SMILES embedding.
)doc");
}

}  // namespace hermite::python
