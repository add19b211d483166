#include "overlay/orientation_scan.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <mutex>
#include <numeric>
#include <random>

namespace hermite::overlay {

namespace {

constexpr double kPi = 3.141592653589793;

/// The rotation of a unit quaternion (w, x, y, z).
RotationMatrix FromQuaternion(double w, double x, double y, double z) {
    return {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
            2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
            2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
}

/// A uniformly distributed random rotation (from a unit quaternion with normally distributed
/// components), drawn from the engine's raw output so that every platform draws the same.
RotationMatrix RandomRotation(std::mt19937_64& engine) {
    const auto uniform = [&engine] {
        return (static_cast<double>(engine() >> 11) + 0.5) / 9007199254740992.0;  // (0, 1)
    };
    double q[4];
    for (int i = 0; i < 4; i += 2) {
        // Box-Muller: two normal deviates from two uniform ones.
        const double radius = std::sqrt(-2.0 * std::log(uniform()));
        const double angle = 2.0 * kPi * uniform();
        q[i] = radius * std::cos(angle);
        q[i + 1] = radius * std::sin(angle);
    }
    const double norm = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    return FromQuaternion(q[0] / norm, q[1] / norm, q[2] / norm, q[3] / norm);
}

/// Rotation `i` of `n` of the super-Fibonacci spiral: unit quaternions spread evenly over the
/// 3-sphere by two incommensurable turns (constants sqrt(2) and the root of x^4 = x + 4), which
/// covers the rotations evenly for any n.
RotationMatrix SpiralRotation(unsigned int i, unsigned int n) {
    constexpr double phi = 1.4142135623730951;
    constexpr double psi = 1.533751168755204288;
    const double s = i + 0.5;
    const double r = std::sqrt(s / n);
    const double R = std::sqrt(1.0 - s / n);
    const double alpha = 2.0 * kPi * s / phi;
    const double beta = 2.0 * kPi * s / psi;
    return FromQuaternion(r * std::sin(alpha), r * std::cos(alpha), R * std::sin(beta),
                          R * std::cos(beta));
}

}  // namespace

std::shared_ptr<const TurnMaps> TurnMapsOf(unsigned int order,
                                           const std::vector<RotationMatrix>& rotations,
                                           bool transposed) {
    struct Entry {
        unsigned int order;
        bool transposed;
        std::vector<RotationMatrix> rotations;
        std::shared_ptr<const TurnMaps> maps;
    };
    // Enough for a run's shape scans (both turnings) at both lambdas' rotation sets and its
    // colour scans.
    constexpr std::size_t kKept = 8;
    static std::mutex mutex;
    static std::deque<Entry> kept;  // the last used first
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = std::find_if(kept.begin(), kept.end(), [&](const Entry& entry) {
        return entry.order == order && entry.transposed == transposed &&
               entry.rotations == rotations;
    });
    if (found != kept.end()) {
        Entry entry = std::move(*found);
        kept.erase(found);
        kept.push_front(std::move(entry));
        return kept.front().maps;
    }
    auto maps = std::make_shared<TurnMaps>(TurnMaps{ExpansionTurn(order), {}});
    for (const RotationMatrix& R : rotations) {
        const RotationMatrix Rt = {R[0], R[3], R[6], R[1], R[4], R[7], R[2], R[5], R[8]};
        const std::vector<double> map = maps->turn.MapOf(transposed ? Rt.data() : R.data());
        maps->maps.insert(maps->maps.end(), map.begin(), map.end());
    }
    kept.push_front({order, transposed, rotations, maps});
    if (kept.size() > kKept) {
        kept.pop_back();
    }
    return maps;
}

std::vector<RotationMatrix> StartOrientations(unsigned int spread, unsigned int random,
                                              std::uint64_t seed) {
    std::vector<RotationMatrix> rotations = {
        RotationMatrix{1, 0, 0, 0, 1, 0, 0, 0, 1},
        RotationMatrix{1, 0, 0, 0, -1, 0, 0, 0, -1},
        RotationMatrix{-1, 0, 0, 0, 1, 0, 0, 0, -1},
        RotationMatrix{-1, 0, 0, 0, -1, 0, 0, 0, 1},
    };
    for (unsigned int i = 0; i < spread; ++i) {
        rotations.push_back(SpiralRotation(i, spread));
    }
    std::mt19937_64 engine(seed);
    for (unsigned int i = 0; i < random; ++i) {
        rotations.push_back(RandomRotation(engine));
    }
    return rotations;
}

OrientationScan::OrientationScan(const Expansion& expansion, std::vector<RotationMatrix> rotations,
                                 Turning turning)
    : OrientationScan(std::move(Of({expansion}, std::move(rotations), turning).front())) {}

OrientationScan::OrientationScan(std::vector<RotationMatrix> rotations, std::size_t size)
    : rotations_(std::move(rotations)), size_(size) {
    weighted_.reserve(rotations_.size() * size_);
}

std::vector<OrientationScan> OrientationScan::Of(const std::vector<Expansion>& expansions,
                                                 std::vector<RotationMatrix> rotations,
                                                 Turning turning) {
    const Expansion& first = expansions.front();
    const unsigned int N = first.order;
    const std::vector<double> K = QVHermiteMath::computeKs(N);
    const double volume = 1.0 / (first.lambda[0] * first.lambda[1] * first.lambda[2]);
    std::vector<double> weight;
    for (unsigned int s = 0; s <= N; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m) {
                weight.push_back(volume * K[l] * K[m] * K[s - l - m]);
            }
        }
    }
    std::vector<OrientationScan> scans;
    for (std::size_t e = 0; e < expansions.size(); ++e) {
        scans.push_back(OrientationScan(rotations, weight.size()));
    }
    // Turning the other expansion by R is turning this one by R^T.
    const std::shared_ptr<const TurnMaps> maps =
        TurnMapsOf(N, rotations, turning == Turning::Other);
    std::vector<double> turned(weight.size());
    for (std::size_t k = 0; k < rotations.size(); ++k) {
        for (std::size_t e = 0; e < scans.size(); ++e) {
            maps->turn.Apply(maps->Map(k), expansions[e].coefficients.data(), turned.data());
            for (std::size_t i = 0; i < weight.size(); ++i) {
                scans[e].weighted_.push_back(turned[i] * weight[i]);
            }
        }
    }
    return scans;
}

std::vector<double> OrientationScan::Overlaps(const Expansion& other) const {
    std::vector<double> overlaps(rotations_.size());
    const double* f = other.coefficients.data();
    // Four rotations at a time: each sum is still taken in coefficient order, but the four are
    // independent, so that the additions overlap instead of each waiting for the one before.
    constexpr std::size_t kBlock = 4;
    std::size_t k = 0;
    for (; k + kBlock <= rotations_.size(); k += kBlock) {
        const double* q = weighted_.data() + k * size_;
        double sum[kBlock] = {0.0, 0.0, 0.0, 0.0};
        for (std::size_t i = 0; i < size_; ++i) {
            for (std::size_t b = 0; b < kBlock; ++b) {
                sum[b] += q[b * size_ + i] * f[i];
            }
        }
        std::copy(sum, sum + kBlock, overlaps.begin() + static_cast<std::ptrdiff_t>(k));
    }
    for (; k < rotations_.size(); ++k) {
        const double* q = weighted_.data() + k * size_;
        double sum = 0.0;
        for (std::size_t i = 0; i < size_; ++i) {
            sum += q[i] * f[i];
        }
        overlaps[k] = sum;
    }
    return overlaps;
}

std::vector<std::size_t> OrientationScan::Best(const Expansion& other, std::size_t count) const {
    return Largest(Overlaps(other), count);
}

std::vector<std::size_t> OrientationScan::Largest(const std::vector<double>& overlaps,
                                                  std::size_t count) {
    std::vector<std::size_t> order(overlaps.size());
    std::iota(order.begin(), order.end(), 0);
    count = std::min(count, order.size());
    std::partial_sort(order.begin(), order.begin() + count, order.end(),
                      [&overlaps](std::size_t a, std::size_t b) {
                          return overlaps[a] != overlaps[b] ? overlaps[a] > overlaps[b] : a < b;
                      });
    order.resize(count);
    return order;
}

}  // namespace hermite::overlay
