/// \file
/// The text outputs of a screening run: the score table (TSV), the SD tags of the hits and the
/// ranked table printed on standard output. All of them depend only on the results, never on
/// timing or thread count, so that the outputs are identical for any --threads.
///
/// Scores are written with 4 decimals.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "screen/screen.h"

namespace hermite::cli {

/// What the outputs need to know besides the results.
struct OutputContext {
    /// The titles of the query molecules.
    std::vector<std::string> queryTitles;
    /// Whether the electrostatic and the colour scores were computed (their columns and tags
    /// appear only then).
    bool electrostatics = false;
    bool colour = false;
    screen::RankMetric rankBy = screen::RankMetric::Shape;
    double cutoff = 0.0;
    /// Whether overlays out of reach of the hits were skipped: the molecules passing the cutoff
    /// are then counted among those overlaid.
    bool skipByBound = false;
};

/// The header line of the score table: the columns title, file, record, conformer, conformers,
/// query, query_conformer, shape_tanimoto, hermite_tanimoto, tversky_query, tversky_fit, with
/// electrostatics es_tanimoto, es_carbo, es_combo, with colour colour_tanimoto, combo, and
/// status.
std::string ScoreTableHeader(const OutputContext& context);

/// One line of the score table: a database molecule (against one query molecule in per-query
/// mode) with its best conformer (1-based), the conformers overlaid, the query molecule and
/// query conformer of the best pair (1-based), the scores, and status ("ok" or "error: ...").
std::string ScoreTableLine(const screen::Row& row, const OutputContext& context);

/// The SD tags of a hit: hermite_rank, hermite_shape_tanimoto, hermite_hermite_tanimoto,
/// hermite_tversky_query, hermite_tversky_fit, with electrostatics hermite_es_tanimoto,
/// hermite_es_carbo and hermite_es_combo, with colour hermite_colour_tanimoto and
/// hermite_combo, then hermite_conformer, hermite_query and
/// hermite_query_conformer (1-based indices) and hermite_query_title.
io::SdProperties HitTags(const screen::Hit& hit, const OutputContext& context);

/// The ranked table for standard output: for each ranking, a line that names the query and
/// the ranking, then the best `limit` hits with rank, title, scores and conformer, in aligned
/// columns. `molecules` and `passing` count the rows and those at or above the cutoff.
std::string FormatRankedTable(const std::vector<std::vector<screen::Hit>>& rankings,
                              const OutputContext& context, unsigned long molecules,
                              const std::vector<unsigned long>& passing, std::size_t limit);

}  // namespace hermite::cli
