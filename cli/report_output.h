/// \file
/// `hermite overlay --report DIR`: the files of a screen gathered in one directory (the score
/// table, the posed hits, the query records) and turned into pictures, an HTML page and a PyMOL
/// script by the Python module's report (`python3 -m hermite.report`), which holds the one
/// implementation of the pictures for notebooks and the tool alike.
#pragma once

#include <optional>
#include <string>

#include "io/molecule_io.h"
#include "screen/ranking.h"
#include "screen/screen.h"

namespace hermite::cli {

/// What the report needs besides the run's files.
struct ReportRequest {
    /// The report's directory (created when missing); empty: no report.
    std::string directory;
    /// A file naming the actives (titles one per line, or a molecule file), for the ROC curve.
    std::string activesPath;
    /// Also write the shape density maps of the queries and the posed hits (maps/query-K.ccp4
    /// for query molecule K, maps/hit-NNN.ccp4 for the hit of rank NNN), rendered from
    /// expansions of `order` of the atoms the screen used (`read`).
    bool maps = false;
    unsigned int order = 4;
    io::ReadOptions read;
    screen::RankMetric metric = screen::RankMetric::Shape;
    /// The cutoff the user set (the pictures mark it); none when left at its default.
    std::optional<double> cutoff;
    std::size_t best = 0;
};

/// Creates the report's directory; throws `FatalError` when it cannot.
void PrepareReportDirectory(const std::string& directory);

/// Writes the report: copies the hits and the score table into its directory when they were
/// written elsewhere, writes the query records as query.sdf and the maps when asked for, then
/// runs the Python report with
/// the interpreter named by $HERMITE_PYTHON (else python3 on PATH). Returns false after
/// printing why when any step fails.
bool WriteReport(const ReportRequest& request, const screen::QuerySet& queries,
                 const std::string& hitsPath, const std::string& scoresPath);

}  // namespace hermite::cli
