/// \file
/// libFuzzer target for the prepared-library reader: the input is opened as a library and, when
/// it passes the structural checks, every molecule is read in small chunks and every conformer's
/// full record is loaded, as a screen and its hit writer would.
///
/// Any input must be read or refused with a message, never a crash, a hang, a leak or
/// undefined behaviour. Libraries carry checksums, so most mutated libraries stop at a failed
/// checksum; the seed corpus holds valid libraries for the mutations to start from.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_input_file.h"
#include "io/molecule_io.h"
#include "io/prepared_library.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    hermite::io::SetRDKitLogging(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static hermite::fuzz::FuzzInputFile input(".h5");
    hermite::io::PreparedLibraryReader reader(input.Write(data, size));
    if (!reader.Ok())
        return 0;

    constexpr std::size_t Chunk = 2;
    std::vector<hermite::io::LibraryMolecule> molecules;
    for (std::size_t first = 0; first < reader.NumMolecules(); first += Chunk) {
        if (!reader.Read(first, Chunk, molecules))
            return 0;
    }
    hermite::io::Conformer conformer;
    for (std::size_t index = 0; index < reader.NumConformers(); ++index) {
        if (reader.LoadConformer(index, conformer))
            (void)hermite::io::FormatSdRecord(conformer);
    }
    return 0;
}
