#include "overlay/exact_overlap.h"

#include "overlay/lanes.h"
#include "overlay/negative_exp.h"
#include "overlay/vector_width.h"

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

double Square(double x) {
    return x * x;
}

void Apply(const double* R, const double* p, double* out) {
    for (int i = 0; i < 3; ++i) {
        out[i] = R[3 * i] * p[0] + R[3 * i + 1] * p[1] + R[3 * i + 2] * p[2];
    }
}

/// The doubles of an array of lanes, lane after lane: element e, lane l at index e * kLanes + l.
double* Doubles(Lanes* lanes) {
    return reinterpret_cast<double*>(lanes);
}

/// The positions of a block of centres relative to the mean centre, with the gradient f and
/// the Hessian A (upper triangle xx, xy, xz, yy, yz, zz) of each centre's overlap with respect
/// to its position: one array of lanes per component, centre j in lane j % kLanes of element
/// j / kLanes, so that they are read four centres at once.
struct CentreBlock {
    static constexpr std::size_t kCapacity = 64;
    Lanes m[3][kCapacity / kLanes];
    Lanes f[3][kCapacity / kLanes];
    Lanes A[6][kCapacity / kLanes];
    std::size_t count = 0;

    /// Stores centre `count` at `position` with gradient `gradient` and Hessian `hessian`.
    void Push(const double* position, const double* gradient, const double* hessian) {
        const std::size_t element = count / kLanes, lane = count % kLanes;
        for (int a = 0; a < 3; ++a) {
            m[a][element][lane] = position[a];
            f[a][element][lane] = gradient[a];
        }
        for (int i = 0; i < 6; ++i) {
            A[i][element][lane] = hessian[i];
        }
        ++count;
    }

    /// Fills the lanes after the last centre with centres at the origin and with no overlap,
    /// which add nothing.
    void PadLanes() {
        const double zeros[6] = {0, 0, 0, 0, 0, 0};
        while (count % kLanes != 0) {
            Push(zeros, zeros, zeros);
        }
    }
};

/// The gradient and Hessian of an overlap with respect to the motion y of the moving centres
/// at y = 0, summed over the centres: every centre at m (relative to the mean centre g) goes to
/// p = R m + g + t, so dp/dt = I, dp/d(angle a) = v_a = G_a m = e_a x m (G_a the generator of
/// rotations about axis a) and, for a <= b in the order of the product Rx Ry Rz,
/// d2p/(d angle a d angle b) = G_a G_b m = e_a x (e_b x m) = e_b m_a - delta_ab m. With f and
/// A the gradient and Hessian of a centre's overlap with respect to p, the centre adds
///   f to dO/dt and m x f to dO/d(angles),
///   A to H_tt and A v_a to H_(angle a, t),
///   v_a . A v_b + f_b m_a - delta_ab (f . m) to H_(angle a, angle b).
/// With v_0 = (0, -m_z, m_y), v_1 = (m_z, 0, -m_x) and v_2 = (-m_y, m_x, 0), the products with
/// the zeros are left out.
struct RigidMotionSums {
    Lanes gradient[6] = {};
    Lanes tt[6] = {};     // upper triangle xx, xy, xz, yy, yz, zz
    Lanes rt[3][3] = {};  // rt[a][b]: angle a, translation b
    Lanes rr[6] = {};     // upper triangle

    /// Adds the centres of `block`, padded to whole lanes (see CentreBlock::PadLanes).
    void Add(const CentreBlock& block) {
        for (std::size_t e = 0; e < block.count / kLanes; ++e) {
            const Lanes &x = block.m[0][e], &y = block.m[1][e], &z = block.m[2][e];
            const Lanes &fx = block.f[0][e], &fy = block.f[1][e], &fz = block.f[2][e];
            const Lanes &xx = block.A[0][e], &xy = block.A[1][e], &xz = block.A[2][e],
                        &yy = block.A[3][e], &yz = block.A[4][e], &zz = block.A[5][e];
            for (int i = 0; i < 6; ++i) {
                tt[i] += block.A[i][e];
            }
            gradient[0] += y * fz - z * fy;
            gradient[1] += z * fx - x * fz;
            gradient[2] += x * fy - y * fx;
            gradient[3] += fx;
            gradient[4] += fy;
            gradient[5] += fz;
            // Av[a][b]: row b of A times v_a.
            const Lanes Av[3][3] = {{xy * -z + xz * y, yy * -z + yz * y, yz * -z + zz * y},
                                    {xx * z + xz * -x, xy * z + yz * -x, xz * z + zz * -x},
                                    {xx * -y + xy * x, xy * -y + yy * x, xz * -y + yz * x}};
            for (int a = 0; a < 3; ++a) {
                for (int b = 0; b < 3; ++b) {
                    rt[a][b] += Av[a][b];
                }
            }
            const Lanes fm = fx * x + fy * y + fz * z;
            rr[0] += -z * Av[0][1] + y * Av[0][2] + fx * x - fm;
            rr[1] += -z * Av[1][1] + y * Av[1][2] + fy * x;
            rr[2] += -z * Av[2][1] + y * Av[2][2] + fz * x;
            rr[3] += z * Av[1][0] - x * Av[1][2] + fy * y - fm;
            rr[4] += z * Av[2][0] - x * Av[2][2] + fz * y;
            rr[5] += -y * Av[2][0] + x * Av[2][1] + fz * z - fm;
        }
    }

    /// Writes the gradient (6) and the full Hessian (6 x 6, row-major; angles, then t).
    void Write(double* g, double* H) const {
        for (int i = 0; i < 6; ++i) {
            g[i] = SumOfLanes(gradient[i]);
        }
        int i = 0;
        for (int a = 0; a < 3; ++a) {
            for (int b = a; b < 3; ++b, ++i) {
                H[6 * a + b] = H[6 * b + a] = SumOfLanes(rr[i]);
                H[6 * (3 + a) + 3 + b] = H[6 * (3 + b) + 3 + a] = SumOfLanes(tt[i]);
            }
            for (int b = 0; b < 3; ++b) {
                H[6 * a + 3 + b] = H[6 * (3 + b) + a] = SumOfLanes(rt[a][b]);
            }
        }
    }
};

}  // namespace

std::vector<unsigned int> ExactOverlapObjective::KindsOf(const std::vector<Point>& points,
                                                         const std::vector<unsigned int>& channels,
                                                         std::vector<GaussianKind>& kinds) {
    std::vector<unsigned int> kindOf(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        const GaussianKind kind{points[i].prefactor, points[i].exponent, channels[i]};
        const auto found = std::find_if(kinds.begin(), kinds.end(), [&](const GaussianKind& k) {
            return k.prefactor == kind.prefactor && k.exponent == kind.exponent &&
                   k.channel == kind.channel;
        });
        kindOf[i] = static_cast<unsigned int>(found - kinds.begin());
        if (found == kinds.end()) {
            kinds.push_back(kind);
        }
    }
    return kindOf;
}

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
    // Molecules repeat a few kinds of Gaussian (one for all the atoms of the shape), so pair
    // constants are kept per pair of kinds: a small table, whatever the number of atoms.
    std::vector<GaussianKind> fixedKinds, movingKinds;
    fixedKind_ = KindsOf(fixed_, fixedChannels, fixedKinds);
    movingKind_ = KindsOf(moving_, movingChannels, movingKinds);
    fixedKindCount_ = fixedKinds.size();
    for (const GaussianKind& m : movingKinds) {
        for (const GaussianKind& f : fixedKinds) {
            const double exponentSum = f.exponent + m.exponent;
            const double piOverP = kPi / exponentSum;
            const bool sameChannel = f.channel == m.channel;
            kindPairs_.push_back(
                {sameChannel ? f.prefactor * m.prefactor * piOverP * std::sqrt(piOverP) : 0.0,
                 f.exponent * m.exponent / exponentSum});
        }
    }
    BuildCells(fixedChannels, movingChannels);
    StoreFixedCoordinates();
    StorePairConstants();
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
    for (std::size_t i = 0; i < fixed_.size(); ++i) {
        for (std::size_t movingKind = 0; movingKind * fixedKindCount_ < kindPairs_.size();
             ++movingKind) {
            const Pair& pair = kindPairs_[movingKind * fixedKindCount_ + fixedKind_[i]];
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
    // The fixed centres in cell order, so that the terms of a cell are read from consecutive
    // memory.
    std::vector<unsigned int> order(fixed_.size());
    std::vector<std::size_t> next(cellStart_.begin(), cellStart_.end() - 1);
    for (unsigned int i = 0; i < fixed_.size(); ++i) {
        order[next[slotOf(i)]++] = i;
    }
    std::vector<Point> sortedFixed;
    std::vector<unsigned int> sortedKinds;
    for (const unsigned int i : order) {
        sortedFixed.push_back(fixed_[i]);
        sortedKinds.push_back(fixedKind_[i]);
    }
    fixed_ = std::move(sortedFixed);
    fixedKind_ = std::move(sortedKinds);
}

void ExactOverlapObjective::StoreFixedCoordinates() {
    for (int a = 0; a < 3; ++a) {
        fixedCoords_[a].clear();
        for (const Point& f : fixed_) {
            fixedCoords_[a].push_back(f.x[a]);
        }
    }
}

void ExactOverlapObjective::StorePairConstants() {
    pairK_.clear();
    pairC_.clear();
    for (std::size_t movingKind = 0; movingKind * fixedKindCount_ < kindPairs_.size();
         ++movingKind) {
        for (const unsigned int fixedKind : fixedKind_) {
            const Pair& pair = kindPairs_[movingKind * fixedKindCount_ + fixedKind];
            pairK_.push_back(pair.k);
            pairC_.push_back(pair.C);
        }
    }
}

void ExactOverlapObjective::SetMoving(const std::vector<QVSystem::QVGaussian>& moving) {
    PlaceMoving(moving, nullptr);
}

void ExactOverlapObjective::SetMoving(const std::vector<QVSystem::QVGaussian>& moving,
                                      const QVChem::QVTrans& motion) {
    PlaceMoving(moving, &motion);
}

void ExactOverlapObjective::PlaceMoving(const std::vector<QVSystem::QVGaussian>& moving,
                                        const QVChem::QVTrans* motion) {
    const std::size_t n = moving.size();
    for (std::vector<double>& column : placed_) {
        column.resize(n);
    }
    double* const x = placed_[0].data();
    double* const y = placed_[1].data();
    double* const z = placed_[2].data();
    for (std::size_t j = 0; j < n; ++j) {
        x[j] = moving[j].GetX();
        y[j] = moving[j].GetY();
        z[j] = moving[j].GetZ();
    }
    if (motion != nullptr) {
        // Moved in double precision and rounded to float, as MovedGaussians places them; one
        // coordinate array each, so that the compiler moves several centres at once.
        double R[9], t[3];
        motion->Extract(R, t, true);
        RunKernel([&] {
            for (std::size_t j = 0; j < n; ++j) {
                const double p[3] = {x[j], y[j], z[j]};
                x[j] = static_cast<float>(R[0] * p[0] + R[1] * p[1] + R[2] * p[2] + t[0]);
                y[j] = static_cast<float>(R[3] * p[0] + R[4] * p[1] + R[5] * p[2] + t[1]);
                z[j] = static_cast<float>(R[6] * p[0] + R[7] * p[1] + R[8] * p[2] + t[2]);
            }
        });
    }
    double centre[3] = {0.0, 0.0, 0.0};
    for (std::size_t j = 0; j < n; ++j) {
        centre[0] += x[j];
        centre[1] += y[j];
        centre[2] += z[j];
    }
    const double count = n == 0 ? 1.0 : static_cast<double>(n);
    for (int a = 0; a < 3; ++a) {
        centre_[a] = centre[a] / count;
    }
    moving_.resize(n);
    for (std::size_t j = 0; j < n; ++j) {
        Point& m = moving_[j];
        m.x[0] = x[j] - centre_[0];
        m.x[1] = y[j] - centre_[1];
        m.x[2] = z[j] - centre_[2];
        m.prefactor = moving[j].GetPrefactor();
        m.exponent = moving[j].GetExponent();
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

template <class Visit>
void ExactOverlapObjective::ForEachNearBlock(std::size_t j, const double* p, Visit visit) const {
    const std::size_t row = movingKind_[j] * fixed_.size();
    const double* K = pairK_.data() + row;
    const double* C = pairC_.data() + row;
    const double* X = fixedCoords_[0].data();
    const double* Y = fixedCoords_[1].data();
    const double* Z = fixedCoords_[2].data();
    NearBlock near;
    std::size_t index[NearBlock::kCapacity];
    const auto flush = [&] {
        for (std::size_t t = 0; t < near.count; ++t) {
            const std::size_t i = index[t];
            near.d[0][t] = X[i] - p[0];
            near.d[1][t] = Y[i] - p[1];
            near.d[2][t] = Z[i] - p[2];
            near.k[t] = K[i];
            near.term[t] = C[i];
        }
        for (std::size_t t = 0; t < near.count; ++t) {
            const double exponent =
                near.k[t] * (Square(near.d[0][t]) + Square(near.d[1][t]) + Square(near.d[2][t]));
            near.term[t] *= ExpOfNegative(-exponent);
        }
        visit(near);
        near.count = 0;
    };
    // The fixed centres of [begin, end) whose exponents k d^2 are within the cut-off, by index
    // into `index`. Exponents are taken in blocks, several at once; whether a centre is near
    // cannot be predicted, so each index is written in any case and kept by counting it,
    // without a branch.
    const auto gather = [&](std::size_t begin, std::size_t end) {
        double exponent[NearBlock::kCapacity];
        for (std::size_t block = begin; block < end; block += NearBlock::kCapacity) {
            const std::size_t size = std::min(NearBlock::kCapacity, end - block);
            for (std::size_t t = 0; t < size; ++t) {
                const std::size_t i = block + t;
                exponent[t] =
                    K[i] * (Square(X[i] - p[0]) + Square(Y[i] - p[1]) + Square(Z[i] - p[2]));
            }
            for (std::size_t t = 0; t < size; ++t) {
                index[near.count] = block + t;
                near.count += exponent[t] <= kCutoff ? 1 : 0;
                if (near.count == NearBlock::kCapacity) {
                    flush();
                }
            }
        }
    };
    if (grids_.empty()) {
        gather(0, fixed_.size());
    } else {
        ForEachNearRow(grids_[movingChannel_[j]], p, [&](std::size_t first, std::size_t last) {
            gather(cellStart_[first], cellStart_[last + 1]);
        });
    }
    flush();
}

bool ExactOverlapObjective::Overlaps(std::size_t j) const {
    return grids_.empty() || movingChannel_[j] != kNoChannel;
}

double ExactOverlapObjective::Evaluate(const double* y, double* gradient) const {
    double R[9], dR[3][9];
    RotationAndDerivatives(y, R, dR);
    double overlap = 0.0;
    double g[6] = {0, 0, 0, 0, 0, 0};
    for (std::size_t j = 0; j < moving_.size(); ++j) {
        if (!Overlaps(j)) {
            continue;  // nothing fixed in its channel
        }
        const Point& m = moving_[j];
        double p[3];
        Apply(R, m.x, p);
        for (int i = 0; i < 3; ++i) {
            p[i] += centre_[i] + y[3 + i];
        }
        // dO/dp of this moving centre: sum over fixed centres of 2 k C e (q - p).
        double force[3] = {0, 0, 0};
        ForEachNearBlock(j, p, [&](const NearBlock& near) {
            // Summed in locals: the block's arrays cannot then alias the sums.
            double sum = 0.0, x = 0.0, y = 0.0, z = 0.0;
            for (std::size_t t = 0; t < near.count; ++t) {
                sum += near.term[t];
                const double scale = 2.0 * near.k[t] * near.term[t];
                x += scale * near.d[0][t];
                y += scale * near.d[1][t];
                z += scale * near.d[2][t];
            }
            overlap += sum;
            force[0] += x;
            force[1] += y;
            force[2] += z;
        });
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

double ExactOverlapObjective::Curvature(double* gradient, double* hessian) const {
    return RunKernel([&] {
        double overlap = 0.0;
        RigidMotionSums sums;
        CentreBlock block;
        const auto flush = [&] {
            block.PadLanes();
            sums.Add(block);
            block.count = 0;
        };
        for (std::size_t j = 0; j < moving_.size(); ++j) {
            if (!Overlaps(j)) {
                continue;
            }
            const Point& m = moving_[j];
            const double p[3] = {m.x[0] + centre_[0], m.x[1] + centre_[1], m.x[2] + centre_[2]};
            // The gradient f and the Hessian A of the overlap with respect to this centre's
            // position: f = sum of s d and A = sum of 2k s d d^T - (sum of s) I, with d = q - p,
            // T = C e^{-k d^2} and s = 2k T.
            double f[3] = {0, 0, 0};
            double A[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
            double diagonal = 0.0;
            ForEachNearBlock(j, p, [&](const NearBlock& near) {
                // Summed in locals: the block's arrays cannot then alias the sums.
                double sum = 0.0, sumS = 0.0, fx = 0.0, fy = 0.0, fz = 0.0;
                double xx = 0.0, xy = 0.0, xz = 0.0, yy = 0.0, yz = 0.0, zz = 0.0;
                for (std::size_t t = 0; t < near.count; ++t) {
                    const double x = near.d[0][t], y = near.d[1][t], z = near.d[2][t];
                    const double s = 2.0 * near.k[t] * near.term[t];
                    const double twoKs = 2.0 * near.k[t] * s;
                    sum += near.term[t];
                    sumS += s;
                    fx += s * x;
                    fy += s * y;
                    fz += s * z;
                    xx += twoKs * x * x;
                    xy += twoKs * x * y;
                    xz += twoKs * x * z;
                    yy += twoKs * y * y;
                    yz += twoKs * y * z;
                    zz += twoKs * z * z;
                }
                overlap += sum;
                diagonal += sumS;
                f[0] += fx;
                f[1] += fy;
                f[2] += fz;
                A[0] += xx;
                A[1] += xy;
                A[2] += xz;
                A[4] += yy;
                A[5] += yz;
                A[8] += zz;
            });
            const double upper[6] = {A[0] - diagonal, A[1], A[2],
                                     A[4] - diagonal, A[5], A[8] - diagonal};
            block.Push(m.x, f, upper);
            if (block.count == CentreBlock::kCapacity) {
                flush();
            }
        }
        flush();
        sums.Write(gradient, hessian);
        return overlap;
    });
}

double ExactOverlapObjective::Curvature(const OverlapField& field, double* gradient,
                                        double* hessian) const {
    return RunKernel([&] {
        double overlap = 0.0;
        RigidMotionSums sums;
        CentreBlock block;
        for (std::size_t first = 0; first < moving_.size(); first += CentreBlock::kCapacity) {
            const std::size_t count = std::min(CentreBlock::kCapacity, moving_.size() - first);
            // The field writes each centre's gradient and Hessian straight into the block's
            // lanes (centre j at element j / kLanes, lane j % kLanes: index j of each
            // component's doubles), where they are then scaled by the centre's prefactor.
            double* const m[3] = {Doubles(block.m[0]), Doubles(block.m[1]), Doubles(block.m[2])};
            double* const f[3] = {Doubles(block.f[0]), Doubles(block.f[1]), Doubles(block.f[2])};
            double* const A[6] = {Doubles(block.A[0]), Doubles(block.A[1]), Doubles(block.A[2]),
                                  Doubles(block.A[3]), Doubles(block.A[4]), Doubles(block.A[5])};
            double position[3][CentreBlock::kCapacity];
            double prefactor[CentreBlock::kCapacity];
            for (std::size_t j = 0; j < count; ++j) {
                const Point& point = moving_[first + j];
                for (int a = 0; a < 3; ++a) {
                    m[a][j] = point.x[a];
                    position[a][j] = point.x[a] + centre_[a];
                }
                prefactor[j] = point.prefactor;
            }
            const double* const positions[3] = {position[0], position[1], position[2]};
            double value[CentreBlock::kCapacity];
            field.At(count, positions, value, f, A);
            for (std::size_t j = 0; j < count; ++j) {
                overlap += prefactor[j] * value[j];
            }
            for (int a = 0; a < 3; ++a) {
                for (std::size_t j = 0; j < count; ++j) {
                    f[a][j] = prefactor[j] * f[a][j];
                }
            }
            for (int i = 0; i < 6; ++i) {
                for (std::size_t j = 0; j < count; ++j) {
                    A[i][j] = prefactor[j] * A[i][j];
                }
            }
            block.count = count;
            block.PadLanes();
            sums.Add(block);
        }
        sums.Write(gradient, hessian);
        return overlap;
    });
}

double ExactOverlapObjective::operator()(const double* y) {
    return -Evaluate(y, nullptr);
}

double ExactOverlapObjective::operator()(const double* y, double* gradient) {
    return -Evaluate(y, gradient);
}

}  // namespace hermite::overlay
