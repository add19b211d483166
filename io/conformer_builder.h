/// \file
/// From a parsed RDKit molecule to `Conformer`s: the 3-D check, atom selection and partial
/// charges (internal to hermite_io).
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <GraphMol/ROMol.h>

#include "io/molecule_io.h"

namespace hermite::io {

/// Why a record is skipped; the message becomes `Problem::reason`.
class RecordError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The parsed record behind a conformer: the whole molecule, every atom and bond, shared by
/// the conformers embedded from one SMILES.
struct Conformer::RecordData {
    std::shared_ptr<const RDKit::ROMol> molecule;
    /// The RDKit conformer of `molecule` this conformer stands for.
    int conformerId = -1;
};

/// Where a record came from and what it says besides its atoms.
struct RecordInfo {
    std::string file;
    unsigned int number = 0;
    std::string title;
    SdProperties properties;
};

/// Access to the private parts of `Conformer` for the reader and the writer.
class ConformerAccess {
public:
    /// The record behind `conformer`, or null for an atom-only conformer.
    static const Conformer::RecordData* Data(const Conformer& conformer) {
        return conformer.recordData_.get();
    }
    /// A conformer of a record: `mol` holds the selected atoms, whose indices in the record
    /// are `recordAtomIndices`.
    static Conformer Make(QVChem::QVMol mol, const RecordInfo& info,
                          std::vector<unsigned int> recordAtomIndices,
                          std::shared_ptr<const Conformer::RecordData> data);
};

/// The charges a record carries, one per atom of its molecule; throws `RecordError` when it
/// has none (or malformed ones).
using InputChargeSource = std::function<std::vector<double>()>;

/// Conformers of `molecule`, one per id in `conformerIds`, with the atoms selected by
/// `options.hydrogens` and charges per `options.charges` (`inputCharges` is called for
/// `ChargeModel::Input`). Throws `RecordError` for a molecule with no atom to select, and, when
/// `options.chargesRequired`, for one whose charges cannot be had; otherwise the reason is added
/// to `notes` and the charges concerned are NaN.
std::vector<Conformer> BuildConformers(const std::shared_ptr<const RDKit::ROMol>& molecule,
                                       const std::vector<int>& conformerIds, const RecordInfo& info,
                                       const ReadOptions& options,
                                       const InputChargeSource& inputCharges,
                                       std::vector<std::string>& notes);

/// The dimension a record declares for its coordinates: a molfile's program line carries "2D"
/// or "3D" in columns 21-22; MOL2 records and molfiles that leave the field blank declare none.
enum class DeclaredDimension { None, TwoD, ThreeD };

/// Throws `RecordError("molecule has no 3-D coordinates")` unless the conformer is 3-D. A
/// record that declares 2-D is a drawing whatever its z coordinates; one that declares 3-D is
/// taken at its word even when it is planar (benzene, a square-planar complex); without a
/// declaration RDKit must not have marked the conformer 2-D, and a molecule of more than 3
/// atoms must not lie in z = 0.
void Require3D(const RDKit::ROMol& molecule, int conformerId,
               DeclaredDimension declared = DeclaredDimension::None);

/// The constitution of `molecule` as text: the canonical SMILES of its heavy-atom graph
/// (elements and connections; bond orders, charges, hydrogens, isotopes and stereochemistry
/// left out). Records of one compound give the same text however their tools wrote its
/// protonation, tautomer, aromaticity or hydrogens; different compounds give different texts.
/// Empty when it cannot be had.
std::string ConstitutionKey(const RDKit::ROMol& molecule);

}  // namespace hermite::io
