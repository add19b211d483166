/// \file
/// The text outputs of a screening run: the score table (TSV), the SD tags of the hits and the
/// ranked table printed on standard output. All of them depend only on the results, never on
/// timing or thread count, so that the outputs are identical for any --threads.
///
/// Scores are written with 4 decimals.
#pragma once

#include <cstddef>
#include <string>

#include "cli/screening.h"
#include "io/molecule_io.h"

namespace hermite::cli {

/// What the outputs need to know besides the results.
struct OutputContext {
    /// The query's title.
    std::string queryTitle;
    /// Whether the electrostatic scores were computed (their columns and tags appear only then).
    bool electrostatics = false;
    RankMetric rankBy = RankMetric::Shape;
    double cutoff = 0.0;
};

/// The score table: a header line, then one line per database molecule in input order, with
/// the columns title, file, record, conformer, conformers, rank (empty below the cutoff),
/// shape_tanimoto, hermite_tanimoto, tversky_query, tversky_fit, with electrostatics
/// es_tanimoto, es_carbo, combo, and status ("ok" or "error: <reason>").
std::string FormatScoreTable(const ScreenResults& results, const OutputContext& context);

/// The SD tags of a hit: hermite_rank, hermite_shape_tanimoto, hermite_hermite_tanimoto,
/// hermite_tversky_query, hermite_tversky_fit, with electrostatics hermite_es_tanimoto,
/// hermite_es_carbo and hermite_combo, then hermite_conformer (1-based) and hermite_query (the
/// query's title).
io::SdProperties HitTags(const MoleculeOutcome& row, std::size_t rank,
                         const OutputContext& context);

/// The ranked table for standard output: the best `limit` hits with rank, title, scores and
/// conformer, in aligned columns, under a line that names the query and the ranking.
std::string FormatRankedTable(const ScreenResults& results, const OutputContext& context,
                              std::size_t limit);

}  // namespace hermite::cli
