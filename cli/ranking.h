/// \file
/// Ranking the database molecules of a screening run: the rank metrics, the bounded list of
/// the best hits, and the ranks of all molecules.
///
/// Order: by rank score, highest first; equal scores keep the input order (the order in which
/// the molecules were read), so the ranking is the same for any number of threads. A NaN score
/// never passes the cutoff and is never a hit.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "overlay/overlay.h"

namespace hermite::cli {

/// The score by which hits are ranked.
enum class RankMetric {
    Shape,         ///< exact shape Tanimoto
    Combo,         ///< shape Tanimoto + electrostatic Tanimoto (needs electrostatics)
    TverskyQuery,  ///< shape Tversky weighted to the query
    TverskyFit,    ///< shape Tversky weighted to the database molecule
};

/// "shape", "combo", "tversky-query", "tversky-fit" to the metric; nullopt otherwise.
std::optional<RankMetric> ParseRankMetric(const std::string& text);

/// A readable name, e.g. "shape Tanimoto".
const char* RankMetricLabel(RankMetric metric);

/// The metric's value in `scores`.
double RankScore(RankMetric metric, const overlay::Scores& scores);

/// True when rank score `a` ranks before `b` (higher; a number before NaN).
bool RanksBefore(double a, double b);

/// A database molecule that is among the best so far, with the conformer to write.
struct Hit {
    /// Index of the molecule in input order (its row of the score table).
    std::size_t row = 0;
    double score = 0.0;
    io::Conformer conformer;
    QVChem::QVTrans transform;
};

/// The best hits seen so far: at most `capacity` of them, ordered as described in the file
/// comment. Keeps only the conformers that can still be written.
class HitList {
public:
    explicit HitList(std::size_t capacity) : capacity_(capacity) {}

    /// Offers a molecule; it is kept if it ranks among the best `capacity`. Rows must be offered
    /// in increasing order.
    void Offer(Hit hit);

    /// The hits, best first.
    std::vector<Hit> Sorted() const { return {hits_.begin(), hits_.end()}; }

    std::size_t Size() const { return hits_.size(); }

private:
    struct Order {
        bool operator()(const Hit& a, const Hit& b) const;
    };

    std::size_t capacity_;
    std::set<Hit, Order> hits_;
};

/// For each score, its 1-based rank among the scores at or above `cutoff` (ties in index
/// order); 0 for the scores below it (and NaN).
std::vector<std::size_t> AssignRanks(const std::vector<double>& scores, double cutoff);

/// True when `score` passes the cutoff.
inline bool PassesCutoff(double score, double cutoff) {
    return score >= cutoff;
}

}  // namespace hermite::cli
