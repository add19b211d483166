/// \file
/// libFuzzer target for the molecule readers: SD, MOL2 or SMILES text (the format is fixed at
/// compile time by HERMITE_FUZZ_EXTENSION) read to the end by `MoleculeReader` with the options
/// of a screen that needs charges, so that record splitting, RDKit parsing, the 2-D and
/// same-title checks, charge models and SMILES embedding all see the input.
///
/// Any input must give molecules or problems, never a crash, a hang, a leak or undefined
/// behaviour. SMILES are embedded once each, with a short time limit, to keep inputs fast.
#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_input_file.h"
#include "io/molecule_io.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    hermite::io::SetRDKitLogging(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static hermite::fuzz::FuzzInputFile input(HERMITE_FUZZ_EXTENSION);
    hermite::io::ReadOptions options;
    options.smilesConformers = 1;
    options.conformerTimeLimit = 1.0;
    options.chargesRequired = false;

    hermite::io::MoleculeReader reader(input.Write(data, size), options);
    hermite::io::Molecule molecule;
    while (reader.Next(molecule)) {
        for (const hermite::io::Conformer& conformer : molecule.conformers)
            (void)hermite::io::FormatSdRecord(conformer);
    }
    return 0;
}
