/// \file
/// Prepared libraries: one HDF5 file holding everything a shape screen needs per conformer, so
/// that screens read it in chunks without parsing chemistry.
///
/// A library is made once from molecule files (`PreparedLibraryWriter`) and read many times
/// (`PreparedLibraryReader`). Per conformer it stores the selected (density) atoms with their
/// elements, coordinates and partial charges, its colour features, the conformer's principal
/// frame, where the conformer came from, and the whole record as SD text with full-precision
/// coordinates of every atom, so that a hit can be written out exactly as it was read. The layout
/// is documented in docs/prepared-library.md.
///
/// Conventions:
/// - Coordinates are in angstrom and stored as doubles, exactly as read; partial charges in
///   elementary charges, NaN when they were not computed.
/// - Molecules and conformers are numbered from 0 in the order they were added; record numbers
///   are 1-based as in `Conformer::Record()`.
/// - A frame is a `QVChem::QVTrans` p -> R p + t taking input coordinates to the principal frame,
///   stored as R (9 doubles, row-major) followed by t (3 doubles), exactly.
///
/// Thread safety: one writer or reader object must be used by one thread at a time. The HDF5
/// library may be built without thread safety, so every HDF5 call made here is serialised by one
/// process-wide mutex: two readers (or writers) in two threads are safe, but they do not run
/// their HDF5 calls in parallel. Other code of the process that calls HDF5 directly (h5py, for
/// instance) is not covered by that mutex and must not run at the same time.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "qv/chem.h"

namespace hermite::io {

/// How the molecules of a library were prepared; stored in the file, compared by screens.
struct LibraryPreparation {
    /// Hydrogens were selected as density atoms (default: heavy atoms only).
    bool hydrogens = false;
    /// The source of the partial charges: "gasteiger", "mmff", "input", or "none" (not
    /// computed; the charges are NaN).
    std::string charges = "none";
    /// Conformers embedded for each SMILES.
    unsigned int smilesConformers = 10;
    /// Random seed of the embedding.
    unsigned int seed = 42;
    /// Generated conformers were minimised with MMFF94.
    bool minimize = false;
    /// RMS pruning threshold of generated conformers, angstrom (0: no pruning).
    double pruneRms = 0.0;
    /// The .fdef text the colour features were perceived with (see io/features.h); a colour
    /// screen uses the stored features only when its own definitions have the same text.
    std::string featureDefinitions;
    /// The feature families of those definitions, in definition order: a stored feature's
    /// `type` indexes this list. At most 255 families.
    std::vector<std::string> featureFamilies;
};

/// One conformer as stored: the density atoms and their principal frame.
struct LibraryConformer {
    /// The selected atoms: atomic number, x y z (angstrom, the doubles that were read, exactly)
    /// and partial charge (NaN when not computed). The title is the molecule's title.
    QVChem::QVMol mol;
    /// The colour features, in the conformer's input coordinates, as perceived (family, type,
    /// position and record atoms, exactly).
    std::vector<Feature> features;
    /// Input coordinates -> principal frame (R row-major and t, exactly as added).
    QVChem::QVTrans frame;
    /// The source file as it was given to the reader that made the conformer.
    std::string file;
    /// 1-based record number in that file (the line number for SMILES).
    unsigned int record = 0;
    /// 0-based index of the conformer in the library (for `PreparedLibraryReader::LoadConformer`).
    std::size_t index = 0;
};

/// One molecule as stored: its title and its conformers in the order they were added.
struct LibraryMolecule {
    std::string title;
    std::vector<LibraryConformer> conformers;
};

/// One molecule encoded for storage: everything `PreparedLibraryWriter::Append` writes, made
/// without the writer, so that the costly part (RDKit writing each record as SD text) can run
/// on any thread and only compact text waits for the writer.
struct LibraryEntry {
    struct Stored {
        /// The selected atoms (element, coordinates, charge).
        QVChem::QVMol mol;
        /// For each selected atom, its index among the record's atoms.
        std::vector<unsigned int> recordAtoms;
        /// x, y, z of every record atom (hydrogens included) at full precision, angstrom.
        std::vector<double> recordXyz;
        /// The conformer's colour features (`Conformer::Features()`).
        std::vector<Feature> features;
        QVChem::QVTrans frame;
        std::string file;
        unsigned int record = 0;
        /// The whole record as SD text in its original pose, with its data items.
        std::string sdText;
    };
    std::string title;
    std::vector<Stored> conformers;
};

/// Encodes `molecule` (at least one conformer, as the readers make them) with the frame of each
/// conformer (`frames[i]` for `molecule.conformers[i]`). Throws std::runtime_error naming the
/// record when it cannot be stored (a record RDKit cannot write, inconsistent atom indices,
/// an atomic number above 255, a feature whose atoms are not atoms of the record, a frame
/// count that does not match). Thread-safe.
LibraryEntry EncodeLibraryEntry(const Molecule& molecule,
                                const std::vector<QVChem::QVTrans>& frames);

/// Writes a prepared library, atomically: the data go to a temporary file beside the destination
/// (`<path>.tmp-XXXXXX`), which `Commit` renames onto it. Destroyed without a successful
/// `Commit`, the writer removes the temporary file and leaves an existing destination untouched.
///
/// Molecules are buffered and written in chunks; memory use is bounded whatever the library's
/// size.
class PreparedLibraryWriter {
public:
    /// Creates the temporary file beside `path`. On failure `Ok()` is false and `Error()` says
    /// why (naming the file).
    PreparedLibraryWriter(const std::string& path, const LibraryPreparation& preparation);
    /// Removes the temporary file unless `Commit` succeeded.
    ~PreparedLibraryWriter();
    PreparedLibraryWriter(const PreparedLibraryWriter&) = delete;
    PreparedLibraryWriter& operator=(const PreparedLibraryWriter&) = delete;

    /// True while the file is open and nothing has failed to be written.
    bool Ok() const;
    /// The reason for the last failure, empty if none.
    const std::string& Error() const;

    /// Appends one molecule: every conformer of `molecule` (as the readers make them, with
    /// their records) with its frame (`frames[i]` for `molecule.conformers[i]`). Stores the
    /// selected atoms (element, coordinates, charge) and their indices among the record's atoms,
    /// the colour features (whose types must index the preparation's `featureFamilies`), the
    /// frame, file and record number, the molecule's title, the whole record as SD text in
    /// its original pose (every atom, hydrogens included, and the SD data items) and the
    /// coordinates of every record atom at full precision.
    ///
    /// Returns false, with `Error()` set, when the molecule cannot be stored: no conformers, a
    /// frame count that does not match, a record RDKit cannot write (the library is then
    /// unchanged and later molecules can still be added), a feature type outside the
    /// preparation's families, or a failed write (the writer is then no longer `Ok()` and
    /// `Commit` fails).
    bool Add(const Molecule& molecule, const std::vector<QVChem::QVTrans>& frames);

    /// Appends a molecule encoded by `EncodeLibraryEntry` (the same as `Add` of the molecule it
    /// was made from). Returns false, with `Error()` set, when the write failed (the writer is
    /// then no longer `Ok()`), the entry has no conformer or a feature type outside the
    /// preparation's families.
    bool Append(const LibraryEntry& entry);

    /// Writes the remaining buffers, marks the file complete, closes it and renames it onto the
    /// destination. Returns false, leaving no file, if anything failed.
    bool Commit();

    /// Molecules added so far.
    unsigned long Molecules() const;
    /// Conformers added so far.
    unsigned long Conformers() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Reads a prepared library.
class PreparedLibraryReader {
public:
    /// Opens the library at `path` and checks its structure. `Ok()` is false, with an `Error()`
    /// naming the file, for a missing file, a file that is not HDF5, an HDF5 file that is not a
    /// hermite library, an unsupported format version, an incomplete file (its writer never
    /// committed), a truncated file and inconsistent dataset sizes.
    explicit PreparedLibraryReader(const std::string& path);
    ~PreparedLibraryReader();
    PreparedLibraryReader(const PreparedLibraryReader&) = delete;
    PreparedLibraryReader& operator=(const PreparedLibraryReader&) = delete;

    /// True when the library was opened and is consistent (stays true after read failures).
    bool Ok() const;
    /// The reason for the last failure, naming the file; empty if none.
    const std::string& Error() const;

    /// How the library was prepared.
    const LibraryPreparation& Preparation() const;
    /// The number of molecules (0 unless `Ok()`).
    std::size_t NumMolecules() const;
    /// The number of conformers of all molecules (0 unless `Ok()`).
    std::size_t NumConformers() const;

    /// Reads molecules [first, first + count), clipped at the end of the library, into `out`
    /// (cleared first): atoms, colour features, frames, titles and sources, not the SD text. One
    /// call makes a fixed number of HDF5 reads, whatever `count`. Returns false, with `Error()`
    /// naming the file, when the data cannot be read or fail their checksum.
    bool Read(std::size_t first, std::size_t count, std::vector<LibraryMolecule>& out);

    /// The conformer `index` (0-based across the library) as a full `Conformer`, ready for
    /// `SdfWriter`: its record parsed by RDKit as the SD reader parses it, with the stored
    /// full-precision coordinates of every atom, its data items, file, record number and title
    /// (the molecule's), and the same selected atoms and colour features as `Read` gives. Returns
    /// false, with `Error()` set, when the index is out of range or the record cannot be read or
    /// parsed.
    bool LoadConformer(std::size_t index, Conformer& out);

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// True when the file at `path` starts with the HDF5 signature, so that a library can be told
/// from a molecule file whatever its name (the documented extension is .h5). False for a file
/// that cannot be read.
bool IsPreparedLibrary(const std::string& path);

}  // namespace hermite::io
