/// \file
/// The Hermite overlap objective of several density channels at once: the shape and each colour
/// feature type, turned and moved together by the same six variables.
#pragma once

#include <memory>
#include <vector>

#include "overlay/expansion_turn.h"
#include "overlay/fast_overlap.h"

namespace hermite::overlay {

/// The weighted sum over channels c of w_c times the objective `FastOverlap` of the channel's
/// reference and fit expansions (so minus the weighted overlap). Every channel shares the
/// variables: Euler angles x[0..2] turning the references, translation x[3..5] of the fits.
///
/// Thread safety: an object owns its scratch space; one object per thread.
class JointOverlap : public QVOpt::QVFunc1 {
public:
    using QVFunc1::operator();

    /// Adds a channel: the `reference` and `fit` coefficients evaluated with `plan`. The
    /// channels keep the order they are added in.
    void AddChannel(std::shared_ptr<const FastOverlap::Plan> plan, std::vector<double> reference,
                    std::vector<double> fit, double weight);
    /// Replaces the fit coefficients of channel `channel` (same order and lambdas).
    void SetFitCoefficients(std::size_t channel, const std::vector<double>& coefficients);
    /// Sets the fit coefficients of channel `channel` to `coefficients` (of one lambda) turned
    /// by the rotation whose map by `turn` is `map` (see ExpansionTurn).
    void TurnFit(std::size_t channel, const std::vector<double>& coefficients,
                 const ExpansionTurn& turn, const double* map);
    std::size_t NumChannels() const { return channels_.size(); }

    unsigned int NumVar() const override { return 6; }
    double operator()(const double* x) override;
    double operator()(const double* x, double* gradient) override;

private:
    std::vector<std::unique_ptr<FastOverlap>> channels_;
    std::vector<double> weights_;
};

}  // namespace hermite::overlay
