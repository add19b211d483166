// Rank metrics of a screen.

#include "screen/ranking.h"

#include <cmath>

namespace hermite::screen {

std::optional<RankMetric> ParseRankMetric(const std::string& text) {
    if (text == "shape") {
        return RankMetric::Shape;
    }
    if (text == "combo") {
        return RankMetric::Combo;
    }
    if (text == "es-combo") {
        return RankMetric::ElectrostaticCombo;
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
            return "combo score (shape + colour Tanimoto)";
        case RankMetric::ElectrostaticCombo:
            return "electrostatic combo score (shape + electrostatic Tanimoto)";
        case RankMetric::TverskyQuery:
            return "shape Tversky (query-weighted)";
        case RankMetric::TverskyFit:
            return "shape Tversky (fit-weighted)";
    }
    return "shape Tanimoto";
}

ScoreRange RankScoreRange(RankMetric metric) {
    switch (metric) {
        case RankMetric::Shape:
            return {0.0, 1.0};
        case RankMetric::Combo:
            return {0.0, 2.0};
        case RankMetric::ElectrostaticCombo:
            return {-1.0 / 3.0, 2.0};
        case RankMetric::TverskyQuery:
        case RankMetric::TverskyFit:
            return {0.0, 1.0 / (2.0 * std::sqrt(0.95 * 0.05))};
    }
    return {0.0, 1.0};
}

double RankScore(RankMetric metric, const overlay::Scores& scores) {
    switch (metric) {
        case RankMetric::Shape:
            return scores.shapeTanimoto;
        case RankMetric::Combo:
            return scores.combo;
        case RankMetric::ElectrostaticCombo:
            return scores.electrostaticCombo;
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

}  // namespace hermite::screen
