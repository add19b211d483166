/// \file
/// Ranking the database molecules of a screen: the rank metrics and the bounded list of the
/// best hits.
///
/// Order: by rank score, highest first; equal scores keep the input order (the order in which
/// the molecules were read), so the ranking is the same for any number of threads. A NaN score
/// never passes the cutoff and is never a hit.
#pragma once

#include <cmath>
#include <cstddef>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "overlay/overlay.h"

namespace hermite::screen {

/// The score by which hits are ranked.
enum class RankMetric {
    Shape,               ///< exact shape Tanimoto
    Combo,               ///< shape Tanimoto + colour Tanimoto (needs colour)
    ElectrostaticCombo,  ///< shape Tanimoto + electrostatic Tanimoto (needs electrostatics)
    TverskyQuery,        ///< shape Tversky weighted to the query
    TverskyFit,          ///< shape Tversky weighted to the database molecule
};

/// "shape", "combo", "es-combo", "tversky-query", "tversky-fit" to the metric; nullopt
/// otherwise.
std::optional<RankMetric> ParseRankMetric(const std::string& text);

/// A readable name, e.g. "shape Tanimoto".
const char* RankMetricLabel(RankMetric metric);

/// The values a rank metric can take.
struct ScoreRange {
    double lowest;
    double highest;
};

/// The range of a metric: shape Tanimoto 0 to 1; combo 0 to 2; electrostatic combo -1/3 to 2
/// (the electrostatic Tanimoto lies in [-1/3, 1]); the Tversky scores 0 to 1 / (2 sqrt(0.95 *
/// 0.05)) = 2.2942, because an overlap is at most the geometric mean of the two self-overlaps
/// (Cauchy-Schwarz), so that O_qf / (a O_qq + b O_ff) <= sqrt(r) / (a + b r) with r = O_ff / O_qq,
/// largest at r = a / b. A Tversky score exceeds 1 when the weighted molecule is the smaller one
/// and lies largely inside the other.
ScoreRange RankScoreRange(RankMetric metric);

/// The metric's value in `scores`.
double RankScore(RankMetric metric, const overlay::Scores& scores);

/// True when rank score `a` ranks before `b` (higher; a number before NaN).
bool RanksBefore(double a, double b);

/// True when `score` passes the cutoff (never for NaN).
inline bool PassesCutoff(double score, double cutoff) {
    return score >= cutoff;
}

/// The best `capacity` entries offered so far, by score (highest first) and then by input
/// position (earliest first). Memory is bounded by the capacity whatever the number offered.
/// `Entry` needs the members `double score` and `std::size_t position`.
template <class Entry>
class BestList {
public:
    explicit BestList(std::size_t capacity) : capacity_(capacity) {}

    /// Offers an entry; it is kept if it ranks among the best `capacity`. A NaN score is never
    /// kept.
    void Offer(Entry entry) {
        if (capacity_ == 0 || std::isnan(entry.score)) {
            return;
        }
        if (entries_.size() == capacity_) {
            if (!Order()(entry, *std::prev(entries_.end()))) {
                return;
            }
            entries_.erase(std::prev(entries_.end()));
        }
        entries_.insert(std::move(entry));
    }

    /// The score an entry must beat to be kept: -infinity while the list is not full,
    /// +infinity when it keeps nothing.
    double Threshold() const {
        if (capacity_ == 0) {
            return INFINITY;
        }
        return entries_.size() < capacity_ ? -INFINITY : std::prev(entries_.end())->score;
    }

    /// The entries, best first.
    std::vector<Entry> Sorted() const { return {entries_.begin(), entries_.end()}; }

    std::size_t Size() const { return entries_.size(); }

private:
    struct Order {
        bool operator()(const Entry& a, const Entry& b) const {
            if (a.score != b.score) {
                return a.score > b.score;
            }
            return a.position < b.position;
        }
    };

    std::size_t capacity_;
    std::multiset<Entry, Order> entries_;
};

}  // namespace hermite::screen
