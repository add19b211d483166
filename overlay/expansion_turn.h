/// \file
/// Rotations of Hermite expansions of one lambda, acting on their coefficients.
#pragma once

#include <cstddef>
#include <vector>

namespace hermite::overlay {

/// Turns the coefficients of expansions of one order and one lambda (the same in x, y and z;
/// coefficients in lmn order) by rotations. The turned density at r is the density at R^T r,
/// and the basis function of indices (l, m, n), H_l H_m H_n times the Gaussian e^-r^2/2lambda^2,
/// turns into one whose leading monomial is (c_0 . r)^l (c_1 . r)^m (c_2 . r)^n, c_a column a
/// of R (times the basis's 2^D / lambda^D at total degree D). With one lambda the Gaussian does
/// not turn, and the basis functions of one degree span the same space turned or not (an
/// eigenspace of the isotropic harmonic oscillator), so the turned function is the combination
/// of the basis functions of its degree with the coefficients of that product's monomials: a
/// rotation only mixes the coefficients of one degree, and exactly (to rounding).
///
/// The map of a rotation (those products for every coefficient) is made once and applied to
/// any number of expansions, each at the cost of a matrix product per degree.
///
/// Thread safety: immutable once made.
class ExpansionTurn {
public:
    /// The tables for expansions of order `order`.
    explicit ExpansionTurn(unsigned int order);

    /// The number of coefficients of an expansion of the order.
    std::size_t Size() const { return degreeStart_.size(); }

    /// The number of values of a map (see MapOf).
    std::size_t MapSize() const { return mapSize_; }

    /// The map of the rotation `R` (row-major; every point p of the density goes to R p): per
    /// degree, the square block whose column for a coefficient holds the coefficients of its
    /// turned basis function over the basis functions of the degree, row-major, the blocks in
    /// order of degree.
    std::vector<double> MapOf(const double* R) const;

    /// Writes `coefficients` (Size() values) turned by the rotation whose map (from MapOf) is
    /// `map` to `turned` (Size() values).
    void Apply(const double* map, const double* coefficients, double* turned) const;

private:
    /// The number of coefficients of the degree of coefficient i.
    std::size_t BlockSize(std::size_t i) const {
        return (degreeOf_[i] + 1) * (degreeOf_[i] + 2) / 2;
    }

    /// Per coefficient: its degree, the first position of its degree, where its degree's block
    /// of a map starts, the coefficient of one degree less that it is one linear factor more
    /// than, and the axis of that factor (degrees >= 1).
    std::vector<unsigned int> degreeOf_;
    std::vector<unsigned int> degreeStart_;
    std::vector<std::size_t> blockStart_;
    std::vector<unsigned int> lowerOf_;
    std::vector<unsigned int> factorAxis_;
    /// Per axis and coefficient below the top degree, the position of the coefficient raised
    /// by one along the axis.
    std::vector<unsigned int> raised_[3];
    std::size_t mapSize_ = 0;
};

}  // namespace hermite::overlay
