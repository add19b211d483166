/// \file
/// Reading molecules from SD, MOL2 and SMILES files and writing posed conformers to SD files.
///
/// The chemistry (parsing, sanitisation, 3-D embedding of SMILES, partial charges) is RDKit's;
/// this header does not expose it, so code that includes it needs no RDKit headers.
///
/// Conventions:
/// - Coordinates are in angstrom, partial charges in elementary charges.
/// - A conformer's `QVChem::QVMol` holds the *selected* atoms of its record, in record order:
///   the heavy atoms by default, every atom of the record with `ReadOptions::hydrogens`.
///   Dummy atoms (atomic number 0) are never selected. Hydrogens that a record does not contain
///   explicitly are not added (except for SMILES, which are embedded with hydrogens).
/// - Partial charges are computed for the molecule with all its hydrogens. When hydrogens are
///   not selected, each hydrogen's charge is added to the heavy atom it is bonded to (united
///   atoms), so that the selected atoms carry the molecule's total charge.
/// - Record numbers are 1-based: the n-th record of an SD or MOL2 file, the line number in a
///   SMILES file.
/// - Bad input never throws: every record that cannot be used becomes a `Problem` and reading
///   goes on with the next record.
///
/// Thread safety: a `MoleculeReader` or `SdfWriter` must be used by one thread at a time;
/// different readers and writers may run in parallel. `Conformer` and `Molecule` are values:
/// copies share the (immutable) parsed record, and their const members may be called
/// concurrently, except that one conformer must not be written by two writers at once.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qv/chem.h"

namespace hermite::io {

class FeatureDefinitions;

/// An SD data item: name and value (values may span several lines, joined by '\n').
using SdProperty = std::pair<std::string, std::string>;
/// SD data items in file order.
using SdProperties = std::vector<SdProperty>;

// =============================================================================================
// Options

/// Where the partial charges come from.
enum class ChargeModel {
    Gasteiger,  ///< Gasteiger-Marsili charges (RDKit, 12 iterations)
    MMFF94,     ///< MMFF94 charges (RDKit's MMFF94 typer)
    Input,      ///< the charges in the file: MOL2 atom charges, or SD data items (see below)
};

/// "gasteiger", "mmff" (or "mmff94") and "input" to the model; nullopt for anything else.
std::optional<ChargeModel> ParseChargeModel(std::string_view text);

/// The name `ParseChargeModel` accepts for a model: "gasteiger", "mmff" or "input".
const char* ChargeModelName(ChargeModel model);

/// How records become conformers.
///
/// `ChargeModel::Input` reads MOL2 atom charges. In SD files it reads, in this order of
/// preference, the data item `atom.dprop.PartialCharge` (one value per atom, whitespace
/// separated), `PartialCharges` (the same layout) or `PUBCHEM_MMFF94_PARTIAL_CHARGES` (a count,
/// then one "atom-number charge" line per charged atom; atoms not listed have charge 0). A
/// record without any of them is a `Problem`. SMILES have no input charges.
struct ReadOptions {
    /// Select hydrogens too (default: heavy atoms only).
    bool hydrogens = false;
    /// The source of the partial charges.
    ChargeModel charges = ChargeModel::Gasteiger;
    /// Conformers embedded (RDKit ETKDGv3) for each SMILES; 0 is taken as 1.
    unsigned int smilesConformers = 10;
    /// Random seed of the embedding: the same seed gives the same coordinates.
    unsigned int seed = 42;
    /// Skip records whose partial charges cannot be had (NaN or infinite values, MMFF94 typing
    /// failure, no input charges). When false such a record is kept, for shape work, with NaN
    /// charges on the atoms concerned (all atoms if none could be computed), and the cause is
    /// reported as a `Problem` with `skipped` false.
    bool chargesRequired = true;
    /// Compute partial charges at all. When false (shape-only work) every charge is NaN and
    /// nothing is reported about them; this saves the charge model's time.
    bool computeCharges = true;
    /// Minimise each embedded SMILES conformer with the MMFF94 force field (at most 200
    /// iterations; molecules MMFF94 cannot type keep their embedded coordinates, with a note).
    bool minimize = false;
    /// Embedded conformers closer than this heavy-atom RMS (angstrom, after alignment) to an
    /// earlier one are dropped by the embedder; 0 keeps them all.
    double pruneRms = 0.0;
    /// Seconds one SMILES may spend in conformer generation before it is skipped with a
    /// message; 0 means no limit. Checked between the embedding attempts of RDKit, so one
    /// attempt of a very large molecule can overrun it.
    double conformerTimeLimit = 60.0;
    /// When not null and set, conformer generation stops at its next check and the record is
    /// skipped ("interrupted"); the flag must outlive the reading.
    const std::atomic<bool>* cancel = nullptr;
    /// When set, the colour features of every conformer are perceived with these definitions
    /// (see io/features.h).
    std::shared_ptr<const FeatureDefinitions> features;
};

/// The seed of the conformer embedding of the SMILES on line `record` for a run seeded with
/// `seed`: a hash of both, so that every record gets its own random stream whatever thread or
/// order it is parsed in. Always in 0..2^31 - 1 (RDKit's seeds are signed ints).
unsigned int RecordSeed(unsigned int seed, unsigned int record);

// =============================================================================================
// Problems

/// A record that could not be used (or, with `skipped` false, a part of a record that could
/// not be used), or a file that could not be read.
struct Problem {
    /// The file as it was given to the reader.
    std::string file;
    /// 1-based record number in the file (the line number for SMILES); 0 for the whole file.
    unsigned int record = 0;
    /// The record's title (SMILES: its name), possibly empty.
    std::string title;
    /// What went wrong, e.g. "molecule has no 3-D coordinates".
    std::string reason;
    /// True when the whole record was skipped; false when the record still gave a molecule
    /// (e.g. some of the conformers of a SMILES could not be embedded).
    bool skipped = true;

    /// One line naming file and record: "cdk2.sdf, record 3 (ZINC123): molecule has no 3-D
    /// coordinates"; "cdk2.sdf: cannot open file: No such file or directory" for file problems.
    std::string Message() const;
};

// =============================================================================================
// Molecules

/// One pharmacophore feature of a conformer.
struct Feature {
    /// The family's name, as in the definitions (e.g. "Donor").
    std::string family;
    /// The index of the family in `FeatureDefinitions::Families()`.
    unsigned int type = 0;
    /// The position, angstrom, in the conformer's coordinates.
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
    /// The atoms that make the feature: 0-based indices among all atoms of the record (as
    /// `Conformer::RecordAtomIndices()`), in the order of the definition's pattern.
    std::vector<unsigned int> atoms;
};

/// One 3-D structure of a molecule: the selected atoms as a `QVChem::QVMol`, the record's title
/// and SD data items, where it came from, and (hidden) the whole parsed record, with every atom
/// and bond, so that `SdfWriter` can write it back in a new pose.
class Conformer {
public:
    /// An empty conformer (no atoms, no record).
    Conformer();
    /// A conformer made from atoms only, with no record behind it. `SdfWriter` writes it as
    /// unbonded atoms.
    explicit Conformer(QVChem::QVMol mol);

    /// The record's title (first line of an SD record, MOL2 molecule name, SMILES name).
    const std::string& Title() const { return mol_.GetTitle(); }
    /// The SD data items of the record in file order (empty for MOL2 and SMILES).
    const SdProperties& Properties() const { return properties_; }
    /// The selected atoms with coordinates (angstrom) and partial charges; titled like the
    /// record.
    const QVChem::QVMol& Mol() const { return mol_; }
    /// The file the record was read from (as given to the reader); empty if none.
    const std::string& File() const { return file_; }
    /// The 1-based record number (the line number for SMILES); 0 if none.
    unsigned int Record() const { return record_; }
    /// For each atom of `Mol()`, its 0-based index among all atoms of the record.
    const std::vector<unsigned int>& RecordAtomIndices() const { return recordAtomIndices_; }
    /// The number of atoms of the record, hydrogens included.
    unsigned int NumRecordAtoms() const;
    /// True when the conformer carries a parsed record (false for atom-only conformers).
    bool HasRecord() const { return recordData_ != nullptr; }
    /// The colour features of the conformer: perceived when it was read with feature
    /// definitions (`ReadOptions::features`), or given with `SetFeatures`; empty otherwise.
    const std::vector<Feature>& Features() const { return features_; }
    void SetFeatures(std::vector<Feature> features) { features_ = std::move(features); }

    /// The parsed record (defined in the implementation only).
    struct RecordData;

private:
    friend class ConformerAccess;

    QVChem::QVMol mol_;
    SdProperties properties_;
    std::string file_;
    unsigned int record_ = 0;
    std::vector<unsigned int> recordAtomIndices_;
    std::shared_ptr<const RecordData> recordData_;
    std::vector<Feature> features_;
};

/// "file, record 3 (title)": where a conformer came from, for messages ("(no file)" for a
/// conformer made in memory; line breaks in the title become spaces).
std::string DescribeSource(const Conformer& conformer);

/// True when every atom of `mol` has a finite partial charge.
bool HasFiniteCharges(const QVChem::QVMol& mol);

/// A molecule and its conformers: consecutive SD records with the same (non-empty) title and
/// the same constitution, the embedded conformers of one SMILES, or one MOL2 record. Never empty
/// when returned by a reader.
struct Molecule {
    std::string title;
    std::vector<Conformer> conformers;
};

// =============================================================================================
// Reading

/// File formats, from the file name: .sdf, .sd, .mol (SD); .mol2 (MOL2); .smi, .smiles
/// (SMILES). Any of them may be gzip-compressed with a further ".gz" (e.g. .sdf.gz); compressed
/// files are also recognised by content. Case is ignored.
enum class FileFormat { Unknown, Sdf, Mol2, Smiles };

/// The format of a path by its extension.
FileFormat FormatFromPath(const std::string& path);

/// The text of one record, before any chemistry.
struct RawRecord {
    /// The record's lines, each ending in '\n' (SMILES: the SMILES alone).
    std::string text;
    /// The title: first line of an SD record, molecule name of a MOL2 record, name of a SMILES
    /// line (the SMILES itself if it has no name). Surrounding white space removed.
    std::string title;
    /// 1-based record number (SMILES: line number).
    unsigned int number = 0;
};

/// The records of one title as text: consecutive SD records with the same non-empty title, or
/// one MOL2 record, or one SMILES line. Telling whether the records are really one molecule
/// takes chemistry, which is `ParseMolecule`'s.
struct RecordGroup {
    /// The file as given to the reader.
    std::string file;
    FileFormat format = FileFormat::Unknown;
    /// The title of the first record.
    std::string title;
    /// At least one record, in file order.
    std::vector<RawRecord> records;
};

/// Splits a file into the record groups of its molecules without any chemistry: the cheap,
/// serial part of reading. `ParseMolecule` does the chemistry, in any thread.
class RecordReader {
public:
    /// Opens `path`. Never throws for bad input: a missing or unreadable file or an unknown
    /// extension leaves `Ok()` false with the reason in `Error()`.
    explicit RecordReader(const std::string& path);
    ~RecordReader();
    RecordReader(RecordReader&&) noexcept;
    RecordReader& operator=(RecordReader&&) noexcept;

    /// True when the file was opened and its format recognised.
    bool Ok() const;
    /// The next molecule's records; false at the end of the file or when a read error stopped
    /// reading (then `Error()` says why, e.g. a truncated gzip stream).
    bool Next(RecordGroup& out);
    /// Why the file could not be opened or read to its end; empty otherwise.
    const std::string& Error() const;
    FileFormat Format() const;
    /// Records read so far.
    unsigned long RecordsRead() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// The molecules of a record group, in file order, each with every usable conformer of its
/// records (RDKit parsing and sanitisation, SMILES embedding, partial charges). Usually one:
/// records that share a title but not a constitution are different molecules. The constitution
/// is the heavy-atom graph, elements and connections (bond orders, charges, hydrogens, isotopes
/// and stereochemistry do not count, so protomers and tautomers of one compound stay together);
/// each maximal run of usable records of one constitution is a molecule, titled like the group,
/// and every run after the first is reported as a partial problem (`skipped` false) on its first
/// record: "records 4..6 share the title "X" with record 1 but have another constitution: read
/// as a separate molecule". Records that cannot be used are appended to `problems` (as are
/// partial problems), in record order; they neither join nor end a run. The result is empty
/// when no record could be used. Never throws for bad input. Thread-safe: groups may be parsed
/// in any number of threads at once.
std::vector<Molecule> ParseMolecule(const RecordGroup& group, const ReadOptions& options,
                                    std::vector<Problem>& problems);

/// Reads molecules one at a time from a file, streaming (the file is never held in memory as a
/// whole).
///
/// SD: consecutive records with the same non-empty title are the conformers of one molecule
/// (records that are skipped still end a run of titles) as long as they have the same
/// constitution; a change of constitution under one title starts a new molecule, with a
/// partial problem (see `ParseMolecule`). MOL2: one molecule per record, parsed by RDKit's
/// Tripos MOL2 parser. SMILES: one molecule per line, "SMILES [name]" (the name is the rest of
/// the line; without one the SMILES is the title); empty lines and lines starting with '#' are
/// ignored, and so is a column header as the first other line (its first column the word
/// "smiles" in any case, e.g. RDKit's "SMILES Name", which no SMILES can be). Each SMILES is
/// embedded with hydrogens by RDKit ETKDGv3, `smilesConformers` times, seeded with
/// `RecordSeed(seed, line)` (optionally pruned and MMFF94-minimised, see `ReadOptions`); the
/// hydrogens stay in the record, so that written conformers carry them, and belong to the density
/// only with `ReadOptions::hydrogens`.
///
/// Skipped records (see `Problem`) are reported and reading goes on: unparsable records,
/// records without 3-D coordinates, molecules with no selected atoms, partial charges that
/// cannot be computed. Whether an SD record is 3-D is what its molfile's program line (second
/// line, columns 21-22) says: "2D" is a drawing and skipped, "3D" is read even when every atom
/// lies in one plane (benzene, a square-planar complex). Without that code (and for MOL2) a
/// record is 3-D unless RDKit marks its conformer 2-D (all z = 0 in a molfile) or more than 3
/// atoms all lie at z = 0.
class MoleculeReader {
public:
    /// Opens `path`. Never throws for bad input: a missing or unreadable file or an unknown
    /// extension leaves `Ok()` false, with the reason in `Problems()`.
    explicit MoleculeReader(const std::string& path, const ReadOptions& options = ReadOptions());
    ~MoleculeReader();
    /// A moved-from reader may only be destroyed or assigned to.
    MoleculeReader(MoleculeReader&&) noexcept;
    MoleculeReader& operator=(MoleculeReader&&) noexcept;

    /// True when the file was opened and recognised (stays true after reading problems).
    bool Ok() const;
    /// The next molecule with at least one conformer; false at the end of the file (or when the
    /// file could not be opened, or a read error stopped it: see `Problems()`).
    bool Next(Molecule& out);
    /// Everything that went wrong so far, in file order.
    const std::vector<Problem>& Problems() const;

    /// The file's format.
    FileFormat Format() const;
    /// Records read so far, used or skipped (SMILES: non-empty lines).
    unsigned long RecordsRead() const;
    /// Records skipped so far.
    unsigned long RecordsSkipped() const;
    /// Molecules returned by `Next` so far.
    unsigned long MoleculesReturned() const;
    /// Conformers in the molecules returned so far.
    unsigned long ConformersReturned() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Reads every molecule of `path`. Problems are appended to `*problems` when it is not null.
std::vector<Molecule> ReadAll(const std::string& path, const ReadOptions& options = ReadOptions(),
                              std::vector<Problem>* problems = nullptr);

/// Switches RDKit's own messages on standard error (warnings and errors of its parsers) on or
/// off for the whole process. They are off in a C++ program until switched on (a process that
/// also hosts RDKit's Python module may have them on); every skipped record is reported as a
/// `Problem` either way. Not synchronised with RDKit calls running in other threads.
void SetRDKitLogging(bool enabled);

// =============================================================================================
// Writing

/// Writes conformers, each in a new pose, to an SD file, atomically (see `AtomicFile`): the
/// destination appears, complete, on `Commit`; if the writer is destroyed without a successful
/// `Commit`, no file (and no temporary file) is left and an existing destination is unchanged.
///
/// Each record is the conformer's whole record (hydrogens included) with every atom moved by the
/// pose, its title, its SD data items in their original order, then the extra tags; an input
/// data item with the same name as an extra tag is replaced by it.
class SdfWriter {
public:
    /// Opens a temporary file next to `path`; on failure `Ok()` is false and `Error()` says why.
    explicit SdfWriter(const std::string& path);
    /// Removes the temporary file unless `Commit` succeeded.
    ~SdfWriter();
    SdfWriter(const SdfWriter&) = delete;
    SdfWriter& operator=(const SdfWriter&) = delete;

    /// Appends `conformer` moved by `pose` (p -> R p + t, see `QVChem::QVTrans`), followed by
    /// `extraTags`. Returns false, with `Error()` set, if it cannot be written; a record that
    /// RDKit cannot write leaves the file as it was, so later records can still be written.
    bool Write(const Conformer& conformer, const QVChem::QVTrans& pose = QVChem::QVTrans(),
               const SdProperties& extraTags = SdProperties());
    /// Appends a record made before (see `FormatPosedMolBlock`): `molBlock`, then `properties`
    /// merged with `extraTags`. Returns false, with `Error()` set, if it cannot be written.
    bool Write(const std::string& molBlock, const SdProperties& properties,
               const SdProperties& extraTags);

    /// Completes the file: renames it onto the destination. Returns false, leaving no file, if
    /// anything failed (including an earlier failed write to the file).
    bool Commit();

    /// True while the file is open and writable.
    bool Ok() const;
    /// The reason for the last failure, empty if none.
    const std::string& Error() const;
    /// Records written so far.
    unsigned long RecordsWritten() const { return recordsWritten_; }

private:
    bool Append(const std::string& record);

    struct State;
    std::unique_ptr<State> state_;
    unsigned long recordsWritten_ = 0;
};

/// An SD record (molfile, data items, "$$$$" line) of `conformer` moved by `pose`, with
/// `extraTags` as for `SdfWriter::Write`. Throws std::runtime_error if RDKit cannot write it.
std::string FormatSdRecord(const Conformer& conformer,
                           const QVChem::QVTrans& pose = QVChem::QVTrans(),
                           const SdProperties& extraTags = SdProperties());

/// The molfile of `conformer` moved by `pose`, titled with its title, without data items: the
/// part of its SD record that needs RDKit, so that the record can be made on one machine and
/// completed (`FormatSdRecord` below) on another. Throws std::runtime_error if RDKit cannot
/// write it.
std::string FormatPosedMolBlock(const Conformer& conformer, const QVChem::QVTrans& pose);

/// An SD record from a molfile, the record's data items and the extra tags (an item with the
/// name of an extra tag is replaced by it): exactly the record `FormatSdRecord` makes of the
/// conformer whose molfile and data items they are.
std::string FormatSdRecord(const std::string& molBlock, const SdProperties& properties,
                           const SdProperties& extraTags);

}  // namespace hermite::io
