// Rank metrics, the bounded hit list and the ranks of a screening run.

#include "cli/ranking.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace hermite::cli {

std::optional<RankMetric> ParseRankMetric(const std::string& text) {
    if (text == "shape") {
        return RankMetric::Shape;
    }
    if (text == "combo") {
        return RankMetric::Combo;
    }
    if (text == "tversky-query") {
        return RankMetric::TverskyQuery;
    }
    if (text == "tversky-fit") {
        return RankMetric::TverskyFit;
    }
    return std::nullopt;
}

const char* RankMetricLabel(RankMetric metric) {
    switch (metric) {
        case RankMetric::Shape:
            return "shape Tanimoto";
        case RankMetric::Combo:
            return "combo score (shape + electrostatic Tanimoto)";
        case RankMetric::TverskyQuery:
            return "shape Tversky (query-weighted)";
        case RankMetric::TverskyFit:
            return "shape Tversky (fit-weighted)";
    }
    return "shape Tanimoto";
}

double RankScore(RankMetric metric, const overlay::Scores& scores) {
    switch (metric) {
        case RankMetric::Shape:
            return scores.shapeTanimoto;
        case RankMetric::Combo:
            return scores.combo;
        case RankMetric::TverskyQuery:
            return scores.shapeTverskyQuery;
        case RankMetric::TverskyFit:
            return scores.shapeTverskyFit;
    }
    return scores.shapeTanimoto;
}

bool RanksBefore(double a, double b) {
    return !std::isnan(a) && (std::isnan(b) || a > b);
}

bool HitList::Order::operator()(const Hit& a, const Hit& b) const {
    if (a.score != b.score) {
        return a.score > b.score;
    }
    return a.row < b.row;
}

void HitList::Offer(Hit hit) {
    if (capacity_ == 0 || std::isnan(hit.score)) {
        return;
    }
    if (hits_.size() == capacity_) {
        // Full: the newcomer must beat the last one (a tie loses: it came later).
        if (!(hit.score > std::prev(hits_.end())->score)) {
            return;
        }
        hits_.erase(std::prev(hits_.end()));
    }
    hits_.insert(std::move(hit));
}

std::vector<std::size_t> AssignRanks(const std::vector<double>& scores, double cutoff) {
    std::vector<std::size_t> passing;
    for (std::size_t i = 0; i < scores.size(); ++i) {
        if (PassesCutoff(scores[i], cutoff)) {
            passing.push_back(i);
        }
    }
    std::stable_sort(passing.begin(), passing.end(),
                     [&](std::size_t a, std::size_t b) { return scores[a] > scores[b]; });
    std::vector<std::size_t> ranks(scores.size(), 0);
    for (std::size_t position = 0; position < passing.size(); ++position) {
        ranks[passing[position]] = position + 1;
    }
    return ranks;
}

}  // namespace hermite::cli
