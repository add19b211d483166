#include "overlay/exact_overlap.h"

#include <algorithm>
#include <cmath>

namespace hermite::overlay {

namespace {

constexpr double kPi = 3.141592653589793;

/// The 3 x 3 row-major product a b.
void Multiply(const double* a, const double* b, double* out) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            out[3 * i + j] = a[3 * i] * b[j] + a[3 * i + 1] * b[3 + j] + a[3 * i + 2] * b[6 + j];
        }
    }
}

/// Rx(a) Ry(b) Rz(c) and its derivatives with respect to a, b and c.
void RotationAndDerivatives(const double* angles, double* R, double (*dR)[9]) {
    double s[3], c[3];
    for (int k = 0; k < 3; ++k) {
        ::sincos(angles[k], &s[k], &c[k]);
    }
    const double Rx[9] = {1, 0, 0, 0, c[0], -s[0], 0, s[0], c[0]};
    const double Ry[9] = {c[1], 0, s[1], 0, 1, 0, -s[1], 0, c[1]};
    const double Rz[9] = {c[2], -s[2], 0, s[2], c[2], 0, 0, 0, 1};
    const double dRx[9] = {0, 0, 0, 0, -s[0], -c[0], 0, c[0], -s[0]};
    const double dRy[9] = {-s[1], 0, c[1], 0, 0, 0, -c[1], 0, -s[1]};
    const double dRz[9] = {-s[2], -c[2], 0, c[2], -s[2], 0, 0, 0, 0};
    double tmp[9];
    Multiply(Ry, Rz, tmp);
    Multiply(Rx, tmp, R);
    Multiply(dRx, tmp, dR[0]);
    Multiply(dRy, Rz, tmp);
    Multiply(Rx, tmp, dR[1]);
    Multiply(Ry, dRz, tmp);
    Multiply(Rx, tmp, dR[2]);
}

void Apply(const double* R, const double* p, double* out) {
    for (int i = 0; i < 3; ++i) {
        out[i] = R[3 * i] * p[0] + R[3 * i + 1] * p[1] + R[3 * i + 2] * p[2];
    }
}

}  // namespace

ExactOverlapObjective::ExactOverlapObjective(const std::vector<QVSystem::QVGaussian>& fixed,
                                             const std::vector<QVSystem::QVGaussian>& moving)
    : ExactOverlapObjective(fixed, moving, std::vector<unsigned int>(fixed.size(), 0),
                            std::vector<unsigned int>(moving.size(), 0)) {}

ExactOverlapObjective::ExactOverlapObjective(const std::vector<QVSystem::QVGaussian>& fixed,
                                             const std::vector<QVSystem::QVGaussian>& moving,
                                             const std::vector<unsigned int>& fixedChannels,
                                             const std::vector<unsigned int>& movingChannels)
    : centre_{0.0, 0.0, 0.0} {
    for (const QVSystem::QVGaussian& g : fixed) {
        fixed_.push_back({{g.GetX(), g.GetY(), g.GetZ()}, g.GetPrefactor(), g.GetExponent()});
    }
    SetMoving(moving);
    for (std::size_t j = 0; j < moving_.size(); ++j) {
        const Point& m = moving_[j];
        for (std::size_t i = 0; i < fixed_.size(); ++i) {
            const Point& f = fixed_[i];
            const double exponentSum = f.exponent + m.exponent;
            const double piOverP = kPi / exponentSum;
            const bool sameChannel = fixedChannels[i] == movingChannels[j];
            pairs_.push_back(
                {sameChannel ? f.prefactor * m.prefactor * piOverP * std::sqrt(piOverP) : 0.0,
                 f.exponent * m.exponent / exponentSum});
        }
    }
    BuildCells(fixedChannels, movingChannels);
}

void ExactOverlapObjective::BuildCells(const std::vector<unsigned int>& fixedChannels,
                                       const std::vector<unsigned int>& movingChannels) {
    // Channels numbered densely in order of first appearance among the fixed centres.
    std::vector<unsigned int> channelIds;
    const auto denseChannel = [&channelIds](unsigned int channel) {
        const auto found = std::find(channelIds.begin(), channelIds.end(), channel);
        return static_cast<unsigned int>(found - channelIds.begin());
    };
    std::vector<unsigned int> fixedChannel(fixed_.size());
    for (std::size_t i = 0; i < fixed_.size(); ++i) {
        if (denseChannel(fixedChannels[i]) == channelIds.size()) {
            channelIds.push_back(fixedChannels[i]);
        }
        fixedChannel[i] = denseChannel(fixedChannels[i]);
    }
    movingChannel_.assign(moving_.size(), kNoChannel);
    for (std::size_t j = 0; j < moving_.size(); ++j) {
        const unsigned int channel = denseChannel(movingChannels[j]);
        movingChannel_[j] = channel < channelIds.size() ? channel : kNoChannel;
    }

    // Each channel's reach: k d^2 > kCutoff for every pair of it farther apart than this.
    std::vector<double> smallestK(channelIds.size(), INFINITY);
    for (std::size_t j = 0; j < moving_.size(); ++j) {
        for (std::size_t i = 0; i < fixed_.size(); ++i) {
            const Pair& pair = pairs_[j * fixed_.size() + i];
            if (pair.C != 0.0) {
                smallestK[fixedChannel[i]] = std::min(smallestK[fixedChannel[i]], pair.k);
            }
        }
    }
    grids_.assign(channelIds.size(), Grid());
    for (std::size_t c = 0; c < grids_.size(); ++c) {
        if (std::isinf(smallestK[c])) {
            smallestK[c] = 1.0;  // no pair of this channel counts: any grid will do
        }
        if (!(smallestK[c] > 0.0) || !std::isfinite(smallestK[c])) {
            grids_.clear();  // no finite reach: every pair is visited
            return;
        }
        grids_[c].reach = std::sqrt(kCutoff / smallestK[c]);
    }
    for (int a = 0; a < 3; ++a) {
        for (Grid& grid : grids_) {
            grid.origin[a] = INFINITY;
        }
    }
    std::vector<double> extent(3 * grids_.size(), -INFINITY);
    for (std::size_t i = 0; i < fixed_.size(); ++i) {
        Grid& grid = grids_[fixedChannel[i]];
        for (int a = 0; a < 3; ++a) {
            grid.origin[a] = std::min(grid.origin[a], fixed_[i].x[a]);
            extent[3 * fixedChannel[i] + a] =
                std::max(extent[3 * fixedChannel[i] + a], fixed_[i].x[a]);
        }
    }
    std::size_t count = 0;
    for (std::size_t c = 0; c < grids_.size(); ++c) {
        Grid& grid = grids_[c];
        grid.first = count;
        for (int a = 0; a < 3; ++a) {
            grid.cells[a] = static_cast<int>((extent[3 * c + a] - grid.origin[a]) / grid.reach) + 1;
        }
        count += static_cast<std::size_t>(grid.cells[0]) * grid.cells[1] * grid.cells[2];
    }

    const auto slotOf = [&](unsigned int i) { return grids_[fixedChannel[i]].CellOf(fixed_[i].x); };
    cellStart_.assign(count + 1, 0);
    for (unsigned int i = 0; i < fixed_.size(); ++i) {
        ++cellStart_[slotOf(i) + 1];
    }
    for (std::size_t c = 0; c < count; ++c) {
        cellStart_[c + 1] += cellStart_[c];
    }
    // The fixed centres, and the pair constants of every moving centre with them, in cell
    // order, so that the terms of a cell are read from consecutive memory.
    std::vector<unsigned int> order(fixed_.size());
    std::vector<std::size_t> next(cellStart_.begin(), cellStart_.end() - 1);
    for (unsigned int i = 0; i < fixed_.size(); ++i) {
        order[next[slotOf(i)]++] = i;
    }
    std::vector<Point> sortedFixed;
    std::vector<Pair> sortedPairs;
    for (const unsigned int i : order) {
        sortedFixed.push_back(fixed_[i]);
    }
    for (std::size_t j = 0; j < moving_.size(); ++j) {
        for (const unsigned int i : order) {
            sortedPairs.push_back(pairs_[j * fixed_.size() + i]);
        }
    }
    fixed_ = std::move(sortedFixed);
    pairs_ = std::move(sortedPairs);
}

void ExactOverlapObjective::SetMoving(const std::vector<QVSystem::QVGaussian>& moving) {
    centre_[0] = centre_[1] = centre_[2] = 0.0;
    for (const QVSystem::QVGaussian& g : moving) {
        centre_[0] += g.GetX();
        centre_[1] += g.GetY();
        centre_[2] += g.GetZ();
    }
    const double count = moving.empty() ? 1.0 : static_cast<double>(moving.size());
    for (double& c : centre_) {
        c /= count;
    }
    moving_.clear();
    for (const QVSystem::QVGaussian& g : moving) {
        moving_.push_back({{g.GetX() - centre_[0], g.GetY() - centre_[1], g.GetZ() - centre_[2]},
                           g.GetPrefactor(),
                           g.GetExponent()});
    }
}

QVChem::QVTrans ExactOverlapObjective::Motion(const double* y) const {
    double R[9], dR[3][9];
    RotationAndDerivatives(y, R, dR);
    // p -> R (p - g) + g + t = R p + (g + t - R g).
    double Rg[3];
    Apply(R, centre_, Rg);
    const double translation[3] = {centre_[0] + y[3] - Rg[0], centre_[1] + y[4] - Rg[1],
                                   centre_[2] + y[5] - Rg[2]};
    return QVChem::QVTrans(R, translation);
}

double ExactOverlapObjective::Evaluate(const double* y, double* gradient) const {
    double R[9], dR[3][9];
    RotationAndDerivatives(y, R, dR);
    double overlap = 0.0;
    double g[6] = {0, 0, 0, 0, 0, 0};
    const std::size_t fixedCount = fixed_.size();
    for (std::size_t j = 0; j < moving_.size(); ++j) {
        if (!grids_.empty() && movingChannel_[j] == kNoChannel) {
            continue;  // nothing fixed in its channel
        }
        const Point& m = moving_[j];
        const Pair* pairs = pairs_.data() + j * fixedCount;
        double p[3];
        Apply(R, m.x, p);
        for (int i = 0; i < 3; ++i) {
            p[i] += centre_[i] + y[3 + i];
        }
        // dO/dp of this moving centre: sum over fixed centres of 2 k C e (q - p).
        double force[3] = {0, 0, 0};
        const auto add = [&](std::size_t i) {
            const Point& f = fixed_[i];
            const Pair& constants = pairs[i];
            const double d[3] = {f.x[0] - p[0], f.x[1] - p[1], f.x[2] - p[2]};
            const double exponent = constants.k * (d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
            if (exponent > kCutoff || constants.C == 0.0) {
                return;
            }
            const double term = constants.C * std::exp(-exponent);
            overlap += term;
            const double scale = 2.0 * constants.k * term;
            for (int a = 0; a < 3; ++a) {
                force[a] += scale * d[a];
            }
        };
        if (grids_.empty()) {
            for (std::size_t i = 0; i < fixedCount; ++i) {
                add(i);
            }
        } else {
            ForEachNearCell(grids_[movingChannel_[j]], p, [&](std::size_t cell) {
                for (std::size_t i = cellStart_[cell]; i < cellStart_[cell + 1]; ++i) {
                    add(i);
                }
            });
        }
        if (gradient != nullptr) {
            for (int a = 0; a < 3; ++a) {
                double dp[3];
                Apply(dR[a], m.x, dp);
                g[a] += force[0] * dp[0] + force[1] * dp[1] + force[2] * dp[2];
                g[3 + a] += force[a];
            }
        }
    }
    if (gradient != nullptr) {
        for (int i = 0; i < 6; ++i) {
            gradient[i] = -g[i];
        }
    }
    return overlap;
}

double ExactOverlapObjective::operator()(const double* y) {
    return -Evaluate(y, nullptr);
}

double ExactOverlapObjective::operator()(const double* y, double* gradient) {
    return -Evaluate(y, gradient);
}

}  // namespace hermite::overlay
