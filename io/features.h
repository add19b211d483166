/// \file
/// Pharmacophore ("colour") features of conformers: hydrogen-bond donors and acceptors,
/// charged groups, aromatic rings, hydrophobes. RDKit perceives them from feature definitions
/// in its .fdef format; this header does not expose RDKit.
///
/// Conventions:
/// - A feature belongs to a family ("Donor", "Aromatic", ...); its `type` is the index of the
///   family among the families of its definitions, in the order in which the definitions first
///   name them. Types are what colour scores compare: two features interact only when their
///   types are equal, so features perceived with different definitions must not be mixed.
/// - Positions are in angstrom, in the coordinates of the conformer (the frame of
///   `Conformer::Mol()`). A feature of several atoms sits at the weighted mean of their
///   positions, with the weights of its definition (the plain centroid when it gives none).
/// - The default definitions (`FeatureDefinitions::Default()`, the repository's
///   data/colour_features.fdef, compiled into the library) have six families, types 0 to 5:
///   Donor, Acceptor, Cation, Anion, Aromatic, Hydrophobe. docs/colour.md describes them.
///
/// Thread safety: `FeatureDefinitions` is an immutable value (copies share the parsed
/// definitions); `PerceiveFeatures` may run in any number of threads at once, with the same or
/// different definitions and conformers.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "io/molecule_io.h"

namespace hermite::io {

/// Parsed feature definitions (RDKit's .fdef format: AtomType and DefineFeature blocks with
/// Family and Weights lines).
class FeatureDefinitions {
public:
    /// The default definitions (a copy of `Default()`).
    FeatureDefinitions();

    /// Parses .fdef text. `source` names the text in error messages (a file name, say).
    /// Throws std::runtime_error when the text cannot be used: `<source>: line <n>: <message>:
    /// "<line>"` for what RDKit's parser reports with a line (invalid SMARTS, unknown keyword,
    /// missing Family or EndFeature, a bad weight, a line without any word), `<source>:
    /// <message>` when a Weights line does not match its pattern, the weights sum to zero or no
    /// feature is defined.
    static FeatureDefinitions FromText(const std::string& text,
                                       const std::string& source = "feature definitions");
    /// Reads and parses the .fdef file at `path`. Throws std::runtime_error naming the file
    /// when it cannot be read or parsed (see `FromText`).
    static FeatureDefinitions FromFile(const std::string& path);
    /// The default definitions: the six families of data/colour_features.fdef, whose text is
    /// compiled into the library (no data file is needed at run time). Parsed once.
    static const FeatureDefinitions& Default();
    /// The text of the default definitions.
    static const std::string& DefaultText();

    /// The family names in definition order; a feature's `type` indexes this list.
    const std::vector<std::string>& Families() const { return families_; }
    /// The type of `family`, or nullopt when the definitions have no such family.
    std::optional<unsigned int> TypeOf(const std::string& family) const;
    /// The .fdef text the definitions were parsed from.
    const std::string& Text() const;
    /// What the definitions came from: the file name, or the `source` given to `FromText`.
    const std::string& Source() const;

    /// The parsed definitions (defined in the implementation only).
    struct Parsed;

private:
    explicit FeatureDefinitions(std::shared_ptr<const Parsed> parsed);

    friend std::vector<Feature> PerceiveFeatures(const Conformer& conformer,
                                                 const FeatureDefinitions& definitions);

    std::shared_ptr<const Parsed> parsed_;
    std::vector<std::string> families_;
};

/// The features of `conformer`'s record, in definition order (the features of the first
/// definition first; within a definition, in RDKit's match order). Every atom of the record
/// takes part, hydrogens included as far as the record has them: hydrogens are counted whether
/// they are atoms of the record or implicit, so the default definitions give the same features
/// with and without explicit hydrogens. Within a family, a match whose atoms all belong to an
/// earlier match of that family gives no feature (RDKit's rule, which lets lumped groups hide
/// their atoms).
///
/// A conformer without a record (`HasRecord()` false: made from atoms only, without bonds)
/// has no chemistry to perceive and gives no features. Throws std::runtime_error, naming the
/// conformer's source, if RDKit fails on the record.
std::vector<Feature> PerceiveFeatures(const Conformer& conformer,
                                      const FeatureDefinitions& definitions);

}  // namespace hermite::io
