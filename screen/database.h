/// \file
/// The database side of a screen: reading the inputs one molecule at a time without any
/// chemistry (the reader stage), and preparing a molecule's conformers for overlays (the
/// worker stage: RDKit parsing, conformer generation, charges, densities, principal frames).
///
/// Inputs are molecule files (SD, MOL2, SMILES, optionally gzip-compressed), prepared libraries
/// (told apart by their content, whatever their name) and molecules handed over in memory.
#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "io/prepared_library.h"
#include "overlay/overlay.h"

namespace hermite::screen {

/// "No index".
constexpr std::size_t kNoIndex = std::numeric_limits<std::size_t>::max();

/// What a database molecule must carry for the scores asked for; prepared libraries that
/// cannot provide it are refused with a message.
struct DatabaseRequirements {
    /// The density atoms include the hydrogens.
    bool hydrogens = false;
    /// Partial charges are needed (electrostatics), of this model.
    bool charges = false;
    io::ChargeModel chargeModel = io::ChargeModel::Gasteiger;
};

/// A database molecule as read, before its chemistry: one of the three kinds below, plus the
/// problems of whole files met on the way to it.
struct SourceMolecule {
    enum class Kind {
        ProblemsOnly,  ///< nothing but `problems` (e.g. a file that could not be opened)
        Records,       ///< the records of a molecule file
        Library,       ///< a molecule of a prepared library
        Parsed,        ///< a molecule given in memory
    };
    Kind kind = Kind::ProblemsOnly;
    io::RecordGroup records;
    io::LibraryMolecule prepared;
    /// The index of the prepared library among the inputs (`Kind::Library`).
    std::size_t library = kNoIndex;
    io::Molecule parsed;
    /// Problems of whole files, reported before this molecule.
    std::vector<io::Problem> problems;
};

/// Where the molecules of a screen come from.
class Database {
public:
    /// The molecules of files, read in the order given: molecule files and prepared libraries.
    static Database Files(std::vector<std::string> paths);
    /// Molecules in memory (each with at least one conformer), in the order given.
    static Database Molecules(std::vector<io::Molecule> molecules);

    /// The file paths (empty for molecules in memory).
    const std::vector<std::string>& Paths() const { return paths_; }

    /// A reader of the molecules, one at a time, for one run. It reads prepared libraries in
    /// chunks of `libraryChunk` molecules and refuses those that do not meet `requirements`.
    /// Single-threaded. The in-memory molecules are moved out by the first reader.
    class Reader;
    std::unique_ptr<Reader> Open(const DatabaseRequirements& requirements,
                                 std::size_t libraryChunk = 256);

private:
    std::vector<std::string> paths_;
    std::vector<io::Molecule> molecules_;
};

class Database::Reader {
public:
    virtual ~Reader() = default;
    /// The next molecule (or file problems); false at the end.
    virtual bool Next(SourceMolecule& out) = 0;
};

/// One conformer of a database molecule, ready for overlays.
struct Fit {
    /// The conformer with its record (molecule files and molecules in memory); for prepared
    /// libraries an atom-only conformer.
    io::Conformer conformer;
    /// Its file and record (also for prepared libraries: the source the library was made from).
    std::string file;
    unsigned int record = 0;
    /// Its densities in its principal frame.
    overlay::PreparedMolecule prepared;
    /// Its index in its prepared library (`kNoIndex` otherwise).
    std::size_t libraryConformer = kNoIndex;
};

/// A database molecule ready for overlays; `fits` is empty when no conformer could be used.
struct PreparedEntry {
    std::string title;
    std::vector<Fit> fits;
    /// The prepared library it came from (`kNoIndex` otherwise).
    std::size_t library = kNoIndex;
    /// File problems met before it, then the problems of its own records, in reading order.
    std::vector<io::Problem> problems;
};

/// Prepares `source` (moved from): parses its records with `read` (molecule files), and makes
/// the densities of each conformer with `overlay` (frames of prepared libraries are used as
/// stored). Conformers without finite partial charges are dropped with a problem when
/// `needCharges`. Never throws for bad input; thread-safe.
PreparedEntry PrepareEntry(SourceMolecule& source, const io::ReadOptions& read,
                           const overlay::Settings& overlay, bool needCharges);

}  // namespace hermite::screen
